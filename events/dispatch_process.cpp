#include "dispatch_process.h"

#include <pthread.h>
#include <string.h>

#include <exception>
#include <mutex>
#include <new>

#include "common_log.h"
#include "kel_atomic.h"
#include "kel_mutex.h"
#include "list_table.h"

namespace dispatch {

// ---------------------------------------------------------------------------
// Records kept on the lists of a queue. Each lives in a node of the pool,
// except the item of Queue::run, which lies on the waiting caller's stack.
// They have no default constructors: every record is built from its callback.

// One pending callback.
struct DispatchItem {
    DispatchItem(Object::Callback1 f, Object* data, bool async, bool merge, bool compe = false)
        : asynchronous(async),
          mergeable(merge),
          completed(compe),
          delobject(false),
          fn(f),
          fn_data(data),
          next(nullptr) {}

    bool asynchronous;  // the queue owns the item and recycles it after the call
    bool mergeable;     // an equal pending mergeable item makes this one superfluous
    bool completed;     // the call of a run() item has returned (or was cancelled)
    bool delobject;     // fn_data is deleted after the call
    Object::Callback1 fn;
    Object* fn_data;
    DispatchItem* next;
};

// One pending timer entry; the timer list runs through `next`, sorted by
// deadline.
struct ItemTimer : public DispatchItem {
    ItemTimer(Object::Callback1 f, Object* data, bool, bool)
        : DispatchItem(f, data, true, false, false), that(nullptr), tiggerTime(0) {}

    Timer* that;
    int64_t tiggerTime;  // deadline, microseconds on the clock of timeUs()
};

// One posted loop event.
struct LoopEvtItem {
    Loop::Evt evt;
    LoopEvtItem* next;
};

namespace {

inline ItemTimer* nextTimer(const ItemTimer* t) { return static_cast<ItemTimer*>(t->next); }

// ---------------------------------------------------------------------------
// Process-wide store of fixed-size nodes, shared by every queue. A node is
// made (one heap allocation) only when a take finds no free node, one at a
// time; a node given back is free for every queue at once; nothing goes back
// to the heap. The free list is a stack, so the node given back last, still
// warm in the cache of the thread that gave it, is the next one taken.
// mMtx is a leaf lock: callers may hold a queue's mutex, never the other way
// round. Its critical sections are a few pointer moves, and the mutex, the
// list's root and the counters share one cache line.

constexpr size_t maxOf(size_t a, size_t b, size_t c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }

class alignas(64) NodePool {
public:
    struct Node {
        static constexpr size_t kSize = maxOf(sizeof(DispatchItem), sizeof(ItemTimer), sizeof(LoopEvtItem));
        static constexpr size_t kAlign =
            maxOf(alignof(DispatchItem), alignof(ItemTimer), alignof(LoopEvtItem));

        alignas(kAlign) char a[kSize];
    };

    NodePool() : mCount(0), mUsed(0) {}

    // A free node, made if there is none. Any thread. If the heap fails, the
    // exception leaves the store as it was.
    void* take() {
        Autolock guard(&mMtx);
        if (mPools.empty()) {
            Node blank;
            memset(&blank, 0, sizeof blank);
            mPools.push_back(blank);
            ++mCount;
        }
        ListTable<Node>::iterator it = mPools.pop_back();
        ++mUsed;
        return it->a;
    }

    // Gives back a node from take, exactly once. Any thread.
    void recycle(void* item) {
        ListTable<Node>::iterator it(ListTable<Node>::ListItem::fromData(static_cast<Node*>(item)));
        Autolock guard(&mMtx);
        mPools.push_back(it);
        --mUsed;
    }

    // Logs the nodes holding records and the nodes made. The counters are
    // read under mMtx, so the line is a consistent snapshot.
    void profile() {
        int used, made;
        {
            Autolock guard(&mMtx);
            used = mUsed;
            made = mCount;
        }
        KEL_LOG(LOG_INFO, "node pools: used=%d, counts=%d", used, made);
    }

private:
    // Written and read only under mMtx.
    int mCount;
    int mUsed;
    KelMutex mMtx;
    ListTable<Node> mPools;
};

// The node is sized for the largest record and aligned for the strictest;
// on a 32-bit target that is an ItemTimer of exactly 32 bytes with an
// int64_t inside.
static_assert(sizeof(NodePool::Node) >= sizeof(DispatchItem), "node too small for DispatchItem");
static_assert(sizeof(NodePool::Node) >= sizeof(ItemTimer), "node too small for ItemTimer");
static_assert(sizeof(NodePool::Node) >= sizeof(LoopEvtItem), "node too small for LoopEvtItem");
static_assert(alignof(NodePool::Node) >= alignof(ItemTimer), "node not aligned for ItemTimer");
static_assert(alignof(NodePool::Node) >= alignof(int64_t), "node not aligned for int64_t");
static_assert(alignof(NodePool::Node) >= alignof(LoopEvtItem), "node not aligned for LoopEvtItem");
static_assert(sizeof(void*) != 4 || sizeof(NodePool::Node) == 32, "32-bit node must be 32 bytes");

// Made by the first queue; lives to the end of the process.
NodePool* gPool = nullptr;

// ---------------------------------------------------------------------------
// Time, all on CLOCK_MONOTONIC.

void getRealtime(timespec* out_ts) { clock_gettime(CLOCK_MONOTONIC, out_ts); }

int64_t timeUs() {
    timespec ts;
    KEL_ASSERT(clock_gettime(CLOCK_MONOTONIC, &ts) == 0);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

timespec timeUsToTimespec(int64_t time_us) {
    timespec now;
    getRealtime(&now);
    return internal::timespecAfter(now, time_us);
}

// A delay in ms as microseconds. The product is a 32-bit signed value, which
// is why delays are limited to 2147483 ms; it wraps rather than overflows.
int64_t periodUs(int msec) { return static_cast<int32_t>(static_cast<uint32_t>(msec) * 1000u); }

}  // namespace

// A check made with the queue's mutex held: the mutex is released before the
// assertion fires, so a misuse caught here leaves the queue usable.
#define DISPATCH_CHECK_UNLOCK(cond, mtx)    \
    do {                                    \
        if (__builtin_expect(!(cond), 0)) { \
            pthread_mutex_unlock(mtx);      \
            KEL_ASSERT_FAIL();              \
        }                                   \
    } while (0)

timespec internal::timespecAfter(const timespec& now, int64_t time_us) {
    int64_t diff_secs = time_us / 1000000;
    int64_t diff_nsecs = (time_us - diff_secs * 1000000) * 1000;
    if (diff_nsecs < 0) {
        diff_secs -= 1;
        diff_nsecs += 1000000000;
    }
    if (now.tv_nsec + diff_nsecs > 999999999) {
        diff_secs += 1;
        diff_nsecs -= 1000000000;
    }
    if (diff_secs > 10000000) diff_secs = 10000000;
    timespec ts = now;
    ts.tv_sec += static_cast<time_t>(diff_secs);
    ts.tv_nsec += static_cast<long>(diff_nsecs);
    return ts;
}

// ---------------------------------------------------------------------------
// The body of a queue, shared by its Queue, Timers and Loops.

class QueuePrivate : public Object {
public:
    QueuePrivate();

    QueuePrivate* ref() {
        refCount.inc();
        return this;
    }
    void unref();

    void enqueueItem(Object::Callback1 fn, Object* fn_data, bool merge, bool delobject);
    bool link(DispatchItem* item);
    void announce(bool wake);
    // Caller holds `lock`. True once per sleep of the processing thread:
    // the first piece of work that arrives while it sleeps wakes it, later
    // ones find it woken already and broadcast nothing. (A broadcast while
    // the sleeper is still on its way out of the wait costs a system call.)
    bool takeSleeper() {
        bool s = sleeping;
        sleeping = false;
        return s;
    }
    void remove(Object::Callback1 fn, Object* fn_data);
    void procEventFunc();
    void wakeup();
    // Ends the loop of Loop::exec; runs on the loop's thread through run().
    void interrupt() { exitLoop.store(true, std::memory_order_relaxed); }

    void appendTimer(Timer* that);
    void _appendTimer(ItemTimer* item);
    void removeTimer(Timer* timer);
    int64_t getWait();
    bool haveTigger();
    void procTimer();

    // After a callback: only a thread in lock() waits for `locked` to drop.
    // Waking nobody else keeps a thread blocked in run() asleep while the
    // items queued before its own are processed. Caller holds `lock`.
    void wakeLockers() {
        if (lock_requests != 0) pthread_cond_broadcast(&cond);
    }

    // For lock-rule checks in debug builds: the mutex is held by someone.
    bool mutexHeld() {
        if (pthread_mutex_trylock(&lock) != 0) return true;
        pthread_mutex_unlock(&lock);
        return false;
    }

    // Records come from and go back to the shared store. Any thread, with
    // or without `lock` (the store's mutex nests inside it). A take may
    // throw std::bad_alloc, with nothing changed.
    template <typename T>
    T* getNode(Object::Callback1 fn, Object* data, bool async, bool merge) {
        return new (gPool->take()) T(fn, data, async, merge);
    }
    LoopEvtItem* getLoopNode(Loop::Evt& e) { return new (gPool->take()) LoopEvtItem{e, nullptr}; }
    // Takes back a record from getNode or getLoopNode, exactly once.
    void recycle(void* item) { gPool->recycle(item); }

    // What a queuing thread and the processing thread both touch for every
    // callback sits together, behind the mutex, so that a hand-over of the
    // mutex moves as few cache lines as possible.
    pthread_mutex_t lock;
    DispatchItem* head = nullptr;
    DispatchItem* tail = nullptr;
    bool interrupted = false;
    bool sleeping = false;  // the processing thread waits for work or a timer
    bool locked = false;
    bool in_process = false;
    size_t lock_requests = 0;
    Object::Callback1 wakeup_fn = nullptr;
    Object* wakeup_ctx = nullptr;

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

QueuePrivate::QueuePrivate() {
    pthread_condattr_t attr;
    KEL_ASSERT(pthread_condattr_init(&attr) == 0);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    // Adaptive: a queuing thread and the processing thread meet on this
    // mutex for a few instructions per item, so a contended lock spins
    // briefly instead of sleeping at once.
    pthread_mutexattr_t mattr;
    pthread_mutexattr_init(&mattr);
    pthread_mutexattr_settype(&mattr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&lock, &mattr);
    pthread_mutexattr_destroy(&mattr);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
    // The first queue makes the store, also when several first queues are
    // made at once on different threads. Memory ordering: call_once
    // publishes gPool to every thread that passes it.
    static std::once_flag made;
    std::call_once(made, [] { gPool = new NodePool; });
}

// A destructor cannot hand an exception to anyone: a body destroyed with work
// pending, a thread processing or an explicit lock in play ends the process
// through std::terminate, with the usual assertion text as the reason.
QueuePrivate::~QueuePrivate() {
    KEL_ASSERT(head == nullptr);
    KEL_ASSERT(!in_process);
    KEL_ASSERT(lock_requests == 0);
    KEL_ASSERT(!locked);
    while (timerhead != nullptr) {
        ItemTimer* t = timerhead;
        timerhead = nextTimer(t);
        recycle(t);
    }
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&lock);
}

void QueuePrivate::unref() {
    if (refCount.dec() == 0) {
        KEL_LOG(LOG_INFO, "release queue private.");
        delete this;
    }
}

// Queues an asynchronous item. A mergeable one equal to a pending mergeable
// item is dropped, and then nobody is woken.
void QueuePrivate::enqueueItem(Object::Callback1 fn, Object* fn_data, bool merge, bool delobject) {
    bool wake;
    // A plain item takes its node before the queue's mutex, so that the
    // processing thread waits for the mutex only as long as the link takes.
    // A mergeable one may turn out superfluous: it asks the store only once
    // it knows that it needs a node.
    DispatchItem* item = merge ? nullptr : getNode<DispatchItem>(fn, fn_data, true, false);
    {
        PthreadAutolock guard(&lock);
        if (merge) {
            for (DispatchItem* p = head; p != nullptr; p = p->next) {
                if (p->mergeable && p->fn == fn && p->fn_data == fn_data) return;
            }
            item = getNode<DispatchItem>(fn, fn_data, true, merge);
        }
        item->delobject = delobject;
        wake = link(item);
    }
    announce(wake);
}

// Caller holds `lock`. Returns whether the processing thread needs waking.
bool QueuePrivate::link(DispatchItem* item) {
    KEL_DEBUG_ASSERT(mutexHeld());
    if (tail != nullptr) {
        tail->next = item;
    } else {
        head = item;
    }
    tail = item;
    if (wakeup_fn == nullptr) interrupted = true;
    return takeSleeper();
}

// Called with `lock` released, after link(). Broadcast after the unlock: a
// woken processing thread then finds the mutex free instead of going back
// to sleep on it. The caller holds a reference, so the body is still there.
void QueuePrivate::announce(bool wake) {
    if (wake) pthread_cond_broadcast(&cond);
    wakeup();
}

// Caller holds `lock`.
void QueuePrivate::remove(Object::Callback1 fn, Object* fn_data) {
    KEL_DEBUG_ASSERT(mutexHeld());
    bool releasedWaiter = false;
    DispatchItem* prev = nullptr;
    DispatchItem* p = head;
    tail = nullptr;
    while (p != nullptr) {
        DispatchItem* next = p->next;
        if (p->fn == fn && p->fn_data == fn_data) {
            if (prev != nullptr) {
                prev->next = next;
            } else {
                head = next;
            }
            p->next = nullptr;
            if (p->asynchronous) {
                recycle(p);
            } else {
                // The item of a thread in run(): it lives on that thread's
                // stack, so it is never recycled. It is marked completed
                // without being called, and the waiter returns.
                p->completed = true;
                releasedWaiter = true;
            }
        } else {
            tail = p;
            prev = p;
        }
        p = next;
    }
    if (releasedWaiter) pthread_cond_broadcast(&cond);
}

// Caller holds `lock`, and `head` is set.
void QueuePrivate::procEventFunc() {
    KEL_DEBUG_ASSERT(mutexHeld());
    DispatchItem* item = head;
    head = item->next;
    if (head == nullptr) tail = nullptr;
    item->next = nullptr;

    KEL_ASSERT(!locked);
    locked = true;
    pthread_mutex_unlock(&lock);

    // A callback that throws: its item is finished as if it had returned,
    // then the exception leaves queueProcess.
    std::exception_ptr thrown;
    try {
        (item->fn_data->*item->fn)();
    } catch (...) {
        thrown = std::current_exception();
    }

    // A finished item with no object to delete goes back to the store
    // before the queue's mutex is taken again, so that queuing threads wait
    // on that mutex only for the hand-over itself.
    const bool async = item->asynchronous;
    if (async && !item->delobject) {
        recycle(item);
        item = nullptr;
    }
    pthread_mutex_lock(&lock);
    KEL_ASSERT(locked);
    locked = false;
    if (async) {
        if (item != nullptr) {
            delete item->fn_data;
            recycle(item);
        }
        wakeLockers();
    } else {
        // The waiter in run() is woken with the mutex free, so it does not
        // block again on it while this pass goes on.
        item->completed = true;
        pthread_mutex_unlock(&lock);
        pthread_cond_broadcast(&cond);
        pthread_mutex_lock(&lock);
    }
    if (thrown) std::rethrow_exception(thrown);
}

// Called with `lock` released.
void QueuePrivate::wakeup() {
    if (wakeup_fn != nullptr) (wakeup_ctx->*wakeup_fn)();
}

// Caller holds `lock`. May throw std::bad_alloc, with nothing changed.
void QueuePrivate::appendTimer(Timer* that) {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* item = getNode<ItemTimer>(that->fn, that->ctx, true, false);
    item->tiggerTime = timeUs() + periodUs(that->mMSec);
    item->that = that;
    _appendTimer(item);
}

// Caller holds `lock`. Equal deadlines keep their order of insertion.
void QueuePrivate::_appendTimer(ItemTimer* item) {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* prev = nullptr;
    ItemTimer* p = timerhead;
    // The entry whose callback runs stays first, whatever the new deadline
    // (a negative delay): procTimer takes it off the head afterwards.
    if (timerProc && p != nullptr) {
        prev = p;
        p = nextTimer(p);
    }
    while (p != nullptr && p->tiggerTime <= item->tiggerTime) {
        prev = p;
        p = nextTimer(p);
    }
    item->next = p;
    if (prev != nullptr) {
        prev->next = item;
    } else {
        timerhead = item;
    }
}

// Caller holds `lock`. While a timer callback runs, the item at the head
// belongs to procTimer and stays.
void QueuePrivate::removeTimer(Timer* timer) {
    KEL_DEBUG_ASSERT(mutexHeld());
    if (timer->isRunning()) return;
    ItemTimer* prev = nullptr;
    ItemTimer* p = timerhead;
    if (timerProc && p != nullptr) {
        prev = p;
        p = nextTimer(p);
    }
    while (p != nullptr) {
        ItemTimer* next = nextTimer(p);
        if (p->that == timer) {
            if (prev != nullptr) {
                prev->next = next;
            } else {
                timerhead = next;
            }
            recycle(p);
        } else {
            prev = p;
        }
        p = next;
    }
}

// Caller holds `lock`. While a timer callback runs, the answer is for the
// entries behind the one firing, and that one is never pruned here: only
// procTimer takes it off.
int64_t QueuePrivate::getWait() {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* held = (timerProc && timerhead != nullptr) ? timerhead : nullptr;
    ItemTimer* first = held != nullptr ? nextTimer(held) : timerhead;
    while (first != nullptr && !first->that->isRunning()) {
        ItemTimer* next = nextTimer(first);
        recycle(first);
        first = next;
    }
    if (held != nullptr) {
        held->next = first;
    } else {
        timerhead = first;
    }
    if (first == nullptr) return INT64_MAX;
    return first->tiggerTime - timeUs();
}

// Caller holds `lock`.
bool QueuePrivate::haveTigger() {
    KEL_DEBUG_ASSERT(mutexHeld());
    return timerhead != nullptr && timerhead->tiggerTime < timeUs();
}

// Caller holds `lock`; it is released around the callback.
void QueuePrivate::procTimer() {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* cur;
    for (;;) {
        cur = timerhead;
        if (cur == nullptr) return;
        if (cur->that->isRunning()) break;
        timerhead = nextTimer(cur);
        recycle(cur);
    }
    if (timeUs() < cur->tiggerTime) return;

    KEL_ASSERT(!timerProc);
    timerProc = true;
    pthread_mutex_unlock(&lock);

    // A callback that throws: its entry goes home, not re-armed, then the
    // exception leaves queueProcess.
    std::exception_ptr thrown;
    try {
        (cur->fn_data->*cur->fn)();
    } catch (...) {
        thrown = std::current_exception();
    }

    pthread_mutex_lock(&lock);
    KEL_ASSERT(timerProc);
    timerProc = false;
    wakeLockers();
    timerhead = nextTimer(cur);

    // `that` is null when the timer was destroyed during its callback.
    Timer* t = cur->that;
    bool rearm = !thrown && t != nullptr && t->isRunning() && t->repeat();
    // A repeating timer restarted from its own callback already has its new
    // entry on the list; that one counts and the running entry goes, so the
    // timer never has two entries pending.
    for (ItemTimer* p = timerhead; rearm && p != nullptr; p = nextTimer(p)) {
        if (p->that == t) rearm = false;
    }
    if (rearm) {
        cur->tiggerTime = timeUs() + periodUs(t->mMSec);
        _appendTimer(cur);
    } else {
        recycle(cur);
    }
    if (thrown) std::rethrow_exception(thrown);
}

// ---------------------------------------------------------------------------
// Queue

Queue::Queue() : d(new QueuePrivate) {}

Queue::~Queue() { d->unref(); }

int64_t Queue::getNeedWait() {
    PthreadAutolock guard(&d->lock);
    return d->getWait();
}

void Queue::setWakeupFn(Object::Callback1 wakeup_fn, Object* ctx) {
    d->wakeup_fn = wakeup_fn;
    d->wakeup_ctx = ctx;
}

void Queue::enqueue(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    d->enqueueItem(fn, fn_data, false, false);
}

void Queue::enqueueAutofree(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    d->enqueueItem(fn, fn_data, false, true);
}

void Queue::enqueueNotify(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    d->enqueueItem(fn, fn_data, true, false);
}

void Queue::cancelFn(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    PthreadAutolock guard(&d->lock);
    d->remove(fn, fn_data);
}

void Queue::run(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    DispatchItem item(fn, fn_data, false, false, false);
    pthread_mutex_lock(&d->lock);
    bool wake = d->link(&item);
    pthread_mutex_unlock(&d->lock);
    d->announce(wake);
    pthread_mutex_lock(&d->lock);
    while (!item.completed) pthread_cond_wait(&d->cond, &d->lock);
    pthread_mutex_unlock(&d->lock);
}

void Queue::queueProcess(int timeout) {
    const bool needWait = timeout > 0;
    pthread_mutex_lock(&d->lock);
    DISPATCH_CHECK_UNLOCK(!d->in_process, &d->lock);
    d->in_process = true;
    d->in_process_thread = pthread_self();
    if (d->lock_requests != 0) pthread_cond_broadcast(&d->cond);

    // A callback that threw has had its item finished; the queue is left
    // with no thread processing, ready for the next call.
    struct LeaveOnThrow {
        QueuePrivate* d;
        ~LeaveOnThrow() {
            if (d == nullptr) return;
            d->in_process = false;
            pthread_mutex_unlock(&d->lock);
        }
    } leave{d};
    for (;;) {
        if (d->lock_requests != 0) {
            pthread_cond_wait(&d->cond, &d->lock);
        } else if (d->head != nullptr) {
            d->procEventFunc();
        } else if (d->haveTigger()) {
            d->procTimer();
        } else if (!d->interrupted && needWait) {
            d->wait = d->getWait();
            if (d->wait < 1) continue;
            timespec until = timeUsToTimespec(d->wait);
            d->sleeping = true;
            pthread_cond_timedwait(&d->cond, &d->lock, &until);
            d->sleeping = false;
        } else {
            break;
        }
    }
    leave.d = nullptr;

    KEL_ASSERT(!d->locked);
    d->in_process = false;
    d->interrupted = false;
    pthread_mutex_unlock(&d->lock);
}

void Queue::interrupt() {
    PthreadAutolock guard(&d->lock);
    d->interrupted = true;
    pthread_cond_broadcast(&d->cond);
}

void Queue::adjustTimeout(long until) {
    PthreadAutolock guard(&d->lock);
    if (d->in_process && static_cast<int64_t>(until) < d->wait) {
        d->wait = until;
        pthread_cond_broadcast(&d->cond);
    }
}

void Queue::lock() {
    const pthread_t self = pthread_self();
    pthread_mutex_lock(&d->lock);
    if (d->in_process) DISPATCH_CHECK_UNLOCK(!pthread_equal(d->in_process_thread, self), &d->lock);
    if (d->locked_explicit) {
        DISPATCH_CHECK_UNLOCK(!pthread_equal(d->locked_explicit_thread, self), &d->lock);
    }
    d->lock_requests++;
    while (!d->in_process) {
        pthread_mutex_unlock(&d->lock);
        d->wakeup();
        pthread_mutex_lock(&d->lock);
        if (d->in_process) break;
        pthread_cond_wait(&d->cond, &d->lock);
    }
    while (!d->in_process || d->locked) pthread_cond_wait(&d->cond, &d->lock);
    KEL_ASSERT(d->lock_requests != 0);
    KEL_ASSERT(!d->locked);
    KEL_ASSERT(!d->locked_explicit);
    d->locked = true;
    d->locked_explicit = true;
    d->locked_explicit_thread = self;
    pthread_mutex_unlock(&d->lock);
}

void Queue::unlock() {
    pthread_mutex_lock(&d->lock);
    DISPATCH_CHECK_UNLOCK(
        d->locked && d->locked_explicit && pthread_equal(d->locked_explicit_thread, pthread_self()),
        &d->lock);
    d->locked = false;
    d->locked_explicit = false;
    d->lock_requests--;
    pthread_cond_broadcast(&d->cond);
    pthread_mutex_unlock(&d->lock);
}

void Queue::profile() { gPool->profile(); }

// ---------------------------------------------------------------------------
// Timer

Timer::Timer(Queue* q)
    : d(q->d->ref()), mIsRunning(false), mRepeat(false), mMSec(0), fn(nullptr), ctx(nullptr) {}

// Entries left on the list are removed here, so an armed timer may be
// destroyed without stopping it first. If its callback runs (this is that
// callback, or it runs on another thread), the firing entry forgets the
// timer and goes home when the callback returns.
Timer::~Timer() {
    {
        PthreadAutolock guard(&d->lock);
        mIsRunning.store(false, std::memory_order_relaxed);
        d->removeTimer(this);
        if (d->timerProc && d->timerhead != nullptr && d->timerhead->that == this)
            d->timerhead->that = nullptr;
    }
    d->unref();
}

void Timer::setHandler(Object::Callback1 f, Object* c) {
    fn = f;
    ctx = c;
}

// The new entry is made before the timer counts as running again, so a heap
// failure leaves the timer stopped and the queue's mutex released.
void Timer::restart(int msec) {
    KEL_ASSERT(fn != nullptr);
    PthreadAutolock guard(&d->lock);
    mMSec = msec;
    mIsRunning.store(false, std::memory_order_relaxed);
    d->removeTimer(this);
    d->appendTimer(this);
    mIsRunning.store(true, std::memory_order_relaxed);
    pthread_cond_broadcast(&d->cond);
}

void Timer::stop() {
    PthreadAutolock guard(&d->lock);
    mIsRunning.store(false, std::memory_order_relaxed);
    if (!d->timerProc) d->removeTimer(this);
}

bool Timer::isRunning() const { return mIsRunning.load(std::memory_order_relaxed); }

// The flag alone: true makes a stopped entry still on the list fire again,
// false makes pending entries inert until they are pruned.
void Timer::setIsRunning(bool running) { mIsRunning.store(running, std::memory_order_relaxed); }

bool Timer::repeat() const { return mRepeat.load(std::memory_order_relaxed); }

void Timer::setRepeat(bool rep) { mRepeat.store(rep, std::memory_order_relaxed); }

// ---------------------------------------------------------------------------
// Loop

Loop::Loop() : d(nullptr), q(nullptr) {}

Loop::~Loop() {
    KEL_ASSERT(q != nullptr && d != nullptr);
    d->unref();
}

void Loop::setQueue(Queue* queue) {
    q = queue;
    d = queue->d->ref();
}

void Loop::put(Evt& e, bool front) {
    PthreadAutolock guard(&d->lock);
    LoopEvtItem* item = d->getLoopNode(e);
    if (front) {
        item->next = d->loopHead;
        if (d->loopHead == nullptr) d->loopTail = item;
        d->loopHead = item;
    } else {
        if (d->loopTail != nullptr) {
            d->loopTail->next = item;
        } else {
            d->loopHead = item;
        }
        d->loopTail = item;
    }
    d->interrupted = true;
    if (d->takeSleeper()) pthread_cond_broadcast(&d->cond);
}

void Loop::post(Evt& e) { put(e, false); }

void Loop::postFIFO(Evt& e) { put(e, true); }

void Loop::exec() {
    KEL_ASSERT(q != nullptr && d != nullptr);
    d->exitLoop.store(false, std::memory_order_relaxed);
    while (!d->exitLoop.load(std::memory_order_relaxed)) {
        q->queueProcess(1);
        pthread_mutex_lock(&d->lock);
        while (d->loopHead != nullptr) {
            LoopEvtItem* item = d->loopHead;
            d->loopHead = item->next;
            if (d->loopHead == nullptr) d->loopTail = nullptr;
            item->next = nullptr;
            pthread_mutex_unlock(&d->lock);
            procSubMsg(item->evt);
            pthread_mutex_lock(&d->lock);
            d->recycle(item);
        }
        pthread_mutex_unlock(&d->lock);
    }
}

void Loop::exit() { q->run(FUNC(&QueuePrivate::interrupt), d); }

}  // namespace dispatch
