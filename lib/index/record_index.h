// A derived index of a database's records: where those are that a digest, a name or a time names,
// without a look at all of them.
//
// It is a cache. What counts is what the descriptors say: whoever finds a record by it reads that
// record, and it answers only while the time of each folder shows that nothing in it was created,
// renamed or removed since its descriptors were read. A folder that shows something else is read
// again, of its descriptors those that changed. An index that is damaged, of another database, of
// another version, busy or not to be written answers nothing, and the caller looks at the records:
// so it is never the reason of a failure. What it does not see is a descriptor that was overwritten
// in place, as no program of ours does.
//
// It has no secret in it: only what descriptors say in plain form.
//
// Of whoever holds the lock of a database, in its folder, for as long as the lock is held: nothing
// of it stays open. For one thread.
#ifndef LIB_INDEX_RECORD_INDEX_H
#define LIB_INDEX_RECORD_INDEX_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/index/index_tables.h"
#include "lib/index/stamps.h"
#include "lib/records/address.h"
#include "lib/records/attributes.h"
#include "lib/records/filter.h"

namespace fstore {

// From so many descriptors on an index is made. Below, looking at all of them takes no longer than
// opening it.
inline constexpr std::size_t kWorthAnIndex = 10'000;

struct IndexSetup {
    std::string file;        // an absolute path without links; empty for no index
    bool exclusive = false;  // nobody else is in the database
    std::size_t worth = kWorthAnIndex;
};

class RecordIndex {
public:
    explicit RecordIndex(IndexSetup setup) : setup_(std::move(setup)) {}
    RecordIndex(const RecordIndex&) = delete;
    RecordIndex& operator=(const RecordIndex&) = delete;
    ~RecordIndex();  // adds what was changed

    // Makes the index if there is none and a database with so many descriptors is worth it. For who
    // has met them.
    void offer(std::size_t descriptors);

    // Questions. None: it is not known, and the records have to be looked at. Otherwise every
    // record that is meant is among the answers, in the order of allRecords(); who needs to know
    // more reads it.

    // The records with a plain digest that begins with these lower-case hexadecimal digits.
    std::optional<std::vector<Address>> withDigest(std::string_view digits);

    // The same of a kind and a whole digest, and of keys by that of the public key.
    std::optional<std::vector<Address>> withObject(Kind kind, std::string_view sha256);
    std::optional<std::vector<Address>> keysWith(std::string_view keySha256);
    // The keys' digests (RecordInfo::keySha256), of those that have one in plain form.
    std::optional<std::set<std::string>> keys();

    // What may match, in this folder and those in it; with `unlocked` also what has encrypted
    // parts.
    std::optional<std::vector<Address>> matching(const Filter& filter, const std::string& folder,
                                                 bool unlocked);

    // The records that no other question finds: damaged ones, and, with `unlocked`, those with
    // encrypted parts.
    std::optional<std::vector<Address>> unsure(bool unlocked);

    // As allFolders(). Reads no folder: none as soon as one has changed.
    std::optional<std::vector<std::string>> folders();

    // Whose body this is. Reads no other folder than this one.
    std::optional<IndexedNames> namesOf(const std::string& folder, const std::string& body);

    // Around each change of a record by the holder of the lock, who has it exclusively: afterwards
    // the folder is still known. Whatever else is changed is found out by the folder's time.
    void willChange(const Address& address) noexcept;
    void changed(const Address& address) noexcept;

    // Removes the index of this name and what is beside it. Nobody else is in the database. False
    // when it could not be removed.
    static bool remove(const std::string& file) noexcept;

private:
    struct Folder : IndexFolder {
        bool isFresh = false;            // as was found out since the lock was taken
        std::set<std::string> changing;  // records; the file has no stamp of the folder then
    };
    using Folders = std::map<std::string, Folder, bool (*)(const std::string&, const std::string&)>;
    struct Listing;
    using Hits = std::vector<std::pair<std::int64_t, std::string>>;  // folder, name

    template <class Ask>
    auto answer(Ask ask) -> std::optional<decltype(ask())>;
    template <class Step>
    bool guarded(Step step) noexcept;
    bool open();
    void makeFile() const;
    void close() noexcept;
    void giveUp(const SqlFailure& failure) noexcept;

    static bool isFreshNow(Folder& folder);
    static bool hasItsStamp(const Folder& folder);
    void refresh();
    void refresh(Folder& folder);
    Folder& folderAt(const std::string& path);
    std::vector<std::string> insideOf(const std::string& path) const;
    void compare(const Folder& folder, const Listing& listing, std::vector<std::int64_t>& gone,
                 std::vector<std::string>& changed);
    void follow(const Folder& folder, const Listing& listing);
    void forget(const std::string& path);
    static void lose(Folder& folder);
    void settle();
    void settle(Folder& folder);

    std::vector<Address> sorted(Hits hits) const;
    std::optional<std::vector<Address>> ask(const std::function<void(Hits&)>& collect);

    static bool isBefore(const std::string& a, const std::string& b);

    const IndexSetup setup_;
    std::unique_ptr<IndexTables> tables_;
    Folders folders_{&isBefore};
    bool isOff_ = false;
    bool wasMade_ = false;  // by this one
};

}  // namespace fstore

#endif  // LIB_INDEX_RECORD_INDEX_H
