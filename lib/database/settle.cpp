#include "lib/database/settle.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "format/body_reference.h"
#include "format/dsc_text.h"
#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/bytes.h"
#include "lib/base/conflict_copy.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/sha256.h"
#include "lib/base/time.h"
#include "lib/database/finding.h"
#include "lib/database/lost.h"
#include "lib/database/protection.h"
#include "lib/records/address.h"
#include "lib/records/attributes.h"
#include "lib/records/descriptor.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

// A file of the database by the folder that it is in.
struct StoredFile {
    std::string folder;  // as allFolders() has it
    std::string file;

    std::string pathOf(const std::string& name) const { return joined(folderPath(folder), name); }
    std::string path() const { return pathOf(file); }
    // As a plan of what was moved away has it.
    std::string belowLive(const std::string& name) const {
        return folder.empty() ? name : joined(folder, name);
    }
};

StoredFile storedFile(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    StoredFile place{parseFolder(slash == std::string::npos ? "" : path.substr(0, slash)),
                     slash == std::string::npos ? path : path.substr(slash + 1)};
    if (!isPlainName(place.file) || !isA(os::EntryType::kFile, place.path())) {
        throw Failure(kMissing, fmt::format("there is no file {} in the database", path), path);
    }
    return place;
}

[[noreturn]] void failOnState(const std::string& path, const std::string& why) {
    throw Failure(
        kFound,
        fmt::format("the state of {} that was to be kept {}; nothing was changed", path, why),
        path);
}

bool isDescriptor(std::string_view file) {
    return markerOf(file) == kDscSuffix;
}

// The files of the folder that name the body; with `perhaps` also those that cannot be read, and
// may.
std::vector<std::string> namersOf(const StoredFile& place, const std::string& body, bool perhaps) {
    std::vector<std::string> found;
    for (const FolderEntry& entry : readFolder(folderPath(place.folder))) {
        const std::string named = stateBeside(entry.name).value_or(entry.name);
        if (entry.type != FolderEntry::Type::kFile || markerOf(named).empty()) {
            continue;
        }
        try {
            const std::vector<DescriptorLine> lines = readDescriptor(place.pathOf(entry.name));
            const auto other = bodyNameOf(lines);
            const bool may = perhaps && (lines.empty() || !isSound(lines));
            if (other ? *other == body : may) {
                found.push_back(entry.name);
            }
        } catch (const Failure&) {
            if (perhaps) {
                found.push_back(entry.name);
            }
        }
    }
    return found;
}

// The descriptor of another record that names the body.
std::optional<std::string> otherRecordOf(const StoredFile& place, const std::string& body) {
    const std::vector<std::string> names = namersOf(place, body, /*perhaps=*/false);
    const auto other = std::ranges::find_if(names, [&](const std::string& name) {
        return name != place.file && isDescriptor(name) && !stateBeside(name);
    });
    return other != names.end() ? std::optional(*other) : std::nullopt;
}

// As far as it can be told without the key: a plain body is the one that its SHA-256 was taken of.
bool isBodyAsSaid(const std::vector<DescriptorLine>& lines, const std::string& path) {
    const auto digest = std::ranges::find_if(lines, [](const DescriptorLine& line) {
        return line.form == DescriptorLine::Form::kAttribute && line.id == attr::kSha256 &&
               line.type == kTypeBinary;
    });
    const DescriptorLine* const reference = findBodyReference(lines);
    if (digest == lines.end() || (reference->type & kFlagEncrypted) != 0) {
        return true;
    }
    Sha256 body;
    readInPieces(path, [&](Bytes piece) { body.add(piece); });
    return std::ranges::equal(bytesOf(digest->value), body.finish());
}

// That the store reads a descriptor of this text, in this folder.
void requireSound(const StoredFile& place, const std::vector<DescriptorLine>& lines) {
    if (lines.empty() || !isSound(lines)) {
        failOnState(place.path(), "is damaged");
    }
    const auto body = bodyNameOf(lines);
    if (!body) {
        return;
    }
    if (!isA(os::EntryType::kFile, place.pathOf(*body))) {
        failOnState(place.path(), fmt::format("names the body file {}, which is missing", *body));
    }
    // Two hosts give new bodies the same names, so by now the name may be another record's.
    if (const auto other = otherRecordOf(place, *body)) {
        failOnState(place.path(),
                    fmt::format("names the body file {}, which is that of {}", *body, *other));
    }
    if (!isBodyAsSaid(lines, place.pathOf(*body))) {
        failOnState(place.path(),
                    fmt::format("names the body file {}, which does not match its SHA-256", *body));
    }
}

bool isNamedBesides(const StoredFile& place, const std::string& body, std::string_view except) {
    return std::ranges::any_of(namersOf(place, body, /*perhaps=*/true),
                               [&](const std::string& name) { return name != except; });
}

// The file, and, when it is a descriptor, the body that it alone names.
std::string moveAway(const StoredFile& place, const std::string& file, bool isDescriptor) {
    const char* const kind = nameOf(Finding::Kind::kConflict);
    LostPlan plan{.time = now(), .key = std::nullopt, .files = {}};
    try {
        plan.key = readKey().digest;
    } catch (const Failure&) {
        plan.key.reset();  // a record that cannot be read stands for no key
    }
    plan.files.push_back({place.belowLive(file), kind, "is the state that was not kept"});
    const std::optional<std::string> body =
        isDescriptor ? bodyNameOf(readDescriptor(place.pathOf(file))) : std::nullopt;
    if (body && isBodyName(*body) && isA(os::EntryType::kFile, place.pathOf(*body)) &&
        !isNamedBesides(place, *body, file)) {
        plan.files.push_back(
            {place.belowLive(*body), kind, "is the body of the state that was not kept"});
    }
    return moveToLost(plan);
}

// A name by which every check knows a second state of the file, also after a kill.
std::string nameOfCopy(const std::string& file, const std::string& time, int attempt) {
    const std::size_t end = std::min(file.rfind('.'), file.size());
    return fmt::format("{}.sync-conflict-{}-{}{}", file.substr(0, end), time, attempt,
                       file.substr(end));
}

// Makes a second state of the file, and syncs it.
template <class Fill>
std::string makeCopy(const StoredFile& place, Fill fill) {
    const std::string time = compactTime(now());
    for (int attempt = 0;; ++attempt) {
        std::string name = nameOfCopy(place.file, time, attempt);
        const std::string path = place.pathOf(name);
        os::File file = os::openFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
        if (!file && errno == EEXIST) {
            continue;
        }
        if (!file) {
            failWithErrno("make", path);
        }
        os::TempPath made(path);
        fill([&](Bytes bytes) {
            if (!os::writeAll(file.get(), bytes.data(), bytes.size())) {
                failWithErrno("write", path);
            }
        });
        if (!os::closeDurably(std::move(file))) {
            failWithErrno("write", path);
        }
        made.commit();
        return name;
    }
}

// Puts `source`, of the same folder, in the place of the file. What the file was goes away.
std::string replaceBy(const StoredFile& place, const std::string& source) {
    const std::string second =
        makeCopy(place, [&](const auto& write) { readInPieces(place.path(), write); });
    syncFolder(folderPath(place.folder));
    requireLock();
    if (os::rename(place.pathOf(source).c_str(), place.path().c_str()) != 0) {
        failWithErrno("rename", place.pathOf(source));
    }
    syncFolder(folderPath(place.folder));
    return moveAway(place, second, isDescriptor(place.file));
}

Settled settleCopy(const StoredFile& copy, const std::string& rival, Keep keep) {
    const StoredFile place{copy.folder, rival};
    const bool isThere = isA(os::EntryType::kFile, place.path());
    if (keep == Keep::kOurs) {
        if (!isThere) {
            throw Failure(kMissing,
                          fmt::format("there is no {} to keep; --keep theirs puts {} there",
                                      place.path(), copy.path()),
                          place.path());
        }
        return {place.path(), moveAway(copy, copy.file, !markerOf(rival).empty())};
    }
    if (isDescriptor(rival)) {
        requireSound(place, readDescriptor(copy.path()));
    }
    if (isThere) {
        return {place.path(), replaceBy(place, copy.file)};
    }
    requireLock();
    if (os::renameNew(copy.path().c_str(), place.path().c_str()) != 0) {
        failWithErrno("rename", copy.path());
    }
    syncFolder(folderPath(place.folder));
    return {place.path(), {}};
}

Settled settleMerge(const StoredFile& place, const std::string& state) {
    requireSound(place, parseDescriptor(state));
    const std::string made = makeCopy(place, [&](const auto& write) { write(bytesOf(state)); });
    return {place.path(), replaceBy(place, made)};
}

}  // namespace

Settled settle(Database& database, const std::string& path, Keep keep) {
    const Hold hold = database.enter(Access::kChange, Need::kFiles);
    const StoredFile place = storedFile(path);
    const auto rival = stateBeside(place.file);
    const std::string& file = rival ? *rival : place.file;
    if (keep == Keep::kTheirs && isDescriptor(file) &&
        Address{place.folder, std::string(withoutMarker(file, kDscSuffix))}.isInternal()) {
        throw Failure(kInvalid,
                      fmt::format("{} is a record of the password, and not to be exchanged alone: "
                                  "restore a backup, or make new slots with `fstore key reset`",
                                  place.path()),
                      place.path());
    }
    if (rival) {
        return settleCopy(place, *rival, keep);
    }
    if (isDescriptor(place.file)) {
        const SecretBytes bytes = readDescriptorBytes(place.path());
        const auto sides =
            mergeSidesOf({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        if (sides) {
            return settleMerge(place, keep == Keep::kOurs ? sides->ours : sides->theirs);
        }
    }
    throw Failure(kInvalid,
                  fmt::format("{} is not in conflict; `fstore check` lists what is", path), path);
}

}  // namespace fstore
