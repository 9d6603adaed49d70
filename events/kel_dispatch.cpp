#include "kel_dispatch.h"

#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "common_log.h"
#include "daemon_pool.h"
#include "daemon_thread.h"
#include "kel_lock.h"

namespace {

// A serial first-in, first-out work queue on top of a DaemonThread. It binds
// a pooled thread while it has work and gives it back when it runs dry.
class WorkThread : public DaemonThread {
public:
    // One queued work.
    struct WorkNode {
        DispatchFunc func;
        void* ctx;
        WorkNode* next;
    };
    typedef WorkNode* WorkNode_t;

    // Nodes kept for reuse, last in first out. Used under mMtx only.
    struct WorkFreeList {
        WorkNode* head = nullptr;

        // A recycled node comes back all zero; a new one uninitialised.
        WorkNode* get() {
            WorkNode* node = head;
            if (node == nullptr) return new WorkNode;
            head = node->next;
            memset(node, 0, sizeof *node);
            return node;
        }
        void push(WorkNode* node) {
            node->next = head;
            head = node;
        }
    };

    // Works waiting to run, oldest first. Used under mMtx only. `tail` is the
    // slot that receives the next node: the last node's `next`, or `head`
    // when the list is empty, so appending needs no special case.
    struct WorkPrepareList {
        WorkNode_t head = nullptr;
        WorkNode_t* tail = &head;
        int count = 0;

        WorkPrepareList() = default;
        WorkPrepareList(const WorkPrepareList&) = delete;
        WorkPrepareList& operator=(const WorkPrepareList&) = delete;

        bool empty() const { return tail == &head; }
        // The caller has set node->next to null.
        void push(WorkNode* node) {
            *tail = node;
            tail = &node->next;
        }
        WorkNode* pop() {
            WorkNode* node = head;
            if (node != nullptr) {
                head = node->next;
                if (head == nullptr) tail = &head;
            }
            return node;
        }
    };

    WorkThread();
    ~WorkThread() override;

    // Queues one work and makes sure a pooled thread will serve the queue.
    // Returns as soon as the work is queued.
    void syncExec(DispatchFunc func, void* ctx);
    void ref();
    // True when the last reference is gone; the caller then deletes.
    bool unref();
    // Waits until every work queued before the call has run or was
    // dropped: 0, or -1 from a work of this queue. See kel_dispatch.h.
    int flush();
    // Drops the works that wait to run; returns how many.
    size_t cancel();

protected:
    // Runs queued works until the queue is empty. No lock held around works.
    void run() override;
    // Restarts the queue if work arrived after the last look of run(), else
    // drops the pass reference.
    void threadExit() override;

private:
    // Caller holds mMtx. DaemonThread::start(), which may throw
    // std::bad_alloc; mStartOwed stays set then.
    void startPass();
    // Caller holds mMtx. Wakes the flushers, if any, to look again.
    void wakeFlushers();
    // Caller holds mMtx. Pops the next work into mCurrent, numbered.
    WorkNode* takeNext();

    // fork() handlers for all queues: the prepare handler holds every
    // queue's mMtx across the fork; in the child, each queue is reset to
    // serve new work (see kel_dispatch.h for the work pending then).
    static void registerForkHandlers();
    static void forkPrepare();
    static void forkParent();
    static void forkChild();

    // Neighbours in the list of all queues, under _g_queues_lock.
    WorkThread* mPrevQueue;
    WorkThread* mNextQueue;

    // Under mMtx.
    int mRefs;
    WorkPrepareList prepare;
    WorkFreeList free;
    // Passes that entered run() and have not finished threadExit().
    int mPasses;
    // The queue holds a reference of its own while it has work or a pass.
    bool mPassRef;
    // The last start of a pass threw (no memory to bind a thread): queued
    // work may have nobody to serve it until a start succeeds.
    bool mStartOwed;
    // The work that run() executes, null between works, and the thread of
    // that pass: in a child of fork() it tells the one pass that goes on.
    WorkNode* mCurrent;
    pthread_t mRunThread;
    // Works ever queued, and works that ever left `prepare` (taken by run()
    // or dropped by cancel()); the first work in `prepare` is number
    // mLeft, the one in mCurrent number mCurrentSeq. Positions, not counts
    // of finished works: a cancel may drop works behind a running one.
    uint64_t mQueued;
    uint64_t mLeft;
    uint64_t mCurrentSeq;
    // Threads in flush(), each holding a reference; they wait on mFlushed.
    int mFlushWaiters;
    pthread_cond_t mFlushed;
    OwnedMutex mMtx;
};

// Every queue, for the fork() handlers. Both need no run-time construction,
// so queues may be made and freed at any point of start-up and exit.
pthread_mutex_t _g_queues_lock = PTHREAD_MUTEX_INITIALIZER;
WorkThread* _g_queues = nullptr;
pthread_once_t _g_fork_once = PTHREAD_ONCE_INIT;

WorkThread::WorkThread()
    : mPrevQueue(nullptr),
      mNextQueue(nullptr),
      mRefs(1),
      mPasses(0),
      mPassRef(false),
      mStartOwed(false),
      mCurrent(nullptr),
      mRunThread(),
      mQueued(0),
      mLeft(0),
      mCurrentSeq(0),
      mFlushWaiters(0) {
    pthread_cond_init(&mFlushed, nullptr);
    // The pool first: made before the queue, it is destroyed after it at
    // exit, and its fork() handlers, registered earlier, take the pool lock
    // after ours have taken every mMtx (the lock order).
    kel_pool_init();
    pthread_once(&_g_fork_once, registerForkHandlers);
    pthread_mutex_lock(&_g_queues_lock);
    mNextQueue = _g_queues;
    if (_g_queues != nullptr) _g_queues->mPrevQueue = this;
    _g_queues = this;
    pthread_mutex_unlock(&_g_queues_lock);
}

// A pass keeps its queue alive: the queue holds one extra reference from the
// first queued work until the pass that finds it empty (with no other pass
// in flight) is done, so the last handle may be dropped at any time. Only
// then can the destructor run, and it frees the nodes as nothing can use them.
WorkThread::~WorkThread() {
    pthread_mutex_lock(&_g_queues_lock);
    (mPrevQueue != nullptr ? mPrevQueue->mNextQueue : _g_queues) = mNextQueue;
    if (mNextQueue != nullptr) mNextQueue->mPrevQueue = mPrevQueue;
    pthread_mutex_unlock(&_g_queues_lock);
    while (WorkNode* node = prepare.pop()) delete node;
    while (WorkNode* node = free.head) {
        free.head = node->next;
        delete node;
    }
    pthread_cond_destroy(&mFlushed);
}

void WorkThread::syncExec(DispatchFunc func, void* ctx) {
    OwnedMutex::Lock lock(mMtx);
    WorkNode* node = free.get();
    node->func = func;
    node->ctx = ctx;
    node->next = nullptr;
    // Only the work that makes the queue non-empty needs to start it: the
    // start() issued for the work ahead of this one either bound a pass,
    // which drains the queue before giving its thread back, or reached a
    // pass after its last look, whose threadExit() then restarts the queue.
    // A start that threw did neither, so the next call starts again.
    bool wasEmpty = prepare.empty();
    prepare.push(node);
    ++mQueued;
    if (!mPassRef) {
        mPassRef = true;
        ++mRefs;
    }
    if (wasEmpty || mStartOwed) startPass();
}

void WorkThread::startPass() {
    mStartOwed = true;
    DaemonThread::start();
    mStartOwed = false;
}

void WorkThread::wakeFlushers() {
    if (mFlushWaiters > 0) pthread_cond_broadcast(&mFlushed);
}

void WorkThread::ref() {
    OwnedMutex::Lock lock(mMtx);
    ++mRefs;
}

bool WorkThread::unref() {
    OwnedMutex::Lock lock(mMtx);
    return --mRefs <= 0;
}

// The works before the call are numbers below `target`; they are all done
// once the oldest unfinished work (the running one, else the first waiting)
// is at `target` or later. A flush from a work of this queue would wait for
// itself: it is refused. The reference held across the wait keeps the queue
// alive should its last handle go meanwhile.
int WorkThread::flush() {
    bool last = false;
    {
        OwnedMutex::Lock lock(mMtx);
        if (mCurrent != nullptr && pthread_equal(mRunThread, pthread_self())) {
            KEL_LOG(LOG_WARN, "flush from a work of its own queue refused");
            return -1;
        }
        const uint64_t target = mQueued;
        ++mRefs;
        ++mFlushWaiters;
        while ((mCurrent != nullptr ? mCurrentSeq : mLeft) < target) mMtx.wait(&mFlushed);
        --mFlushWaiters;
        last = (--mRefs <= 0);
    }
    if (last) delete this;
    return 0;
}

size_t WorkThread::cancel() {
    OwnedMutex::Lock lock(mMtx);
    size_t dropped = 0;
    while (WorkNode* node = prepare.pop()) {
        free.push(node);
        ++dropped;
    }
    mLeft += dropped;
    wakeFlushers();
    return dropped;
}

void WorkThread::run() {
    mMtx.lock();
    ++mPasses;
    mRunThread = pthread_self();
    WorkNode* item = takeNext();
    mMtx.unlock();
    while (item != nullptr) {
        item->func(item->ctx);
        mMtx.lock();
        free.push(item);
        item = takeNext();
        wakeFlushers();
        mMtx.unlock();
    }
}

WorkThread::WorkNode* WorkThread::takeNext() {
    mCurrent = prepare.pop();
    if (mCurrent != nullptr) mCurrentSeq = mLeft++;
    return mCurrent;
}

void WorkThread::threadExit() {
    bool last = false;
    {
        OwnedMutex::Lock lock(mMtx);
        --mPasses;
        if (!prepare.empty()) {
            try {
                startPass();
            } catch (const std::bad_alloc&) {
                // No thread could be bound: the next syncExec() starts again.
            }
            return;
        }
        if (mPasses == 0 && mPassRef) {
            mPassRef = false;
            last = (--mRefs <= 0);
        }
    }
    // Nothing of the pass touches the object after this point.
    if (last) delete this;
}

void WorkThread::registerForkHandlers() { pthread_atfork(forkPrepare, forkParent, forkChild); }

void WorkThread::forkPrepare() {
    pthread_mutex_lock(&_g_queues_lock);
    for (WorkThread* q = _g_queues; q != nullptr; q = q->mNextQueue) q->mMtx.lock();
}

void WorkThread::forkParent() {
    for (WorkThread* q = _g_queues; q != nullptr; q = q->mNextQueue) q->mMtx.unlock();
    pthread_mutex_unlock(&_g_queues_lock);
}

// Only the forking thread lives on in the child, so only its pass (when it
// forked from a work) goes on; the pool has unbound every other queue. Work
// that was queued or running elsewhere at the fork is dropped: it belongs to
// the parent, which runs it. Each queue then starts afresh on new work.
void WorkThread::forkChild() {
    for (WorkThread* q = _g_queues; q != nullptr; q = q->mNextQueue) {
        bool forker = q->mCurrent != nullptr && pthread_equal(q->mRunThread, pthread_self());
        while (WorkNode* node = q->prepare.pop()) q->free.push(node);
        if (q->mCurrent != nullptr && !forker) q->free.push(q->mCurrent);
        if (!forker) q->mCurrent = nullptr;
        q->mLeft = q->mQueued;
        q->mPasses = forker ? 1 : 0;
        // Flushers are threads of the parent: their references go (all but
        // the last, by which the queue can still be freed), and so do their
        // marks in the condition variable, which is made afresh.
        q->mRefs -= std::min(q->mFlushWaiters, q->mRefs - 1);
        q->mFlushWaiters = 0;
        pthread_cond_init(&q->mFlushed, nullptr);
        // The pass reference of a queue left without a pass goes too, unless
        // it is the last one (no handle left to free the queue by).
        if (!forker && q->mPassRef && q->mRefs > 1) q->mPassRef = false, --q->mRefs;
        q->mStartOwed = false;
        q->mMtx.unlock();
    }
    pthread_mutex_unlock(&_g_queues_lock);
}

// The queue for work queued without one.
// Memory ordering: release when published or cleared, acquire when read, so
// a reader sees a fully built queue.
std::atomic<WorkThread*> _g_work_thread{nullptr};

// Makes the default queue and drops its handle at exit.
struct DefaultWorkQueue {
    DefaultWorkQueue() { _g_work_thread.store(new WorkThread, std::memory_order_release); }
    ~DefaultWorkQueue() {
        kel_dispatch_queue_destory(_g_work_thread.exchange(nullptr, std::memory_order_acq_rel));
    }
};

// The default queue, made on first use: a static initializer of the
// application that runs before ours (static link) may already queue work.
// Null once it is gone at exit.
WorkThread* defaultQueue() {
    static DefaultWorkQueue made;
    return _g_work_thread.load(std::memory_order_acquire);
}

// At load time at the latest.
[[maybe_unused]] WorkThread* const _g_default_queue = defaultQueue();

// Rendezvous: one blocked caller, on its own stack for the length of the call.
struct waiter {
    void* tag;
    waiter* next;
    // The blocked caller's own value; null once a partner has served it.
    intptr_t* value;
};

pthread_mutex_t _g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t _g_wakeup = PTHREAD_COND_INITIALIZER;
// Blocked callers, oldest first; at most one per tag. Under _g_lock.
waiter* _g_waiters = nullptr;

}  // namespace

extern "C" {

DispathQueue* kel_dispatch_queue_create() { return new WorkThread; }

void kel_dispatch_queue_destory(DispathQueue* queue) {
    if (queue == nullptr) return;
    WorkThread* work = static_cast<WorkThread*>(queue);
    if (work->unref()) delete work;
}

void kel_dispatch_queue_ref(DispathQueue* queue) { static_cast<WorkThread*>(queue)->ref(); }

void kel_dispatch_async_t(DispathQueue* queue, DispatchFunc func, void* ctx) {
    WorkThread* work = queue != nullptr ? static_cast<WorkThread*>(queue) : defaultQueue();
    if (work == nullptr) {
        KEL_LOG(LOG_WARN, "default work queue is gone, work dropped");
        return;
    }
    work->syncExec(func, ctx);
}

int kel_dispatch_queue_flush(DispathQueue* queue) {
    WorkThread* work = queue != nullptr ? static_cast<WorkThread*>(queue) : defaultQueue();
    return work != nullptr ? work->flush() : 0;
}

size_t kel_dispatch_queue_cancel(DispathQueue* queue) {
    WorkThread* work = queue != nullptr ? static_cast<WorkThread*>(queue) : defaultQueue();
    return work != nullptr ? work->cancel() : 0;
}

intptr_t kel_rendezvous(void* tag, intptr_t value) {
    waiter wait = {tag, nullptr, &value};
    pthread_mutex_lock(&_g_lock);
    waiter** prev = &_g_waiters;
    bool served = false;
    for (; *prev != nullptr; prev = &(*prev)->next) {
        waiter* other = *prev;
        if (other->tag == tag) {
            intptr_t tmp = *other->value;
            *other->value = value;
            value = tmp;
            other->value = nullptr;
            *prev = other->next;
            pthread_cond_broadcast(&_g_wakeup);
            served = true;
            break;
        }
    }
    if (!served) {
        *prev = &wait;
        // A broadcast wakes the waiters of every tag; only the one served
        // (its pointer cleared by the partner) leaves.
        while (wait.value != nullptr) pthread_cond_wait(&_g_wakeup, &_g_lock);
    }
    pthread_mutex_unlock(&_g_lock);
    return value;
}

}  // extern "C"
