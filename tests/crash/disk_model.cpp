#include "tests/crash/disk_model.h"

#include <fcntl.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace crash {
namespace {

std::string plain(const std::string& path) {
    if (path == ".") {
        return "";
    }
    return path.starts_with("./") ? path.substr(2) : path;
}

// What may be found of a file that was not synced. Prefixes end where a reader is
// most easily deceived: behind a whole line, and short of the last byte.
std::vector<std::string> contentsOf(const std::string& durable, const std::string& cached) {
    std::vector<std::string> all{cached, durable, "", std::string(cached.size(), '\0')};
    std::set<std::size_t> cuts{cached.size() / 2};
    if (!cached.empty()) {
        cuts.insert(cached.size() - 1);
    }
    for (std::size_t at = 0; (at = cached.find('\n', at)) != std::string::npos; ++at) {
        cuts.insert(at + 1);
    }
    for (const std::size_t cut : cuts) {
        all.push_back(cached.substr(0, cut));
    }
    std::vector<std::string> different;
    for (std::string& content : all) {
        if (std::find(different.begin(), different.end(), content) == different.end()) {
            different.push_back(std::move(content));
        }
    }
    return different;
}

}  // namespace

const char* nameOf(Model model) {
    switch (model) {
        case Model::kKill:
            return "kill";
        case Model::kOrdered:
            return "ordered";
        case Model::kReordered:
            return "reordered";
        case Model::kWeakest:
            return "weakest";
    }
    return "?";
}

Disk::Disk(const Tree& durable) {
    addInode(true);
    for (const auto& [path, node] : durable) {
        std::string name;
        const int folder = folderOf(path, name);
        const int inode = addInode(node.folder);
        inodes_.back().durable = inodes_.back().cached = node.bytes;
        cached_[static_cast<std::size_t>(folder)][name] = inode;
    }
    base_ = cached_;
}

int Disk::addInode(bool folder) {
    inodes_.emplace_back().folder = folder;
    cached_.emplace_back();
    base_.resize(cached_.size());
    return static_cast<int>(inodes_.size()) - 1;
}

int Disk::find(const std::string& path) const {
    if (plain(path).empty()) {
        return 0;
    }
    std::string name;
    const int folder = folderOf(path, name);
    if (folder < 0) {
        return -1;
    }
    const Names& names = cached_[static_cast<std::size_t>(folder)];
    const auto found = names.find(name);
    return found == names.end() ? -1 : found->second;
}

int Disk::folderOf(const std::string& path, std::string& name) const {
    const std::string whole = plain(path);
    const std::size_t slash = whole.rfind('/');
    name = slash == std::string::npos ? whole : whole.substr(slash + 1);
    return slash == std::string::npos ? 0 : find(whole.substr(0, slash));
}

void Disk::apply(const fault::Event& call) {
    using fault::Call;
    if (call.call == Call::kClose) {
        handles_.erase(call.handle);
        return;
    }
    if (call.error != 0) {
        return;  // did nothing; whatever a failed sync left undone stays undone
    }
    std::string name;
    switch (call.call) {
        case Call::kOpen:
            open(call);
            break;
        case Call::kWrite:
            write(call);
            break;
        case Call::kFsync:
            sync(handles_.at(call.handle));
            break;
        case Call::kSyncfs:
            syncAll();
            break;
        case Call::kMkdir: {
            const int folder = folderOf(call.path, name);
            add({Change::Kind::kLink, folder, name, "", addInode(true)});
            break;
        }
        case Call::kLink: {
            const int inode = find(call.path);
            const int folder = folderOf(call.to, name);
            add({Change::Kind::kLink, folder, name, "", inode});
            break;
        }
        case Call::kRename: {
            const int inode = find(call.path);
            std::string to;
            const int folder = folderOf(call.path, name);
            const int toFolder = folderOf(call.to, to);
            add({Change::Kind::kRename, folder, name, to, inode, toFolder});
            break;
        }
        case Call::kRemove:
        case Call::kRmdir: {
            const int inode = find(call.path);
            const int folder = folderOf(call.path, name);
            add({Change::Kind::kUnlink, folder, name, "", inode});
            break;
        }
        default:
            break;
    }
}

void Disk::add(Change change) {
    if (!replay(change, cached_)) {
        throw std::logic_error("a call cannot have succeeded: " + change.name);
    }
    changes_.push_back(std::move(change));
}

void Disk::open(const fault::Event& call) {
    int inode = find(call.path);
    if (inode < 0) {
        std::string name;
        const int folder = folderOf(call.path, name);
        inode = addInode(false);
        add({Change::Kind::kLink, folder, name, "", inode});
    } else if ((call.flags & O_TRUNC) != 0) {
        Inode& file = inodes_[static_cast<std::size_t>(inode)];
        file.cached.clear();
        file.dirty = !file.durable.empty();
    }
    handles_[call.handle] = inode;
}

void Disk::write(const fault::Event& call) {
    Inode& file = inodes_[static_cast<std::size_t>(handles_.at(call.handle))];
    const auto offset = static_cast<std::size_t>(call.offset);
    file.cached.resize(std::max(file.cached.size(), offset + call.data.size()));
    file.cached.replace(offset, call.data.size(), call.data);
    file.dirty = true;
}

void Disk::sync(int inode) {
    Inode& synced = inodes_[static_cast<std::size_t>(inode)];
    synced.durable = synced.cached;
    synced.dirty = false;
    lastSync_ = changes_.size();
    for (Change& change : changes_) {
        change.fromSynced |= synced.folder && change.folder == inode;
        change.toSynced |= synced.folder && change.toFolder == inode;
        change.folderSynced = change.fromSynced && change.toSynced;
        change.fileSynced |= !synced.folder && change.inode == inode;
    }
    settle();
}

void Disk::syncAll() {
    for (Inode& inode : inodes_) {
        inode.durable = inode.cached;
        inode.dirty = false;
    }
    changes_.clear();
    lastSync_ = 0;
    base_ = cached_;
}

// Forgets the changes that are certain in every model.
void Disk::settle() {
    std::size_t settled = 0;
    while (settled < lastSync_ && changes_[settled].folderSynced) {
        (void)replay(changes_[settled], base_);  // has succeeded before
        ++settled;
    }
    changes_.erase(changes_.begin(), changes_.begin() + static_cast<std::ptrdiff_t>(settled));
    lastSync_ -= settled;
}

// False, with nothing done, when the names do not allow it.
bool Disk::replay(const Change& change, Folders& folders) {
    Names& names = folders[static_cast<std::size_t>(change.folder)];
    const auto from = names.find(change.name);
    const auto isFull = [&](int inode) {
        return !folders[static_cast<std::size_t>(inode)].empty();
    };
    if (change.kind == Change::Kind::kLink) {
        return names.emplace(change.name, change.inode).second;
    }
    if (from == names.end() || from->second != change.inode) {
        return false;
    }
    if (change.kind == Change::Kind::kUnlink) {
        if (isFull(change.inode)) {
            return false;
        }
        names.erase(from);
        return true;
    }
    Names& target = folders[static_cast<std::size_t>(change.toFolder)];
    const auto replaced = target.find(change.to);
    if (replaced != target.end() && isFull(replaced->second)) {
        return false;
    }
    names.erase(from);
    target[change.to] = change.inode;
    return true;
}

std::string Disk::describePending() const {
    std::string text;
    for (const Change& change : changes_) {
        const char* const kinds[] = {"link", "rename", "unlink"};
        text += std::string("    ") + kinds[static_cast<int>(change.kind)] + ' ' + change.name +
                (change.to.empty() ? "" : " to " + change.to) + " in folder " +
                std::to_string(change.folder) +
                (change.toFolder == change.folder ? "" : " to " + std::to_string(change.toFolder)) +
                (change.folderSynced ? ", folder synced" : "") +
                (change.fileSynced ? ", file synced" : "") + "\n";
    }
    for (std::size_t i = 0; i < inodes_.size(); ++i) {
        if (inodes_[i].dirty) {
            text += "    unsynced bytes of inode " + std::to_string(i) + "\n";
        }
    }
    return text;
}

// One enumeration: sets of names, and contents for each.
class Disk::Builder {
public:
    Builder(const Disk& disk, const Limits& limits, std::mt19937& random,
            const std::function<void(const Tree&)>& visit)
        : disk_(disk), limits_(limits), random_(random), visit_(visit) {}

    bool isComplete() const { return complete_; }

    void kill() { build(disk_.cached_, true); }

    void ordered() {
        const std::size_t open = disk_.changes_.size() - disk_.lastSync_;
        if (open < limits_.names) {
            for (std::size_t i = disk_.lastSync_; i <= disk_.changes_.size(); ++i) {
                buildPrefix(i);
            }
            return;
        }
        complete_ = false;
        for (std::size_t n = 0; n < limits_.sampledNames; ++n) {
            buildPrefix(disk_.lastSync_ + random_() % (open + 1));
        }
    }

    void reordered() {
        std::vector<std::size_t> open;  // changes that may be missing
        for (std::size_t i = 0; i < disk_.changes_.size(); ++i) {
            const Change& change = disk_.changes_[i];
            if (!change.folderSynced && !change.fileSynced) {
                open.push_back(i);
            }
        }
        if (open.size() < 60 && (std::uint64_t{1} << open.size()) <= limits_.names) {
            for (std::uint64_t set = 0; set < (std::uint64_t{1} << open.size()); ++set) {
                buildSubset(open, Impossible::kNoDisk,
                            [&](std::size_t nth) { return (set >> nth & 1) != 0; });
            }
            return;
        }
        complete_ = false;
        for (std::size_t n = 0; n < limits_.sampledNames; ++n) {
            buildRandomSubset(open);
        }
    }

    // Each name by itself: any of what it has stood for since its folder's last sync.
    void weakest() {
        std::map<std::pair<int, std::string>, std::vector<int>> bindings;
        Folders certain = disk_.base_;
        const auto bind = [&](int folder, const std::string& name, int inode) {
            const Names& names = certain[static_cast<std::size_t>(folder)];
            const auto found = names.find(name);
            const int before = found == names.end() ? -1 : found->second;
            bindings.try_emplace({folder, name}, std::vector<int>{before})
                .first->second.push_back(inode);
        };
        for (const Change& change : disk_.changes_) {
            if (change.folderSynced) {
                (void)replay(change, certain);
                continue;
            }
            const bool links = change.kind == Change::Kind::kLink;
            bind(change.folder, change.name, links ? change.inode : -1);
            if (change.kind == Change::Kind::kRename) {
                bind(change.toFolder, change.to, change.inode);
            }
        }
        std::size_t product = 1;
        for (const auto& [name, inodes] : bindings) {
            product = std::min(product * inodes.size(), limits_.names + 1);
        }
        const bool all = product <= limits_.names;
        complete_ &= all;
        for (std::size_t n = 0; n < (all ? product : limits_.sampledNames); ++n) {
            Folders names = certain;
            std::size_t rest = n;
            for (const auto& [name, inodes] : bindings) {
                const std::size_t choice = all ? rest : static_cast<std::size_t>(random_());
                rest /= inodes.size();
                set(names, name, inodes[choice % inodes.size()]);
            }
            build(names);
        }
    }

private:
    using Chosen = std::vector<const std::string*>;  // by inode; null: as cached

    static void set(Folders& names, const std::pair<int, std::string>& name, int inode) {
        Names& folder = names[static_cast<std::size_t>(name.first)];
        if (inode < 0) {
            folder.erase(name.second);
        } else {
            folder[name.second] = inode;
        }
    }

    void buildPrefix(std::size_t length) {
        Folders names = disk_.base_;
        for (std::size_t i = 0; i < length; ++i) {
            (void)replay(disk_.changes_[i], names);  // all before it are there
        }
        build(names);
    }

    // The likeliest to hurt are as likely as all others together: one change alone, all
    // but one, and a prefix.
    void buildRandomSubset(const std::vector<std::size_t>& open) {
        const std::size_t one = random_() % open.size();
        const std::uint64_t density = random_() % 7 + 1;
        const auto drawn = [&](auto choice) { buildSubset(open, Impossible::kLeftOut, choice); };
        switch (random_() % 6) {
            case 0:
                return drawn([&](std::size_t nth) { return nth == one; });
            case 1:
                return drawn([&](std::size_t nth) { return nth != one; });
            case 2:
                return drawn([&](std::size_t nth) { return nth <= one; });
            default:
                return drawn([&](std::size_t) { return random_() % 8 < density; });
        }
    }

    // A chosen change may be impossible without one that is missing. Where all subsets are tried
    // there is no such disk, and the one without it has its own turn. Of few that are drawn nearly
    // all would be so (a folder goes only when it is empty), so the change is left out.
    enum class Impossible { kNoDisk, kLeftOut };

    template <class Choice>
    void buildSubset(const std::vector<std::size_t>& open, Impossible impossible, Choice isThere) {
        Folders names = disk_.base_;
        std::size_t nth = 0;
        for (std::size_t i = 0; i < disk_.changes_.size(); ++i) {
            const bool mayMiss = nth < open.size() && open[nth] == i;
            if (mayMiss && !isThere(nth++)) {
                continue;
            }
            if (!replay(disk_.changes_[i], names) &&
                !(mayMiss && impossible == Impossible::kLeftOut)) {
                return;  // no such disk
            }
        }
        build(names);
    }

    void build(const Folders& names, bool asCached = false) {
        if (!seen_.insert(names).second) {
            return;
        }
        std::vector<int> dirty;
        if (!asCached) {
            findDirty(names, 0, dirty);
        }
        std::vector<std::vector<std::string>> contents;
        std::size_t product = 1;
        for (const int inode : dirty) {
            const Inode& file = disk_.inodes_[static_cast<std::size_t>(inode)];
            contents.push_back(contentsOf(file.durable, file.cached));
            product = std::min(product * contents.back().size(), limits_.bytes + 1);
        }
        const bool all = product <= limits_.bytes;
        complete_ &= all;
        for (std::size_t n = 0; n < (all ? product : limits_.sampledBytes); ++n) {
            Chosen chosen(disk_.inodes_.size());
            std::size_t rest = n;
            for (std::size_t i = 0; i < dirty.size(); ++i) {
                const std::size_t choice = all ? rest : static_cast<std::size_t>(random_());
                rest /= contents[i].size();
                chosen[static_cast<std::size_t>(dirty[i])] =
                    &contents[i][choice % contents[i].size()];
            }
            Tree tree;
            addTree(names, chosen, 0, "", tree);
            visit_(tree);
        }
    }

    void findDirty(const Folders& names, int folder, std::vector<int>& dirty) const {
        for (const auto& [name, inode] : names[static_cast<std::size_t>(folder)]) {
            if (disk_.inodes_[static_cast<std::size_t>(inode)].dirty &&
                std::find(dirty.begin(), dirty.end(), inode) == dirty.end()) {
                dirty.push_back(inode);
            }
            findDirty(names, inode, dirty);
        }
    }

    void addTree(const Folders& names, const Chosen& chosen, int folder, const std::string& path,
                 Tree& tree) const {
        for (const auto& [name, inode] : names[static_cast<std::size_t>(folder)]) {
            const Inode& entry = disk_.inodes_[static_cast<std::size_t>(inode)];
            const std::string* const bytes = chosen[static_cast<std::size_t>(inode)];
            tree[path + name] = {entry.folder, bytes == nullptr ? entry.cached : *bytes};
            if (entry.folder) {
                addTree(names, chosen, inode, path + name + "/", tree);
            }
        }
    }

    const Disk& disk_;
    const Limits& limits_;
    std::mt19937& random_;
    const std::function<void(const Tree&)>& visit_;
    std::set<Folders> seen_;
    bool complete_ = true;
};

bool Disk::forEachTree(Model model, const Limits& limits, std::mt19937& random,
                       const std::function<void(const Tree&)>& visit) const {
    Builder builder(*this, limits, random, visit);
    switch (model) {
        case Model::kKill:
            builder.kill();
            break;
        case Model::kOrdered:
            builder.ordered();
            break;
        case Model::kReordered:
            builder.reordered();
            break;
        case Model::kWeakest:
            builder.weakest();
            break;
    }
    return builder.isComplete();
}

}  // namespace crash
