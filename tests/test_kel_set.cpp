#include <gtest/gtest.h>

#include <stdexcept>

#include "kel_set.h"

TEST(KelSet, MembersCountFromOneToThirtyTwoAndFindMaxIsTheHighest) {
    EXPECT_EQ(KelSet::QF_LOG2(0), 0u);
    for (unsigned b = 0; b < 32; ++b) {
        uint32_t one = uint32_t{1} << b;
        EXPECT_EQ(KelSet::QF_LOG2(one | (one - 1)), b + 1) << b;
        KelSet s;
        s.insert(static_cast<uint_fast8_t>(b + 1));
        EXPECT_EQ(s.findMax(), b + 1);
        EXPECT_TRUE(s.hasElement(static_cast<uint_fast8_t>(b + 1)));
        EXPECT_FALSE(s.hasElement(b == 0 ? 2 : static_cast<uint_fast8_t>(b)));
    }
    KelSet s;
    s.insert(17);
    s.insert(32);
    s.remove(32);
    s.remove(32);
    s.remove(9);  // not a member
    EXPECT_EQ(s.findMax(), 17u);
    s.remove(17);
    EXPECT_TRUE(s.isEmpty());
    for (int bad : {0, 33, 200}) {
        EXPECT_THROW(s.insert(static_cast<uint_fast8_t>(bad)), std::runtime_error);
        EXPECT_THROW(s.remove(static_cast<uint_fast8_t>(bad)), std::runtime_error);
        EXPECT_THROW(s.hasElement(static_cast<uint_fast8_t>(bad)), std::runtime_error);
    }
    EXPECT_TRUE(s.isEmpty());
}
