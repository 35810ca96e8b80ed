#include "cmn/holder_index.h"

#include <atomic>
#include <utility>
#include <vector>

#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/no_throw.h"
#include "cmn/thread_annotations.h"

namespace {

using Table = std::unordered_map<const HolderIndex::List*, HolderIndex>;

// A leaf: nothing else is locked while it is held.
CMN_BUILT_FIRST constinit CMN_Mutex tableMutex;
// Made for the first index and freed with the last one, so that it needs no end of its
// own: objects may live as long as the module's globals, or longer.
constinit Table* table CMN_GUARDED_BY(tableMutex) = nullptr;
// Its size. Most of the time it is 0, and then nobody needs the mutex. Whoever made the
// index of a list held the same holder lock as whoever looks for it.
constinit std::atomic<int> indexes{0};

}  // namespace

HolderIndex* HolderIndex::of(const List& list) noexcept {
    if (indexes.load(std::memory_order_relaxed) == 0) {
        return nullptr;
    }
    const CMN_Locked locked(tableMutex);
    if (table == nullptr) {
        return nullptr;
    }
    const auto found = table->find(&list);
    return found == table->end() ? nullptr : &found->second;
}

HolderIndex& HolderIndex::madeFor(const List& list) {
    const CMN_Locked locked(tableMutex);
    if (table == nullptr) {
        table = new Table;
    }
    HolderIndex& index = (*table)[&list];
    indexes.store(static_cast<int>(table->size()), std::memory_order_relaxed);
    return index;
}

void HolderIndex::drop(const List& list) noexcept {
    if (indexes.load(std::memory_order_relaxed) == 0) {
        return;
    }
    Table::node_type dropped;  // goes when the mutex is free: it may be large
    const CMN_Locked locked(tableMutex);
    if (table == nullptr) {
        return;
    }
    dropped = table->extract(&list);
    indexes.store(static_cast<int>(table->size()), std::memory_order_relaxed);
    if (table->empty()) {
        delete std::exchange(table, nullptr);
    }
}

HolderIndex::Node* HolderIndex::newest(const List& list, const CMN_GRPHolder* holder) {
    int uncovered = 0;
    Node* node = list.first();
    while (node != nullptr && node != newestCovered_ && uncovered != CMN_HolderList::kNear) {
        if (node->value == holder) {
            return node;
        }
        node = node->next;
        ++uncovered;
    }
    if (node != newestCovered_ || uncovered + covered_ != list.size()) {
        cover(list);
    }
    const auto found = newest_.find(holder);
    const bool known = found != newest_.end() && found->second->value == holder;
    return known ? found->second : list.find(holder);
}

namespace {

// The nodes in front of `end`, newest first; all of them when it is not there.
std::vector<HolderIndex::Node*> nodesBefore(const HolderIndex::List& list,
                                            const HolderIndex::Node* end) {
    std::vector<HolderIndex::Node*> nodes;
    for (auto* node = list.first(); node != nullptr && node != end; node = node->next) {
        nodes.push_back(node);
    }
    return nodes;
}

}  // namespace

// A module of an older build takes nodes out without telling. Then fewer are left than
// were covered, and the index begins again. newest() looks at what the index says all the
// same, and searches for what it does not know, so it is right whatever was missed.
//
// From the oldest on, so that those that are covered when memory runs out are the oldest.
void HolderIndex::cover(const List& list) {
    std::vector<Node*> uncovered = nodesBefore(list, newestCovered_);
    if (static_cast<int>(uncovered.size()) + covered_ != list.size()) {
        clear();
        uncovered = nodesBefore(list, nullptr);
    }
    if (covered_ == 0) {
        newest_.reserve(uncovered.size());  // later it grows by itself, by more at a time
    }
    for (; !uncovered.empty(); uncovered.pop_back()) {
        add(uncovered.back());
    }
}

void HolderIndex::add(Node* node) {
    const auto [known, fresh] = newest_.try_emplace(node->value, node);
    if (!fresh) {
        older_.emplace(node, known->second);
        known->second = node;
    }
    newestCovered_ = node;
    ++covered_;
}

void HolderIndex::forget(const Node* node) noexcept {
    if (remove(node)) {
        --covered_;
        if (node == newestCovered_) {
            newestCovered_ = node->next;
        }
    } else if (node == newestCovered_) {
        clear();
    }
}

void HolderIndex::rename(Node* node, CMN_GRPHolder* to) noexcept {
    const bool wasCovered = remove(node);
    node->value = to;
    if (!wasCovered) {
        return;
    }
    // Among nodes that hold `to` already, the place of this one is not known.
    const Status listed =
        noThrow([&] { return newest_.try_emplace(to, node).second ? kOk : kInvalid; });
    if (listed != kOk) {
        clear();
    }
}

// False when the node is not covered.
bool HolderIndex::remove(const Node* node) noexcept {
    const auto known = newest_.find(node->value);
    if (known == newest_.end()) {
        return false;
    }
    Node* const older = olderThan(node);
    if (known->second == node) {
        if (older != nullptr) {
            known->second = older;
        } else {
            newest_.erase(known);
        }
    } else {
        const Node* newer = known->second;
        while (newer != nullptr && olderThan(newer) != node) {
            newer = olderThan(newer);
        }
        if (newer == nullptr) {
            return false;
        }
        if (older != nullptr) {
            older_.find(newer)->second = older;
        } else {
            older_.erase(newer);
        }
    }
    older_.erase(node);
    return true;
}

HolderIndex::Node* HolderIndex::olderThan(const Node* node) const noexcept {
    const auto found = older_.find(node);
    return found == older_.end() ? nullptr : found->second;
}

void HolderIndex::clear() noexcept {
    newest_.clear();
    older_.clear();
    newestCovered_ = nullptr;
    covered_ = 0;
}
