#include "lib/database/inspect.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"
#include "os/fs.h"

namespace fstore {
namespace {

using FindingKind = Finding::Kind;
using Repair = Finding::Repair;

// One folder's files, and what its descriptors say about its bodies.
class FolderInspection {
public:
    FolderInspection(std::string folder, std::vector<Finding>& findings)
        : folder_(std::move(folder)), path_(folderPath(folder_)), findings_(findings) {}

    void run() {
        std::vector<std::string> bodies;
        for (const FolderEntry& entry : listFolder(path_)) {
            if (entry.type == FolderEntry::Type::kFolder) {
                continue;
            }
            files_.insert(entry.name);
            if (entry.type == FolderEntry::Type::kFile && isBodyName(entry.name)) {
                bodies.push_back(entry.name);
            } else {
                others_.push_back(entry);
            }
        }
        for (const FolderEntry& entry : others_) {
            examine(entry);
        }
        for (const std::string& body : bodies) {
            examineBody(body);
        }
    }

private:
    void examine(const FolderEntry& entry) {
        const std::string& name = entry.name;
        if (entry.type == FolderEntry::Type::kOther) {
            add(FindingKind::kUnknownFile, name, "is neither a file nor a folder");
        } else if (hasMarker(name, kDscSuffix)) {
            examineDescriptor(name);
        } else if (hasMarker(name, kNewMarker)) {
            noteBodyOf(name);
            add(FindingKind::kNewDescriptor, name, "is left over from a write that was broken off",
                Repair::kDelete);
        } else if (hasMarker(name, kDeletedMarker)) {
            noteBodyOf(name);
            add(FindingKind::kRemoved, name, "is left over from a removal that was broken off",
                Repair::kDelete);
        } else if (hasMarker(name, kOldMarker)) {
            examineSaved(name);
        } else {
            addUnknown(name);
        }
    }

    void examineSaved(const std::string& name) {
        noteBodyOf(name);
        const std::string descriptor(withoutMarker(name, kOldMarker));
        if (files_.contains(descriptor)) {
            add(FindingKind::kSavedDescriptor, name,
                "is the state before a write that was finished", Repair::kDelete);
        } else {
            add(FindingKind::kSavedDescriptor, name,
                "is the state before a write that was broken off", Repair::kPutBack);
        }
    }

    void examineDescriptor(const std::string& name) {
        const std::optional<std::string> body = noteBodyOf(name);
        const Address address{folder_, std::string(recordName(name))};
        try {
            const Record record = Record::read(address);
            // What the store sees and this does not, or the other way round, must not
            // decide about a file.
            unsure_ = unsure_ || record.hasBody() != body.has_value();
        } catch (const Failure& failure) {
            add(FindingKind::kDamaged, name, damageOf(body));
            return;
        }
        if (body && !owners_.emplace(*body, name).second) {
            add(FindingKind::kDamaged, name,
                fmt::format("names the same body file as {}", owners_[*body]));
        }
    }

    // Of a descriptor that the store does not read.
    std::string damageOf(const std::optional<std::string>& body) const {
        if (body && !isBodyName(*body)) {
            return fmt::format("names {} as its body file, and no body can have that name", *body);
        }
        if (body && !files_.contains(*body)) {
            return fmt::format("names the body file {}, which is missing", *body);
        }
        return "cannot be read: its text is malformed";
    }

    // The body that a file names, in whatever state the file is.
    std::optional<std::string> noteBodyOf(const std::string& name) {
        try {
            const std::vector<DescriptorLine> lines = readDescriptor(joined(path_, name));
            std::optional<std::string> body = bodyNameOf(lines);
            if (body && isBodyName(*body)) {
                named_.insert(*body);
            } else if (!isSound(lines)) {
                unsure_ = true;  // the damaged line may be the one
            }
            return body;
        } catch (const Failure&) {
            unsure_ = true;
            return std::nullopt;
        }
    }

    void examineBody(const std::string& name) {
        if (named_.contains(name)) {
            return;
        }
        if (!isUniqueName(name)) {
            addUnknown(name);  // whatever its name: the store has not made it
        } else if (unsure_) {
            add(FindingKind::kUnnamedBody, name,
                "is named by no descriptor that can be read, and may belong to a damaged one");
        } else {
            add(FindingKind::kUnnamedBody, name, "is a body file that no descriptor names",
                Repair::kDelete);
        }
    }

    void addUnknown(const std::string& name) {
        add(FindingKind::kUnknownFile, name, "is no file of the store");
    }

    void add(FindingKind kind, const std::string& name, const std::string& message,
             Repair repair = Repair::kNone) {
        findings_.push_back({kind, joined(path_, name), message, repair});
    }

    std::string folder_;
    std::string path_;
    std::vector<Finding>& findings_;
    std::set<std::string> files_;
    std::vector<FolderEntry> others_;
    std::set<std::string> named_;                // bodies
    std::map<std::string, std::string> owners_;  // body: the first descriptor that names it
    bool unsure_ = false;                        // some file may name a body that is not in named_
};

void removeFile(const std::string& path) {
    if (os::remove(path.c_str()) != 0) {
        failWithErrno("remove", path);
    }
}

void putBack(const std::string& path) {
    const std::string descriptor(withoutMarker(path, kOldMarker));
    if (exists(descriptor)) {
        return;  // the next inspection sees what it is now
    }
    if (os::rename(path.c_str(), descriptor.c_str()) != 0) {
        failWithErrno("rename", path);
    }
}

void makeFolder(const std::string& path) {
    if (os::mkdir(path.c_str(), S_IRWXU) != 0) {
        failWithErrno("make the folder", path);
    }
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

}  // namespace

const char* nameOf(Finding::Kind kind) {
    switch (kind) {
        case FindingKind::kUnnamedBody:
            return "unnamed-body";
        case FindingKind::kNewDescriptor:
            return "new-descriptor";
        case FindingKind::kSavedDescriptor:
            return "saved-descriptor";
        case FindingKind::kRemoved:
            return "removed";
        case FindingKind::kUnfinishedCopy:
            return "unfinished-copy";
        case FindingKind::kMissingFolder:
            return "missing-folder";
        case FindingKind::kDamaged:
            return "damaged";
        case FindingKind::kUnknownFile:
            return "unknown-file";
        case FindingKind::kMovedAside:
            return "moved-aside";
        case FindingKind::kUnfinishedChange:
            return "unfinished-change";
        case FindingKind::kPrevious:
            break;
    }
    return "previous";
}

const char* planOf(Finding::Repair repair) {
    switch (repair) {
        case Repair::kDelete:
            return "it will be deleted";
        case Repair::kPutBack:
            return "it will be put back";
        case Repair::kDropCopy:
            return "it will be removed with all it holds";
        case Repair::kMakeFolder:
            return "it will be made";
        case Repair::kMoveBack:
            return "it will be moved back";
        case Repair::kFinish:
            return "it will be finished";
        case Repair::kNone:
            break;
    }
    return "";
}

std::vector<Finding> inspect() {
    const FolderState folders = folderState();
    if (!folders.live) {
        return {{FindingKind::kMovedAside, layout::kPrevious,
                 "is the database, moved aside by a change of the password that was broken off",
                 Repair::kMoveBack}};
    }
    std::vector<Finding> findings;
    for (const layout::Folder& folder : layout::kFolders) {
        if (!exists(folder.path)) {
            findings.push_back(
                {FindingKind::kMissingFolder, folder.path, "is missing", Repair::kMakeFolder});
        }
    }
    if (folders.copy) {
        findings.push_back({FindingKind::kUnfinishedCopy, layout::kCopy,
                            "is left over from a change of the password", Repair::kDropCopy});
    }
    if (folders.previous) {
        findings.push_back({FindingKind::kPrevious, layout::kPrevious,
                            "is the database before the last change of the password, and opens "
                            "with the old one; remove it when it is no longer needed"});
    }
    for (const std::string& folder : allFolders()) {
        FolderInspection(folder, findings).run();
    }
    return findings;
}

void repair(const std::vector<Finding>& findings) {
    std::set<std::string> changed;
    for (const Finding& finding : findings) {
        switch (finding.repair) {
            case Repair::kNone:
            case Repair::kFinish:
                continue;
            case Repair::kDelete:
                removeFile(finding.path);
                break;
            case Repair::kPutBack:
                putBack(finding.path);
                break;
            case Repair::kDropCopy:
                dropCopy();
                continue;
            case Repair::kMakeFolder:
                makeFolder(finding.path);
                break;
            case Repair::kMoveBack:
                putPreviousBack();
                continue;
        }
        changed.insert(folderOf(finding.path));
    }
    for (const std::string& folder : changed) {
        syncFolder(folder);
    }
}

}  // namespace fstore
