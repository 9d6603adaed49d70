// KelWatch: the file descriptors watched by one loop (the main loop, or a
// dispatch queue), on an epoll instance of its own, with an eventfd by which
// other threads end its wait. Not installed.
//
// Threads: `add`, `modify`, `remove`, `active`, `wakeFd` and `kick` on any
// thread. `collect`, `deliverOne` and `pending` on the collector, the one
// thread at a time that waits and runs the handlers (the loop's thread, or
// the queue's processing thread).
// Locks: `mMutex` guards the table. It is never held while a handler runs,
// and no other lock is taken under it.
// Limits: level-triggered. A registration stays until removed; a closed
// descriptor leaves epoll by itself (when no duplicate of it is open), so
// its handler is just not called again, but the number stays taken: remove
// before close.
#ifndef KEL_EVENTS_KEL_WATCH_H
#define KEL_EVENTS_KEL_WATCH_H

#include <pthread.h>
#include <stdint.h>
#include <sys/epoll.h>

#include <atomic>
#include <vector>

#include "kel_fd.h"

class KelWatch {
public:
    KelWatch();
    // Closes the epoll instance and the eventfd; handlers still registered
    // are forgotten.
    ~KelWatch();

    // False with one log line for a bad descriptor or a null handler, a
    // second registration of `fd`, or a descriptor that epoll refuses (a
    // regular file). The first call opens the epoll instance; registration
    // may allocate.
    bool add(int fd, unsigned interest, KelFdHandler fn, void* arg);
    // False with one log line when `fd` is not registered.
    bool modify(int fd, unsigned interest);
    // Ends the registration of `fd`; `arg` receives its argument. On a thread
    // other than the collector, waits until the handler of `fd` is not
    // running; from the handler itself it returns at once. Either way the
    // handler is not called again, not even for a readiness already
    // collected. False with one log line when `fd` is not registered.
    bool remove(int fd, void** arg = nullptr);
    // Calls `release` with the argument of every registration left, and
    // forgets them. No handler may be running.
    void drop(void (*release)(void* arg));

    // True while a registration exists. Memory ordering: acquire; pairs with
    // the release in `add`, so a collector that sees it sees the epoll
    // instance.
    bool active() const { return mActive.load(std::memory_order_acquire) > 0; }
    // The eventfd that ends a wait of `collect`; -1 before the first `add`.
    int wakeFd() const { return mEvfd.load(std::memory_order_acquire); }
    // Ends the current or next wait of `collect`. Any thread, no lock.
    void kick();

    // Collector only. Waits up to `timeoutMs` (-1: no limit; 0: a look only)
    // for a readiness or a kick, and keeps what is ready for `deliverOne`.
    // Returns the number of entries collected, a kick included (0: the time
    // ran out, or a signal interrupted the wait), or -1 with errno set.
    int collect(int timeoutMs);
    // Collector only. Calls the handler of the next collected readiness whose
    // registration still wants it, with no lock held. False when none is left.
    bool deliverOne();
    // Collector only: readiness collected and not yet delivered.
    bool pending() const { return mNext < mCount; }

    KelWatch(const KelWatch&) = delete;
    KelWatch& operator=(const KelWatch&) = delete;

private:
    struct Slot {
        int fd;
        unsigned interest;
        uint32_t serial;  // tells a reused slot from the registration collected
        bool used;
        KelFdHandler fn;
        void* arg;
    };
    // Caller holds `mMutex`. The slot of `fd`, or -1.
    int find(int fd) const;
    // Caller holds `mMutex`. The slot of `fd`, or -1 with "<op>: descriptor
    // %d is not watched".
    int findWatched(int fd, const char* op) const;
    bool open();
    // Collector, `mMutex` released: the running handler has returned.
    void finish();

    pthread_mutex_t mMutex;
    pthread_cond_t mDone;  // a handler has returned; for `remove`
    std::vector<Slot> mSlots;
    uint32_t mSerial = 0;
    int mRunning = -1;  // slot whose handler runs
    uint32_t mRunningSerial = 0;
    pthread_t mCollector = pthread_t();  // the thread running it
    int mRemovers = 0;                   // threads in `remove` waiting for it
    // Memory ordering: release on change, acquire in `active`.
    std::atomic<int> mActive{0};
    // Set once by the first `add`, closed by the destructor. Memory ordering:
    // release when set, acquire when read without `mMutex`.
    std::atomic<int> mEpfd{-1};
    std::atomic<int> mEvfd{-1};

    // Collector only.
    static const int kBatch = 16;
    epoll_event mReady[kBatch];
    int mCount = 0;
    int mNext = 0;
};

#endif
