// SPDX-License-Identifier: Apache-2.0
// The list of the holders of one guarded object.
//
// slist is what modules share: any of them may walk the list, and add and take out
// nodes, by what its own build knows of this class. CMN_HolderList looks the same from
// outside. In a long list it finds a holder by an index that lies beside it, so that any
// number of holders leaves in time that grows with their number alone, in any order.
//
// The object's holder lock is held for every operation. The order of fields and of
// virtual operations is a binary contract between modules.
#ifndef CMN_HOLDER_LIST_H
#define CMN_HOLDER_LIST_H

#include <utility>

class CMN_GRPHolder;

template <class T>
struct sitem {
    sitem* next;
    sitem** prevLink;  // the link that points here: the list's head or the previous node's
    T* value;          // not owned
};

// A singly linked list with back-links, newest first. It owns its nodes only.
template <class T>
class slist {
public:
    slist() = default;
    slist(const slist&) = delete;
    slist& operator=(const slist&) = delete;
    ~slist() {
        while (head != nullptr) {
            delete std::exchange(head, head->next);
        }
    }

    virtual void push_front(T* value) {
        head = new sitem<T>{head, &head, value};
        if (head->next != nullptr) {
            head->next->prevLink = &head->next;
        }
        ++count;
    }

    // Unlinks and frees a node of this list; null is ignored.
    virtual void eraseitem(sitem<T>* node) {
        if (node == nullptr) {
            return;
        }
        *node->prevLink = node->next;
        if (node->next != nullptr) {
            node->next->prevLink = node->prevLink;
        }
        delete node;
        --count;
    }

    sitem<T>* first() const noexcept { return head; }
    int size() const noexcept { return count; }

    // The newest node that holds `value`, or null.
    sitem<T>* find(const T* value) const noexcept { return find(value, head); }

    // The same among `from`, which may be null, and the nodes older than it.
    static sitem<T>* find(const T* value, sitem<T>* from) noexcept {
        while (from != nullptr && from->value != value) {
            from = from->next;
        }
        return from;
    }

private:
    sitem<T>* head = nullptr;
    int count = 0;
};

class CMN_HolderList final : public slist<CMN_GRPHolder> {
public:
    using Node = sitem<CMN_GRPHolder>;

    // How many nodes are searched one by one; a list that is no longer has no index.
    static constexpr int kNear = 32;

    CMN_HolderList() = default;
    CMN_HolderList(const CMN_HolderList&) = delete;
    CMN_HolderList& operator=(const CMN_HolderList&) = delete;
    ~CMN_HolderList();

    void eraseitem(Node* node) override;

    // Behind the operations that every module knows, and so called through of() only.

    // As find(). Needs memory for the index; without any it searches one by one.
    virtual Node* newest(const CMN_GRPHolder* holder) noexcept;
    // Lists `to` where `node` stands.
    virtual void rename(Node* node, CMN_GRPHolder* to) noexcept;

    // The list as the module that made it knows it: calls through the result reach that
    // module's operations, whatever this one's declarations say.
    static slist<CMN_GRPHolder>& asMade(slist<CMN_GRPHolder>& list) noexcept;

    // The same, if that module has this class, else null. Modules agree on it by name, so
    // one that changes what the operations mean gives it another name.
    static CMN_HolderList* of(slist<CMN_GRPHolder>& list) noexcept;
};

#endif  // CMN_HOLDER_LIST_H
