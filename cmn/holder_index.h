// SPDX-License-Identifier: Apache-2.0
// Where the holders of a long list stand, for CMN_HolderList.
//
// Nothing in the list's fields, which all modules share, tells of an index, so a table
// finds the index of a list. The holder lock of the list's object is held for every
// operation on an index.
#ifndef CMN_HOLDER_INDEX_H
#define CMN_HOLDER_INDEX_H

#include <unordered_map>

#include "cmn/holder_list.h"

class HolderIndex {
public:
    using List = slist<CMN_GRPHolder>;
    using Node = sitem<CMN_GRPHolder>;

    // The index of the list: null without one; or a new one, for which memory is needed.
    static HolderIndex* of(const List& list) noexcept;
    static HolderIndex& madeFor(const List& list);
    static void drop(const List& list) noexcept;

    // As list.find(). Covers what it has to walk over again and again, for which memory is
    // needed: who throws std::bad_alloc has covered less.
    Node* newest(const List& list, const CMN_GRPHolder* holder);

    // `node` is about to leave the list.
    void forget(const Node* node) noexcept;

    // Has `node` hold `to` instead, in the same place.
    void rename(Node* node, CMN_GRPHolder* to) noexcept;

private:
    void cover(const List& list);
    void add(Node* node);
    bool remove(const Node* node) noexcept;
    void clear() noexcept;
    Node* olderThan(const Node* node) const noexcept;

    // Covered are the newest covered node and all older ones: new nodes come in front, and
    // are searched one by one until they are too many.
    Node* newestCovered_ = nullptr;
    int covered_ = 0;
    std::unordered_map<const CMN_GRPHolder*, Node*> newest_;  // of each holder
    // Of a holder that is listed several times: from a node to the next older one.
    std::unordered_map<const Node*, Node*> older_;
};

#endif  // CMN_HOLDER_INDEX_H
