// KelAtomic<T>: a counter changed by atomic read-modify-write operations.
//
// Used for reference counts shared between threads. Any thread may call any
// operation. inc() and dec() are full barriers, so a holder's last writes
// are visible to whoever sees the count reach 0 and frees the object.
#ifndef KEL_EVENTS_KEL_ATOMIC_H
#define KEL_EVENTS_KEL_ATOMIC_H

#include "kel_export.h"

template <typename T>
class KEL_API KelAtomic {
public:
    // Stores `val` plainly: the object is not yet shared.
    explicit KelAtomic(T val) : value(val) {}

    // Adds 1 and returns the new value.
    // Memory ordering: sequentially consistent read-modify-write, a full
    // barrier (dmb) before and after it on ARM.
    T inc() { return __atomic_add_fetch(&value, 1, __ATOMIC_SEQ_CST); }

    // Subtracts 1 and returns the new value.
    // Memory ordering: as inc(); the thread that gets 0 sees every write
    // that other holders made before their own dec().
    T dec() { return __atomic_sub_fetch(&value, 1, __ATOMIC_SEQ_CST); }

    // The current value; a snapshot when other threads count.
    // Memory ordering: acquire, pairs with the barriers of inc()/dec().
    T get() const { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }

    // A counter is an identity; copying one would split it.
    KelAtomic(const KelAtomic&) = delete;
    KelAtomic& operator=(const KelAtomic&) = delete;

private:
    volatile T value;
};

// The one instantiation the framework uses, compiled once in kel_atomic.cpp.
extern template class KelAtomic<unsigned int>;

#endif
