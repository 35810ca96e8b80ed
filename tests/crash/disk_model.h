// What a loss of power may leave of a recorded run.
//
// A Disk is fed with the calls of the run, one by one, and knows at each moment which
// name changes and which bytes are on the disk for certain and which are not. From
// that it makes every tree that a model of the crash allows.
#ifndef TESTS_CRASH_DISK_MODEL_H
#define TESTS_CRASH_DISK_MODEL_H

#include <cstddef>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/crash/tree.h"
#include "tests/support/fs_fault.h"

namespace crash {

enum class Model {
    // Only the process died: every call that returned has happened.
    kKill,
    // Name changes of the whole tree reach the disk in order: all up to any point that
    // is not before the last sync of anything. A file's bytes are there when the file
    // was synced; otherwise what was there before, none, a prefix, zeros, or all.
    kOrdered,
    // Of the name changes since the last sync of their folder any subset is there that
    // leaves each name consistent: a change is there only if the folder then could be
    // changed in that way. Syncing a file makes its own name durable. Bytes as above.
    kReordered,
    // Only what was synced by file and by folder is certain. Of a rename either half
    // may be missing, and syncing a file does not keep its name.
    kWeakest
};
inline constexpr Model kModels[] = {Model::kKill, Model::kOrdered, Model::kReordered,
                                    Model::kWeakest};

const char* nameOf(Model model);

// Up to which number all combinations are made, and how many are chosen at random
// where there are more.
struct Limits {
    std::size_t names;  // sets of name changes
    std::size_t bytes;  // contents of unsynced files, for each set
    std::size_t sampledNames;
    std::size_t sampledBytes;
};

class Disk {
public:
    explicit Disk(const Tree& durable);

    // A successful or failed call of fault::kLastingCalls; paths are below ".".
    void apply(const fault::Event& call);

    // Calls `visit` with the trees that the model allows now; a tree may come more than
    // once. False when there were too many and a part was chosen at random.
    bool forEachTree(Model model, const Limits& limits, std::mt19937& random,
                     const std::function<void(const Tree&)>& visit) const;

    bool hasNameChanges() const { return !changes_.empty(); }  // that may still be lost
    std::string describePending() const;                       // one line each

private:
    using Names = std::map<std::string, int>;  // of one folder: to inodes
    using Folders = std::vector<Names>;        // by inode; empty for files

    struct Inode {
        bool folder = false;
        bool dirty = false;   // `cached` is not certain to be on the disk
        std::string durable;  // what is there for certain unless `dirty`
        std::string cached;   // what readers see
    };

    struct Change {
        enum class Kind { kLink, kRename, kUnlink };
        Kind kind;
        int folder;
        std::string name;
        std::string to;  // of kRename
        int inode;
        int toFolder = folder;      // of kRename
        bool folderSynced = false;  // since; of a rename both folders
        bool fromSynced = false;
        bool toSynced = false;
        bool fileSynced = false;
    };

    class Builder;

    int find(const std::string& path) const;  // -1: there is none
    int folderOf(const std::string& path, std::string& name) const;
    int addInode(bool folder);
    void add(Change change);
    void open(const fault::Event& call);
    void write(const fault::Event& call);
    void sync(int inode);
    void syncAll();
    void settle();

    static bool replay(const Change& change, Folders& folders);

    std::vector<Inode> inodes_;  // 0: the current folder
    Folders base_;               // the names that are certain in every model
    Folders cached_;             // the names that the process sees
    std::vector<Change> changes_;
    std::size_t lastSync_ = 0;  // changes before the last sync of anything
    std::map<unsigned, int> handles_;
};

}  // namespace crash

#endif  // TESTS_CRASH_DISK_MODEL_H
