#include "lib/index/index_row.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/descriptor.h"
#include "lib/records/filter.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

// Of a descriptor whose record cannot be read, or that is none: BodyOwners asks about these, too.
void addBody(IndexRow& row, const std::string& path) {
    try {
        const std::vector<DescriptorLine> lines = readDescriptor(path);
        if (auto body = bodyNameOf(lines)) {
            row.body = std::move(*body);
        } else {
            row.isBodyUnknown = lines.empty() || !isSound(lines);
        }
    } catch (const Failure&) {
        row.isBodyUnknown = true;
    }
}

// Rows keep the names in one text, a line each.
bool hasLine(const std::string& text) {
    return text.find('\n') != std::string::npos;
}

void addRecord(IndexRow& row, const Address& address) {
    const RecordHead head = RecordHead::read(address);
    row.info = infoOf(head);
    row.info.address = {};
    if (head.hasBody()) {
        row.body = head.bodyPath().substr(head.bodyPath().rfind('/') + 1);
    } else if (head.count() == 0) {
        addBody(row, descriptorPath(address));
    }
    if (head.hasSecrets()) {
        row.look |= Look::kUnlocked;
    }
    if (hidesItsDescription(head) || hidesKind(head)) {
        row.look |= Look::kHidden;
    }
    if (lacksExpiry(head, row.info)) {
        row.look |= Look::kUndated;
    }
    if (std::ranges::any_of(row.info.altNames, hasLine)) {
        row.look |= Look::kAlways;
    }
}

}  // namespace

IndexRow readIndexRow(const std::string& folder, const std::string& file) {
    const std::string path = joined(folderPath(folder), file);
    IndexRow row;
    row.file = file;
    row.stamp = lastingStamp(path);
    if (markerOf(file) != kDscSuffix || stateBeside(file)) {
        addBody(row, path);
        return row;
    }
    const Address address{folder, std::string(withoutMarker(file, kDscSuffix))};
    row.isRecord = !address.isInternal();
    try {
        addRecord(row, address);
    } catch (const Failure&) {
        row.look = Look::kAlways;
        row.info = {};
        addBody(row, path);
    }
    return row;
}

// A file that was changed within the same step of the clock has the same times as before.
FileStamp lastingStamp(const std::string& path) {
    const auto stamp = FileStamp::of(path);
    return stamp && stamp->isSettled() ? *stamp : FileStamp{};
}

}  // namespace fstore
