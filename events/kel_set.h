// KelSet: a set of the numbers 1 to 32 kept in one 32-bit word, with a
// constant-time search for the highest member.
//
// Numbering: members count from 1. Number n is bit (n - 1) of the word, so
// findMax() is QF_LOG2() of the word and an empty set yields 0, which is never
// a member. A number outside 1..32 is a broken contract: insert, remove and
// hasElement assert (KEL_ASSERT, which throws std::runtime_error) and leave
// the set unchanged.
//
// Thread rules: none of its own. The object neither locks nor uses atomic
// operations (`volatile` gives no atomicity), so concurrent users must share
// a lock of their own. Any thread may use a set nobody else touches.
#ifndef KEL_EVENTS_KEL_SET_H
#define KEL_EVENTS_KEL_SET_H

#include <stdint.h>

#include "kel_export.h"

class KEL_API KelSet {
public:
    // Highest number a set can hold.
    static constexpr uint_fast8_t kMaxElement = 32;

    KelSet() : m_bits(0) {}

    // The 1-based position of the highest set bit of `x`; 0 when `x` is 0.
    // Two comparisons and one table read; no loop, no lock.
    static uint_fast8_t QF_LOG2(uint32_t x);

    void setEmpty() { m_bits = 0; }
    bool isEmpty() const { return m_bits == 0; }
    bool notEmpty() const { return m_bits != 0; }

    // `n` must be in 1..32.
    bool hasElement(uint_fast8_t n) const;
    void insert(uint_fast8_t n);
    void remove(uint_fast8_t n);

    // The highest member; 0 for an empty set.
    uint_fast8_t findMax() const { return QF_LOG2(m_bits); }

private:
    volatile uint32_t m_bits;
};

#endif
