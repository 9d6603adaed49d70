// Dispatch queues: member-function callbacks run one at a time on whichever
// thread processes the queue, with timers, a small event loop, and an
// explicit lock by which another thread holds the processing still.
//
// Threads
//   A queue has no thread of its own. The thread inside Queue::queueProcess
//   (or Loop::exec, which calls it) is the processing thread; at most one at
//   a time, possibly a different one from call to call. Every callback,
//   timer callback and Loop::procSubMsg runs on it.
//   All other operations may be called from any thread, except where an
//   operation says otherwise.
//
// Locks
//   Each queue has one internal mutex. It is never held while application
//   code runs: callbacks, timer callbacks, procSubMsg and the wakeup function
//   all run with no lock of the queue held, so they may enqueue, cancel,
//   post and restart timers on their own queue. The one exception is the
//   destructor of an object given to enqueueAutofree, which runs with the
//   queue's mutex held and must not touch this queue, its timers or loop.
//
// Lifetimes
//   Queue, Timer and Loop share a reference-counted body: the body lives
//   until the last of them is destroyed. The last one may go only when no
//   callback is pending, no thread is processing and no explicit lock is
//   requested or held; breaking that ends the process.
//   Targets of callbacks are not kept alive by the queue: a target must
//   outlive every pending or running call on it.
//   Queue, Timer and Loop objects must not be copied.
//
// Memory
//   Pending callbacks, timer entries and loop events live in fixed-size
//   nodes shared by all queues. Nodes are made only when none is free and
//   are never freed, so once the process's peak of pending work has been
//   reached no operation of this module touches the heap. Queue::profile
//   logs the nodes holding work ("used") and those made.
#ifndef KEL_EVENTS_DISPATCH_PROCESS_H
#define KEL_EVENTS_DISPATCH_PROCESS_H

#include <stdint.h>

#include <atomic>

#include "kel_export.h"
#include "kel_fd.h"

namespace dispatch {

class QueuePrivate;

// Base of every class whose member functions are used as callbacks.
class KEL_API Object {
public:
    // A no-argument member function of an Object subclass. A callback is
    // always such a pointer together with the target object it is called on.
    typedef void (Object::*Callback1)();
    // The handler of a watched descriptor: the descriptor and the KEL_FD_*
    // bits that are ready.
    typedef void (Object::*FdCallback)(int fd, unsigned ready);

    virtual ~Object() {}
};

// Turns `&Derived::method` into a Callback1. The target handed over beside
// it must be a Derived.
template <typename T>
inline Object::Callback1 FUNC(T fn) {
    return static_cast<Object::Callback1>(fn);
}

// Turns `&Derived::onReady` (taking int fd, unsigned ready) into an
// FdCallback, as FUNC does.
template <typename T>
inline Object::FdCallback FDFUNC(T fn) {
    return static_cast<Object::FdCallback>(fn);
}

// The handle of a dispatch queue.
//
// Callbacks run in the order they were queued, one at a time, on the
// processing thread, with no lock held. A pending callback comes before a
// due timer.
//
// Limits: a callback must not call run() or queueProcess() on its own
// queue, and must not take the explicit lock of its own queue. A null `fn`
// must not be queued; a null target asserts.
//
// Exceptions: a callback (or timer callback) that throws has its item
// finished as if it had returned (an auto-free target is deleted, a waiter
// in run() returns; a timer entry goes home, not re-armed), and the
// exception then leaves queueProcess, with the queue ready for the next
// call.
class KEL_API Queue : public Object {
public:
    Queue();
    // Gives up the handle's reference; timers and loops may keep the body.
    ~Queue() override;

    // Microseconds to the next pending timer: 0 or less when it is due,
    // INT64_MAX when no timer is pending. Stopped entries at the head of the
    // timer list are dropped on the way. Any thread.
    int64_t getNeedWait();

    // A function called whenever the queue gets work (or a thread wants the
    // explicit lock), for owners that drive queueProcess from their own
    // event source. Call before other threads use the queue. The function
    // runs on the thread that queued the work, with no lock held.
    void setWakeupFn(Object::Callback1 wakeup_fn, Object* ctx);

    // Queues a call and returns.
    void enqueue(Object::Callback1 fn, Object* fn_data);
    // Queues a call; `fn_data` is deleted (through its virtual destructor,
    // with the queue's mutex held) after it.
    void enqueueAutofree(Object::Callback1 fn, Object* fn_data);
    // Queues a call unless an equal notification (same fn and target) is
    // still pending; a merged notification wakes nobody.
    void enqueueNotify(Object::Callback1 fn, Object* fn_data);
    // Removes every pending call with this fn and target, keeping the order
    // of the rest. A call in progress is not stopped or waited for. The
    // target of a cancelled enqueueAutofree is not deleted. A thread in
    // run() for this pair returns without the call having been made.
    void cancelFn(Object::Callback1 fn, Object* fn_data);
    // Queues a call and blocks until it has returned. No time limit: some
    // thread has to process the queue. Never from a callback of this queue
    // or while holding this queue's explicit lock.
    void run(Object::Callback1 fn, Object* fn_data);

    // Processes the queue on the calling thread: pending callbacks, then due
    // timers, until there is no work. With `timeout` > 0 it then waits for
    // more, and returns only once the queue has been interrupted (by
    // interrupt(), by any enqueue when no wakeup function is set, or by a
    // Loop post) and has run dry. With `timeout` <= 0 it returns as soon as
    // there is no work; only the sign of `timeout` counts. Watched
    // descriptors are looked at once before it returns. It never returns
    // while an explicit lock is requested or held.
    // One thread at a time; never from a callback of this queue.
    void queueProcess(int timeout);

    // Makes the current, or next, queueProcess return once it has no work.
    void interrupt();
    // Wakes a processing thread waiting for a timer if `until` (microseconds)
    // is below its current wait.
    void adjustTimeout(long until);

    // Explicit lock: blocks until no callback of this queue runs and none
    // will start, and the processing thread is held inside queueProcess
    // until unlock(). Waits for a thread to enter queueProcess; with a
    // wakeup function set, calls it to get one. Not recursive, never from a
    // callback of this queue, and unlock() only by the holder. A timer
    // callback already running when the lock is taken runs to its end.
    // While holding it, do not call run() or Loop::exit() on this queue.
    void lock();
    void unlock();

    // Logs the node counters of the process ("node pools: used=%d,
    // counts=%d").
    void profile();

    // File descriptors watched by the queue. `(target->*fn)(fd, ready)` runs
    // on the processing thread like a callback (no lock held, the explicit
    // lock waits for it) whenever `fd` is ready for what `interest` names
    // (KEL_FD_IN, KEL_FD_OUT; errors and hang-ups always come). While a
    // descriptor is watched, queueProcess sleeps in epoll_wait (deadlines
    // rounded up to the next millisecond) and looks at the descriptors
    // whenever it would sleep or return, so ready descriptors count as work:
    // pending callbacks and due timers come first, and a readiness collected
    // is delivered before anything else. The rules are the main loop's
    // (kel_loop.h): level-triggered, any thread, false with one log line for
    // a bad descriptor, a second registration or an unknown one; once
    // unwatchFd has returned on another thread the handler is not running
    // and will not start; from the handler it takes effect at once; unwatch
    // before close. Registration allocates; the turns after it do not.
    bool watchFd(int fd, unsigned interest, Object::FdCallback fn, Object* target);
    bool modifyFd(int fd, unsigned interest);
    bool unwatchFd(int fd);

    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

private:
    friend class Timer;
    friend class Loop;
    QueuePrivate* const d;
};

// A one-shot or repeating timer that fires on a queue's processing thread,
// between callbacks.
//
// restart() and stop() may be called from any thread, also from any
// callback of the same queue. setHandler() and setRepeat() belong before
// restart() or on a stopped timer. A fired one-shot timer still reports
// isRunning() until stop().
//
// Limits: 0 <= msec <= 2147483 (a little under 36 minutes). The target must
// stay alive as long as the timer can fire. A timer may be destroyed at any
// time, armed or not, also from its own callback: it never fires again (a
// callback already running on another thread runs to its end).
class KEL_API Timer : public Object {
public:
    // `q` must not be null; the timer keeps the queue's body alive.
    explicit Timer(Queue* q);
    ~Timer() override;

    void setHandler(Object::Callback1 fn, Object* ctx);
    // Arms the timer `msec` ms from now, replacing anything it had pending.
    // Asserts that a handler is set. If memory runs out, throws
    // std::bad_alloc and leaves the timer stopped.
    void restart(int msec);
    // Stops the timer; an entry already due never fires.
    void stop();

    bool isRunning() const;
    void setIsRunning(bool running);
    bool repeat() const;
    // A repeating timer arms itself again `msec` after each callback ends.
    void setRepeat(bool rep);

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

private:
    friend class QueuePrivate;
    QueuePrivate* d;
    // Memory ordering: relaxed. The framework reads and writes both flags
    // under the queue's mutex, which orders them; the atomics only make
    // unlocked application reads and writes well defined.
    std::atomic<bool> mIsRunning;
    std::atomic<bool> mRepeat;
    int mMSec;
    Object::Callback1 fn;
    Object* ctx;
};

// A small event loop on a dispatch queue: exec() processes the queue and
// delivers posted events to procSubMsg until another thread calls exit().
//
// Order within a turn: queued callbacks and due timers first, then all
// events. procSubMsg runs on the thread in exec(), with no lock held and no
// callback of the queue beside it; an explicit lock waits through it.
//
// Limits: setQueue() first and once, and the Queue must outlive exec() and
// exit(). exit() never from the thread in exec() (nor from its callbacks
// or procSubMsg). Events posted after the last turn of exec() stay
// undelivered, and their nodes are not given back.
//
// Exceptions: an event whose procSubMsg throws counts as delivered, and the
// exception leaves exec(); exec() may be called again.
class KEL_API Loop {
public:
    struct Evt {
        // The argument becomes `sig`; the parameters start cleared.
        Evt(int s = 0) : sig(s), wParam(0), lParam(0), pHandler(nullptr) {}

        int sig;
        long wParam;
        long lParam;
        void* pHandler;
    };

    Loop();
    // Asserts setQueue() was called.
    virtual ~Loop();

    void setQueue(Queue* queue);
    // Handles one event. The reference is valid for the call only.
    virtual void procSubMsg(const Evt& e) = 0;

    // Appends a copy of `e`; any thread, also callbacks and procSubMsg.
    void post(Evt& e);
    // Puts a copy of `e` in front of the pending events.
    void postFIFO(Evt& e);

    // Runs the loop on the calling thread until exit().
    void exec();
    // Makes exec() end after delivering the events already posted; returns
    // once the request has been carried out on the loop's thread.
    void exit();

    // The queue's watchFd, modifyFd and unwatchFd (see Queue).
    bool watchFd(int fd, unsigned interest, Object::FdCallback fn, Object* target);
    bool modifyFd(int fd, unsigned interest);
    bool unwatchFd(int fd);

    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

private:
    void put(Evt& e, bool front);

    QueuePrivate* d;
    Queue* q;
};

}  // namespace dispatch

#endif
