// Kel: the static glue of the event core: the table of pools, allocation and
// release of events by reference count, and the one event mutex and condition
// on which the main loop sleeps.
//
// Thread rules: `newX_`, `newRef_`, `gc` and `signal` may be called from any
// thread (not from a signal handler: they take the event mutex). `lock` and
// `unlock` are for the loop's timed wait only.
//
// Lifetime: the event mutex and condition live from `init` to `uninit`.
// Allocation, release and `signal` stay safe outside that span: before
// `init` and after `uninit` the pools are guarded by a private mutex that is
// never destroyed, and `signal` has no sleeper to wake. So a timer stopped or
// an event released after the loop has ended touches no destroyed mutex.
// `uninit` waits for callers still inside the event mutex before destroying
// it; only the first `uninit` after an `init` takes effect. Mutual exclusion
// holds across both switches: a thread never works on the pools under the
// private mutex while another is inside the event mutex, or the reverse.
#ifndef KEL_EVENTS_KEL_PORT_H
#define KEL_EVENTS_KEL_PORT_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "event_def.h"
#include "kel_export.h"

class KelPool;

class KEL_API Kel {
public:
    static KelPool* Kel_pool_[3];
    static uint_fast32_t Kel_maxPool_;
    static pthread_mutex_t Kel_event_mutex_;
    static pthread_cond_t Kel_event_cond_;

    // Holds the event mutex for a scope (or, outside init..uninit, the
    // private mutex that stands in for it). Releases it during unwinding.
    class KEL_API Autolock {
    public:
        Autolock();
        ~Autolock();
        Autolock(const Autolock&) = delete;
        Autolock& operator=(const Autolock&) = delete;

    private:
        pthread_mutex_t* mLocked;
    };

    // Creates the condition (on CLOCK_MONOTONIC) and the mutex. A second call
    // while they are alive does nothing.
    static void init();
    // Destroys the condition, then the mutex. Pools stay registered.
    static void uninit();
    // True between `init` and `uninit`.
    static bool isAlive();
    // Number of `init` calls that took effect: a new value means the
    // framework was started again. Memory ordering: raised before `init`
    // publishes the live mutex (seq_cst store), read with acquire.
    static uint32_t generation();

    // The loop's timed wait: lock, pthread_cond_timedwait, unlock.
    // Asserts that `init` has run.
    static void lock();
    static void unlock();

    // Wakes the loop's thread: counts one wake-up and, if the loop sleeps
    // and no other caller has woken it yet, takes the event mutex and
    // signals the event condition, or, when the loop sleeps on watched
    // descriptors, writes its eventfd. Any thread.
    static void signal();
    // The loop's timed wait until the absolute CLOCK_MONOTONIC `deadline`.
    // It does not sleep when a wake-up has been counted since `seen` or when
    // `stillIdle(arg)` (asked under the event mutex) is false. Returns 0 or
    // the error of pthread_cond_timedwait. Loop thread only.
    static int wait(const timespec* deadline, uint32_t seen, bool (*stillIdle)(void*), void* arg);
    // The loop's wait on watched descriptors, around its epoll_wait: raises
    // the sleeper flag so that `signal` writes the eventfd `wakeFd` instead
    // of signalling the condition. False (flag lowered: do not sleep) when a
    // wake-up has been counted since `seen`. Loop thread only.
    static bool enterFdWait(uint32_t seen, int wakeFd);
    static void leaveFdWait();
    // True when the last sleep of `wait` was ended by a `signal` from a
    // thread on the CPU the loop now runs on: the loop then preempted its
    // poster. Loop thread only.
    static bool wokenFromOwnCpu();
    // Number of wake-ups sent so far. The loop reads it before it looks at
    // its queue and timers and again under the event mutex before it sleeps:
    // a difference means a wake-up came in between, and it does not sleep.
    // Memory ordering: acquire; pairs with the release in `signal`, so the
    // post or timer change made before a wake-up is visible to the loop.
    // The fast paths that skip a lock (the timer list with nothing armed,
    // KelQueue::isEmpty, a poster taking the event mutex only when the loop
    // sleeps) are correct only because both sides of the handshake (count
    // then sleeper flag in `signal`, flag then count in `wait`) are
    // sequentially consistent: weakening either breaks them.
    static uint32_t wakeups();

    // An event of at least `evtSize` bytes from the first registered pool
    // that is large enough and not empty; null (LOG_ERROR) when none can.
    // A pool large enough but empty counts a refusal (KelPool::getNRefused).
    // The payload holds what its last user left there.
    static QEvt* newX_(int sig, uint_fast16_t evtSize);
    // Adds a reference (pool events only). Returns `e`.
    static const QEvt* newRef_(const QEvt* e);
    // Drops a reference; the block goes home when the last one ends. Logs
    // "poolId_ is invalid" and asserts for a record from no pool.
    static void gc(const QEvt* e);
};

#endif
