#include "lib/database/deep_read.h"

#include <algorithm>

#include <fmt/format.h>

#include "lib/base/sha256.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

// A digest over a sequence of byte strings, each preceded by its length.
class Fingerprint {
public:
    void add(std::span<const unsigned char> bytes) {
        const std::uint64_t size = bytes.size();
        digest_.add(std::span(reinterpret_cast<const unsigned char*>(&size), sizeof size));
        digest_.add(bytes);
    }
    void add(std::string_view text) {
        add(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
    }
    void add(const Record& record) {
        add(record.address().print());
        add(fmt::format("{} {} {}", record.hasBody(), record.isBodyEncrypted(), record.count()));
        add(record.body());
        for (unsigned int i = 0; i < record.count(); ++i) {
            add(fmt::format("{} {} {}", record.type(i), record.id(i), record.isEncrypted(i)));
            add(record.bytes(i));
        }
    }

    std::vector<unsigned char> finish() {
        const Sha256Digest digest = digest_.finish();
        return {digest.begin(), digest.end()};
    }

private:
    Sha256 digest_;
};

std::uint64_t secretsOf(const Record& record) {
    std::uint64_t secrets = record.isBodyEncrypted() ? 1 : 0;
    for (unsigned int i = 0; i < record.count(); ++i) {
        secrets += record.isEncrypted(i) ? 1 : 0;
    }
    return secrets;
}

}  // namespace

DeepReport readEverything(Observer& observer, const std::string& what) {
    const std::vector<Address> addresses = allRecords();
    Progress progress(observer, what, addresses.size());
    DeepReport report;
    Fingerprint fingerprint;
    for (const Address& address : addresses) {
        ++report.records;
        try {
            Record record = Record::read(address);
            record.decrypt();
            report.secrets += secretsOf(record);
            fingerprint.add(record);
            checkBody(record);
        } catch (const Failure& failure) {
            report.damaged.push_back({address, failure.status(), failure.what()});
        }
        progress.step();
    }
    report.fingerprint = fingerprint.finish();
    return report;
}

void checkBody(const Record& record) {
    const auto expected = record.binary(attr::kSha256);
    if (expected && !std::ranges::equal(*expected, sha256(record.body()))) {
        throw Failure(
            kMalformed,
            fmt::format("the body of {} does not match its SHA-256", record.address().print()),
            record.address().print());
    }
}

}  // namespace fstore
