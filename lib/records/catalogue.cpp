#include "lib/records/catalogue.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/nearest.h"
#include "lib/records/descriptor.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"
#include "os/files.h"

namespace fstore {
namespace {

// What read() finds; nothing when it fails and that is noted.
template <class Read>
auto noting(Unread* unread, Read read) -> decltype(read()) {
    try {
        return read();
    } catch (const Failure& failure) {
        if (unread == nullptr) {
            throw;
        }
        unread->push_back(failure);
        return {};
    }
}

// Folders of records that are known to have no folders in them are not read.
// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
void findFolders(const std::string& folder, Unread& unread, std::vector<std::string>& found) {
    std::vector<std::string> inside;
    const auto look = [&] {
        if (!hasNoFolders(folderPath(folder))) {
            visitEntries(folderPath(folder), [&](const FolderEntry& entry) {
                if (entry.type == FolderEntry::Type::kFolder) {
                    inside.push_back(folder.empty() ? entry.name : joined(folder, entry.name));
                }
            });
        }
        return true;
    };
    // Nobody can do without that of "db" itself.
    if (!noting(folder.empty() ? nullptr : &unread, look)) {
        return;
    }
    found.push_back(folder);
    std::ranges::sort(inside);
    for (const std::string& each : inside) {
        findFolders(each, unread, found);
    }
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
void visitFrom(const std::string& folder, const EntryVisitor& visit, Unread* unread,
               std::vector<std::string>& seen) {
    std::vector<std::string> inside;
    const auto look = [&] {
        visitEntries(folderPath(folder), [&](const FolderEntry& entry) {
            visit(folder, entry);
            if (entry.type == FolderEntry::Type::kFolder) {
                inside.push_back(folder.empty() ? entry.name : joined(folder, entry.name));
            }
        });
        return true;
    };
    // Nobody can do without that of "db" itself.
    if (!noting(folder.empty() ? nullptr : unread, look)) {
        return;
    }
    seen.push_back(folder);
    std::sort(inside.begin(), inside.end());
    for (const std::string& each : inside) {
        visitFrom(each, visit, unread, seen);
    }
}

std::optional<std::vector<std::string>> foldersOfLookup() {
    Lookup* const lookup = Lookup::current();
    return lookup != nullptr ? lookup->folders() : std::nullopt;
}

// Where a record of a known name may be.
std::vector<std::string> foldersForNames() {
    if (auto known = foldersOfLookup()) {
        return std::move(*known);
    }
    Unread elsewhere;  // what cannot be read is not what is meant; ls and check tell about it
    std::vector<std::string> found;
    findFolders("", elsewhere, found);
    return found;
}

bool isRecord(const FolderEntry& entry) {
    return entry.type == FolderEntry::Type::kFile && hasMarker(entry.name, kDscSuffix) &&
           !stateBeside(entry.name);
}

bool isThereOrAside(const Address& address) {
    const std::string path = descriptorPath(address);
    return isA(os::EntryType::kFile, path) ||
           isA(os::EntryType::kFile, path + std::string(kOldMarker));
}

std::vector<Address> recordsOfName(const AddressText& text) {
    std::vector<Address> found = placesOf(text);
    std::erase_if(
        found, [](const Address& place) { return place.isInternal() || !isThereOrAside(place); });
    return found;
}

std::vector<Address> recordsOfDigest(const std::string& digest) {
    std::vector<Address> found;
    Unread elsewhere;  // what cannot be read is not what is meant; ls and check tell about it
    const auto ask = [&](Lookup& lookup) { return lookup.withDigest(digest); };
    for (const Address& address : knownOrAll(ask, [&] { return allRecords(&elsewhere); })) {
        try {
            if (infoOf(RecordHead::read(address)).sha256.starts_with(digest)) {
                found.push_back(address);
            }
        } catch (const Failure&) {
            // a damaged record has no digest; ls and check tell about it
        }
    }
    return found;
}

}  // namespace

// Each step of the way is one.
bool isFolder(const std::string& folder) {
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = folder.find('/', end + 1);
        if (!isA(os::EntryType::kFolder, folderPath(folder.substr(0, end)))) {
            return false;
        }
    }
    return true;
}

void requireFolder(const std::string& folder) {
    if (!isFolder(folder)) {
        throw Failure(kMissing, fmt::format("there is no folder {} in the database", folder),
                      folder);
    }
}

std::vector<std::string> allFolders(Unread* unread) {
    std::vector<std::string> folders;
    visitFrom(
        "", [](const std::string&, const FolderEntry&) {}, unread, folders);
    return folders;
}

void visitAllEntries(const EntryVisitor& visit, Unread* unread) {
    std::vector<std::string> seen;
    visitFrom("", visit, unread, seen);
}

NameList recordNamesIn(const std::string& folder) {
    NameList names;
    visitEntries(folderPath(folder), [&](const FolderEntry& entry) {
        if (isRecord(entry)) {
            names.add(withoutMarker(entry.name, kDscSuffix));
        }
    });
    names.sort();
    return names;
}

std::vector<Address> recordsIn(const std::string& folder) {
    const NameList names = recordNamesIn(folder);
    std::vector<Address> found;
    found.reserve(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        found.push_back({folder, std::string(names[i])});
    }
    return found;
}

void visitRecords(const RecordVisitor& visit, Unread* unread) {
    for (const std::string& folder : allFolders(unread)) {
        const NameList names = noting(unread, [&] { return recordNamesIn(folder); });
        for (std::size_t i = 0; i < names.size(); ++i) {
            const Address address{folder, std::string(names[i])};
            if (!address.isInternal() && !visit(address)) {
                return;
            }
        }
    }
}

std::uint64_t countRecords(Unread* unread) {
    std::uint64_t count = 0;
    visitAllEntries(
        [&](const std::string& folder, const FolderEntry& entry) {
            if (isRecord(entry) &&
                !Address{folder, std::string(withoutMarker(entry.name, kDscSuffix))}.isInternal()) {
                ++count;
            }
        },
        unread);
    return count;
}

std::vector<std::string> knownFolders(Unread* unread) {
    auto known = foldersOfLookup();
    return known ? std::move(*known) : allFolders(unread);
}

std::vector<Address> allRecords(Unread* unread) {
    std::vector<Address> found;
    visitRecords(
        [&](const Address& address) {
            found.push_back(address);
            return true;
        },
        unread);
    return found;
}

std::vector<Address> placesOf(const AddressText& text) {
    std::vector<Address> places;
    if (text.form == AddressText::Form::kPlace && isFolder(text.place.folder)) {
        places.push_back(text.place);
    } else if (text.form == AddressText::Form::kBare) {
        for (std::string& folder : foldersForNames()) {
            places.push_back({std::move(folder), text.place.name});
        }
    }
    return places;
}

Address resolve(std::string_view text) {
    Address address = resolveToRead(text);
    if (!Record::isThere(address)) {
        throw NoRecord(address.print());
    }
    return address;
}

Address resolveToRead(std::string_view text) {
    const AddressText wanted = parseAddress(text);
    if (wanted.form == AddressText::Form::kPlace) {
        if (!isFolder(wanted.place.folder)) {
            throw NoRecord(wanted.place.print());
        }
        return wanted.place;
    }
    const std::vector<Address> found = wanted.form == AddressText::Form::kBare
                                           ? recordsOfName(wanted)
                                           : recordsOfDigest(wanted.digest);
    if (found.empty()) {
        throw NoRecord(text);
    }
    if (found.size() > 1) {
        std::string names;
        for (const Address& address : found) {
            names += (names.empty() ? "" : ", ") + address.print();
        }
        throw Failure(kInvalid, fmt::format("{} is ambiguous; it may be {}", text, names),
                      std::string(text));
    }
    return found[0];
}

std::string nearestRecord(std::string_view address) {
    const AddressText wanted = parseAddress(address);
    if (wanted.form == AddressText::Form::kPlace && isFolder(wanted.place.folder)) {
        Nearest nearest(wanted.place.name);
        for (const Address& record : recordsIn(wanted.place.folder)) {
            nearest.offer(record.name);
        }
        return nearest.found().empty() ? "" : Address{wanted.place.folder, nearest.found()}.print();
    }
    const bool isBare = wanted.form == AddressText::Form::kBare;
    Nearest nearest(isBare ? wanted.place.name : wanted.place.print());
    std::string last, found;
    Unread elsewhere;  // as in foldersForNames()
    visitRecords(
        [&](const Address& record) {
            nearest.offer(isBare ? record.name : record.print());
            if (nearest.found() != last) {
                last = nearest.found();
                found = record.print();
            }
            return true;
        },
        &elsewhere);
    return wanted.form == AddressText::Form::kDigest ? "" : found;
}

}  // namespace fstore
