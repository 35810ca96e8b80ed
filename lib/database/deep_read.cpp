#include "lib/database/deep_read.h"

#include <algorithm>

#include <fmt/format.h>

#include "lib/base/files.h"
#include "lib/base/sha256.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

[[noreturn]] void failOnBody(const Address& address) {
    throw Failure(kMalformed,
                  fmt::format("the body of {} does not match its SHA-256: it is damaged, or "
                              "another record's",
                              address.print()),
                  address.print());
}

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
    template <class AnyRecord>
    void addDescription(const AnyRecord& record) {
        add(record.address().print());
        add(fmt::format("{} {} {}", record.hasBody(), record.isBodyEncrypted(), record.count()));
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

// A record with secrets has to be decrypted as a whole.
void readSecrets(Record& record, DeepReport& report, Fingerprint& fingerprint) {
    record.decrypt();
    report.secrets += secretsOf(record);
    fingerprint.addDescription(record);
    fingerprint.add(record.body());
    checkBody(record);
}

// The body of one without takes no memory.
void readPlain(const RecordHead& head, Fingerprint& fingerprint) {
    Sha256 body;
    if (head.hasBody()) {
        readInPieces(head.bodyPath(),
                     [&](std::span<const unsigned char> piece) { body.add(piece); });
    }
    const Sha256Digest digest = body.finish();
    fingerprint.addDescription(head);
    fingerprint.add(digest);
    if (head.findSha256() && !std::ranges::equal(*head.findSha256(), digest)) {
        failOnBody(head.address());
    }
}

void examine(const Record& record, const Examiner& examiner, DeepReport& report) {
    for (const std::string& contradiction : examiner.contradictions(record)) {
        report.contradicted.push_back(
            {Finding::Kind::kContradicted, descriptorPath(record.address()), contradiction});
    }
}

void readOne(const RecordHead& head, Bodies bodies, const Examiner* examiner, DeepReport& report,
             Fingerprint& fingerprint) {
    const bool isExamined = examiner != nullptr && examiner->concerns(head);
    if (!head.hasSecrets()) {
        readPlain(head, fingerprint);
        if (!isExamined) {
            return;
        }
    }
    Record record = bodies == Bodies::kAll ? Record::read(head.address()) : readUnasked(head);
    if (head.hasSecrets()) {
        readSecrets(record, report, fingerprint);
    }
    if (isExamined) {
        examine(record, *examiner, report);
    }
}

}  // namespace

DeepReport readEverything(Observer& observer, const std::string& what, Bodies bodies,
                          const Examiner* examiner) {
    DeepReport report;
    Unread elsewhere;  // told when they are read
    Progress progress(observer, what, countRecords(&elsewhere));
    Fingerprint fingerprint;
    const auto look = [&](const Address& address) {
        ++report.records;
        try {
            readOne(RecordHead::read(address), bodies, examiner, report, fingerprint);
        } catch (const TooLarge& failure) {
            report.unread.push_back(failure);
        } catch (const Failure& failure) {
            report.damaged.push_back({address, failure});
        }
        progress.step();
        return true;
    };
    visitRecords(look, &report.unread);
    report.fingerprint = fingerprint.finish();
    return report;
}

void checkBody(const Record& record) {
    const auto expected = record.binary(attr::kSha256);
    if (expected && !std::ranges::equal(*expected, sha256(record.body()))) {
        failOnBody(record.address());
    }
}

}  // namespace fstore
