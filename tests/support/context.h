// Databases beside that of the process's folder, for tests of one store.
#ifndef TESTS_SUPPORT_CONTEXT_H
#define TESTS_SUPPORT_CONTEXT_H

#include <fcntl.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "api/filestore_context.h"
#include "client/s_filestoreC.h"
#include "cmn/status.h"
#include "os/files.h"

// A folder with a context of its own.
class Beside {
public:
    explicit Beside(const std::string& name) {
        std::filesystem::create_directory(name);
        folder_ = os::openFile(name.c_str(), O_RDONLY | O_DIRECTORY);
        EXPECT_EQ(kOk, filestore_contextMake(folder_.get(), &id_));
    }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;
    ~Beside() { (void)filestore_contextDelete(id_); }

    unsigned int id() const { return id_; }

private:
    os::File folder_;
    unsigned int id_ = 0;
};

// The thread is in the context while it lives.
class Inside {
public:
    explicit Inside(unsigned int id) { EXPECT_EQ(kOk, filestore_contextEnter(id, &before_)); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { EXPECT_EQ(kOk, filestore_contextLeave(before_)); }

    // The database there, or in the process's folder for a thread that has entered none.
    static void prepareAndOpen(const char* password) {
        ASSERT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
        ASSERT_EQ(kOk, CMN_FILESTORE_S.open(password));
    }

private:
    unsigned int before_ = 0;
};

#endif  // TESTS_SUPPORT_CONTEXT_H
