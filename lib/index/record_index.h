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

#include "lib/base/observer.h"
#include "lib/index/index_place.h"
#include "lib/index/index_tables.h"
#include "lib/index/stamps.h"
#include "lib/records/address.h"
#include "lib/records/attributes.h"
#include "lib/records/filter.h"
#include "lib/records/lookup.h"

namespace fstore {

// Where the index says something else than the descriptors.
struct IndexDoubt {
    std::string file;         // of the index
    std::uint64_t count = 0;  // of descriptors and folders, also such as it leaves out
    std::string first;        // the path of one of them
};

struct IndexSetup {
    // The absolute path of the file, without links; empty for no index. Asked for once.
    std::function<std::string()> file;
    bool exclusive = false;  // nobody else is in the database
    std::size_t worth = kWorthAnIndex;
    // Asked for before the file is made: whether its folder is there.
    std::function<bool(const std::string&)> makeFolders = {};
    // Called when many records are looked at without an index since this path of it is somebody's.
    std::function<void(const std::string&)> inTheWay = {};
};

class RecordIndex : public Lookup {
public:
    explicit RecordIndex(IndexSetup setup) : setup_(std::move(setup)) {}
    RecordIndex(const RecordIndex&) = delete;
    RecordIndex& operator=(const RecordIndex&) = delete;
    ~RecordIndex() override;  // adds what was changed

    // Makes the index if there is none and so many descriptors are worth it.
    bool offer(std::size_t descriptors) override;

    Addresses withDigest(std::string_view digits) override;
    Addresses withObject(Kind kind, std::string_view sha256) override;
    Addresses keysWith(std::string_view keySha256) override;
    std::optional<std::set<std::string>> keys() override;
    std::optional<AddressList> matching(const Filter& filter, const std::string& folder,
                                        bool unlocked) override;
    Addresses unsure(bool unlocked) override;

    // None as soon as one folder has changed.
    std::optional<std::vector<std::string>> folders() override;

    // The paths of the descriptors that stand moved aside, "./db/a.dsc.$o$", with those whose place
    // is taken. None as soon as one folder has changed: that nothing was created, renamed or
    // removed in any shows that these are still all.
    std::optional<std::vector<std::string>> saved();

    // Reads all descriptors, and compares what the index would answer about them as it is: what it
    // would find out by a time is not counted. Changes nothing. None where there is no index.
    // Throws kInterrupted.
    std::optional<IndexDoubt> compareAll(Observer& observer);

    // Reads no other folder than this one.
    std::optional<Answer> ask(const std::string& folder, const std::string& body) override;

    // The folder stays known. Whatever else is changed is found out by the folder's time.
    void willChange(const Address& address) noexcept override;
    void changed(const Address& address) noexcept override;

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
    const std::string& file();
    bool isThere();
    bool open();
    void makeFile();
    void close() noexcept;
    void giveUp(const SqlFailure& failure) noexcept;

    static bool isFreshNow(Folder& folder);
    static bool hasItsStamp(const Folder& folder);
    bool areAllFreshNow();
    void refresh();
    void refresh(Folder& folder);
    Folder& folderAt(const std::string& path);
    std::vector<std::string> insideOf(const std::string& path) const;
    // By their places in the listing's descriptors: those without a row that holds.
    void compare(const Folder& folder, const Listing& listing, std::vector<std::int64_t>& gone,
                 std::vector<std::uint32_t>& changed);
    void follow(const Folder& folder, const Listing& listing);
    void compareRows(const Folder& folder, Progress& progress, IndexDoubt& doubt);
    void forget(const std::string& path);
    static void lose(Folder& folder);
    void settle();
    void settle(Folder& folder);

    std::vector<Address> sorted(Hits hits) const;
    Addresses collect(const std::function<void(Hits&)>& find);

    static bool isBefore(const std::string& a, const std::string& b);

    const IndexSetup setup_;
    std::optional<std::string> file_;
    std::unique_ptr<IndexTables> tables_;
    Folders folders_{&isBefore};
    bool isOff_ = false;
    bool wasMade_ = false;  // by this one
};

}  // namespace fstore

#endif  // LIB_INDEX_RECORD_INDEX_H
