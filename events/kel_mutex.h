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

// Locks a plain pthread mutex for a scope, also when an exception passes:
// for the framework's own mutexes that are not KelMutex objects.
class KEL_API PthreadAutolock {
public:
    explicit PthreadAutolock(pthread_mutex_t* m) : mMutex(m) { pthread_mutex_lock(mMutex); }
    ~PthreadAutolock() { pthread_mutex_unlock(mMutex); }

    PthreadAutolock(const PthreadAutolock&) = delete;
    PthreadAutolock& operator=(const PthreadAutolock&) = delete;

private:
    pthread_mutex_t* mMutex;
};

#endif
