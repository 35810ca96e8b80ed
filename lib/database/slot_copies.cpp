#include "lib/database/slot_copies.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "client/file_store_exp.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/records/attributes.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"
#include "os/fs.h"

namespace fstore {
namespace {

Address addressOf(const char* name) {
    return {"", name};
}

bool isSlotLine(const aFileStore& record, unsigned int index) {
    return record.getAttrType(index) == kTypeText && record.getAttrID(index) == layout::kSlotId;
}

std::vector<std::string> linesOf(const aFileStore& record) {
    std::vector<std::string> lines;
    for (unsigned int i = 0; i < record.getAttrCount(); ++i) {
        if (isSlotLine(record, i)) {
            lines.emplace_back(reinterpret_cast<const char*>(record.getAttr(i)),
                               record.getAttrSize(i));
        }
    }
    return lines;
}

bool keepsOld(const aFileStore& record) {
    const unsigned int index = record.findAttr(kTypeNumber, layout::kKeepOldId, nullptr, 0);
    return index != kNoAttribute;
}

void place(aFileStore& record, const char* root, const char* name) {
    check(record.setFolderName(root), "cannot reach the records of the password");
    check(record.setName(name), "cannot reach the records of the password");
}

SlotCopy damaged(const std::string& fault) {
    return {.state = SlotCopy::State::kDamaged, .fault = fault, .record = {}, .keepOld = false};
}

SlotCopy usersRecord() {
    SlotCopy users;
    users.state = SlotCopy::State::kUsers;
    return users;
}

bool isCopyName(const char* name) {
    return name == std::string_view(layout::kKdfCopyRecord);
}

// Whether a record without a single line of slots has anything else: a file that was cut has at
// most the beginning of its first line.
bool hasContents(const aFileStore& record) {
    return record.hasBody() != 0 || record.getAttrCount() > 1 ||
           (record.getAttrCount() == 1 && record.getAttrSize(0) != 0);
}

SlotCopy copyOf(const aFileStore& record, const char* name) {
    const std::vector<std::string> lines = linesOf(record);
    if (lines.empty() && isCopyName(name) && hasContents(record)) {
        return usersRecord();
    }
    UnlockRecord parsed = parseUnlock(lines);
    if (!parsed.framed && isCopyName(name)) {
        throw Failure(kMalformed, "it does not begin with \"unlock\"");
    }
    return {.state = SlotCopy::State::kSound,
            .fault = {},
            .record = std::move(parsed),
            .keepOld = keepsOld(record)};
}

// Such a descriptor cannot be taken for one of slots, and is not read whole.
bool isTooLarge(const char* name) {
    struct stat status {};
    return os::lstat(descriptorPath(addressOf(name)).c_str(), &status) == 0 &&
           static_cast<std::uint64_t>(status.st_size) > UnlockRecord::kMostBytes;
}

bool namesBody(const char* name) {
    try {
        return bodyNameOf(readDescriptor(descriptorPath(addressOf(name)))).has_value();
    } catch (const Failure&) {
        return false;
    }
}

// Whether a descriptor that is too large begins as one of slots.
bool beginsWithSlots(const char* name) {
    constexpr std::size_t kHead = 4096;  // several lines of slots
    try {
        return std::ranges::any_of(
            readFirstLines(descriptorPath(addressOf(name)), kHead), [](const DescriptorLine& line) {
                return line.hasNumbers() && line.type == kTypeText && line.id == layout::kSlotId;
            });
    } catch (const Failure& failure) {
        if (failure.isDenied()) {
            throw;
        }
        return false;
    }
}

SlotCopy readLive(const char* name) {
    if (!Record::isThere(addressOf(name))) {
        return {};
    }
    if (isTooLarge(name)) {
        return isCopyName(name) && !beginsWithSlots(name) ? usersRecord()
                                                          : damaged("it is larger than 64 KiB");
    }
    try {
        return copyOf(Record::read(addressOf(name)).store(), name);
    } catch (const Failure& failure) {
        if (failure.isDenied()) {
            throw;
        }
        // Slots have no body, so what names one is the user's, also when the body is lost.
        return isCopyName(name) && namesBody(name) ? usersRecord() : damaged(failure.what());
    }
}

SlotCopy readBeside(const char* root, const char* name) {
    aFileStore record;
    place(record, root, name);
    if (record.isExist() == 0) {
        return {};
    }
    try {
        return record.read() == kOk ? copyOf(record, name) : damaged("it cannot be read");
    } catch (const Failure& failure) {
        return damaged(failure.what());
    }
}

bool isLive(const char* root) {
    return root == std::string_view(layout::kLive);
}

SlotCopy readCopy(const char* root, const char* name) {
    return isLive(root) ? readLive(name) : readBeside(root, name);
}

}  // namespace

bool agree(const SlotCopy& one, const SlotCopy& other) {
    if (one.keepOld != other.keepOld || one.record.sets != other.record.sets) {
        return false;
    }
    return one.record.framed != other.record.framed || one.record == other.record;
}

SlotCopies readCopies(const char* root) {
    return {.kdf = readCopy(root, layout::kKdfRecord),
            .copy = readCopy(root, layout::kKdfCopyRecord)};
}

void writeCopy(const char* name, const UnlockRecord& record, bool keepOld) {
    Record file(addressOf(name));
    for (const std::string& line : printUnlock(record)) {
        file.addText(layout::kSlotId, line);
    }
    if (keepOld) {
        file.setNumber(layout::kKeepOldId, 1);
    }
    BodyOwners owners;  // a hostile one may name another record's body
    file.write(owners);
}

void writeCopyBeside(const char* root, const char* name, const UnlockRecord& record) {
    aFileStore file;
    place(file, root, name);
    for (const std::string& line : printUnlock(record)) {
        check(file.addAttr(kTypeText, layout::kSlotId,
                           reinterpret_cast<const unsigned char*>(line.data()),
                           static_cast<unsigned int>(line.size())),
              "cannot write the records of the password");
    }
    check(file.write(), fmt::format("cannot write the record \"{}\" in {}", name, root));
}

void removeSavedCopy(const char* name) {
    const std::string saved = descriptorPath(addressOf(name)) + std::string(kOldMarker);
    requireLock();
    (void)os::remove(saved.c_str());
}

void removeCopy(const char* name) {
    if (Record::isThere(addressOf(name))) {
        BodyOwners owners;
        (void)Record(addressOf(name)).remove(owners);
    }
}

UnlockRecord asKdf(const UnlockRecord& record) {
    UnlockRecord kdf = record;
    if (record.sets.size() == 1 && record.sets.front().line) {
        kdf.framed = false;
        kdf.db = {};
        kdf.seq = 0;
    }
    return kdf;
}

}  // namespace fstore
