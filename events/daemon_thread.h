// DaemonThread: a task that borrows a pooled thread for one pass of run().
//
// A DaemonThread owns no thread. start() binds it to an idle thread of the
// process-wide pool (or to a new one), run() executes once on that thread,
// the task gives the thread back, and threadExit() follows on the same
// thread. Pooled threads are made on demand, reused first-freed first-used,
// sleep on a condition variable of their own while idle, and are never
// retired before process exit.
//
// Pooled threads:
// - are named "kel-pool-<n>"; a name set with setName() inside run() lasts
//   for that pass only;
// - have the signal mask of the thread whose start() created them, as
//   threads made with default attributes do. Nothing is blocked for the
//   pool's sake, so run(), threadExit() and the threads and programs started
//   from them see the application's mask; an idle pooled thread may take a
//   process signal, whose handler then runs there.
//
// Thread rules:
// - start(), isRunning(), profile(), runningStep(), setRunningStep() and the
//   destructor: any thread, also run() and threadExit() of any task.
// - run() and threadExit() are called with no lock of the framework held.
// - setName(): meant for run(); from any other thread it does nothing.
//
// Lifetime of a task: there is no join. The destructor unbinds the task and
// returns at once; it stops nothing. A started task must stay alive until
// its threadExit() has returned (isRunning() turning false is no sign of
// that). After threadExit() returns the framework no longer touches the
// object, so threadExit() may delete it.
//
// start() during a pass sets a wake-up and has no other effect: run() is not
// repeated. A task that feeds run() from a work source re-examines it in
// threadExit() and calls start() again if work remains.
//
// Process exit: the pool is made on first use (at library load at the
// latest, by the default work queue) and torn down by a static destructor
// after the default queue's, whatever the link order. Idle pooled
// threads are woken and joined; threads still inside application code are
// not waited for: they are left running, and their records stay allocated,
// until the process ends. From the start of the teardown on, start() fails
// (returns false, creates nothing) and every other pool operation is a no-op.
//
// fork(): in a child, the parent's pooled threads do not exist. The pool
// forgets them at the fork (their records are freed at exit without being
// touched otherwise) and tasks bound to them become unbound: a pass that was
// under way is not continued, nor is threadExit() called for it, and a task
// may be started afresh in the child. Only a pooled thread that forked
// itself (from run()) goes on with its pass in the child. Work queues
// (kel_dispatch.h) drop the work pending at the fork in the child.
#ifndef KEL_EVENTS_DAEMON_THREAD_H
#define KEL_EVENTS_DAEMON_THREAD_H

#include <atomic>

#include "kel_export.h"

struct DaemonThreadPrivate;
class ThreadManage;

class KEL_API DaemonThread {
public:
    DaemonThread();
    // Unbinds the task from its pooled thread, if any. Does not wait.
    virtual ~DaemonThread();

    // Binds the task to a pooled thread and wakes it. The result tells that
    // the pooled thread exists, not that run() has begun. When no thread can
    // be created it logs "pthread_create failed, %d, %s" (LOG_WARN) and
    // returns false; the task then stays bound to the threadless record and
    // later start() calls return false too, until the task is destroyed.
    // May throw std::bad_alloc; the pool stays usable.
    bool start();
    // True from the beginning of run() until the task is given back.
    bool isRunning();

    // The task's body; once per pass.
    virtual void run();
    // Called once after each run(), on the same thread, after the task was
    // given back.
    virtual void threadExit();

    // Logs "Thread Used count: %d" and "Thread Free count: %d" (LOG_DEBUG).
    static void profile();

    // A progress label for the application's own use. The pointer is stored,
    // not the text: the text must outlive its use. Initially "init".
    const char* runningStep() const;
    void setRunningStep(const char* step);

    DaemonThread(const DaemonThread&) = delete;
    DaemonThread& operator=(const DaemonThread&) = delete;

protected:
    // Names the pooled thread (15 characters kept) when called from inside
    // run(); in every other case, and for a null name, it does nothing.
    void setName(const char* name);

private:
    friend struct DaemonThreadPrivate;
    friend class ThreadManage;

    // One pass: run(), give the thread back, threadExit().
    void runDeamon();

    // Guarded by the pool lock.
    DaemonThreadPrivate* dPtr;
    // Memory ordering: release in setRunningStep, acquire in runningStep,
    // so the text behind the pointer is visible too.
    std::atomic<const char*> mRunningStep;
    // Memory ordering: stored with release by the pooled thread around
    // run(), loaded with acquire by isRunning().
    std::atomic<bool> mChildRunning;
};

#endif
