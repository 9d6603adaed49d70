// SimpleThread: one POSIX thread of its own per object, running the
// subclass's run() once.
//
// A subclass supplies run(). start() creates the thread; join() waits for
// it; a thread that nobody joins detaches itself when run() returns, so an
// object can also be fired and forgotten. A stopped object can be started
// again.
//
// On the new thread the body calls startup(), run() and cleanup(), in that
// order, with no lock held; run() may therefore call any operation of its own
// object. Before startup() the thread is named "kel-thr-<n>"; setName() from
// inside run() renames it.
//
// Signal mask: the thread inherits the mask of the thread that calls start(),
// as any thread made with default attributes does. A SimpleThread runs
// application code that may want the process's signals; an application that
// wants them on one thread only blocks them before calling start().
//
// Thread rules:
// - start(), join(), isRunning() and the destructor may be called from any
//   thread but the object's own (join() from the own thread fails and leaves
//   the thread neither joined nor detached).
// - One join() at a time, and start() must not overlap a join() on the same
//   object.
// - id(), setPriority() and cancel() use the thread handle without a check,
//   so they are only valid between a successful start() and the end of the
//   thread (its join, or its own end).
//
// Lifetime: the object must outlive its thread, since the end of the thread
// body uses the object's fields. A subclass ends and joins its thread before
// its own destructor finishes, or waits until isRunning() returns false: from
// then on the thread is done with the object, which may be deleted (or
// started again) at once. The destructor neither joins, detaches nor
// cancels; it logs "Thread %lx went out of scope while running!" (LOG_WARN)
// when the thread is still running.
//
// Cancellation: a thread cancelled inside run() skips cleanup() and its end
// bookkeeping; the owner then has to join() it.
#ifndef KEL_EVENTS_KEL_THREAD_H
#define KEL_EVENTS_KEL_THREAD_H

#include <pthread.h>

#include <atomic>

#include "kel_export.h"

class KEL_API SimpleThread {
public:
    SimpleThread();
    virtual ~SimpleThread();

    // Creates the thread unless it runs already. True when a thread runs for
    // this object: one created by this call or one already running. A failed
    // creation logs "pthread_create failed, %d, %s" (LOG_WARN), returns false
    // and may be retried.
    bool start();
    // Waits for the end of the thread. True when the thread is gone (also
    // when it was never started or ended by itself); false when pthread_join
    // failed, in which case the object stays running.
    bool join();
    // False once the thread has ended (by itself or joined) or was never
    // started. A false result means the thread no longer touches the object.
    bool isRunning() const;

    unsigned long id();
    static unsigned long selfId();
    // sched_yield() for the calling thread, whatever the object.
    void yield();
    // SCHED_FIFO with `priority` for the object's thread. True on success;
    // nothing is logged on failure.
    bool setPriority(int priority);
    // Names the calling thread (at most 15 characters are kept), so call it
    // from inside run(). A null name does nothing. Always true.
    bool setName(const char* name);
    // pthread_cancel on the object's thread. Changes no state of the object.
    void cancel();

    SimpleThread(const SimpleThread&) = delete;
    SimpleThread& operator=(const SimpleThread&) = delete;

protected:
    // Called on the new thread right before run(). Empty by default.
    virtual void startup();
    virtual void run() = 0;
    // Called on the new thread right after run() returns. Empty by default.
    virtual void cleanup();

    // The thread body; `arg` is the SimpleThread*. Does not return.
    static void* callback(void* arg);

private:
    pthread_t mThread;
    // Written under mMutex, read without it by isRunning() and the destructor.
    // Memory ordering: the thread's end and join() store false with release,
    // lock-free readers load with acquire, so a reader that sees false also
    // sees the thread's last use of the object; under mMutex, which orders
    // every write, start() and join() read and write it relaxed.
    std::atomic<bool> mRunning;
    bool mJoin;
    // Orders the thread's end against start() and join().
    pthread_mutex_t mMutex;
};

#endif
