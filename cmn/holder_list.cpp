#include "cmn/holder_list.h"

#include "cmn/holder_index.h"
#include "cmn/no_throw.h"

CMN_HolderList::~CMN_HolderList() {
    HolderIndex::drop(*this);
}

void CMN_HolderList::eraseitem(Node* node) {
    if (node == nullptr) {
        return;
    }
    if (HolderIndex* const index = HolderIndex::of(*this)) {
        if (size() > kNear) {
            index->forget(node);
        } else {
            HolderIndex::drop(*this);
        }
    }
    slist::eraseitem(node);
}

CMN_HolderList::Node* CMN_HolderList::newest(const CMN_GRPHolder* holder) noexcept {
    Node* found = nullptr;
    const Status searched = noThrow([&] {
        found = HolderIndex::madeFor(*this).newest(*this, holder);
        return kOk;
    });
    return searched == kOk ? found : find(holder);
}

void CMN_HolderList::rename(Node* node, CMN_GRPHolder* to) noexcept {
    if (HolderIndex* const index = HolderIndex::of(*this)) {
        index->rename(node, to);
    } else {
        node->value = to;
    }
}

// Without the detour the compiler takes the declared class for the real one.
slist<CMN_GRPHolder>& CMN_HolderList::asMade(slist<CMN_GRPHolder>& list) noexcept {
    auto* made = &list;
    asm("" : "+r"(made));
    return *made;
}

CMN_HolderList* CMN_HolderList::of(slist<CMN_GRPHolder>& list) noexcept {
    slist<CMN_GRPHolder>* const made = &asMade(list);
    // In front of the operations stands the type's description, or null in a module that
    // was built without such.
    const void* const* const operations = *reinterpret_cast<const void* const* const*>(made);
    return operations[-1] == nullptr ? nullptr : dynamic_cast<CMN_HolderList*>(made);
}
