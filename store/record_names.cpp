#include "store/record_names.h"

#include <cerrno>
#include <unordered_set>
#include <utility>
#include <vector>

#include "format/record_name.h"
#include "os/files.h"
#include "store/context.h"

namespace {

constexpr std::size_t kNamesAtOnce = 1 << 16;  // bytes of a block

bool concernsRecord(const char* name) {
    return hasMarker(name, kDscSuffix) || hasMarker(name, kOldMarker);
}

// Calls use(name) for the names of the folder's regular files that tell of a record, in its order.
template <class Use>
Status visitRecordFiles(const char* folder, Use use) {
    if (folder == nullptr) {
        return kInvalid;
    }
    const os::Dir dir = os::openFolder(folder);
    if (!dir) {
        return kIo;
    }
    while (const dirent* const entry = os::nextEntry(dir.get())) {
        if (!concernsRecord(entry->d_name)) {
            continue;  // a body, most often
        }
        os::EntryType kind = os::entryType(*entry);
        if (kind == os::EntryType::kUnknown) {
            kind = os::entryTypeOf(joinPath(folder, entry->d_name).c_str());
        }
        if (kind == os::EntryType::kUnknown && errno != ENOENT) {
            return kIo;  // it may be a record; one that is gone since is none
        }
        if (kind == os::EntryType::kFile) {
            use(std::string_view(entry->d_name));
        }
    }
    return errno == 0 ? kOk : kIo;  // a listing that breaks off is not a short folder
}

// Puts back every descriptor that is still known by its saved name, as the only one.
Status renameOLDFile(const char* folder, std::vector<std::string>& names) {
    for (std::string& name : names) {
        std::string restored(withoutMarker(name, kOldMarker));
        if (watched::rename(joinPath(folder, name).c_str(), joinPath(folder, restored).c_str()) !=
            0) {
            return kIo;
        }
        name = std::move(restored);
    }
    return names.empty() || os::syncFolder(folder) ? kOk : kIo;
}

}  // namespace

Status RecordNames::readFrom(const char* folder) {
    std::vector<std::string> saved;
    const Status status = visitRecordFiles(folder, [&](std::string_view name) {
        if (hasMarker(name, kDscSuffix)) {
            add(name);
        } else {
            saved.emplace_back(name);
        }
    });
    if (status != kOk) {
        return status;
    }
    dropPlaced(saved);
    if (const Status restored = renameOLDFile(folder, saved); restored != kOk) {
        return restored;
    }
    for (const std::string& name : saved) {
        add(name);
    }
    return kOk;
}

// A saved descriptor whose place is not empty is no record's.
void RecordNames::dropPlaced(std::vector<std::string>& saved) const {
    if (saved.empty()) {
        return;
    }
    std::unordered_set<std::string_view> places;
    for (const std::string& name : saved) {
        places.insert(withoutMarker(name, kOldMarker));
    }
    std::vector<std::string> names;
    for (const std::string& block : blocks_) {
        for (std::size_t begin = 0; begin < block.size();) {
            const std::string_view name(block.data() + begin);
            if (places.contains(name)) {
                names.emplace_back(name);
            }
            begin += name.size() + 1;
        }
    }
    const auto descriptors = static_cast<std::ptrdiff_t>(names.size());
    names.insert(names.end(), saved.begin(), saved.end());
    correctFileNameList(names);
    saved.assign(names.begin() + descriptors, names.end());
}

void RecordNames::add(std::string_view name) {
    if (blocks_.empty() || blocks_.back().size() + name.size() + 1 > blocks_.back().capacity()) {
        blocks_.emplace_back().reserve(kNamesAtOnce);
    }
    blocks_.back().append(name).push_back('\0');
}

std::string RecordNames::takeFirst() {
    std::string& block = blocks_.front();
    std::string name(block.data() + taken_);
    taken_ += name.size() + 1;
    if (taken_ == block.size()) {
        blocks_.pop_front();
        taken_ = 0;
    }
    return name;
}
