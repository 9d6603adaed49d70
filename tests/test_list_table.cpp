#include <gtest/gtest.h>

#include "list_node.h"
#include "list_table.h"

TEST(ListNode, LinksAndUnlinksInACircle) {
    ListNode root, a, b;
    root.add(&a);
    root.add(&b);  // directly behind the root
    EXPECT_EQ(root.getLast(), &b);
    EXPECT_EQ(b.next, &a);
    EXPECT_EQ(a.next, &root);
    EXPECT_EQ(root.prev, &a);
    EXPECT_EQ(a.prev, &b);

    b.del();
    EXPECT_EQ(b.next, &b);
    EXPECT_EQ(b.prev, &b);
    EXPECT_EQ(root.next, &a);
    EXPECT_EQ(a.prev, &root);

    b.del();  // alone already: nothing changes
    EXPECT_EQ(b.next, &b);
    EXPECT_EQ(root.next, &a);
    a.del();
    EXPECT_TRUE(root.isEmpty());
    EXPECT_EQ(root.prev, &root);
}

TEST(ListTable, BehavesAsAStackAndReusesItems) {
    ListTable<int> t;
    EXPECT_TRUE(t.empty());
    EXPECT_TRUE(t.pop_back() == t.end()) << "empty list";

    t.push_back(1);
    t.push_back(2);
    ListTable<int>::iterator two = t.pop_back();
    ListTable<int>::iterator one = t.pop_back();
    EXPECT_EQ(*two, 2);
    EXPECT_EQ(*one, 1);
    EXPECT_TRUE(t.empty());

    // Items popped belong to the caller and go back without a copy: the
    // last one returned is the first one handed out again.
    int* addrOne = &*one;
    t.push_back(two);
    t.push_back(one);
    ListTable<int>::iterator again = t.pop_back();
    EXPECT_EQ(&*again, addrOne);
    EXPECT_EQ(ListTable<int>::ListItem::fromData(addrOne), again._M_node);
    t.push_back(again);

    int n = 0;
    for (ListTable<int>::iterator it = t.begin(); it != t.end(); ++it) ++n;
    EXPECT_EQ(n, 2);
}  // the destructor frees what is still listed (checked by the leak sanitizer)
