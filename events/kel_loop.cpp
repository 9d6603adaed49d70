#include "kel_loop.h"

#include <errno.h>
#include <limits.h>
#include <sched.h>
#include <time.h>

#include <memory>

#include "common_log.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_signal.h"
#include "kel_timer.h"
#include "kel_watch.h"
#include "state_list.h"
#include "state_mache.h"

KelLoop* _loop = nullptr;
KelTimer* _timer = nullptr;

static_assert(sizeof(pthread_t) == sizeof(unsigned long), "thread ids are kept as unsigned long");

namespace {

inline unsigned long selfId() { return static_cast<unsigned long>(pthread_self()); }

bool queueIsEmpty(void* q) { return static_cast<KelQueue*>(q)->isEmpty(); }

// The epoll timeout until the absolute `deadline`: -1 for the far future,
// otherwise rounded up to the next millisecond, so that the wait never ends
// before the deadline and the loop never spins on a timer not yet due.
int msUntil(const timespec& deadline) {
    if (deadline.tv_sec == 0x7fffffff) return -1;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t ns = (int64_t(deadline.tv_sec) - now.tv_sec) * 1000000000 + (deadline.tv_nsec - now.tv_nsec);
    if (ns < 0) return 0;
    int64_t ms = (ns + 999999) / 1000000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

KelLoop::KelLoop(unsigned int msgs) : state_mache(nullptr), watch(nullptr), thread_id(0) {
    std::unique_ptr<KelWatch> w(new KelWatch);
    // Owned while the constructor runs, so that a failure leaks nothing. A
    // second loop fails at the timer list's pool: the table is full for good
    // once one loop has been built.
    std::unique_ptr<KelQueue> q(new KelQueue);
    std::unique_ptr<KelPool> pg(new KelPool);
    std::unique_ptr<KelPool> ps(new KelPool);
    // The timer list registers its pool here, ahead of the two event pools.
    std::unique_ptr<KelTimer> t(new KelTimer);
    std::unique_ptr<GeneralQEvt[]> gp;
    std::unique_ptr<StateQEvt[]> sp;
    try {
        gp.reset(new GeneralQEvt[msgs]);
        sp.reset(new StateQEvt[msgs]);
        KEL_ASSERT(_loop == nullptr && _timer == nullptr);
        q->init(evt_queue, 128);
        pg->init(gp.get(), msgs * sizeof(GeneralQEvt), sizeof(GeneralQEvt));
        ps->init(sp.get(), msgs * sizeof(StateQEvt), sizeof(StateQEvt));
    } catch (...) {
        // Pools registered by now stay in the table for good, so they and
        // their storage are left alive (`msgs` 0, no heap, or a pool of the
        // application's own taking a place).
        static_cast<void>(t.release());
        static_cast<void>(pg.release());
        static_cast<void>(gp.release());
        throw;
    }
    queue = q.release();
    pool_gen = pg.release();
    pool_state = ps.release();
    timer = t.release();
    gen_pool = gp.release();
    state_pool = sp.release();
    watch = w.release();
    _timer = timer;
    __atomic_store_n(&_loop, this, __ATOMIC_RELEASE);  // read by the signal thread
}

KelLoop::~KelLoop() {
    KEL_LOG(LOG_WARN, "Main Event Loop is exit.");
    __atomic_store_n(&_loop, nullptr, __ATOMIC_SEQ_CST);
    // A signal branch that found the loop finishes with it first.
    kel_signal_wait_branches();
    delete queue;  // events still queued are dropped, not released
    delete pool_gen;
    delete pool_state;
    delete timer;
    delete[] gen_pool;
    delete[] state_pool;
    delete watch;
}

unsigned long KelLoop::rand() {
    static std::atomic<unsigned long> baseRand{0x6b8b4567UL};
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    unsigned long mix = static_cast<unsigned long>(now.tv_nsec);
    return baseRand.fetch_xor(mix, std::memory_order_relaxed) ^ mix;
}

QEvt* KelLoop::newEvt(int sig, int size) { return Kel::newX_(sig, static_cast<uint_fast16_t>(size)); }

bool KelLoop::isLooping() { return thread_id.load(std::memory_order_relaxed) == selfId(); }

bool KelLoop::post(const QEvt* e) {
    bool ret = queue->post(e, 0);
    // The loop's own thread looks at the queue again before it sleeps.
    if (!isLooping()) Kel::signal();
    return ret;
}

bool KelLoop::postLIFO(const QEvt* e) {
    bool ret = queue->postLIFO(e);
    if (!isLooping()) Kel::signal();
    return ret;
}

bool KelLoop::postCmd(int cmd) {
    bool ret = false;
    QEvt* e = newEvt(cmd, sizeof(GeneralQEvt));
    if (e != nullptr) {
        ret = queue->post(e, 0);
        // A refused command has no owner left: its block goes home now.
        if (!ret) Kel::gc(e);
        if (!isLooping()) Kel::signal();
    }
    return ret;
}

void KelLoop::wakeupCore() {
    if (!isLooping()) Kel::signal();
}

void KelLoop::showAll() {
    queue->showArgs();
    pool_gen->showArgs();
    pool_state->showArgs();
    timer->showArgs();
}

void KelLoop::setStateMacheHandler(StateMache* state) {
    KEL_ASSERT(state_mache == nullptr);
    state_mache = state;
}

void KelLoop::exitLoop() { postCmd(SIG_EVENT_LOOP_EXIT); }

bool KelLoop::watchFd(int fd, unsigned interest, KelFdHandler fn, void* arg) {
    if (!watch->add(fd, interest, fn, arg)) return false;
    // A loop asleep on its condition moves to epoll_wait on its next turn.
    wakeupCore();
    return true;
}

bool KelLoop::modifyFd(int fd, unsigned interest) { return watch->modify(fd, interest); }

bool KelLoop::unwatchFd(int fd) { return watch->remove(fd); }

void KelLoop::initThreadPrivate() { thread_id.store(selfId(), std::memory_order_relaxed); }

KelLoop::Turn KelLoop::waitEvent(const QEvt*& evt) {
    // Wake-ups counted before the look at timers and queue; see Kel::wakeups.
    uint32_t seen = Kel::wakeups();
    timespec val;
    // A due timer comes before a waiting event.
    if (!timer->getTimeout(&val)) {
        timer->processTimer();
        return kNextTurn;
    }
    if (watch->active()) return waitWatched(evt, seen, val);
    // A waiting event comes before sleep. A loop woken by a poster on its
    // own CPU preempted that poster; before it sleeps again it gives the
    // CPU back once, so that the poster runs on and posts more without
    // signalling (the loop is not asleep), and the loop takes them in one
    // stretch. Without this, on a single CPU every post wakes the loop,
    // which handles one event and sleeps again. A loop woken from another
    // CPU does not yield, so that no busy thread that shares its CPU can
    // delay its next event.
    if (queue->isEmpty() && Kel::wokenFromOwnCpu()) sched_yield();
    if (queue->isEmpty()) {
        // A post or wake-up since `seen` means no sleep; see Kel::wait.
        int ret = Kel::wait(&val, seen, queueIsEmpty, queue);
        if (ret == ETIMEDOUT) {
            timer->processTimer();
            return kNextTurn;
        }
        if (ret > 0) {
            KEL_LOG(LOG_ERROR, "timewait failed, ret = %d, %d", ret, 1);
            KEL_LOG(LOG_ERROR, "timeout: %ld, %ld", static_cast<long>(val.tv_sec),
                    static_cast<long>(val.tv_nsec));
            return kWaitFailed;
        }
        // Woken without an event (wakeupCore, a spurious wake-up): read the
        // deadline again.
        if (queue->isEmpty()) return kNextTurn;
    }
    evt = queue->get();
    return kGotEvent;
}

KelLoop::Turn KelLoop::waitWatched(const QEvt*& evt, uint32_t seen, const timespec& deadline) {
    // Due timers have been served. Then the ready descriptors: with an event
    // waiting only a look, otherwise a sleep until the deadline, a wake-up
    // (the eventfd that Kel::signal writes) or a readiness.
    const bool sleeps = queue->isEmpty() && Kel::enterFdWait(seen, watch->wakeFd());
    int n = watch->collect(sleeps ? msUntil(deadline) : 0);
    if (sleeps) Kel::leaveFdWait();
    if (n < 0) {
        int err = errno;
        KEL_LOG(LOG_ERROR, "timewait failed, ret = %d, %d", err, 1);
        KEL_LOG(LOG_ERROR, "timeout: %ld, %ld", static_cast<long>(deadline.tv_sec),
                static_cast<long>(deadline.tv_nsec));
        return kWaitFailed;
    }
    while (watch->deliverOne()) {
    }
    // Then one event.
    if (!queue->isEmpty()) {
        evt = queue->get();
        return kGotEvent;
    }
    // The deadline passed without a wake-up.
    if (sleeps && n == 0) timer->processTimer();
    return kNextTurn;
}

bool KelLoop::dispatchInner(const QEvt* evt) {
    switch (evt->sig) {
        case SIG_TIMER_ADD: {
            NodeTimer* ti = const_cast<NodeTimer*>(static_cast<const NodeTimer*>(evt));
            timer->removeOldTimer(ti);
            Kel::newRef_(evt);  // the list keeps the node after this turn's gc
            timer->addTimer(ti);
            return true;
        }
        case SIG_STATE_DELAY_EVENT:
            // An application may post any signal: without a machine this one
            // has no receiver, and it is released like any other.
            if (state_mache == nullptr) {
                KEL_LOG(LOG_ERROR, "[%d] Event has no state machine.", static_cast<int>(evt->sig));
                return true;
            }
            state_mache->postEvent(evt);
            return true;
        case SIG_SYSTEM_POWEROFF:
            KEL_LOG(LOG_DEBUG, "PowerOff");
            poweroff();
            return false;
        case SIG_SYS_SIGNAL_INT:
            interrupt();
            return false;
        case SIG_SYS_ERROR_OCCUR:
            occurSysError();
            return false;
        case SIG_SYS_USER_SIGNAL: {
            const GeneralQEvt* g = static_cast<const GeneralQEvt*>(evt);
            return broadcast(static_cast<int>(g->wParam), static_cast<int>(g->lParam));
        }
        case SIG_EVENT_LOOP_EXIT:
            return false;
        default:
            KEL_LOG(LOG_DEBUG, "[%d] Event is UNKOWN.", static_cast<int>(evt->sig));
            return true;
    }
}

int KelLoop::execLoop() {
    bool is_running = true;
    thread_id.store(selfId(), std::memory_order_relaxed);
    while (is_running) {
        const QEvt* evt = nullptr;
        Turn t = waitEvent(evt);
        if (t == kWaitFailed) return -1;
        if (t == kNextTurn) continue;
        if (evt->sig > SIG_INNER_PROC) {
            procSubMsg(evt);
        } else {
            is_running = dispatchInner(evt);
        }
        Kel::gc(evt);
    }
    // No loop takes what is posted from here on: posts are refused.
    queue->close();
    Kel::uninit();
    return 0;
}

bool KelLoop::getMessage(const QEvt*& evt) {
    if (thread_id.load(std::memory_order_relaxed) != selfId())
        thread_id.store(selfId(), std::memory_order_relaxed);
    bool is_running = true;
    while (is_running) {
        evt = nullptr;
        Turn t = waitEvent(evt);
        if (t == kWaitFailed) {
            evt = nullptr;
            return false;
        }
        if (t == kNextTurn) continue;
        // The caller owns this reference until recycleEvent.
        if (evt->sig > SIG_INNER_PROC) return true;
        is_running = dispatchInner(evt);
        Kel::gc(evt);
    }
    evt = nullptr;
    KEL_LOG(LOG_DEBUG, "--------------");
    return false;
}

void KelLoop::recycleEvent(const QEvt* evt) { Kel::gc(evt); }

void KelLoop::procStateEvent(StateList* st) {
    KEL_ASSERT(st != nullptr && state_mache != nullptr);
    // Popped newest first and filled in from the back: the batch is oldest
    // first, and goes ahead of everything queued in one step, so the loop
    // sees all of it or none of it, even while it runs on another thread.
    const QEvt** batch = st->replaySlots();
    int end = st->size();
    int first = end;
    while (!st->empty()) {
        const StateQEvt* o = st->pop();
        if (!state_mache->test_event(static_cast<int>(o->stateMsg))) continue;
        StateQEvt* e = static_cast<StateQEvt*>(newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
        if (e == nullptr) continue;
        e->stateMsg = o->stateMsg;
        e->msgId = o->msgId;
        e->wParam = o->wParam;
        e->lParam = o->lParam;
        e->pHander = o->pHander;
        batch[--first] = e;
    }
    if (first == end) return;
    uint_fast16_t n = static_cast<uint_fast16_t>(end - first);
    bool posted = queue->postLIFO(batch + first, n);
    if (!isLooping()) Kel::signal();
    // Refused (no room, or the loop has ended): the replay is lost, as the
    // queue has logged; the blocks go home.
    if (!posted) {
        for (int i = first; i < end; ++i) Kel::gc(batch[i]);
    }
}

void KelLoop::init_all(unsigned int def_level, const char* name, const char* confpath) {
    if ((def_level & 0x1000000u) == 0) kel_signal_install();
    if ((def_level & 0x2000000u) == 0) kellog::kel_log_init(confpath, name);
    Kel::init();
}

void KelLoop::enableSignals(unsigned mask) { kel_signal_enable(mask); }

void KelLoop::uninit_all() { Kel::uninit(); }
