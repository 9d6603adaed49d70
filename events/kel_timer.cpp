#include "kel_timer.h"

#include <memory>

#include "common_log.h"
#include "kel_mutex.h"
#include "kel_port.h"

namespace {

// True when deadline `a` lies strictly before `b`.
inline bool before(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

}  // namespace

// -------------------------------------------------------------- NodeTimer

NodeTimer::NodeTimer() : QEvt(), proc(nullptr), next(this), prev(this) {
    clock_gettime(CLOCK_MONOTONIC, &time);
}

void NodeTimer::resetTimer() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    time.tv_sec = now.tv_sec + proc->repeatSec();
    long tmp = now.tv_nsec / 1000000 + proc->repeatMSec();
    time.tv_sec = time.tv_sec + tmp / 1000;
    time.tv_nsec = (tmp % 1000) * 1000000;
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

KelTimer::KelTimer() : root(), stone(), pool(), time_pool(nullptr), mArmed(0) {
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

void KelTimer::_addTimer(NodeTimer* timer) {
    timer->resetTimer();
    timer->proc->setRunning(true);
    // Behind every node with an equal deadline.
    NodeTimer* tmp = root.next;
    while (tmp != &root) {
        if (before(timer->time, tmp->time)) break;
        tmp = tmp->next;
    }
    tmp->addFirst(timer);
    mArmed.fetch_add(1, std::memory_order_release);
}

void KelTimer::addTimer(NodeTimer* timer) {
    PthreadAutolock lock(&mutex);
    _addTimer(timer);
}

bool KelTimer::removeFirstOf(ATimer* proc) {
    // An ATimer has at most one node on the list: stop at the first match.
    for (NodeTimer* tmp = root.next; tmp != &root;) {
        NodeTimer* nxt = tmp->next;
        if (tmp->proc == proc) {
            tmp->del();
            mArmed.fetch_sub(1, std::memory_order_release);
            Kel::gc(tmp);
            return true;
        }
        tmp = nxt;
    }
    return false;
}

void KelTimer::removeOldTimer(NodeTimer* tim) {
    PthreadAutolock lock(&mutex);
    removeFirstOf(tim->proc);
}

void KelTimer::cancelTimer(ATimer* proc) {
    PthreadAutolock lock(&mutex);
    removeFirstOf(proc);
    // A firing pass may have re-armed a repeating timer (and set it running)
    // after the caller's stop cleared the flag; clearing it again under the
    // mutex leaves a cancelled timer idle: no node and not running.
    proc->setRunning(false);
}

void KelTimer::resetTimer(NodeTimer* tim) {
    PthreadAutolock lock(&mutex);
    for (NodeTimer* tmp = root.next; tmp != &root; tmp = tmp->next) {
        if (tmp->proc == tim->proc) tmp->resetTimer();
    }
}

void KelTimer::processTimer() {
    PthreadAutolock lock(&mutex);
    // Walk from the latest deadline towards the earliest.
    NodeTimer* timeout = root.prev;
    NodeTimer* prev = timeout->prev;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    while (timeout != &root) {
        if (before(timeout->time, now)) {
            timeout->del();
            mArmed.fetch_sub(1, std::memory_order_release);
            ATimer* proc = timeout->proc;
            proc->exec();
            if (proc->isRepeat() || proc->isReStart()) {
                // Same node again, deadline from the clock after the handler.
                proc->setReStart(false);
                _addTimer(timeout);
            } else {
                proc->setRunning(false);
                Kel::gc(timeout);
            }
        }
        timeout = prev;
        prev = prev->prev;
    }
}

bool KelTimer::getTimeout(timespec* val) {
    bool isNeedWait = true;
    val->tv_sec = 0x7fffffff;
    val->tv_nsec = 0;
    if (mArmed.load(std::memory_order_acquire) == 0) return true;  // nothing armed
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    PthreadAutolock lock(&mutex);
    for (NodeTimer* timeout = root.next; timeout != &root; timeout = timeout->next) {
        if (!timeout->proc->isRunning()) continue;
        if (before(timeout->time, now)) {
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
    PthreadAutolock lock(&mutex);
    KEL_LOG(LOG_DEBUG, "start show timer");
    KEL_LOG(LOG_DEBUG, "now cpu time: (%ld.%ld)", static_cast<long>(now.tv_sec),
            static_cast<long>(now.tv_nsec));
    for (NodeTimer* t = root.next; t != &root; t = t->next) {
        KEL_LOG(LOG_DEBUG, "proc: %p, isRepeat: %d, isRunning: %d, Repeat(%d, %d)",
                static_cast<void*>(t->proc), t->proc->isRepeat(), t->proc->isRunning(), t->proc->repeatSec(),
                t->proc->repeatMSec());
        KEL_LOG(LOG_DEBUG, "time: %ld.%ld--", static_cast<long>(t->time.tv_sec),
                static_cast<long>(t->time.tv_nsec));
    }
}
