// All that there is to say of the keys, certificates and CRLs of a database at once.
//
// For one thread, in a database that is entered: a step of withSecrets(), which asks for secrets if
// certificates, keys or CRLs are encrypted. Failures throw.
#ifndef LIB_WORK_SURVEY_H
#define LIB_WORK_SURVEY_H

#include <cstdint>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/record_info.h"
#include "lib/work/forest.h"

namespace fstore {

// What is weak or odd about a record: a sentence without the record.
struct Oddity {
    RecordInfo info;
    std::string what;
};

// A certificate or CRL, and whether it matters when it ends.
struct Dated {
    RecordInfo info;
    bool isSuperseded = false;
    bool hasKey = false;  // its key is here
};

struct Survey {
    Forest forest;
    std::vector<Dated> dated;      // certificates and CRLs by time of end
    std::vector<RecordInfo> keys;  // by algorithm
    std::vector<Oddity> oddities;  // by record
    std::vector<Failure> unread;   // records and folders
};

Survey surveyOf(Database& database, std::int64_t time);

// The bits of an RSA key of this algorithm, "RSA-2048" or "RSA-PSS-2048"; 0 for another one.
unsigned int rsaBits(const std::string& algorithm);

}  // namespace fstore

#endif  // LIB_WORK_SURVEY_H
