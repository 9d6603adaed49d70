// ListNode: one link of a circular doubly linked list.
//
// There is no null link. A root is a ListNode that carries no data; an empty
// list is a root pointing at itself both ways, and so is an unlinked node.
// The list does no locking: whoever owns the list serialises access to it.
#ifndef KEL_UTIL_LIST_NODE_H
#define KEL_UTIL_LIST_NODE_H

struct ListNode {
    ListNode* next;
    ListNode* prev;

    ListNode() : next(this), prev(this) {}

    // Inserts `item` directly behind this node.
    void add(ListNode* item) {
        item->next = next;
        item->prev = this;
        next->prev = item;
        next = item;
    }

    // The node directly behind this one (for a root: the one added last).
    ListNode* getLast() const { return next; }

    // Unlinks this node and links it to itself. A node that is already
    // alone is left as it is.
    void del() {
        if (next == this || prev == this) return;
        next->prev = prev;
        prev->next = next;
        next = this;
        prev = this;
    }

    bool isEmpty() const { return next == this; }

    // Links are identities: a copied node would point into the old circle.
    ListNode(const ListNode&) = delete;
    ListNode& operator=(const ListNode&) = delete;
};

#endif
