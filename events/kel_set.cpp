#include "kel_set.h"

#include "common_log.h"

namespace {

// Bit of the 1-based number `n`, after the range check.
inline uint32_t bitOf(uint_fast8_t n) { return uint32_t{1} << (n - 1); }

}  // namespace

uint_fast8_t KelSet::QF_LOG2(uint32_t x) {
    // Entry i is the number of bits needed to write i.
    static const uint8_t QF_log2Lkup[256] = {
        0, 1, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
        6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
        7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
        7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
        8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
        8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
        8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
        8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8};
    uint32_t i;
    uint_fast8_t n;
    if ((x >> 16) != 0) {
        if ((x >> 24) != 0) {
            i = x >> 24;
            n = 24;
        } else {
            i = x >> 16;
            n = 16;
        }
    } else if ((x >> 8) != 0) {
        i = x >> 8;
        n = 8;
    } else {
        i = x;
        n = 0;
    }
    return static_cast<uint_fast8_t>(QF_log2Lkup[i] + n);
}

// Members count from 1 so that findMax is QF_LOG2 of the word and 0 can mean
// "empty"; a number outside 1..32 asserts instead of being masked.
bool KelSet::hasElement(uint_fast8_t n) const {
    KEL_ASSERT(n >= 1 && n <= kMaxElement);
    return (m_bits & bitOf(n)) != 0;
}

void KelSet::insert(uint_fast8_t n) {
    KEL_ASSERT(n >= 1 && n <= kMaxElement);
    m_bits = m_bits | bitOf(n);
}

void KelSet::remove(uint_fast8_t n) {
    KEL_ASSERT(n >= 1 && n <= kMaxElement);
    m_bits = m_bits & ~bitOf(n);
}
