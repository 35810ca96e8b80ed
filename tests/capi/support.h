// What tests of the C functions share: a database in a folder of its own, owners of what is handed
// out, and failures that say what the library said.
#ifndef TESTS_CAPI_SUPPORT_H
#define TESTS_CAPI_SUPPORT_H

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "capi/filestore.h"
#include "tests/support/temp_dir.h"

namespace capi_test {

struct Close {
    void operator()(filestore_db* db) const { filestore_close(db); }
    void operator()(filestore_record* record) const { filestore_record_free(record); }
    void operator()(filestore_list* list) const { filestore_list_free(list); }
    void operator()(void* block) const { filestore_free(block); }
};
using Db = std::unique_ptr<filestore_db, Close>;
using Record = std::unique_ptr<filestore_record, Close>;
using List = std::unique_ptr<filestore_list, Close>;
using Block = std::unique_ptr<void, Close>;

// The least cost there is: a test is about something else than guesses.
inline constexpr unsigned int kCost = 14;

// The text outlives the key.
inline filestore_key passwordOf(std::string_view text) {
    filestore_key key = FILESTORE_KEY_INIT;
    key.bytes = text.data();
    key.length = text.size();
    return key;
}

// Throws what the library said, unless it said that all is well.
inline void must(filestore_status status, const filestore_error& error) {
    if (status != FILESTORE_OK) {
        throw std::runtime_error(std::string(filestore_status_name(status)) + ": " + error.message);
    }
}

inline Db open(const std::string& folder, std::uint32_t flags = 0) {
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_db* db = nullptr;
    options.flags = flags;
    options.cost = kCost;
    must(filestore_open(folder.c_str(), &options, &db, &error), error);
    return Db(db);
}

inline void unlock(const Db& db, const std::string& password) {
    filestore_error error = FILESTORE_ERROR_INIT;
    const filestore_key key = passwordOf(password);
    must(filestore_unlock(db.get(), &key, nullptr, &error), error);
}

inline Db openWith(const std::string& folder, const std::string& password,
                   std::uint32_t flags = 0) {
    Db db = open(folder, flags);
    unlock(db, password);
    return db;
}

inline Record get(const Db& db, const std::string& address, std::uint32_t flags = 0) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_record* record = nullptr;
    must(filestore_get(db.get(), address.c_str(), flags, &record, &error), error);
    return Record(record);
}

inline filestore_status statusOfGet(const Db& db, const std::string& address,
                                    std::uint32_t flags = 0) {
    filestore_record* record = nullptr;
    const filestore_status status =
        filestore_get(db.get(), address.c_str(), flags, &record, nullptr);
    const Record given(record);
    return status;
}

inline std::string bodyOf(const Record& record) {
    std::size_t size = 0;
    const void* const body = filestore_record_body(record.get(), &size);
    return {static_cast<const char*>(body), size};
}

inline Record newRecord(const std::string& address, std::string_view body,
                        std::uint32_t flags = 0) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_record* record = nullptr;
    must(filestore_record_new(address.c_str(), &record, &error), error);
    Record made(record);
    must(filestore_record_set_body(record, body.data(), body.size(), flags, &error), error);
    return made;
}

inline filestore_status statusOfPut(const Db& db, const std::string& address, std::string_view body,
                                    std::uint32_t flags = 0) {
    const Record record = newRecord(address, body, flags);
    return filestore_put(db.get(), record.get(), 0, nullptr);
}

inline void put(const Db& db, const std::string& address, std::string_view body,
                std::uint32_t flags = 0) {
    filestore_error error = FILESTORE_ERROR_INIT;
    const Record record = newRecord(address, body, flags);
    must(filestore_put(db.get(), record.get(), 0, &error), error);
}

}  // namespace capi_test

#endif  // TESTS_CAPI_SUPPORT_H
