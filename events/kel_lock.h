// Lock helpers of the framework's own code; not installed.
//
// PthreadAutolock: a scope guard for a plain pthread mutex.
// OwnedMutex: a plain pthread mutex that, in debug builds, knows which
// thread holds it, so that "caller holds" checks test the caller. Lock and
// Unlock are its scope guards (Unlock releases it for a scope, around
// application code). A check that throws while the mutex is held leaves it
// released: the guards on the stack unlock on the way out.
#ifndef KEL_EVENTS_KEL_LOCK_H
#define KEL_EVENTS_KEL_LOCK_H

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

// Locks a plain pthread mutex for a scope, also when an exception passes.
class PthreadAutolock {
public:
    explicit PthreadAutolock(pthread_mutex_t* m) : mMutex(m) { pthread_mutex_lock(mMutex); }
    ~PthreadAutolock() { pthread_mutex_unlock(mMutex); }

    PthreadAutolock(const PthreadAutolock&) = delete;
    PthreadAutolock& operator=(const PthreadAutolock&) = delete;

private:
    pthread_mutex_t* mMutex;
};

class OwnedMutex {
public:
    OwnedMutex() { pthread_mutex_init(&mMutex, nullptr); }
    ~OwnedMutex() { pthread_mutex_destroy(&mMutex); }

    // A contended lock on a system of several CPUs first retries eight
    // times, sixteen pause instructions apart: the holder runs on another
    // CPU and its sections are a few dozen instructions, while a sleep and
    // a wake-up cost tens of microseconds. On one CPU the holder cannot run
    // while we spin, so the lock sleeps at once. (The C library's adaptive
    // spin gave up too early under a steady stream of hand-overs, and the
    // processing thread slept and was woken for many of them.)
    void lock() {
        if (pthread_mutex_trylock(&mMutex) != 0 && !retried()) pthread_mutex_lock(&mMutex);
        own();
    }
    void unlock() {
        disown();
        pthread_mutex_unlock(&mMutex);
    }
    // Caller holds the mutex; it is released during the wait.
    void wait(pthread_cond_t* cond) {
        disown();
        pthread_cond_wait(cond, &mMutex);
        own();
    }
    void timedWait(pthread_cond_t* cond, const timespec* until) {
        disown();
        pthread_cond_timedwait(cond, &mMutex, until);
        own();
    }

    // Debug builds: whether the calling thread holds the mutex. Release
    // builds keep no owner and answer true.
    bool heldByCaller() const {
#ifdef NDEBUG
        return true;
#else
        return pthread_equal(mOwner.load(std::memory_order_relaxed), pthread_self()) != 0;
#endif
    }

    OwnedMutex(const OwnedMutex&) = delete;
    OwnedMutex& operator=(const OwnedMutex&) = delete;

    class Lock {
    public:
        explicit Lock(OwnedMutex& m) : mM(m) { mM.lock(); }
        ~Lock() { mM.unlock(); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        OwnedMutex& mM;
    };

    // Releases a held mutex for a scope and takes it back at the end, also
    // when an exception passes.
    class Unlock {
    public:
        explicit Unlock(OwnedMutex& m) : mM(m) { mM.unlock(); }
        ~Unlock() { mM.lock(); }
        Unlock(const Unlock&) = delete;
        Unlock& operator=(const Unlock&) = delete;

    private:
        OwnedMutex& mM;
    };

private:
    bool retried() {
        static const bool severalCpus = sysconf(_SC_NPROCESSORS_ONLN) > 1;
        if (!severalCpus) return false;
        for (int round = 0; round < 8; ++round) {
            for (int i = 0; i < 16; ++i) cpuRelax();
            if (pthread_mutex_trylock(&mMutex) == 0) return true;
        }
        return false;
    }
    static void cpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        __asm__ __volatile__("yield" ::: "memory");
#else
        __asm__ __volatile__("" ::: "memory");
#endif
    }

#ifdef NDEBUG
    void own() {}
    void disown() {}
#else
    void own() { mOwner.store(pthread_self(), std::memory_order_relaxed); }
    void disown() { mOwner.store(pthread_t(), std::memory_order_relaxed); }
    // Memory ordering: relaxed. Set by the holder after it locks, cleared
    // before it unlocks; a thread that does not hold the mutex may read any
    // of those values, and none is its own id.
    std::atomic<pthread_t> mOwner{pthread_t()};
#endif
    pthread_mutex_t mMutex;
};

#endif
