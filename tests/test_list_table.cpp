#include <gtest/gtest.h>

#include "list_table.h"

// A stack of items that go back without a copy: the last one returned is
// the first one handed out again, and its data maps back to its item.
TEST(ListTable, StackThatReusesItsItems) {
    ListTable<int> t;
    EXPECT_TRUE(t.pop_back() == t.end()) << "empty list";
    t.push_back(1);
    t.push_back(2);
    ListTable<int>::iterator two = t.pop_back(), one = t.pop_back();
    EXPECT_EQ(*two, 2);
    EXPECT_EQ(*one, 1);
    EXPECT_TRUE(t.empty());
    t.push_back(two);
    t.push_back(one);
    EXPECT_FALSE(t.empty());
    ListTable<int>::iterator again = t.pop_back();
    EXPECT_EQ(again._M_node, one._M_node);
    EXPECT_EQ(ListTable<int>::ListItem::fromData(&*again), one._M_node);
    t.push_back(again);
    int n = 0;
    for (ListTable<int>::iterator it = t.begin(); it != t.end(); ++it) ++n;
    EXPECT_EQ(n, 2);
}  // the destructor frees what is still listed (checked by the leak sanitizer)
