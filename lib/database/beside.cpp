#include "lib/database/beside.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "client/file_store_exp.h"
#include "format/dsc_text.h"
#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/database/slot_copies.h"
#include "lib/records/attributes.h"

namespace fstore {
namespace {

// The record of a database other than "./db"; without a target when it is not there or cannot
// be read.
bool readFrom(const char* database, const char* name, aFileStore& record) {
    return record.setFolderName(database) == kOk && record.setName(name) == kOk &&
           record.isExist() != 0 && record.read() == kOk;
}

std::optional<Digest> keyDigestOf(const char* database) {
    aFileStore record;
    if (!readFrom(database, layout::kKeyRecord, record)) {
        return std::nullopt;
    }
    const unsigned int index = record.findAttr(layout::kDigestType, layout::kDigestId, nullptr, 0);
    Digest digest;
    if (index == kNoAttribute || record.getAttrSize(index) != digest.size()) {
        return std::nullopt;
    }
    std::copy_n(record.getAttr(index), digest.size(), digest.begin());
    return digest;
}

bool isThere(const char* database, const char* name) {
    aFileStore record;
    return record.setFolderName(database) != kOk || record.setName(name) != kOk ||
           record.isExist() != 0;
}

// Writes one of the copies there with its set in force alone, if it has another one. It gets the
// next number: who dies in front of the other copy leaves a newer and an older one, of which the
// newer counts.
void settleCopy(const char* folder, const char* name, const SlotCopy& copy, const Digest& key,
                std::uint32_t seq) {
    if (!copy.isSound() || (copy.record.sets.size() == 1 && !copy.keepOld)) {
        return;
    }
    const auto inForce = std::ranges::find(copy.record.sets, std::optional(key), &SlotSet::key);
    if (inForce == copy.record.sets.end()) {
        return;  // what opening the database tells about
    }
    UnlockRecord settled = copy.record;
    settled.sets = {*inForce};
    settled.seq = seq;
    requireLock();
    writeCopyBeside(folder, name,
                    name == std::string_view(layout::kKdfRecord) ? asKdf(settled) : settled);
}

}  // namespace

bool isPreviousOf(const SlotSet& set) {
    const std::optional<Digest> key = set.key();
    return key ? keyDigestOf(layout::kPrevious) == key
               : !isThere(layout::kPrevious, layout::kKeyRecord);
}

void settleBeside(const char* folder) {
    const std::optional<Digest> key = keyDigestOf(folder);
    if (!key) {
        return;
    }
    const SlotCopies copies = readCopies(folder);
    const std::uint32_t highest = std::max(copies.kdf.record.seq, copies.copy.record.seq);
    const std::uint32_t next = std::min(highest, UnlockRecord::kMostSeq - 1) + 1;
    settleCopy(folder, layout::kKdfCopyRecord, copies.copy, *key, next);
    settleCopy(folder, layout::kKdfRecord, copies.kdf, *key, next);
}

}  // namespace fstore
