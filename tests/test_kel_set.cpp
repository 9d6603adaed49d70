#include <gtest/gtest.h>

#include <stdexcept>

#include "kel_set.h"

TEST(KelSetLog2, HighestBitAtEveryByteBoundary) {
    EXPECT_EQ(KelSet::QF_LOG2(0), 0u);
    EXPECT_EQ(KelSet::QF_LOG2(1), 1u);
    EXPECT_EQ(KelSet::QF_LOG2(2), 2u);
    EXPECT_EQ(KelSet::QF_LOG2(3), 2u);
    EXPECT_EQ(KelSet::QF_LOG2(255), 8u);
    EXPECT_EQ(KelSet::QF_LOG2(256), 9u);
    EXPECT_EQ(KelSet::QF_LOG2(0xFFFF), 16u);
    EXPECT_EQ(KelSet::QF_LOG2(0x10000), 17u);
    EXPECT_EQ(KelSet::QF_LOG2(0xFFFFFF), 24u);
    EXPECT_EQ(KelSet::QF_LOG2(0x1000000), 25u);
    EXPECT_EQ(KelSet::QF_LOG2(0x80000000u), 32u);
    EXPECT_EQ(KelSet::QF_LOG2(0xFFFFFFFFu), 32u);
}

TEST(KelSetLog2, MatchesBitByBitSearchForEverySingleAndTrailingBit) {
    for (unsigned b = 0; b < 32; ++b) {
        uint32_t one = uint32_t{1} << b;
        EXPECT_EQ(KelSet::QF_LOG2(one), b + 1) << b;
        // Lower bits never change the answer.
        EXPECT_EQ(KelSet::QF_LOG2(one | (one - 1)), b + 1) << b;
    }
}

TEST(KelSet, NewSetIsEmptyAndFindMaxIsZero) {
    KelSet s;
    EXPECT_TRUE(s.isEmpty());
    EXPECT_FALSE(s.notEmpty());
    EXPECT_EQ(s.findMax(), 0u);
    for (uint_fast8_t n = 1; n <= 32; ++n) EXPECT_FALSE(s.hasElement(n));
}

TEST(KelSet, MembersCountFromOneToThirtyTwo) {
    KelSet s;
    s.insert(1);
    EXPECT_TRUE(s.hasElement(1));
    EXPECT_FALSE(s.hasElement(2));
    EXPECT_EQ(s.findMax(), 1u);
    s.insert(32);
    EXPECT_EQ(s.findMax(), 32u);
    s.insert(17);
    s.remove(32);
    EXPECT_EQ(s.findMax(), 17u);
    EXPECT_TRUE(s.hasElement(1));
    s.remove(17);
    s.remove(1);
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(s.findMax(), 0u);
}

TEST(KelSet, InsertAndRemoveAreIdempotentAndLeaveOthersAlone) {
    KelSet s;
    s.insert(5);
    s.insert(5);
    s.insert(9);
    s.remove(7);  // not a member
    EXPECT_TRUE(s.hasElement(5));
    EXPECT_TRUE(s.hasElement(9));
    s.remove(9);
    s.remove(9);
    EXPECT_TRUE(s.hasElement(5));
    EXPECT_EQ(s.findMax(), 5u);
    s.setEmpty();
    EXPECT_TRUE(s.isEmpty());
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
