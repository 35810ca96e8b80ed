// A database with records of every kind in many folders, for tests that change its
// password.
#ifndef TESTS_SERVICE_RECRYPT_DATABASE_H
#define TESTS_SERVICE_RECRYPT_DATABASE_H

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "store/rw_locker.h"
#include "tests/support/test_store.h"

class RecryptDatabase {
public:
    struct Row {
        const char* folder;
        const char* name;
        Contents contents;
    };

    static const std::vector<Row>& rows() {
        using namespace std::string_literals;
        static const std::vector<Row> kRows = {
            {"./db", "top", {{{2, 7, "\x01\x02", true}}, "body at the top", true}},
            {"./db/settings", "plain", {{{3, 1, "alice\0"s, false}}, "plain body", false}},
            {"./db/keys", "bare", {{{1, 1, "\x2a\0\0\0"s, false}}, {}, false}},
            {"./db/keys", "secret", {{{4, 1, "text", false}}, "secret body", true}},
            {"./db/crm", "attribute", {{{2, 1, "secret attribute", true}}, "plain body", false}},
            {"./db/certificates/remote",
             "both",
             {{{2, 2, "\0\xff"s, true}, {2, 3, "x", true}}, "\0binary\n"s, true}},
            {"./db/lsps", "large", {{{2, 1, std::string(3000, 'k'), true}}, large(5000), true}},
        };
        return kRows;
    }

    static std::string large(std::size_t size) { return std::string(size, 'b'); }

    // Open under `password`.
    explicit RecryptDatabase(const std::string& password = "old") : store(password) {
        for (const Row& row : rows()) {
            aFileStore record = handle(row);
            fill(record, row.contents);
            if (record.write() != kOk) {
                throw std::runtime_error(std::string("write ") + row.name);
            }
        }
    }

    static aFileStore handle(const Row& row) {
        aFileStore record;
        if (record.setFolderName(row.folder) != kOk || record.setName(row.name) != kOk) {
            throw std::runtime_error(row.name);
        }
        return record;
    }

    // The open database has all records, as they were written.
    static void expectComplete() {
        for (const Row& row : rows()) {
            SCOPED_TRACE(row.name);
            aFileStore record = handle(row);
            ASSERT_EQ(kOk, record.read());
            ASSERT_EQ(kOk, record.decrypt());
            EXPECT_EQ(row.contents, contentsOf(record));
        }
    }

    // As a later process finds it: exactly one of the two passwords opens it, and all
    // of it. Returns that password.
    std::string expectOneOpens(const std::string& one, const std::string& other) {
        store.restart(nullptr);
        EXPECT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
        const bool first = CMN_FILESTORE_S.checkPwd(one.c_str()) == kOk;
        const std::string& right = first ? one : other;
        const std::string& wrong = first ? other : one;
        EXPECT_EQ(kWrongPassword, CMN_FILESTORE_S.checkPwd(wrong.c_str()));
        EXPECT_EQ(kOk, CMN_FILESTORE_S.open(right.c_str()));
        expectComplete();
        return right;
    }

    // Keeps the present database, and begins again from it, open under `password`.
    static void keep() {
        std::filesystem::copy("db", "kept", std::filesystem::copy_options::recursive);
    }
    void beginAgain(const char* password) {
        for (const char* const folder : {"db", "new_db", "old_db"}) {
            std::filesystem::remove_all(folder);
        }
        std::filesystem::copy("kept", "db", std::filesystem::copy_options::recursive);
        store.restart(password);
    }

    // Nobody holds the store-wide lock.
    static void expectUnlocked() {
        ASSERT_EQ(0, pthread_rwlock_trywrlock(&RWLocker::m_RWMutex));
        pthread_rwlock_unlock(&RWLocker::m_RWMutex);
    }

    TestStore store;
};

#endif  // TESTS_SERVICE_RECRYPT_DATABASE_H
