// What the tests strike with failures: each C function as an operation that can be run again, and
// what must hold after each failure.
#ifndef TESTS_CAPI_OPERATIONS_H
#define TESTS_CAPI_OPERATIONS_H

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/filestore.h"
#include "tests/capi/support.h"
#include "tests/support/temp_dir.h"

namespace capi_test {

inline const std::string kPassword = "correct horse";

// A database whose key is at hand, so that nothing is derived thousands of times.
class OperationsTest : public testing::Test {
protected:
    OperationsTest() {
        filestore_error error = FILESTORE_ERROR_INIT;
        void* bytes = nullptr;
        db_ = openWith(folder_.path(), kPassword, FILESTORE_CREATE);
        must(filestore_copy_key(db_.get(), &bytes, &key_.length, &error), error);
        block_.reset(bytes);
        key_.bytes = bytes;
        key_.kind = FILESTORE_RAW_KEY;
        put(db_, "keys/secret", "secret");
        put(db_, "keys/plain", "plain", FILESTORE_PLAIN);
    }

    struct Operation {
        const char* name;
        std::function<filestore_status()> run;
        std::function<void()> before = [] {};
    };
    std::vector<Operation> operations();

    // What must hold after any failure.
    void expectUsable(const std::string& after) {
        filestore_error error = FILESTORE_ERROR_INIT;
        filestore_record* record = nullptr;
        EXPECT_EQ(FILESTORE_OK, filestore_get(db_.get(), "keys/secret", 0, &record, &error))
            << after << ": " << error.message;
        const Record given(record);
        EXPECT_THAT(bodyOf(given), testing::AnyOf("secret", "other")) << after;
    }

    support::TempDir folder_;
    Db db_;
    Block block_;
    filestore_key key_ = FILESTORE_KEY_INIT;
};

inline std::vector<OperationsTest::Operation> OperationsTest::operations() {
    const auto none = nullptr;
    return {
        {"open, unlock, read, close",
         [this, none] {
             filestore_db* handle = nullptr;
             filestore_record* record = nullptr;
             filestore_status status = filestore_open(folder_.path().c_str(), none, &handle, none);
             if (status == FILESTORE_OK) {
                 status = filestore_unlock(handle, &key_, none, none);
             }
             if (status == FILESTORE_OK) {
                 status = filestore_get(handle, "keys/secret", 0, &record, none);
             }
             filestore_record_free(record);
             filestore_close(handle);
             return status;
         }},
        {"get", [this] { return statusOfGet(db_, "keys/secret"); }},
        {"put",
         [this, none] {
             filestore_record* record = nullptr;
             filestore_status status = filestore_record_new("keys/secret", &record, none);
             if (status == FILESTORE_OK) {
                 status = filestore_record_set_body(record, "other", 5, 0, none);
             }
             if (status == FILESTORE_OK) {
                 status = filestore_record_set_attribute(record, FILESTORE_TEXT, 0x8000, "x", 1,
                                                         FILESTORE_ENCRYPTED, none);
             }
             if (status == FILESTORE_OK) {
                 status = filestore_put(db_.get(), record, 0, none);
             }
             filestore_record_free(record);
             return status;
         }},
        {"find",
         [this, none] {
             filestore_find_options options = FILESTORE_FIND_OPTIONS_INIT;
             options.flags = FILESTORE_FIND_SECRETS;
             filestore_list* list = nullptr;
             const filestore_status status = filestore_find(db_.get(), &options, &list, none);
             filestore_list_free(list);
             return status;
         }},
        {"find_uri",
         [this, none] {
             filestore_list* list = nullptr;
             const filestore_status status =
                 filestore_find_uri(db_.get(), "fstore:///keys", nullptr, &list, none);
             filestore_list_free(list);
             return status;
         }},
        {"remove", [this, none] { return filestore_remove(db_.get(), "keys/gone", none); },
         [this] { put(db_, "keys/gone", "gone", FILESTORE_PLAIN); }},
        {"rename",
         [this, none] { return filestore_rename(db_.get(), "keys/from", "keys/to", none); },
         [this, none] {
             (void)filestore_remove(db_.get(), "keys/to", none);
             put(db_, "keys/from", "moved");
         }},
        {"check",
         [this, none] {
             filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
             options.flags = FILESTORE_CHECK_DEEP;
             return filestore_check(db_.get(), &options, none, none);
         }},
    };
}

}  // namespace capi_test

#endif  // TESTS_CAPI_OPERATIONS_H
