#include "daemon_thread.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <list>

#include "common_log.h"
#include "daemon_pool.h"

typedef std::list<DaemonThreadPrivate*> ThreadList;

// One pooled thread. Owned by the pool; freed only by the pool's teardown.
// No lock()/unlock() of its own: start() and wait() are the only users of
// mMutex and take it themselves.
struct DaemonThreadPrivate {
    explicit DaemonThreadPrivate(DaemonThread* parent);
    ~DaemonThreadPrivate();

    // The thread body; `arg` is the record. Does not return.
    static void* callback(void* arg);
    // Creates the operating-system thread again if it does not exist.
    // Caller holds the pool lock.
    void checkThread();
    // Sets the wake-up request and signals the thread.
    void start();
    // Sleeps until a request comes (one wait, wake-ups without a signal
    // included), then clears the request.
    void wait();
    // Caller holds the pool lock.
    void setParent(DaemonThread* parent);

    // pthread_create with default attributes; logs a failure.
    // Caller holds the pool lock.
    void createOsThread();
    // Gives the calling (own) thread its pool name.
    void applyName();

    // The bound task, null when none.
    // Memory ordering: stored under the pool lock with release, read by the
    // own thread without it with acquire, so the task's fields written
    // before the binding are visible to run().
    std::atomic<DaemonThread*> mParent;
    pthread_t mThread;
    // Wake-up request, under mMutex (one clear without it, see callback).
    bool mStart;
    // The thread exists and has not left its loop.
    // Memory ordering: release when written, acquire when read; readers only
    // report or decide whether to join.
    std::atomic<bool> mRunning;
    pthread_mutex_t mMutex;
    pthread_cond_t mCond;

    // Pool bookkeeping, under the pool lock.
    ThreadList::iterator mPos;       // entry in mUsedThread or mFreeThread
    bool mFree;                      // the entry is in mFreeThread
    bool mJoinable;                  // a thread was created and not joined
    bool mOrphan;                    // the thread lived in the parent of a fork
    DaemonThreadPrivate* mLeftNext;  // chain of records kept past teardown

    // Who disposes of the thread at process exit: the teardown joins a
    // thread that has already left its loop; a thread that leaves after the
    // teardown gave up on it detaches itself.
    // Memory ordering: acq_rel exchanges on both sides, so exactly one side
    // sees the other's mark.
    enum { kLive, kLeftLoop, kAbandoned };
    std::atomic<int> mEnd;

    // Own thread only.
    bool mRenamed;
    unsigned mIndex;
};

// The pool. One instance, _gThreadPool, for the whole process.
class ThreadManage {
public:
    ThreadManage();
    ~ThreadManage();

    // Takes the pool lock. False, with nothing held, once the teardown has
    // begun: from then on nobody may touch the lists or the lock.
    bool lock();
    void unlock();

    // Gives a thread for `bd`: the oldest free one, or a new one.
    // Caller holds the pool lock. May throw std::bad_alloc; then nothing
    // has changed.
    DaemonThreadPrivate* createThread(DaemonThread* bd);
    // Moves `th` from mUsedThread to mFreeThread. Takes the pool lock.
    void freeThread(DaemonThreadPrivate* th);
    // Takes the pool lock.
    void profile();
    KelPoolCounts counts();

    static void forkPrepare();
    static void forkParent();
    static void forkChild();

    // Memory ordering: seq_cst store by the teardown, paired with the
    // seq_cst increment of mInFlight and load in lock(): at least one side
    // sees the other, so nobody enters after the teardown has found the
    // pool empty of users. Acquire loads elsewhere.
    std::atomic<bool> mThreadExit;
    pthread_mutex_t mMutex;
    ThreadList mUsedThread;
    ThreadList mFreeThread;
    // Records whose threads belonged to the parent of a fork.
    ThreadList mOrphanThread;
    // Threads inside lock() ... unlock(), or about to enter.
    // Memory ordering: seq_cst increment in lock() (see mThreadExit);
    // release decrements, so the teardown that reads 0 with seq_cst sees
    // everything done under the lock.
    std::atomic<int> mInFlight;
    // forkPrepare() took the pool lock.
    bool mForkLocked;
    // Numbers the pool threads' names; one more than the records made.
    unsigned mNextIndex;
    // Most records in mUsedThread at once. Under the pool lock.
    int mPeakUsed;
};

namespace {

// Records whose threads were still inside application code at teardown.
// Kept (and so reachable) for the rest of the process.
DaemonThreadPrivate* _g_left_behind = nullptr;

void nap() {
    struct timespec ts = {0, 100 * 1000};
    nanosleep(&ts, nullptr);
}

}  // namespace

// The pool is made on first use: every WorkThread asks for it before it is
// built (kel_pool_init), the default work queue at load time included. So
// the pool is complete before the default queue and before any task that
// uses it, whatever the order of the object files or archive members, and
// exit destroys it after them.
static ThreadManage& threadPool() {
    static ThreadManage _gThreadPool;
    return _gThreadPool;
}

namespace {

// The pool lock for one scope, released also when an exception passes.
class PoolLock {
public:
    PoolLock() : mHeld(threadPool().lock()) {}
    ~PoolLock() {
        if (mHeld) threadPool().unlock();
    }
    bool held() const { return mHeld; }

    PoolLock(const PoolLock&) = delete;
    PoolLock& operator=(const PoolLock&) = delete;

private:
    bool mHeld;
};

}  // namespace

// ---------------------------------------------------------------------------
// DaemonThreadPrivate

DaemonThreadPrivate::DaemonThreadPrivate(DaemonThread* parent)
    : mParent(parent),
      mThread(),
      mStart(false),
      mRunning(false),
      mFree(false),
      mJoinable(false),
      mOrphan(false),
      mLeftNext(nullptr),
      mEnd(kLive),
      mRenamed(false),
      mIndex(threadPool().mNextIndex++) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_mutex_init(&mMutex, nullptr);
    pthread_cond_init(&mCond, &attr);
    pthread_condattr_destroy(&attr);
    createOsThread();
}

DaemonThreadPrivate::~DaemonThreadPrivate() {
    // An orphan's mutex may have been held by a thread that does not exist
    // in this process: leave both objects alone, only the memory goes.
    if (mOrphan) return;
    pthread_mutex_lock(&mMutex);
    pthread_cond_signal(&mCond);
    pthread_mutex_unlock(&mMutex);
    pthread_mutex_destroy(&mMutex);
    pthread_cond_destroy(&mCond);
}

void DaemonThreadPrivate::createOsThread() {
    // Default attributes: the thread keeps its creator's signal mask. Tasks
    // are application code, and so are the threads and programs they start,
    // which inherit the mask; blocking signals here would hand them a mask
    // the application never chose. An idle pooled thread that takes a
    // process signal just runs the handler and sleeps on.
    int ret = pthread_create(&mThread, nullptr, callback, this);
    if (ret != 0) KEL_LOG(LOG_WARN, "pthread_create failed, %d, %s", ret, strerror(ret));
    mJoinable = (ret == 0);
    mRunning.store(ret == 0, std::memory_order_release);
}

void DaemonThreadPrivate::checkThread() {
    KEL_DEBUG_ASSERT(!threadPool().mThreadExit.load(std::memory_order_acquire));
    if (!mRunning.load(std::memory_order_acquire)) createOsThread();
}

void DaemonThreadPrivate::applyName() {
    char name[16];
    snprintf(name, sizeof name, "kel-pool-%u", mIndex % 1000000u);
    prctl(PR_SET_NAME, name, 0, 0, 0);
    mRenamed = false;
}

void DaemonThreadPrivate::start() {
    pthread_mutex_lock(&mMutex);
    mStart = true;
    pthread_cond_signal(&mCond);
    pthread_mutex_unlock(&mMutex);
}

void DaemonThreadPrivate::wait() {
    pthread_mutex_lock(&mMutex);
    if (!mStart) pthread_cond_wait(&mCond, &mMutex);
    mStart = false;
    pthread_mutex_unlock(&mMutex);
}

void DaemonThreadPrivate::setParent(DaemonThread* parent) {
    mParent.store(parent, std::memory_order_release);
}

void* DaemonThreadPrivate::callback(void* arg) {
    DaemonThreadPrivate* self = static_cast<DaemonThreadPrivate*>(arg);
    ThreadManage& pool = threadPool();
    self->applyName();
    while (!pool.mThreadExit.load(std::memory_order_acquire)) {
        DaemonThread* parent = self->mParent.load(std::memory_order_acquire);
        if (parent != nullptr) {
            parent->runDeamon();
            // No lock needed: the task was detached under the pool lock after
            // every start() of that binding, and until freeThread() below
            // nobody can reach this record. Dropping the requests made during
            // the pass lets the thread really sleep afterwards.
            self->mStart = false;
            if (self->mRenamed) self->applyName();
        }
        pool.freeThread(self);
        if (pool.mThreadExit.load(std::memory_order_acquire)) break;
        KEL_LOG(LOG_DEBUG, "Wait start");
        self->wait();
        KEL_LOG(LOG_DEBUG, "Wait end");
    }
    self->mRunning.store(false, std::memory_order_release);
    // The record may be freed from here on: touch it no more.
    if (self->mEnd.exchange(kLeftLoop, std::memory_order_acq_rel) == kAbandoned) {
        pthread_detach(pthread_self());
    }
    KEL_LOG(LOG_DEBUG, "Deamon Thread is exit.");
    pthread_exit(nullptr);
}

// ---------------------------------------------------------------------------
// ThreadManage

ThreadManage::ThreadManage()
    : mThreadExit(false), mInFlight(0), mForkLocked(false), mNextIndex(1), mPeakUsed(0) {
    pthread_mutex_init(&mMutex, nullptr);
    pthread_atfork(forkPrepare, forkParent, forkChild);
}

bool ThreadManage::lock() {
    mInFlight.fetch_add(1, std::memory_order_seq_cst);
    if (mThreadExit.load(std::memory_order_seq_cst)) {
        mInFlight.fetch_sub(1, std::memory_order_release);
        return false;
    }
    pthread_mutex_lock(&mMutex);
    return true;
}

void ThreadManage::unlock() {
    pthread_mutex_unlock(&mMutex);
    mInFlight.fetch_sub(1, std::memory_order_release);
}

DaemonThreadPrivate* ThreadManage::createThread(DaemonThread* bd) {
    DaemonThreadPrivate* th;
    if (mFreeThread.empty()) {
        // The list entry is made before the record, whose constructor starts
        // the thread: an allocation failure then leaves neither a running
        // thread outside the lists nor a stray entry.
        mUsedThread.push_back(nullptr);
        try {
            th = new DaemonThreadPrivate(bd);
        } catch (...) {
            mUsedThread.pop_back();
            throw;
        }
        th->mPos = std::prev(mUsedThread.end());
        *th->mPos = th;
    } else {
        th = mFreeThread.front();
        th->setParent(bd);
        th->mFree = false;
        mUsedThread.splice(mUsedThread.end(), mFreeThread, th->mPos);
    }
    mPeakUsed = std::max(mPeakUsed, static_cast<int>(mUsedThread.size()));
    return th;
}

void ThreadManage::freeThread(DaemonThreadPrivate* th) {
    PoolLock guard;
    if (!guard.held()) return;
    // A pass without a task (a wake-up without a signal, or a task unbound
    // before its thread saw it) can reach here while the record is already
    // free or has just been handed out again: only a used, unbound record
    // moves, so each record stays exactly once in exactly one list.
    if (th->mFree || th->mParent.load(std::memory_order_relaxed) != nullptr) return;
    th->mFree = true;
    mFreeThread.splice(mFreeThread.end(), mUsedThread, th->mPos);
}

void ThreadManage::profile() {
    PoolLock guard;
    if (!guard.held()) return;
    KEL_LOG(LOG_DEBUG, "Thread Used count: %d", static_cast<int>(mUsedThread.size()));
    KEL_LOG(LOG_DEBUG, "Thread Free count: %d", static_cast<int>(mFreeThread.size()));
}

KelPoolCounts ThreadManage::counts() {
    KelPoolCounts c = {};
    PoolLock guard;
    if (!guard.held()) return c;
    c.used = static_cast<int>(mUsedThread.size());
    c.free = static_cast<int>(mFreeThread.size());
    c.peak = mPeakUsed;
    c.made = static_cast<int>(mNextIndex - 1);
    for (const ThreadList* l : {&mUsedThread, &mFreeThread}) {
        for (DaemonThreadPrivate* th : *l) {
            if (th->mRunning.load(std::memory_order_acquire)) ++c.alive;
        }
    }
    return c;
}

// Teardown at process exit. Idle threads are woken and joined, so their
// records, mutexes and conditions die after the threads. A thread that is
// inside application code (run or threadExit) is not waited for: exit must
// not hang on it. Its record is kept for the rest of the process, and the
// thread, if it comes back, finds the pool closed (lock() fails) and leaves
// without touching the pool again.
ThreadManage::~ThreadManage() {
    mThreadExit.store(true, std::memory_order_seq_cst);
    // Sections under the pool lock are short and never wait for this thread.
    while (mInFlight.load(std::memory_order_seq_cst) != 0) nap();

    pthread_mutex_lock(&mMutex);
    for (DaemonThreadPrivate* th : mFreeThread) th->start();
    for (DaemonThreadPrivate* th : mFreeThread) {
        pthread_join(th->mThread, nullptr);
        delete th;
    }
    for (DaemonThreadPrivate* th : mUsedThread) {
        if (!th->mJoinable) {
            delete th;  // its creation failed: no thread ever used it
        } else if (th->mEnd.exchange(DaemonThreadPrivate::kAbandoned, std::memory_order_acq_rel) ==
                   DaemonThreadPrivate::kLeftLoop) {
            pthread_join(th->mThread, nullptr);
            delete th;
        } else {
            th->mLeftNext = _g_left_behind;
            _g_left_behind = th;
        }
    }
    for (DaemonThreadPrivate* th : mOrphanThread) delete th;
    mFreeThread.clear();
    mUsedThread.clear();
    mOrphanThread.clear();
    pthread_mutex_unlock(&mMutex);
    pthread_mutex_destroy(&mMutex);
}

void ThreadManage::forkPrepare() {
    ThreadManage& pool = threadPool();
    pool.mForkLocked = pool.lock();
}

void ThreadManage::forkParent() {
    ThreadManage& pool = threadPool();
    if (!pool.mForkLocked) return;
    pool.mForkLocked = false;
    pool.unlock();
}

// In the child only the forking thread exists. The parent's other pooled
// threads are gone: their records become orphans and their tasks unbound. A
// pooled thread that forked (from a task) keeps its record and its task.
void ThreadManage::forkChild() {
    ThreadManage& pool = threadPool();
    if (!pool.mForkLocked) return;
    pool.mForkLocked = false;
    DaemonThreadPrivate* self = nullptr;
    for (ThreadList* l : {&pool.mUsedThread, &pool.mFreeThread}) {
        for (DaemonThreadPrivate* th : *l) {
            if (th->mJoinable && pthread_equal(th->mThread, pthread_self())) {
                self = th;
                continue;
            }
            th->mOrphan = true;
            th->mRunning.store(false, std::memory_order_relaxed);
            DaemonThread* task = th->mParent.load(std::memory_order_relaxed);
            if (task != nullptr) {
                task->dPtr = nullptr;
                task->mChildRunning.store(false, std::memory_order_relaxed);
            }
            th->mParent.store(nullptr, std::memory_order_relaxed);
        }
        pool.mOrphanThread.splice(pool.mOrphanThread.end(), *l);
    }
    if (self != nullptr) {
        ThreadList& home = self->mFree ? pool.mFreeThread : pool.mUsedThread;
        home.splice(home.end(), pool.mOrphanThread, self->mPos);
    }
    // Threads that were waiting for the lock do not exist here either.
    pool.mInFlight.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&pool.mMutex);
}

KelPoolCounts kel_pool_counts() { return threadPool().counts(); }

void kel_pool_init() { threadPool(); }

// ---------------------------------------------------------------------------
// DaemonThread

DaemonThread::DaemonThread() : dPtr(nullptr), mRunningStep("init"), mChildRunning(false) {}

DaemonThread::~DaemonThread() {
    PoolLock guard;
    if (!guard.held()) return;
    if (dPtr != nullptr) dPtr->setParent(nullptr);
    dPtr = nullptr;
}

bool DaemonThread::start() {
    PoolLock guard;
    if (!guard.held()) {
        KEL_LOG(LOG_WARN, "thread pool is shut down");
        return false;
    }
    DaemonThreadPrivate* thread = dPtr;
    if (thread == nullptr) {
        thread = threadPool().createThread(this);
        dPtr = thread;
        thread->checkThread();
    }
    thread->start();
    return thread->mRunning.load(std::memory_order_acquire);
}

bool DaemonThread::isRunning() { return mChildRunning.load(std::memory_order_acquire); }

void DaemonThread::run() {}

void DaemonThread::threadExit() {}

void DaemonThread::profile() { threadPool().profile(); }

const char* DaemonThread::runningStep() const { return mRunningStep.load(std::memory_order_acquire); }

void DaemonThread::setRunningStep(const char* step) { mRunningStep.store(step, std::memory_order_release); }

void DaemonThread::setName(const char* name) {
    if (name == nullptr) return;
    PoolLock guard;
    if (!guard.held()) return;
    if (dPtr != nullptr && pthread_equal(dPtr->mThread, pthread_self())) {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        dPtr->mRenamed = true;
    }
}

void DaemonThread::runDeamon() {
    mChildRunning.store(true, std::memory_order_release);
    run();
    {
        PoolLock guard;
        if (guard.held()) {
            if (dPtr != nullptr) dPtr->setParent(nullptr);
            dPtr = nullptr;
        }
        mChildRunning.store(false, std::memory_order_release);
    }
    threadExit();
}
