#include "lib/index/record_index.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <tuple>
#include <utility>

#include "format/record_name.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/held_lock.h"
#include "lib/base/name_list.h"
#include "lib/index/index_files.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

// Rows that are written at once.
constexpr std::size_t kAtOnce = 10'000;

// The least text of bytes whose hexadecimal digits begin with these.
std::string leastWith(std::string digits) {
    if (digits.size() % 2 != 0) {
        digits += '0';
    }
    const auto bytes = fromHex(digits);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

// The digits that follow those of their number; empty after the last ones.
std::string nextDigits(std::string digits) {
    while (!digits.empty() && digits.back() == 'f') {
        digits.pop_back();
    }
    if (!digits.empty()) {
        digits.back() = digits.back() == '9' ? 'a' : static_cast<char>(digits.back() + 1);
    }
    return digits;
}

std::string folderAround(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    return slash == std::string::npos ? std::string() : folder.substr(0, slash);
}

bool isIn(const std::string& folder, const std::string& outer) {
    return outer.empty() || folder == outer || folder.starts_with(outer + "/");
}

// Who has lost the lock writes nothing more.
std::optional<FolderStamp> stampOf(const std::string& folder) {
    const HeldLock* const lock = heldLock();
    const bool isLost = lock != nullptr && !lock->knownLoss().empty();
    return isLost ? std::nullopt : FolderStamp::set(folder);
}

// The names of a folder's bodies. There may be a million, and nearly all are numbers.
class BodyFiles {
public:
    void add(const std::string& name) {
        if (isUniqueName(name)) {
            numbers_.push_back(numberOf(name));
        } else {
            others_.insert(name);
        }
    }
    void sort() { std::ranges::sort(numbers_); }
    bool has(const std::string& name) const {
        return isUniqueName(name) ? std::ranges::binary_search(numbers_, numberOf(name))
                                  : others_.contains(name);
    }

private:
    static std::uint32_t numberOf(const std::string& name) {
        constexpr int kHexadecimal = 16;
        std::uint32_t number = 0;
        std::from_chars(name.data(), name.data() + name.size(), number, kHexadecimal);
        return number;
    }

    std::vector<std::uint32_t> numbers_;
    std::set<std::string> others_;
};

}  // namespace

// What is in a folder, as far as rows depend on it.
struct RecordIndex::Listing {
    NameList descriptors;
    std::vector<std::string> folders;
    BodyFiles bodies;

    static Listing of(const std::string& path) {
        Listing listing;
        visitEntries(path, [&](const FolderEntry& entry) {
            if (entry.type == FolderEntry::Type::kFolder) {
                listing.folders.push_back(entry.name);
            } else if (entry.type == FolderEntry::Type::kFile) {
                if (markerOf(entry.name).empty() &&
                    markerOf(stateBeside(entry.name).value_or(entry.name)).empty()) {
                    listing.bodies.add(entry.name);
                } else {
                    listing.descriptors.add(entry.name);
                }
            }
        });
        listing.descriptors.sort();
        listing.bodies.sort();
        return listing;
    }

    // A row holds while its descriptor is the same file, and the body that this names is there.
    bool leaves(const IndexedFile& known, const std::string& folder) const {
        return !known.mustLook &&
               FileStamp::of(joined(folderPath(folder), known.file)) == known.stamp &&
               (known.body.empty() || bodies.has(known.body));
    }
};

RecordIndex::~RecordIndex() {
    if (tables_) {
        (void)guarded([this] { settle(); });
    }
}

// The order of allRecords(): a folder comes before those in it, and these before its neighbours.
bool RecordIndex::isBefore(const std::string& a, const std::string& b) {
    return std::ranges::lexicographical_compare(a, b, [](char x, char y) {
        const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
        return rank(x) < rank(y);
    });
}

template <class Step>
bool RecordIndex::guarded(Step step) noexcept {
    if (isOff_) {
        return false;
    }
    try {
        if (!isThere()) {
            return false;
        }
        const os::QuietWrites quiet;
        step();
        return true;
    } catch (const SqlFailure& failure) {
        giveUp(failure);
    } catch (const std::exception&) {
        // A folder or a descriptor that cannot be examined: whoever looks at the records meets it,
        // as it meets a want of memory.
        close();
        isOff_ = true;
    }
    return false;
}

template <class Ask>
auto RecordIndex::answer(Ask ask) -> std::optional<decltype(ask())> {
    std::optional<decltype(ask())> found;
    if (!guarded([&] {
            if (open()) {
                settle();
                found = ask();
            }
        })) {
        found.reset();
    }
    return found;
}

const std::string& RecordIndex::file() {
    if (!file_) {
        file_ = setup_.file ? setup_.file() : std::string();
    }
    return *file_;
}

bool RecordIndex::isThere() {
    return tables_ || (!file().empty() && exists(file()));
}

bool RecordIndex::open() {
    if (tables_) {
        return true;
    }
    struct stat status {};
    if (os::lstat(file().c_str(), &status) != 0) {
        return false;
    }
    const auto place = FolderStamp::of(".");
    if (!place || !othersAt(file()).empty()) {
        isOff_ = true;
        return false;
    }
    constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
    if (status.st_nlink != 1 || (status.st_mode & kOthers) != 0) {
        // Somebody else may have written it. The next one is made as it should be.
        isOff_ = !setup_.exclusive || !removeIndexAt(file());
        return false;
    }
    tables_ = std::make_unique<IndexTables>(file(), *place);
    for (IndexFolder& folder : tables_->folders()) {
        std::string path = folder.path;
        folders_.try_emplace(std::move(path)).first->second = {std::move(folder), false, {}};
    }
    return true;
}

// Under another name first: a file of ours that SQLite has open must not be opened a second time,
// as closing it would end SQLite's locks.
void RecordIndex::makeFile() {
    const std::string made = newIndexAt(file());
    (void)os::remove(made.c_str());
    {
        const os::File file =
            os::openFile(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kReadableByOwner);
        if (!file || !os::setPermissions(file, kReadableByOwner)) {
            return;
        }
    }
    if (os::renameNew(made.c_str(), file().c_str()) != 0) {
        (void)os::remove(made.c_str());
    }
}

void RecordIndex::close() noexcept {
    tables_.reset();
    folders_.clear();
}

// Other readers may have it open. So only who is alone removes it: others leave it, and look at the
// records.
void RecordIndex::giveUp(const SqlFailure& failure) noexcept {
    close();
    isOff_ = true;
    if ((failure.isDamage() && setup_.exclusive) || (failure.isFull() && wasMade_)) {
        (void)removeIndexAt(*file_);
    }
}

bool RecordIndex::offer(std::size_t descriptors) {
    if (tables_ || descriptors <= setup_.worth) {
        return false;
    }
    try {
        if (const auto others = othersAt(file()); !file().empty() && !others.empty()) {
            isOff_ = true;
            if (setup_.inTheWay) {
                setup_.inTheWay(others.front());
            }
        }
        if (!isOff_ && !file().empty() && !exists(file()) &&
            (!setup_.makeFolders || setup_.makeFolders(file()))) {
            makeFile();
            wasMade_ = true;
        }
    } catch (const std::exception&) {
        isOff_ = true;  // the records are looked at, as they are without an index
    }
    return wasMade_ && !isOff_;
}

bool RecordIndex::hasItsStamp(const Folder& folder) {
    return folder.stamp && FolderStamp::of(folderPath(folder.path)) == folder.stamp;
}

bool RecordIndex::isFreshNow(Folder& folder) {
    folder.isFresh = folder.isFresh || hasItsStamp(folder);
    return folder.isFresh;
}

// One that was only begun knows no folder, not even "db" itself.
bool RecordIndex::areAllFreshNow() {
    return !folders_.empty() &&
           std::ranges::all_of(folders_, [](auto& each) { return isFreshNow(each.second); });
}

RecordIndex::Folder& RecordIndex::folderAt(const std::string& path) {
    const auto [entry, isNew] = folders_.try_emplace(path);
    if (isNew) {
        IndexTables::Change change(*tables_);
        entry->second = {tables_->addFolder(path), false, {}};
        change.commit();
    }
    return entry->second;
}

// The folders directly in it, as the index knows them.
std::vector<std::string> RecordIndex::insideOf(const std::string& path) const {
    std::vector<std::string> inside;
    for (auto each = folders_.upper_bound(path); each != folders_.end() && isIn(each->first, path);
         ++each) {
        if (folderAround(each->first) == path) {
            inside.push_back(each->first);
        }
    }
    return inside;
}

// A folder that is as it was has the folders in it that it had.
void RecordIndex::refresh() {
    std::vector<std::string> toDo{std::string()};
    while (!toDo.empty()) {
        const std::string path = std::move(toDo.back());
        toDo.pop_back();
        Folder& folder = folderAt(path);
        if (!isFreshNow(folder)) {
            refresh(folder);
        }
        std::ranges::move(insideOf(path), std::back_inserter(toDo));
    }
}

// With those in it.
void RecordIndex::forget(const std::string& path) {
    IndexTables::Change change(*tables_);
    auto each = folders_.lower_bound(path);
    while (each != folders_.end() && isIn(each->first, path)) {
        tables_->removeFolder(each->second.id);
        each = folders_.erase(each);
    }
    change.commit();
}

// The stamp is taken before the folder is read, so that a change in between shows.
void RecordIndex::refresh(Folder& folder) {
    const std::string path = folderPath(folder.path);
    std::optional<FolderStamp> stamp;
    if (setup_.exclusive) {
        stamp = stampOf(path);
    }
    if (!stamp) {
        stamp = FolderStamp::of(path);
        if (stamp && !stamp->isSettled()) {
            stamp.reset();
        }
    }
    const Listing listing = Listing::of(path);
    std::vector<std::int64_t> gone;
    std::vector<std::uint32_t> changed;
    compare(folder, listing, gone, changed);
    follow(folder, listing);

    IndexTables::Change change(*tables_);
    tables_->setStamp(folder.id, std::nullopt);
    for (const std::int64_t id : gone) {
        tables_->removeFile(id);
    }
    std::size_t written = 0;
    for (const std::uint32_t descriptor : changed) {
        const std::string file(listing.descriptors[descriptor]);
        tables_->put(folder.id, readIndexRow(folder.path, file));
        if (++written % kAtOnce == 0) {
            change.commitAndContinue();
        }
    }
    tables_->setStamp(folder.id, stamp);
    change.commit();
    constexpr std::size_t kMany = 100;
    if (changed.size() + gone.size() > kMany) {
        tables_->emptyLog();
    }
    folder.stamp = stamp;
    folder.isFresh = true;
}

// The folders in it that are new, and those that are gone. Before it has its stamp: a fresh folder
// has the folders in it that the file knows, also when this process dies in between.
void RecordIndex::follow(const Folder& folder, const Listing& listing) {
    std::set<std::string> there;
    for (const std::string& name : listing.folders) {
        const std::string path = folder.path.empty() ? name : joined(folder.path, name);
        (void)folderAt(path);
        there.insert(path);
    }
    for (const std::string& inside : insideOf(folder.path)) {
        if (!there.contains(inside)) {
            forget(inside);
        }
    }
}

// Both are in the order of names.
void RecordIndex::compare(const Folder& folder, const Listing& listing,
                          std::vector<std::int64_t>& gone, std::vector<std::uint32_t>& changed) {
    const NameList& names = listing.descriptors;
    std::uint32_t next = 0;
    tables_->visitFiles(folder.id, [&](const IndexedFile& known) {
        while (next < names.size() && names[next] < known.file) {
            changed.push_back(next++);
        }
        if (next == names.size() || names[next] != known.file) {
            gone.push_back(known.id);
            return;
        }
        if (!listing.leaves(known, folder.path)) {
            changed.push_back(next);
        }
        ++next;
    });
    while (next < names.size()) {
        changed.push_back(next++);
    }
}

std::vector<Address> RecordIndex::sorted(Hits hits) const {
    std::map<std::int64_t, std::pair<std::size_t, const std::string*>> places;
    for (const auto& [path, folder] : folders_) {
        const std::size_t rank = places.size();
        places[folder.id] = {rank, &path};
    }
    const auto rankOf = [&](const auto& hit) {
        const auto found = places.find(hit.first);
        return found == places.end() ? places.size() : found->second.first;
    };
    std::ranges::sort(hits, [&](const auto& a, const auto& b) {
        return a.first == b.first ? a.second < b.second : rankOf(a) < rankOf(b);
    });
    hits.erase(std::unique(hits.begin(), hits.end()), hits.end());
    std::vector<Address> addresses;
    addresses.reserve(hits.size());
    for (auto& [folder, name] : hits) {
        if (const auto place = places.find(folder); place != places.end()) {
            addresses.push_back({*place->second.second, std::move(name)});
        }
    }
    return addresses;
}

Lookup::Addresses RecordIndex::collect(const std::function<void(Hits&)>& find) {
    return answer([&] {
        refresh();
        Hits hits;
        find(hits);
        return sorted(std::move(hits));
    });
}

Lookup::Addresses RecordIndex::withDigest(std::string_view digits) {
    const std::string from = leastWith(std::string(digits));
    const std::string end = leastWith(nextDigits(std::string(digits)));
    return collect([&](Hits& hits) {
        tables_->visitDigests(from, end, [&](IndexHit hit) {
            if (hit.info.sha256.starts_with(digits)) {
                hits.emplace_back(hit.folder, std::move(hit.name));
            }
        });
    });
}

Lookup::Addresses RecordIndex::withObject(Kind kind, std::string_view sha256) {
    const std::string from = leastWith(std::string(sha256));
    return collect([&](Hits& hits) {
        tables_->visitDigests(from, from + '\0', [&](IndexHit hit) {
            if (hit.info.sha256 == sha256 && hit.info.kind == kind) {
                hits.emplace_back(hit.folder, std::move(hit.name));
            }
        });
    });
}

Lookup::Addresses RecordIndex::keysWith(std::string_view keySha256) {
    return collect([&](Hits& hits) {
        tables_->visitKeys(leastWith(std::string(keySha256)), [&](IndexHit hit) {
            if (hit.info.kind == Kind::kKey) {
                hits.emplace_back(hit.folder, std::move(hit.name));
            }
        });
    });
}

std::optional<std::set<std::string>> RecordIndex::keys() {
    return answer([&] {
        refresh();
        return tables_->keys();
    });
}

std::optional<AddressList> RecordIndex::matching(const Filter& filter, const std::string& folder,
                                                 bool unlocked) {
    return answer([&] {
        refresh();
        std::map<std::int64_t, NameList> within;
        for (const auto& [path, known] : folders_) {
            if (isIn(path, folder)) {
                within.try_emplace(known.id);
            }
        }
        const auto take = [&](const IndexHit& hit) {
            if (const auto found = within.find(hit.folder); found != within.end()) {
                found->second.add(hit.name);
            }
        };
        const auto takeIfAdmitted = [&](const IndexHit& hit) {
            if (filter.admits(hit.info)) {
                take(hit);
            }
        };
        if (!filter.digest().empty()) {
            tables_->visitDigests(leastWith(filter.digest()),
                                  leastWith(nextDigits(filter.digest())), takeIfAdmitted);
        } else {
            tables_->visitRecords(filter.latestExpiry(), takeIfAdmitted);
        }
        tables_->visitLooks(Look::kAlways | (unlocked ? Look::kUnlocked : 0) |
                                (filter.asksForExpiry() ? Look::kUndated : 0),
                            take);
        AddressList found;
        for (const auto& [path, known] : folders_) {
            if (const auto names = within.find(known.id); names != within.end()) {
                found.add(path, std::move(names->second));
            }
        }
        return found;
    });
}

Lookup::Addresses RecordIndex::unsure(bool unlocked) {
    return collect([&](Hits& hits) {
        tables_->visitLooks(Look::kAlways | (unlocked ? Look::kHidden : 0), [&](IndexHit hit) {
            hits.emplace_back(hit.folder, std::move(hit.name));
        });
    });
}

std::optional<std::vector<std::string>> RecordIndex::folders() {
    const auto found = answer([&]() -> std::optional<std::vector<std::string>> {
        if (!areAllFreshNow()) {
            return std::nullopt;
        }
        std::vector<std::string> paths;
        for (const auto& [path, folder] : folders_) {
            paths.push_back(path);
        }
        return paths;
    });
    return found ? *found : std::nullopt;
}

std::optional<std::vector<std::string>> RecordIndex::saved() {
    const auto found = answer([&]() -> std::optional<std::vector<std::string>> {
        if (!areAllFreshNow()) {
            return std::nullopt;
        }
        std::map<std::int64_t, std::string> paths;
        for (const auto& [path, folder] : folders_) {
            paths[folder.id] = folderPath(path);
        }
        std::vector<std::string> files;
        tables_->visitRest([&](std::int64_t folder, const std::string& file) {
            if (markerOf(file) == kOldMarker) {
                files.push_back(joined(paths.at(folder), file));
            }
        });
        return files;
    });
    return found ? *found : std::nullopt;
}

// A folder that has changed is read again, and a row with another stamp than its descriptor's then:
// neither is an answer. Of a folder that has not, every name counts.
void RecordIndex::compareRows(const Folder& folder, Progress& progress, IndexDoubt& doubt) {
    const std::string path = folderPath(folder.path);
    const bool isFresh = hasItsStamp(folder);
    const auto note = [&](const std::string& name) {
        if (doubt.count++ == 0) {
            doubt.first = joined(path, name);
        }
    };
    const auto noteIfFresh = [&](const std::string& name) {
        if (isFresh) {
            note(name);
        }
    };
    const Listing listing = Listing::of(path);
    for (const std::string& name : listing.folders) {
        if (!folders_.contains(folder.path.empty() ? name : joined(folder.path, name))) {
            noteIfFresh(name);
        }
    }
    const NameList& names = listing.descriptors;
    std::uint32_t next = 0;
    tables_->visitFiles(folder.id, [&](const IndexedFile& known) {
        progress.step();
        while (next < names.size() && names[next] < known.file) {
            noteIfFresh(std::string(names[next++]));
        }
        if (next == names.size() || names[next] != known.file) {
            noteIfFresh(known.file);
            return;
        }
        ++next;
        const bool counts = isFresh || listing.leaves(known, folder.path);
        if (counts && !tables_->says(folder.id, readIndexRow(folder.path, known.file))) {
            note(known.file);
        }
    });
    while (next < names.size()) {
        noteIfFresh(std::string(names[next++]));
    }
}

std::optional<IndexDoubt> RecordIndex::compareAll(Observer& observer) {
    bool isCancelled = false;
    auto doubt = answer([&] {
        IndexDoubt found;
        found.file = file();
        try {
            Progress progress(observer, "Comparing the index", tables_->countFiles());
            for (const auto& [path, folder] : folders_) {
                if (isA(os::EntryType::kFolder, folderPath(path))) {
                    compareRows(folder, progress, found);
                }
            }
        } catch (const Failure& failure) {
            isCancelled = failure.status() == kInterrupted;
            throw;
        }
        return found;
    });
    if (isCancelled) {
        throw Failure(kInterrupted, "interrupted");
    }
    return doubt;
}

std::optional<BodyNames::Answer> RecordIndex::ask(const std::string& folder,
                                                  const std::string& body) {
    return answer([&] {
        Folder& known = folderAt(folder);
        if (!isFreshNow(known)) {
            refresh(known);
        }
        return tables_->namesOf(known.id, body);
    });
}

// The stamp goes first, from the file: whatever happens then, the folder is read again.
void RecordIndex::willChange(const Address& address) noexcept {
    (void)guarded([&] {
        if (!open()) {
            return;
        }
        const auto found = folders_.find(address.folder);
        if (found == folders_.end()) {
            return;
        }
        Folder& folder = found->second;
        if (!hasItsStamp(folder)) {
            lose(folder);  // somebody does not care for the lock
            return;
        }
        if (folder.changing.empty()) {
            IndexTables::Change change(*tables_);
            tables_->setStamp(folder.id, std::nullopt);
            change.commit();
        }
        folder.changing.insert(address.name);
    });
}

void RecordIndex::changed(const Address& address) noexcept {
    (void)guarded([&] {
        const auto found = folders_.find(address.folder);
        if (found != folders_.end() && found->second.changing.contains(address.name)) {
            found->second.stamp = stampOf(folderPath(address.folder));
        }
    });
}

void RecordIndex::lose(Folder& folder) {
    folder.changing.clear();
    folder.stamp.reset();
    folder.isFresh = false;
}

void RecordIndex::settle() {
    for (auto& [path, folder] : folders_) {
        if (!folder.changing.empty()) {
            settle(folder);
        }
    }
}

// Of a change that failed nobody has set the time.
void RecordIndex::settle(Folder& folder) {
    if (!hasItsStamp(folder)) {
        lose(folder);
        return;
    }
    const std::set<std::string> names = std::exchange(folder.changing, {});
    IndexTables::Change change(*tables_);
    for (const std::string& name : names) {
        const std::string descriptor = descriptorName(name);
        for (const std::string_view marker :
             {std::string_view(), kNewMarker, kOldMarker, kDeletedMarker}) {
            const std::string file = descriptor + std::string(marker);
            if (isA(os::EntryType::kFile, joined(folderPath(folder.path), file))) {
                tables_->put(folder.id, readIndexRow(folder.path, file));
            } else {
                tables_->removeFile(folder.id, file);
            }
        }
    }
    tables_->setStamp(folder.id, folder.stamp);
    change.commit();
}

}  // namespace fstore
