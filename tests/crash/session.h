// The store service, on doubles of the services that it calls, at work on the database
// of the current folder as a process of a host would be.
//
// Nothing is prepared or opened. One may live at a time, and every proxy goes before
// it; what it leaves on the disk is what the store left there.
#ifndef TESTS_CRASH_SESSION_H
#define TESTS_CRASH_SESSION_H

#include <optional>
#include <ostream>
#include <string>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "cmn/status.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/test_store.h"

namespace crash {

class Session {
public:
    Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    DoubleServices& services() { return services_; }

private:
    DoubleServices services_;
    CMN_GuardedRef* service_ = nullptr;  // kept by one plain reference, as hosts do
};

// The folders below "./db" that hold records, as in record ids; "" is "./db" itself.
inline constexpr const char* kFolders[] = {"",
                                           "settings",
                                           "lsps",
                                           "keys",
                                           "crls",
                                           "crm",
                                           "certificates",
                                           "certificates/local",
                                           "certificates/remote"};

// A record is told by its folder and name: "keys/a" is the record "a" of "./db/keys".
inline constexpr const char* kPasswordId = "key";
std::string folderOf(const std::string& id);
std::string nameOf(const std::string& id);
aFileStore recordOf(const std::string& id);  // a new handle

// What a reader finds of a record.
struct Found {
    Status read = kMissing;
    bool exists = false;     // what isExist() says, asked after the reading
    Status decrypted = kOk;  // counts when `read` is kOk
    Contents contents;       // counts when `read` is kOk; cipher bytes unless decrypted

    bool operator==(const Found&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Found& found);

inline const Found kAbsent{};
Found whole(const Contents& contents);  // a record that reads and decrypts to these

Found look(aFileStore& record);
Found look(const std::string& id);

}  // namespace crash

#endif  // TESTS_CRASH_SESSION_H
