// ListTable<T>: a list of T values, each held in a heap item built on
// ListNode.
//
// push_back and pop_back both work at the end right behind the root, so the
// list behaves as a stack: the item pushed last is popped first. An item
// taken off with pop_back belongs to the caller, who may push it back later
// by iterator without any allocation; that is how a free list of fixed
// blocks is kept without heap traffic once it has grown to its peak.
//
// The table offers what a free list needs, plus forward iteration for
// inspection; nothing sorts, splices or counts.
//
// No locking: the owner serialises access. Only push_back by value
// allocates; if that allocation throws, the list is unchanged.
#ifndef KEL_UTIL_LIST_TABLE_H
#define KEL_UTIL_LIST_TABLE_H

#include <stddef.h>

#include "list_node.h"

template <typename T>
class ListTable {
public:
    struct ListItem : public ListNode {
        T _M_data;

        ListItem() {}
        explicit ListItem(const T& i) : _M_data(i) {}

        // The item whose data lies at `data`. Only valid for a T that lives
        // in a ListItem.
        static ListItem* fromData(T* data) {
            return reinterpret_cast<ListItem*>(reinterpret_cast<char*>(data) - sizeof(ListNode));
        }
    };

    // fromData relies on the data following the link with no padding.
    static_assert(sizeof(ListNode) % alignof(T) == 0, "ListItem data must follow the link directly");

    class _List_iterator {
    public:
        typedef _List_iterator _Self;
        typedef T* pointer;
        typedef T& reference;

        explicit _List_iterator(ListItem* n) : _M_node(n) {}

        pointer operator->() const { return &_M_node->_M_data; }
        reference operator*() const { return _M_node->_M_data; }
        _Self& operator++() {
            _M_node = static_cast<ListItem*>(_M_node->next);
            return *this;
        }
        bool operator==(const _Self& o) const { return _M_node == o._M_node; }
        bool operator!=(const _Self& o) const { return _M_node != o._M_node; }

        ListItem* _M_node;
    };
    typedef _List_iterator iterator;

    ListTable() {}

    // Frees the items still on the list. Items popped and not pushed back
    // belong to whoever popped them.
    ~ListTable() {
        while (!empty()) {
            iterator it = pop_back();
            delete it._M_node;
        }
    }

    bool empty() const { return mRoot.isEmpty(); }

    // Copies `it` into a new heap item and puts it at the top.
    void push_back(const T& it) { mRoot.add(new ListItem(it)); }

    // Puts the item that `it` stands on back at the top; allocates nothing.
    void push_back(iterator& it) { mRoot.add(it._M_node); }

    // Takes the top item off the list and hands it to the caller; end() on
    // an empty list.
    iterator pop_back() {
        ListNode* n = mRoot.getLast();
        n->del();
        return iterator(static_cast<ListItem*>(n));
    }

    iterator begin() { return iterator(static_cast<ListItem*>(mRoot.next)); }
    iterator end() { return iterator(&mRoot); }

    ListTable(const ListTable&) = delete;
    ListTable& operator=(const ListTable&) = delete;

private:
    // The root is a whole ListItem so that end() is an iterator like any
    // other; its _M_data is never given a value.
    ListItem mRoot;
};

#endif
