// KelMutex: a plain, non-recursive mutex (adaptive: it spins briefly when
// contended before it sleeps). Autolock: a scope guard for it.
//
// Thread rules: any thread; a thread must not lock a KelMutex it holds.
// Lifetime: the mutex must be unlocked and no thread may be waiting on it
// when it is destroyed.
#ifndef KEL_EVENTS_KEL_MUTEX_H
#define KEL_EVENTS_KEL_MUTEX_H

#include <pthread.h>

#include "kel_export.h"

class KEL_API KelMutex {
public:
    // Asserts that pthread_mutex_init succeeded.
    KelMutex();
    ~KelMutex();

    void lock();
    void unlock();

    KelMutex(const KelMutex&) = delete;
    KelMutex& operator=(const KelMutex&) = delete;

private:
    pthread_mutex_t mMutex;
};

// Locks on construction, unlocks on destruction, also when an exception
// passes through the scope.
class KEL_API Autolock {
public:
    explicit Autolock(KelMutex* mutex) : mMutex(mutex) { mMutex->lock(); }
    ~Autolock() { mMutex->unlock(); }

    Autolock(const Autolock&) = delete;
    Autolock& operator=(const Autolock&) = delete;

private:
    KelMutex* mMutex;
};

#endif
