#include "lib/records/body_owners.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

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

// Two names with the same are taken for one, which keeps a body too many and loses none.
std::uint64_t hashOf(const std::string& body) {
    return std::hash<std::string>()(body);
}

// The bodies that the record's own descriptors name.
std::set<std::string> bodiesOf(const Address& address) {
    std::set<std::string> bodies;
    for (const std::string_view marker : {std::string_view(), kOldMarker}) {
        const std::string path = descriptorPath(address).append(marker);
        if (!isA(os::EntryType::kFile, path)) {
            continue;
        }
        try {
            if (auto body = bodyNameOf(readDescriptor(path))) {
                bodies.insert(std::move(*body));
            }
        } catch (const Failure&) {
            // names none that the store could read either
        }
    }
    return bodies;
}

}  // namespace

std::optional<std::string> BodyOwners::doubtAbout(const Address& address) {
    const std::string descriptor = descriptorName(address.name);
    if (!exists(descriptorPath(address))) {
        return std::nullopt;
    }
    const auto isOther = [&](const std::string& file) { return !isOf(file, descriptor); };
    std::optional<std::string> unreadable;
    for (const std::string& body : bodiesOf(address)) {
        const BodyNames::Answer answer = askFor(address.folder, body);
        const auto other = std::ranges::find_if(answer.namedBy, isOther);
        if (other != answer.namedBy.end()) {
            return fmt::format("is also named by {}", *other);
        }
        const auto unread = std::ranges::find_if(answer.unreadable, isOther);
        if (unread != answer.unreadable.end()) {
            unreadable = fmt::format("may be that of {}, which cannot be read", *unread);
        }
    }
    return unreadable;
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

BodyNames::Answer BodyOwners::askFor(const std::string& folder, const std::string& body) {
    if (known_ != nullptr) {
        if (auto answer = known_->ask(folder, body)) {
            return std::move(*answer);
        }
    }
    const Folder& read = folderOf(folder);
    BodyNames::Answer answer{{}, read.unreadable};
    const std::uint64_t hash = hashOf(body);
    for (std::size_t i = 0; i < read.named.size(); ++i) {
        if (read.named[i] == hash) {
            answer.namedBy.emplace_back(read.files[i]);
        }
    }
    return answer;
}

const BodyOwners::Folder& BodyOwners::folderOf(const std::string& folder) {
    const auto [entry, isNew] = folders_.try_emplace(folder);
    if (!isNew) {
        return entry->second;
    }
    const std::string path = folderPath(folder);
    visitEntries(path, [&read = entry->second, &path](const FolderEntry& file) {
        const std::string named = stateBeside(file.name).value_or(file.name);
        if (file.type != FolderEntry::Type::kFile || !isOfARecord(named)) {
            return;
        }
        try {
            const std::vector<DescriptorLine> lines = readDescriptor(joined(path, file.name));
            if (const auto body = bodyNameOf(lines)) {
                read.files.add(file.name);
                read.named.push_back(hashOf(*body));
            } else if (lines.empty() || !isSound(lines)) {
                read.unreadable.push_back(file.name);
            }
        } catch (const Failure&) {
            read.unreadable.push_back(file.name);
        }
    });
    return entry->second;
}

}  // namespace fstore
