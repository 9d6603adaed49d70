// Dispatch queues: the body's pending callbacks, Queue with its explicit
// lock, and Loop. The timers are in dispatch_timer.cpp, the records and
// their store in dispatch_nodes.cpp.
#include "dispatch_process.h"

#include <pthread.h>

#include <climits>
#include <exception>

#include "common_log.h"
#include "dispatch_private.h"

namespace dispatch {

namespace {

// The member-function handler of a watched descriptor, made at registration.
struct FdTarget {
    Object::FdCallback fn;
    Object* target;
};

void callFdTarget(int fd, unsigned ready, void* arg) {
    FdTarget* t = static_cast<FdTarget*>(arg);
    // `t` may be deleted by the handler itself (unwatchFd): read it first.
    Object* target = t->target;
    Object::FdCallback fn = t->fn;
    (target->*fn)(fd, ready);
}

void releaseFdTarget(void* arg) { delete static_cast<FdTarget*>(arg); }

}  // namespace

QueuePrivate::QueuePrivate() {
    pthread_condattr_t attr;
    KEL_ASSERT(pthread_condattr_init(&attr) == 0);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
    nodes::init();
}

// A destructor cannot hand an exception to anyone: a body destroyed with work
// pending, a thread processing or an explicit lock in play ends the process
// through std::terminate, with the usual assertion text as the reason.
QueuePrivate::~QueuePrivate() {
    KEL_ASSERT(head == nullptr);
    KEL_ASSERT(!in_process);
    KEL_ASSERT(lock_requests == 0);
    KEL_ASSERT(!locked);
    if (watch != nullptr) {
        watch->drop(releaseFdTarget);
        delete watch;
    }
    while (timerhead != nullptr) {
        ItemTimer* t = timerhead;
        timerhead = nextTimer(t);
        recycle(t);
    }
    pthread_cond_destroy(&cond);
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
    {
        OwnedMutex::Lock guard(mtx);
        if (merge) {
            for (DispatchItem* p = head; p != nullptr; p = p->next) {
                if (p->mergeable && p->fn == fn && p->fn_data == fn_data) return;
            }
        }
        // The node is taken under the queue's mutex (and only once a
        // mergeable item is known to be needed). Taken before the mutex, a
        // stream of enqueues from another CPU ran at about half the speed:
        // each enqueue then met the processing thread at two locks.
        DispatchItem* item = getNode<DispatchItem>(fn, fn_data, true, merge);
        item->delobject = delobject;
        wake = link(item);
    }
    announce(wake);
}

// Caller holds `mtx`. Returns whether the processing thread needs waking.
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

// Called with `mtx` released, after link(). Broadcast after the unlock: a
// woken processing thread then finds the mutex free instead of going back
// to sleep on it. The caller holds a reference, so the body is still there.
void QueuePrivate::announce(bool wake) {
    if (wake) pthread_cond_broadcast(&cond);
    wakeup();
}

// Caller holds `mtx`.
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

// Caller holds `mtx`, and `head` is set; it is released around the callback.
void QueuePrivate::procEventFunc() {
    KEL_DEBUG_ASSERT(mutexHeld());
    DispatchItem* item = head;
    head = item->next;
    if (head == nullptr) {
        tail = nullptr;
    } else {
        // Written by the queuing thread, most likely on another CPU: its
        // line travels while this callback runs instead of on the next pass.
        __builtin_prefetch(head);
    }
    item->next = nullptr;

    beginCallback();
    // A callback that throws: its item is finished as if it had returned,
    // then the exception leaves queueProcess.
    std::exception_ptr thrown;
    const bool async = item->asynchronous;
    const bool del = async && item->delobject;
    Object* const data = item->fn_data;
    const Object::Callback1 fn = item->fn;
    {
        OwnedMutex::Unlock unlocked(mtx);
        // An asynchronous item's node is free once its call starts: nothing
        // refers to it any more, and a callback that queues work again gets
        // it back instead of a new node. It goes back outside the mutex.
        if (async) recycle(item);
        // Calls through an Object that is not the first base of its class
        // are correct, but the undefined-behaviour sanitizer's check of the
        // dynamic type misreports them: tests keep Object first.
        try {
            (data->*fn)();
        } catch (...) {
            thrown = std::current_exception();
        }
    }
    endCallback();
    if (del) {
        delete data;
    } else if (!async) {
        // The waiter in run() is woken with the mutex free, so it does not
        // block again on it while this pass goes on.
        item->completed = true;
        OwnedMutex::Unlock unlocked(mtx);
        pthread_cond_broadcast(&cond);
    }
    if (thrown) std::rethrow_exception(thrown);
}

// Called with `mtx` released.
void QueuePrivate::wakeup() {
    if (wakeup_fn != nullptr) (wakeup_ctx->*wakeup_fn)();
}

// Caller holds `mtx`. A thread waiting for the explicit lock comes first,
// then readiness collected by the last wait (so that it is not stale when
// delivered), then pending callbacks, then due timers; with none of those the
// thread sleeps when it may wait and was not interrupted, and returns
// otherwise. Descriptors are looked at when it would sleep or return.
QueuePrivate::Step QueuePrivate::nextStep(bool mayWait) {
    KEL_DEBUG_ASSERT(mutexHeld());
    if (lock_requests != 0) return Step::HoldForLocker;
    if (watch != nullptr && watch->pending()) return Step::RunFd;
    if (head != nullptr) return Step::RunCallback;
    if (haveTigger()) return Step::RunTimer;
    if (!interrupted && mayWait) return Step::Sleep;
    return Step::Return;
}

bool QueuePrivate::collectFds(int64_t waitUs) {
    KEL_DEBUG_ASSERT(mutexHeld());
    int ms = 0;
    if (waitUs == INT64_MAX) {
        ms = -1;
    } else if (waitUs > 0) {
        // Rounded up: the wait never ends before a timer is due.
        int64_t up = (waitUs + 999) / 1000;
        ms = up > INT_MAX ? INT_MAX : static_cast<int>(up);
    }
    // A wake-up between the unlock and epoll_wait stays in the eventfd.
    sleeping = fdSleep = ms != 0;
    int n;
    {
        OwnedMutex::Unlock unlocked(mtx);
        n = watch->collect(ms);
    }
    sleeping = fdSleep = false;
    KEL_ASSERT(n >= 0);
    return watch->pending();
}

void QueuePrivate::procFd() {
    KEL_DEBUG_ASSERT(mutexHeld());
    beginCallback();
    std::exception_ptr thrown;
    {
        OwnedMutex::Unlock unlocked(mtx);
        try {
            watch->deliverOne();
        } catch (...) {
            thrown = std::current_exception();
        }
    }
    endCallback();
    if (thrown) std::rethrow_exception(thrown);
}

// ---------------------------------------------------------------------------
// Queue

Queue::Queue() : d(new QueuePrivate) {}

Queue::~Queue() { d->unref(); }

int64_t Queue::getNeedWait() {
    OwnedMutex::Lock guard(d->mtx);
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
    OwnedMutex::Lock guard(d->mtx);
    d->remove(fn, fn_data);
}

void Queue::run(Object::Callback1 fn, Object* fn_data) {
    KEL_ASSERT(fn_data != nullptr);
    DispatchItem item(fn, fn_data, false, false, false);
    bool wake;
    {
        OwnedMutex::Lock guard(d->mtx);
        wake = d->link(&item);
    }
    d->announce(wake);
    OwnedMutex::Lock guard(d->mtx);
    while (!item.completed) d->mtx.wait(&d->cond);
}

// Checks that fail here throw with the queue's mutex held; the guard
// releases it on the way out, so a misuse caught here leaves the queue
// usable.
void Queue::queueProcess(int timeout) {
    const bool mayWait = timeout > 0;
    OwnedMutex::Lock guard(d->mtx);
    KEL_ASSERT(!d->in_process);
    d->in_process = true;
    d->in_process_thread = pthread_self();
    d->wakeLockers();

    // A callback that threw has had its item finished; the queue is left
    // with no thread processing, ready for the next call.
    struct LeaveOnThrow {
        QueuePrivate* d;
        ~LeaveOnThrow() {
            if (d != nullptr) d->in_process = false;
        }
    } leave{d};
    bool looked = false;
    for (bool more = true; more;) {
        switch (d->nextStep(mayWait)) {
            case QueuePrivate::Step::HoldForLocker:
                d->mtx.wait(&d->cond);
                break;
            case QueuePrivate::Step::RunFd:
                d->procFd();
                break;
            case QueuePrivate::Step::RunCallback:
                d->procEventFunc();
                break;
            case QueuePrivate::Step::RunTimer:
                d->procTimer();
                break;
            case QueuePrivate::Step::Sleep: {
                d->wait = d->getWait();
                if (d->wait < 1) break;
                if (d->watching()) {
                    d->collectFds(d->wait);
                    break;
                }
                timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                timespec until = internal::timespecAfter(now, d->wait);
                d->sleeping = true;
                d->mtx.timedWait(&d->cond, &until);
                d->sleeping = false;
                break;
            }
            case QueuePrivate::Step::Return:
                // Ready descriptors are work as well: one look before
                // leaving, once per call, so that a descriptor that stays
                // ready cannot keep the caller here.
                more = !looked && d->watching() && d->collectFds(0);
                looked = true;
                break;
        }
    }
    KEL_ASSERT(!d->locked);
    leave.d = nullptr;
    d->in_process = false;
    d->interrupted = false;
}

void Queue::interrupt() {
    OwnedMutex::Lock guard(d->mtx);
    d->interrupted = true;
    d->wakeProcessor();
}

void Queue::adjustTimeout(long until) {
    OwnedMutex::Lock guard(d->mtx);
    if (d->in_process && static_cast<int64_t>(until) < d->wait) {
        d->wait = until;
        d->wakeProcessor();
    }
}

bool Queue::watchFd(int fd, unsigned interest, Object::FdCallback fn, Object* target) {
    KelWatch* w;
    {
        OwnedMutex::Lock guard(d->mtx);
        if (d->watch == nullptr) d->watch = new KelWatch;
        w = d->watch;
    }
    FdTarget* t = new FdTarget{fn, target};
    if (fn == nullptr || target == nullptr || !w->add(fd, interest, callFdTarget, t)) {
        if (fn == nullptr || target == nullptr)
            KEL_LOG(LOG_WARN, "watchFd: no handler for descriptor %d", fd);
        delete t;
        return false;
    }
    // A processing thread asleep on the condition moves to epoll_wait.
    OwnedMutex::Lock guard(d->mtx);
    if (d->sleeping && !d->fdSleep) pthread_cond_broadcast(&d->cond);
    return true;
}

// The table locks itself; `mtx` only guards the pointer, which once set
// stays for the life of the body.
static KelWatch* watchOf(QueuePrivate* d, const char* op, int fd) {
    OwnedMutex::Lock guard(d->mtx);
    if (d->watch == nullptr) KEL_LOG(LOG_WARN, "%s: descriptor %d is not watched", op, fd);
    return d->watch;
}

bool Queue::modifyFd(int fd, unsigned interest) {
    KelWatch* w = watchOf(d, "modifyFd", fd);
    return w != nullptr && w->modify(fd, interest);
}

bool Queue::unwatchFd(int fd) {
    KelWatch* w = watchOf(d, "unwatchFd", fd);
    void* t = nullptr;
    if (w == nullptr || !w->remove(fd, &t)) return false;
    releaseFdTarget(t);
    return true;
}

void Queue::lock() {
    const pthread_t self = pthread_self();
    OwnedMutex::Lock guard(d->mtx);
    KEL_ASSERT(!d->in_process || !pthread_equal(d->in_process_thread, self));
    KEL_ASSERT(!d->locked_explicit || !pthread_equal(d->locked_explicit_thread, self));
    d->lock_requests++;
    while (!d->in_process) {
        {
            OwnedMutex::Unlock unlocked(d->mtx);
            d->wakeup();
        }
        if (d->in_process) break;
        d->mtx.wait(&d->cond);
    }
    while (!d->in_process || d->locked) d->mtx.wait(&d->cond);
    KEL_ASSERT(d->lock_requests != 0);
    KEL_ASSERT(!d->locked_explicit);
    // The explicit lock holds `locked` in place of a callback.
    d->beginCallback();
    d->locked_explicit = true;
    d->locked_explicit_thread = self;
}

void Queue::unlock() {
    OwnedMutex::Lock guard(d->mtx);
    KEL_ASSERT(d->locked && d->locked_explicit && pthread_equal(d->locked_explicit_thread, pthread_self()));
    d->locked = false;
    d->locked_explicit = false;
    d->lock_requests--;
    pthread_cond_broadcast(&d->cond);
}

void Queue::profile() { nodes::profile(); }

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
    OwnedMutex::Lock guard(d->mtx);
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
        OwnedMutex::Lock guard(d->mtx);
        while (d->loopHead != nullptr) {
            LoopEvtItem* item = d->loopHead;
            d->loopHead = item->next;
            if (d->loopHead == nullptr) d->loopTail = nullptr;
            // The handler gets a copy and the node goes back first, so that
            // a procSubMsg that throws loses no node.
            const Evt evt = item->evt;
            d->recycle(item);
            OwnedMutex::Unlock unlocked(d->mtx);
            procSubMsg(evt);
        }
    }
}

void Loop::exit() { q->run(FUNC(&QueuePrivate::interrupt), d); }

bool Loop::watchFd(int fd, unsigned interest, Object::FdCallback fn, Object* target) {
    return q->watchFd(fd, interest, fn, target);
}

bool Loop::modifyFd(int fd, unsigned interest) { return q->modifyFd(fd, interest); }

bool Loop::unwatchFd(int fd) { return q->unwatchFd(fd); }

}  // namespace dispatch
