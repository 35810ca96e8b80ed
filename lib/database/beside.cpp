#include "lib/database/beside.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/file_store_exp.h"
#include "format/dsc_text.h"
#include "format/layout.h"
#include "lib/base/error.h"

namespace fstore {
namespace {

constexpr unsigned int kAbsent = 0xFFFFFFFF;

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
    if (index == kAbsent || record.getAttrSize(index) != digest.size()) {
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

// The slot's text, as it stands there, whose digest the key has.
std::optional<std::string> textInForce(aFileStore& kdf, const Digest& key) {
    for (unsigned int i = 0; i < kdf.getAttrCount(); ++i) {
        const std::string_view text(reinterpret_cast<const char*>(kdf.getAttr(i)),
                                    kdf.getAttrSize(i));
        const bool isSlot = kdf.getAttrType(i) == kTypeText && kdf.getAttrID(i) == layout::kSlotId;
        const std::optional<Slot> slot = isSlot ? parseSlot(text) : std::nullopt;
        if (slot && slot->form != Slot::Form::kNone && slot->digest == key) {
            return std::string(text);
        }
    }
    return std::nullopt;
}

}  // namespace

bool isPreviousOf(const Slot& slot) {
    if (slot.form == Slot::Form::kNone) {
        return !isThere(layout::kPrevious, layout::kKeyRecord);
    }
    return keyDigestOf(layout::kPrevious) == slot.digest;
}

void settleCopy() {
    aFileStore kdf;
    const std::optional<Digest> key = keyDigestOf(layout::kCopy);
    if (!key || !readFrom(layout::kCopy, layout::kKdfRecord, kdf) || kdf.getAttrCount() < 2) {
        return;  // one slot, or damage that opening the database tells about
    }
    const std::optional<std::string> text = textInForce(kdf, *key);
    if (!text) {
        return;
    }
    check(kdf.removeAttrs(), "cannot write the record \"kdf\" of the kept database");
    check(kdf.addAttr(kTypeText, layout::kSlotId,
                      reinterpret_cast<const unsigned char*>(text->data()),
                      static_cast<unsigned int>(text->size())),
          "cannot write the record \"kdf\" of the kept database");
    check(kdf.write(), "cannot write the record \"kdf\" of the kept database");
}

}  // namespace fstore
