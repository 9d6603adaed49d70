#include <gtest/gtest.h>

#include "list_table.h"

// A stack of items that go back without a copy: the last one returned is
// the first one handed out again.
TEST(ListTable, StackThatReusesItsItems) {
    ListTable<int> t;
    EXPECT_TRUE(t.pop_back() == t.end()) << "empty list";
    t.push_back(1);
    EXPECT_FALSE(t.empty()) << "one item";
    t.push_back(2);
    ListTable<int>::iterator two = t.pop_back(), one = t.pop_back();
    EXPECT_EQ(*two, 2);
    EXPECT_EQ(*one, 1);
    EXPECT_TRUE(t.empty());
    t.push_back(two);
    t.push_back(one);
    ListTable<int>::iterator again = t.pop_back();
    EXPECT_EQ(ListTable<int>::ListItem::fromData(&*again), one._M_node);
    t.push_back(again);
}  // the destructor frees what is still listed (checked by the leak sanitizer)
