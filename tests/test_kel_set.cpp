#include <gtest/gtest.h>

#include <stdexcept>

#include "kel_set.h"

// Member n is bit n-1 (1..32); findMax is the highest; removing clears the
// bit (twice is harmless); members outside 1..32 assert.
TEST(KelSet, MembersFindMaxRemoveAndBounds) {
    for (unsigned b = 0; b < 32; ++b) {
        uint32_t one = uint32_t{1} << b;
        EXPECT_EQ(KelSet::QF_LOG2(one | (one - 1)), b + 1) << b;
        KelSet s;
        s.insert(static_cast<uint_fast8_t>(b + 1));
        EXPECT_EQ(s.findMax(), b + 1);
        EXPECT_FALSE(s.hasElement(b == 0 ? 2 : static_cast<uint_fast8_t>(b)));
    }
    KelSet s;
    s.insert(17);
    s.insert(32);
    s.remove(32);
    s.remove(32);
    EXPECT_EQ(s.findMax(), 17u);
    for (int bad : {0, 33}) EXPECT_THROW(s.insert(static_cast<uint_fast8_t>(bad)), std::runtime_error);
}
