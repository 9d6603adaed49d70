// The shared body of a dispatch queue, used by the sources of the queue,
// its timers and its loop; not installed.
#ifndef KEL_EVENTS_DISPATCH_PRIVATE_H
#define KEL_EVENTS_DISPATCH_PRIVATE_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>
#include <new>

#include "common_log.h"
#include "dispatch_nodes.h"
#include "dispatch_process.h"
#include "kel_atomic.h"
#include "kel_lock.h"
#include "kel_watch.h"

namespace dispatch {

// Time, all on CLOCK_MONOTONIC.
// Now, in microseconds.
int64_t timeUs();
// A delay in ms as microseconds. The product is a 32-bit signed value, which
// is why delays are limited to 2147483 ms; it wraps rather than overflows.
inline int64_t periodUs(int msec) { return static_cast<int32_t>(static_cast<uint32_t>(msec) * 1000u); }

namespace internal {
// `now` advanced by `time_us` microseconds, with the seconds added clamped
// at 10,000,000 (about 115 days). Used for the deadlines of timed waits.
timespec timespecAfter(const timespec& now, int64_t time_us);
}  // namespace internal

// The timer list's order: an entry already on the list fires before a newly
// armed one unless its deadline is later, so equal deadlines fire in the
// order they were armed.
inline bool firesBefore(const ItemTimer& listed, const ItemTimer& armed) {
    return listed.tiggerTime <= armed.tiggerTime;
}

// The body of a queue, shared by its Queue, Timers and Loops. Fields are
// guarded by `mtx` unless they say otherwise.
class QueuePrivate : public Object {
public:
    QueuePrivate();

    QueuePrivate* ref() {
        refCount.inc();
        return this;
    }
    void unref();

    // Pending callbacks (dispatch_process.cpp).
    void enqueueItem(Object::Callback1 fn, Object* fn_data, bool merge, bool delobject);
    bool link(DispatchItem* item);
    void announce(bool wake);
    // Caller holds `mtx`. True once per sleep of the processing thread:
    // the first piece of work that arrives while it sleeps wakes it, later
    // ones find it woken already and broadcast nothing. (A broadcast while
    // the sleeper is still on its way out of the wait costs a system call.)
    // A thread asleep on watched descriptors is woken here, by the eventfd.
    bool takeSleeper() {
        bool s = sleeping;
        sleeping = false;
        if (s && fdSleep) {
            watch->kick();
            return false;
        }
        return s;
    }
    // Caller holds `mtx`. Wakes the processing thread whatever it waits on.
    void wakeProcessor() {
        pthread_cond_broadcast(&cond);
        if (fdSleep) watch->kick();
    }
    void remove(Object::Callback1 fn, Object* fn_data);
    void procEventFunc();
    void wakeup();
    // Ends the loop of Loop::exec; runs on the loop's thread through run().
    void interrupt() { exitLoop.store(true, std::memory_order_relaxed); }

    // What the processing thread does next, in this order of priority.
    enum class Step { HoldForLocker, RunFd, RunCallback, RunTimer, Sleep, Return };
    Step nextStep(bool mayWait);

    // Watched descriptors (dispatch_process.cpp). Caller holds `mtx`.
    // Waits up to `waitUs` (0: a look only; INT64_MAX: no limit) for a
    // readiness or a wake-up, with `mtx` released; true when readiness was
    // collected.
    bool collectFds(int64_t waitUs);
    // Runs the handler of the next collected readiness like a callback:
    // `locked` held, `mtx` released.
    void procFd();
    bool watching() const { return watch != nullptr && watch->active(); }

    // The explicit lock as the processing thread sees it. Caller holds
    // `mtx`. A callback holds `locked` while it runs, so that a thread in
    // lock() waits for its end; the explicit lock, once taken, holds
    // `locked` in its place. A timer callback does not take `locked`.
    void beginCallback() {
        KEL_ASSERT(!locked);
        locked = true;
    }
    void endCallback() {
        KEL_ASSERT(locked);
        locked = false;
        wakeLockers();
    }
    // After a callback: only a thread in lock() waits for its end. Waking
    // nobody else keeps a thread blocked in run() asleep while the items
    // queued before its own are processed. Caller holds `mtx`.
    void wakeLockers() {
        if (lock_requests != 0) pthread_cond_broadcast(&cond);
    }

    // Timers (dispatch_timer.cpp).
    void appendTimer(Timer* that);
    void _appendTimer(ItemTimer* item);
    void removeTimer(Timer* timer);
    int64_t getWait();
    bool haveTigger();
    void procTimer();

    // Debug builds: the caller holds `mtx`.
    bool mutexHeld() const { return mtx.heldByCaller(); }

    // Records come from and go back to the shared store. Any thread, with
    // or without `mtx`. A take may throw std::bad_alloc, with nothing
    // changed.
    template <typename T>
    T* getNode(Object::Callback1 fn, Object* data, bool async, bool merge) {
        return new (nodes::take()) T(fn, data, async, merge);
    }
    LoopEvtItem* getLoopNode(Loop::Evt& e) { return new (nodes::take()) LoopEvtItem{e, nullptr}; }
    // Takes back a record from getNode or getLoopNode, exactly once.
    void recycle(void* item) { nodes::recycle(item); }

    // What a queuing thread and the processing thread both touch for every
    // callback sits together, behind the mutex, so that a hand-over of the
    // mutex moves as few cache lines as possible.
    OwnedMutex mtx;
    DispatchItem* head = nullptr;
    DispatchItem* tail = nullptr;
    bool interrupted = false;
    bool sleeping = false;  // the processing thread waits for work or a timer
    bool fdSleep = false;   // ... in epoll_wait on `watch`, not on `cond`
    bool locked = false;
    bool in_process = false;
    size_t lock_requests = 0;
    // Set before other threads use the queue; read without `mtx`.
    Object::Callback1 wakeup_fn = nullptr;
    Object* wakeup_ctx = nullptr;

    // Made by the first watchFd, lives as long as the body. The pointer is
    // guarded by `mtx`; the table locks itself.
    KelWatch* watch = nullptr;
    ItemTimer* timerhead = nullptr;
    LoopEvtItem* loopHead = nullptr;
    LoopEvtItem* loopTail = nullptr;
    pthread_cond_t cond;
    int64_t wait = 0;
    pthread_t in_process_thread = 0;
    bool locked_explicit = false;
    pthread_t locked_explicit_thread = 0;
    bool timerProc = false;
    // Memory ordering: relaxed. Written and read on the thread in
    // Loop::exec (by exec itself and by interrupt() run through the queue);
    // atomic only so that a queue processed elsewhere stays well defined.
    std::atomic<bool> exitLoop{false};

private:
    ~QueuePrivate() override;

    KelAtomic<unsigned int> refCount{1};
};

}  // namespace dispatch

#endif
