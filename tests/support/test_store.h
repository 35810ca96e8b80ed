// A whole store for a test: a database in a working directory of its own, the real
// service on doubles of the services that it calls, and a host that offers all.
//
// The folders are there and the database is open. At the end everything is let go
// in the order in which a host stops a module, so that the next store of the
// process finds nothing of this one. Programs link `service`, which makes them
// module 107; declare a store before every proxy.
#ifndef TESTS_SUPPORT_TEST_STORE_H
#define TESTS_SUPPORT_TEST_STORE_H

#include <map>
#include <string>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "cmn/status.h"
#include "tests/support/contents.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/temp_dir.h"

class TestStore {
public:
    static constexpr unsigned int kModule = 107;
    static constexpr const char* kFolder = "./db/keys";  // where records are unless told otherwise

    // An empty password leaves the database without a password record.
    explicit TestStore(const std::string& password = "secret");
    TestStore(const TestStore&) = delete;
    TestStore& operator=(const TestStore&) = delete;
    ~TestStore();

    DoubleServices& services() { return services_; }
    FakeHost& host() { return services_.host(); }
    std::string path(const std::string& name) const { return std::string(kFolder) + "/" + name; }

    // Stops the service and starts it anew on the same files, as a later process
    // would; no proxy may live. Opens the database again unless `password` is null.
    void restart(const char* password);

    // A new record of this name; unnamed for none.
    static aFileStore record(const std::string& name = {});

    // Through records of their own. load() throws when the record does not read and
    // decrypt.
    static Status save(const std::string& name, const Contents& contents);
    static Contents load(const std::string& name);
    static Status tryLoad(const std::string& name, Contents& contents);
    static Status erase(const std::string& name);

    // The files of kFolder, or of another, by name.
    static std::map<std::string, std::string> files(const std::string& folder = kFolder) {
        return support::tree(folder);
    }

private:
    void start();
    void stop();

    support::TempWorkingDir folder_;
    DoubleServices services_;
    CMN_GuardedRef* service_ = nullptr;  // kept by one plain reference, as hosts do
};

#endif  // TESTS_SUPPORT_TEST_STORE_H
