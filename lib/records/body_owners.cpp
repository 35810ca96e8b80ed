#include "lib/records/body_owners.h"

#include <algorithm>

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/descriptor.h"

namespace fstore {
namespace {

// The markers of one record's descriptors do not make them those of several.
bool isOf(std::string_view file, std::string_view descriptor) {
    return file.starts_with(descriptor) &&
           (file.size() == descriptor.size() || file.substr(descriptor.size()).starts_with(".$"));
}

}  // namespace

std::optional<std::string> BodyOwners::doubtAbout(const Address& address) {
    const std::string descriptor = descriptorName(address.name);
    if (!exists(descriptorPath(address))) {
        return std::nullopt;
    }
    const Folder& folder = folderOf(address.folder);
    const auto isOther = [&](const std::string& file) { return !isOf(file, descriptor); };
    bool hasBody = false;
    for (const auto& [body, files] : folder.namedBy) {
        if (std::ranges::all_of(files, isOther)) {
            continue;
        }
        hasBody = true;
        if (const auto other = std::ranges::find_if(files, isOther); other != files.end()) {
            return fmt::format("is also named by {}", *other);
        }
    }
    const auto other = std::ranges::find_if(folder.unreadable, isOther);
    return hasBody && other != folder.unreadable.end()
               ? std::optional(fmt::format("may be that of {}, which cannot be read", *other))
               : std::nullopt;
}

void BodyOwners::requireOwn(const Address& address) {
    if (const auto doubt = doubtAbout(address)) {
        throw Failure(
            kMalformed,
            fmt::format("the body file of {} {}, so {} is not overwritten; `fstore rm` "
                        "removes the record and keeps the body file, `fstore check` lists "
                        "what is wrong",
                        address.print(), *doubt, address.print()),
            address.print());
    }
}

const BodyOwners::Folder& BodyOwners::folderOf(const std::string& folder) {
    const auto [entry, isNew] = folders_.try_emplace(folder);
    if (!isNew) {
        return entry->second;
    }
    const std::string path = folderPath(folder);
    for (const FolderEntry& file : readFolder(path)) {
        if (file.type != FolderEntry::Type::kFile || markerOf(file.name).empty()) {
            continue;
        }
        try {
            const std::vector<DescriptorLine> lines = readDescriptor(joined(path, file.name));
            if (const auto body = bodyNameOf(lines)) {
                entry->second.namedBy[*body].push_back(file.name);
            } else if (lines.empty() || !isSound(lines)) {
                entry->second.unreadable.push_back(file.name);
            }
        } catch (const Failure&) {
            entry->second.unreadable.push_back(file.name);
        }
    }
    return entry->second;
}

}  // namespace fstore
