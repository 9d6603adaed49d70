#include "kel_timer.h"

#include <initializer_list>
#include <memory>

#include "common_log.h"
#include "kel_lock.h"
#include "kel_mutex.h"
#include "kel_port.h"

namespace {

// True when deadline `a` lies strictly before `b`.
inline bool before(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// List order: a newly armed node goes ahead of a listed one only when its
// deadline is strictly earlier, so equal deadlines stay in arming order.
inline bool sortsAhead(const NodeTimer& armed, const NodeTimer& listed) {
    return before(armed.time, listed.time);
}

// A node is due once its deadline lies strictly before the pass's clock.
inline bool isDue(const NodeTimer& node, const timespec& now) { return before(node.time, now); }

// Firing order within a pass: the pass walks the list from its back, so of
// two due nodes the one further back fires first: the later deadline, and
// among equal deadlines the one armed later.
inline NodeTimer* firesNext(const NodeTimer* node) { return node->prev; }

}  // namespace

// -------------------------------------------------------------- NodeTimer

NodeTimer::NodeTimer() : QEvt(), proc(nullptr), next(this), prev(this) {
    clock_gettime(CLOCK_MONOTONIC, &time);
}

void NodeTimer::resetTimer() {
    int sec, msec;
    proc->interval(&sec, &msec);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    time.tv_sec = now.tv_sec + sec;
    long tmp = now.tv_nsec / 1000000 + msec;
    time.tv_sec = time.tv_sec + tmp / 1000;
    time.tv_nsec = (tmp % 1000) * 1000000;
    // An interval with mixed signs (1 s and -900 ms) can leave the
    // nanoseconds negative; a timed wait refuses such a deadline.
    if (time.tv_nsec < 0) {
        time.tv_nsec += 1000000000;
        --time.tv_sec;
    }
}

void NodeTimer::addFirst(NodeTimer* item) {
    item->next = this;
    item->prev = prev;
    prev->next = item;
    prev = item;
}

void NodeTimer::add(NodeTimer* item) {
    item->prev = this;
    item->next = next;
    next->prev = item;
    next = item;
}

void NodeTimer::del() {
    next->prev = prev;
    prev->next = next;
    next = this;
    prev = this;
}

int NodeTimer::length() {
    int n = 0;
    for (NodeTimer* t = next; t != this; t = t->next) ++n;
    return n;
}

bool NodeTimer::isEmpty() { return next == this; }

// --------------------------------------------------------------- KelTimer

namespace {

// The list whose firing pass runs on this thread, if any.
thread_local const KelTimer* tFiringList = nullptr;

}  // namespace

// `mutex`, unless the calling thread runs a handler of this list's firing
// pass and so holds it already.
class KelTimer::ListLock {
public:
    explicit ListLock(KelTimer* t) : mMutex(t->firingHere() ? nullptr : &t->mutex) {
        if (mMutex != nullptr) pthread_mutex_lock(mMutex);
    }
    ~ListLock() {
        if (mMutex != nullptr) pthread_mutex_unlock(mMutex);
    }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    pthread_mutex_t* mMutex;
};

// One firing pass, with `mutex` held. When it ends, also by an exception
// from a handler, the node of a handler that threw goes home (its timer
// idle unless the handler armed it anew) and the nodes armed during the
// pass join the list in the order they were armed.
class KelTimer::PassScope {
public:
    explicit PassScope(KelTimer* t) : mList(t) {
        t->mInPass = true;
        tFiringList = t;
    }
    ~PassScope() {
        KelTimer* t = mList;
        if (t->mHeld != nullptr) {
            if (!t->mFiringTaken) {
                t->mFiring->setReStart(false);
                t->mFiring->setRunning(false);
            }
            Kel::gc(t->mHeld);
            t->mHeld = nullptr;
            t->mFiring = nullptr;
        }
        while (!t->pending.isEmpty()) {
            NodeTimer* n = t->pending.next;
            n->del();
            t->insert(n);
        }
        t->mInPass = false;
        tFiringList = nullptr;
    }
    PassScope(const PassScope&) = delete;
    PassScope& operator=(const PassScope&) = delete;

private:
    KelTimer* mList;
};

KelTimer::KelTimer()
    : root(),
      stone(),
      pool(),
      time_pool(nullptr),
      pending(),
      mInPass(false),
      mFiring(nullptr),
      mHeld(nullptr),
      mFiringTaken(false),
      mWalk(nullptr),
      mArmed(0),
      mArmedPeak(0) {
    // The nodes are owned here until the pool is registered: registering a
    // pool too many asserts, and then nothing is left behind.
    std::unique_ptr<NodeTimer[]> nodes(new NodeTimer[kPoolNodes]);
    root.next = &root;
    root.prev = &root;
    pool.init(nodes.get(), sizeof(NodeTimer) * kPoolNodes, sizeof(NodeTimer));
    time_pool = nodes.release();
    pthread_mutex_init(&mutex, nullptr);
}

KelTimer::~KelTimer() {
    pthread_mutex_destroy(&mutex);
    delete[] time_pool;
}

bool KelTimer::firingHere() const { return tFiringList == this; }

void KelTimer::_addTimer(NodeTimer* timer) {
    timer->resetTimer();
    timer->proc->setRunning(true);
    if (mInPass) {
        pending.addFirst(timer);
    } else {
        insert(timer);
    }
}

void KelTimer::insert(NodeTimer* timer) {
    NodeTimer* tmp = root.next;
    while (tmp != &root) {
        if (sortsAhead(*timer, *tmp)) break;
        tmp = tmp->next;
    }
    tmp->addFirst(timer);
    int armed = mArmed.fetch_add(1, std::memory_order_release) + 1;
    if (armed > mArmedPeak.load(std::memory_order_relaxed))
        mArmedPeak.store(armed, std::memory_order_relaxed);
}

void KelTimer::addTimer(NodeTimer* timer) {
    ListLock lock(this);
    // The old node goes in the same lock section as the new one comes, so
    // concurrent restarts of one timer leave it with one node.
    takeOff(timer->proc, timer);
    _addTimer(timer);
}

void KelTimer::takeOff(ATimer* proc, NodeTimer* keep) {
    if (mFiring != nullptr && proc == mFiring) {
        // Its handler restarts, stops or destroys it: that decides, and the
        // node of the firing goes home when the handler returns.
        mFiringTaken = true;
        proc->setReStart(false);
    }
    for (NodeTimer* head : {&root, &pending}) {
        for (NodeTimer* tmp = head->next; tmp != head; tmp = tmp->next) {
            if (tmp->proc != proc) continue;
            if (tmp == mWalk) mWalk = firesNext(tmp);
            tmp->del();
            if (head == &root) mArmed.fetch_sub(1, std::memory_order_release);
            if (tmp != keep) Kel::gc(tmp);
            return;  // at most one node per timer
        }
    }
}

void KelTimer::removeOldTimer(NodeTimer* tim) {
    ListLock lock(this);
    takeOff(tim->proc, tim);
}

void KelTimer::cancelTimer(ATimer* proc) {
    ListLock lock(this);
    takeOff(proc);
    // A firing pass may have re-armed a repeating timer (and set it running)
    // after the caller's stop cleared the flag; clearing it again under the
    // mutex leaves a cancelled timer idle: no node and not running.
    proc->setRunning(false);
}

void KelTimer::resetTimer(NodeTimer* tim) {
    ListLock lock(this);
    for (NodeTimer* tmp = root.next; tmp != &root; tmp = tmp->next) {
        if (tmp->proc == tim->proc) tmp->resetTimer();
    }
}

void KelTimer::processTimer() {
    if (firingHere()) {
        KEL_LOG(LOG_ERROR, "processTimer called from a timer handler");
        KEL_ASSERT_FAIL();
    }
    PthreadAutolock lock(&mutex);
    PassScope pass(this);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // A handler that removes the next node moves `mWalk` on (takeOff).
    mWalk = firesNext(&root);
    while (mWalk != &root) {
        NodeTimer* timeout = mWalk;
        mWalk = firesNext(timeout);
        if (!isDue(*timeout, now)) continue;
        timeout->del();
        mArmed.fetch_sub(1, std::memory_order_release);
        ATimer* proc = timeout->proc;
        mFiring = proc;
        mHeld = timeout;
        mFiringTaken = false;
        proc->exec();
        mFiring = nullptr;
        mHeld = nullptr;
        if (mFiringTaken) {
            // The handler restarted, stopped or destroyed its own timer.
            Kel::gc(timeout);
        } else if (proc->isRepeat() || proc->isReStart()) {
            // Same node again, deadline from the clock after the handler.
            proc->setReStart(false);
            _addTimer(timeout);
        } else {
            proc->setRunning(false);
            Kel::gc(timeout);
        }
    }
}

bool KelTimer::getTimeout(timespec* val) {
    if (firingHere()) {
        KEL_LOG(LOG_ERROR, "getTimeout called from a timer handler");
        KEL_ASSERT_FAIL();
    }
    bool isNeedWait = true;
    val->tv_sec = 0x7fffffff;
    val->tv_nsec = 0;
    if (mArmed.load(std::memory_order_acquire) == 0) return true;  // nothing armed
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    PthreadAutolock lock(&mutex);
    for (NodeTimer* timeout = root.next; timeout != &root; timeout = timeout->next) {
        if (!timeout->proc->isRunning()) continue;
        if (isDue(*timeout, now)) {
            isNeedWait = false;
        } else {
            *val = timeout->time;
        }
        break;
    }
    return isNeedWait;
}

void KelTimer::showArgs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    ListLock lock(this);
    KEL_LOG(LOG_DEBUG, "start show timer");
    KEL_LOG(LOG_DEBUG, "now cpu time: (%ld.%ld)", static_cast<long>(now.tv_sec),
            static_cast<long>(now.tv_nsec));
    for (NodeTimer* t = root.next; t != &root; t = t->next) {
        int sec, msec;
        t->proc->interval(&sec, &msec);
        KEL_LOG(LOG_DEBUG, "proc: %p, isRepeat: %d, isRunning: %d, Repeat(%d, %d)",
                static_cast<void*>(t->proc), t->proc->isRepeat(), t->proc->isRunning(), sec, msec);
        KEL_LOG(LOG_DEBUG, "time: %ld.%ld--", static_cast<long>(t->time.tv_sec),
                static_cast<long>(t->time.tv_nsec));
    }
}
