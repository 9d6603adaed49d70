#include <gtest/gtest.h>

#include <stdexcept>

#include "kel_set.h"

TEST(KelSetLog2, HighestBitIsNumberedFromOne) {
    EXPECT_EQ(KelSet::QF_LOG2(0), 0u);
    for (unsigned b = 0; b < 32; ++b) {
        uint32_t one = uint32_t{1} << b;
        EXPECT_EQ(KelSet::QF_LOG2(one), b + 1) << b;
        EXPECT_EQ(KelSet::QF_LOG2(one | (one - 1)), b + 1) << b;  // lower bits do not count
    }
}

TEST(KelSet, MembersCountFromOneToThirtyTwo) {
    KelSet s;
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(s.findMax(), 0u);
    for (uint_fast8_t n = 1; n <= 32; ++n) EXPECT_FALSE(s.hasElement(n));
    s.insert(1);
    s.insert(1);
    EXPECT_TRUE(s.notEmpty());
    EXPECT_FALSE(s.hasElement(2));
    EXPECT_EQ(s.findMax(), 1u);
    s.insert(32);
    EXPECT_EQ(s.findMax(), 32u);
    s.insert(17);
    s.remove(32);
    s.remove(32);
    s.remove(9);  // not a member
    EXPECT_EQ(s.findMax(), 17u);
    EXPECT_TRUE(s.hasElement(1));
    s.remove(17);
    s.remove(1);
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(s.findMax(), 0u);
    s.insert(5);
    s.setEmpty();
    EXPECT_FALSE(s.hasElement(5));
}

TEST(KelSet, OutOfRangeNumbersAssertAndChangeNothing) {
    KelSet s;
    s.insert(3);
    EXPECT_THROW(s.insert(0), std::runtime_error);
    EXPECT_THROW(s.insert(33), std::runtime_error);
    EXPECT_THROW(s.remove(0), std::runtime_error);
    EXPECT_THROW(s.remove(200), std::runtime_error);
    EXPECT_THROW(s.hasElement(0), std::runtime_error);
    EXPECT_THROW(s.hasElement(33), std::runtime_error);
    EXPECT_EQ(s.findMax(), 3u);
    EXPECT_TRUE(s.hasElement(3));
}
