#include "lib/records/catalogue.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "client/file_store_exp.h"
#include "lib/base/error.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "os/files.h"

namespace fstore {
namespace {

// Whether each step of the way is a folder, and not a link to one.
bool isFolder(const std::string& folder) {
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = folder.find('/', end + 1);
        if (os::entryTypeOf(folderPath(folder.substr(0, end)).c_str()) != os::EntryType::kFolder) {
            return false;
        }
    }
    return true;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
void visitFoldersFrom(const std::string& folder, const FolderVisitor& visit) {
    std::vector<std::string> inside;
    {
        const std::vector<FolderEntry> entries = readFolder(folderPath(folder));
        visit(folder, entries);
        for (const FolderEntry& entry : entries) {
            if (entry.type == FolderEntry::Type::kFolder) {
                inside.push_back(folder.empty() ? entry.name : joined(folder, entry.name));
            }
        }
    }
    std::sort(inside.begin(), inside.end());
    for (const std::string& each : inside) {
        visitFoldersFrom(each, visit);
    }
}

std::vector<Address> candidates(const AddressText& text) {
    std::vector<Address> found;
    for (const Address& address : allRecords()) {
        if (text.form == AddressText::Form::kBare) {
            if (address.name == text.place.name) {
                found.push_back(address);
            }
            continue;
        }
        try {
            if (infoOf(Record::read(address)).sha256.starts_with(text.digest)) {
                found.push_back(address);
            }
        } catch (const Failure&) {
            // a damaged record has no digest; ls and check tell about it
        }
    }
    return found;
}

}  // namespace

void requireFolder(const std::string& folder) {
    if (!isFolder(folder)) {
        throw Failure(kMissing, fmt::format("there is no folder {} in the database", folder),
                      folder);
    }
}

std::vector<std::string> allFolders() {
    std::vector<std::string> folders;
    visitFolders([&](const std::string& folder, const std::vector<FolderEntry>&) {
        folders.push_back(folder);
    });
    return folders;
}

void visitFolders(const FolderVisitor& visit) {
    visitFoldersFrom("", visit);
}

std::vector<Address> recordsOf(const std::string& folder) {
    aFileStoreList list;
    if (list.target() == nullptr) {
        throw noService();
    }
    requireFolder(folder);
    const std::string path = folderPath(folder);
    check(list.readFromFolder(path.c_str()), fmt::format("cannot list {}", path), path);
    std::vector<Address> found;
    for (aFileStore record = list.getFirst(); record.target() != nullptr; record = list.getNext()) {
        found.push_back({folder, record.getName()});
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<Address> allRecords() {
    std::vector<Address> found;
    for (const std::string& folder : allFolders()) {
        for (Address& address : recordsOf(folder)) {
            if (!address.isInternal()) {
                found.push_back(std::move(address));
            }
        }
    }
    return found;
}

Address resolve(std::string_view text) {
    const AddressText wanted = parseAddress(text);
    if (wanted.form == AddressText::Form::kPlace) {
        if (!isFolder(wanted.place.folder) || !Record::isThere(wanted.place)) {
            throw noRecord(wanted.place.print());
        }
        return wanted.place;
    }
    const std::vector<Address> found = candidates(wanted);
    if (found.empty()) {
        throw noRecord(text);
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

}  // namespace fstore
