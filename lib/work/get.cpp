#include "lib/work/get.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/database/deep_read.h"

namespace fstore {
namespace {

bool hasUnknownDigest(const Record& record) {
    const auto digest = record.find(kTypeBinary, attr::kSha256);
    return digest && !record.isKnown(*digest);
}

}  // namespace

Record readWhole(Database& database, const Address& address) {
    Record record = Record::read(address);
    if (record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
    checkBody(record);
    return record;
}

Record readBody(Database& database, const std::string& text) {
    Record record = Record::read(database.resolveToRead(text));
    if (record.isBodyEncrypted() || hasUnknownDigest(record)) {
        database.needSecrets();
        record.decrypt();
    }
    if (!record.hasBody()) {
        throw Failure(kEnd, fmt::format("{} has no body", record.address().print()),
                      record.address().print());
    }
    checkBody(record);
    return record;
}

}  // namespace fstore
