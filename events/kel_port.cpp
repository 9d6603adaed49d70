#include "kel_port.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "common_log.h"
#include "kel_pool.h"

KelPool* Kel::Kel_pool_[3];
uint_fast32_t Kel::Kel_maxPool_ = 0;
pthread_mutex_t Kel::Kel_event_mutex_ = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t Kel::Kel_event_cond_ = PTHREAD_COND_INITIALIZER;

namespace {

// Each counter on a cache line of its own: posters, the loop and releasing
// threads touch them from different processors.
template <typename T>
struct alignas(64) Line {
    std::atomic<T> v;
};

// True between init and uninit.
Line<bool> _g_alive{{false}};
// Threads inside (or about to enter) Kel_event_mutex_. uninit waits until it
// is 0 before destroying the mutex.
Line<int> _g_users{{0}};
// Number of inits that took effect; see Kel::generation.
Line<uint32_t> _g_generation{{0}};
// Guards the pools outside init..uninit. Never destroyed.
pthread_mutex_t _g_spare_mutex = PTHREAD_MUTEX_INITIALIZER;
Line<uint32_t> _g_wakeups{{0}};
// How the loop sleeps: kAwake, kOnCond (raised under the event mutex as it
// enters its timed wait) or kOnFds (raised as it enters its wait on watched
// descriptors). Lowered by the first poster that wakes it (so later posters
// find the wake-up pending and send none) or by the loop as it leaves the
// wait. Memory ordering: sequentially consistent with _g_wakeups (see
// signal).
enum : int { kAwake, kOnCond, kOnFds };
Line<int> _g_sleeping{{kAwake}};
// The eventfd that ends a wait on watched descriptors. Memory ordering:
// relaxed; stored before kOnFds is raised and read after a poster took
// kOnFds down, so the seq_cst pair on _g_sleeping orders it.
std::atomic<int> _g_wake_fd{-1};

// CPU of the poster that signalled the loop's current wait, -1 if none.
// Memory ordering: relaxed; written and read under the event mutex.
std::atomic<int> _g_waker_cpu{-1};
// Whether the loop's last sleep was ended by a poster running on the loop's
// own CPU. Loop thread only.
bool _g_shared_cpu = false;

// Takes the event mutex if it is alive, the spare one otherwise. At no time
// does one thread hold the event mutex while another holds the spare one:
// - uninit clears _g_alive and then waits for the users of the event mutex.
//   A thread that takes the spare mutex waits for them as well before it
//   touches the pools.
// - init holds the spare mutex while it sets _g_alive. A thread that got the
//   spare mutex looks at _g_alive again under it and, if the event mutex has
//   come alive meanwhile, goes back and takes that instead.
// Memory ordering: the increment of _g_users and the load of _g_alive are
// sequentially consistent, as are the store to _g_alive in uninit and the
// loads of _g_users there and here: either a thread that saw the mutex
// alive is counted by the time _g_users is read, or it sees the mutex dead
// and keeps away from it.
pthread_mutex_t* acquireEventMutex() {
    for (;;) {
        _g_users.v.fetch_add(1, std::memory_order_seq_cst);
        if (_g_alive.v.load(std::memory_order_seq_cst)) {
            pthread_mutex_lock(&Kel::Kel_event_mutex_);
            return &Kel::Kel_event_mutex_;
        }
        _g_users.v.fetch_sub(1, std::memory_order_release);
        pthread_mutex_lock(&_g_spare_mutex);
        if (!_g_alive.v.load(std::memory_order_seq_cst)) {
            // Holders of the event mutex from before uninit finish first.
            while (_g_users.v.load(std::memory_order_seq_cst) != 0) sched_yield();
            return &_g_spare_mutex;
        }
        pthread_mutex_unlock(&_g_spare_mutex);
    }
}

void releaseEventMutex(pthread_mutex_t* m) {
    pthread_mutex_unlock(m);
    if (m == &Kel::Kel_event_mutex_) _g_users.v.fetch_sub(1, std::memory_order_release);
}

}  // namespace

Kel::Autolock::Autolock() : mLocked(acquireEventMutex()) {}

Kel::Autolock::~Autolock() { releaseEventMutex(mLocked); }

void Kel::init() {
    // A second init over a live mutex would re-initialise it under a waiter;
    // it is ignored instead. The spare mutex is held across the switch, so
    // that no thread works on the pools under it once the event mutex is
    // handed out.
    pthread_mutex_lock(&_g_spare_mutex);
    if (_g_alive.v.load(std::memory_order_acquire)) {
        pthread_mutex_unlock(&_g_spare_mutex);
        return;
    }
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        pthread_mutex_unlock(&_g_spare_mutex);
        KEL_ASSERT_FAIL();
    }
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&Kel_event_cond_, &attr);
    // Not recursive; adaptive like KelMutex: posters and the loop meet here
    // for a few instructions at a time.
    pthread_mutexattr_t mattr;
    pthread_mutexattr_init(&mattr);
    pthread_mutexattr_settype(&mattr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&Kel_event_mutex_, &mattr);
    pthread_mutexattr_destroy(&mattr);
    pthread_condattr_destroy(&attr);
    _g_generation.v.fetch_add(1, std::memory_order_relaxed);
    _g_alive.v.store(true, std::memory_order_seq_cst);
    pthread_mutex_unlock(&_g_spare_mutex);
}

void Kel::uninit() {
    // Only the first uninit after an init destroys anything.
    bool alive = true;
    if (!_g_alive.v.compare_exchange_strong(alive, false, std::memory_order_seq_cst)) return;
    while (_g_users.v.load(std::memory_order_seq_cst) != 0) sched_yield();
    pthread_cond_destroy(&Kel_event_cond_);
    pthread_mutex_destroy(&Kel_event_mutex_);
}

bool Kel::isAlive() { return _g_alive.v.load(std::memory_order_acquire); }

uint32_t Kel::generation() { return _g_generation.v.load(std::memory_order_acquire); }

void Kel::lock() {
    _g_users.v.fetch_add(1, std::memory_order_seq_cst);
    if (!_g_alive.v.load(std::memory_order_seq_cst)) {
        _g_users.v.fetch_sub(1, std::memory_order_release);
        KEL_ASSERT_FAIL();  // the loop needs Kel::init (KelLoop::init_all) first
    }
    pthread_mutex_lock(&Kel_event_mutex_);
}

void Kel::unlock() { releaseEventMutex(&Kel_event_mutex_); }

// No lost wake-up. A poster stores its event, then counts a wake-up, then
// looks at the sleeper flag; the loop reads the count (`seen`), looks at its
// queue and timers, then raises the flag and compares the count with `seen`
// under the event mutex. Count and flag are sequentially consistent, so for
// any post one of these holds:
// - its count comes before the loop raises the flag: the loop's compare sees
//   it (or `seen` already held it, and then the event was visible when the
//   loop looked), and the loop does not sleep;
// - its count comes after: the poster reads the flag after the loop raised
//   it. It either clears the flag itself and signals, or finds it cleared by
//   another poster that signals. A signalling poster takes the event mutex,
//   which the loop holds from raising the flag until the wait releases it,
//   so the signal reaches a waiting loop. The woken loop runs another turn;
//   if that turn misses the later poster's event, its next compare sees the
//   poster's count (which came before the flag was raised again) and it does
//   not sleep.
// So only the first poster after the loop goes to sleep pays for the mutex
// and the signal: the others find the wake-up pending and return.
//
// A loop waiting on watched descriptors takes the same handshake without the
// mutex: the poster writes the loop's eventfd, whose count outlasts a write
// that comes before the loop is in epoll_wait.
void Kel::signal() {
    _g_wakeups.v.fetch_add(1, std::memory_order_seq_cst);
    if (_g_sleeping.v.load(std::memory_order_seq_cst) == kAwake) return;
    int how = _g_sleeping.v.exchange(kAwake, std::memory_order_seq_cst);
    if (how == kAwake) return;  // already being woken
    if (how == kOnFds) {
        uint64_t one = 1;
        if (write(_g_wake_fd.load(std::memory_order_relaxed), &one, sizeof one) < 0) {
            // Only a full counter refuses, and then a wake-up is pending.
        }
        return;
    }
    pthread_mutex_t* m = acquireEventMutex();
    _g_waker_cpu.store(sched_getcpu(), std::memory_order_relaxed);
    pthread_mutex_unlock(m);
    if (m != &Kel_event_mutex_) return;  // no loop: nobody to wake
    // Sent after the unlock, so the woken loop does not block on the mutex
    // again. Still counted as a user, so the condition is not destroyed
    // under it.
    pthread_cond_signal(&Kel_event_cond_);
    _g_users.v.fetch_sub(1, std::memory_order_release);
}

int Kel::wait(const timespec* deadline, uint32_t seen, bool (*stillIdle)(void*), void* arg) {
    int ret = 0;
    lock();
    _g_sleeping.v.store(kOnCond, std::memory_order_seq_cst);
    if (stillIdle(arg) && _g_wakeups.v.load(std::memory_order_seq_cst) == seen) {
        _g_waker_cpu.store(-1, std::memory_order_relaxed);
        ret = pthread_cond_timedwait(&Kel_event_cond_, &Kel_event_mutex_, deadline);
        int waker = _g_waker_cpu.load(std::memory_order_relaxed);
        _g_shared_cpu = waker >= 0 && waker == sched_getcpu();
    }
    _g_sleeping.v.store(kAwake, std::memory_order_relaxed);
    unlock();
    return ret;
}

bool Kel::enterFdWait(uint32_t seen, int wakeFd) {
    _g_wake_fd.store(wakeFd, std::memory_order_relaxed);
    _g_sleeping.v.store(kOnFds, std::memory_order_seq_cst);
    if (_g_wakeups.v.load(std::memory_order_seq_cst) == seen) return true;
    _g_sleeping.v.store(kAwake, std::memory_order_seq_cst);
    return false;
}

void Kel::leaveFdWait() { _g_sleeping.v.store(kAwake, std::memory_order_seq_cst); }

bool Kel::wokenFromOwnCpu() { return _g_shared_cpu; }

uint32_t Kel::wakeups() { return _g_wakeups.v.load(std::memory_order_acquire); }

QEvt* Kel::newX_(int sig, uint_fast16_t evtSize) {
    Autolock lock;
    uint8_t idx = 0;
    // First fit in order of registration: no sorting, no closest size.
    while (idx < Kel_maxPool_) {
        KelPool* p = Kel_pool_[idx];
        if (p->getBlockSize() >= evtSize) {
            if (!p->empty()) break;
            p->noteRefused();
        }
        ++idx;
    }
    if (idx >= Kel_maxPool_) {
        KEL_LOG(LOG_ERROR, "not free blocks");
        return nullptr;
    }
    QEvt* e = static_cast<QEvt*>(Kel_pool_[idx]->get(0));
    if (e != nullptr) {
        e->sig = static_cast<QSignal>(sig);
        e->poolId_ = static_cast<uint8_t>(idx + 1);
        e->refCtr_ = 0;
    } else {
        KEL_LOG(LOG_ERROR, "Get Evt is null");
    }
    return e;
}

const QEvt* Kel::newRef_(const QEvt* e) {
    Autolock lock;
    if (e->poolId_ != 0) ++const_cast<QEvt*>(e)->refCtr_;
    return e;
}

void Kel::gc(const QEvt* e) {
    Autolock lock;
    QEvt* ev = const_cast<QEvt*>(e);
    if (ev->poolId_ == 0) {
        KEL_LOG(LOG_ERROR, "poolId_ is invalid");
        KEL_ASSERT_FAIL();
    }
    if (ev->refCtr_ > 1) {
        --ev->refCtr_;
        return;
    }
    uint_fast8_t idx = static_cast<uint_fast8_t>(ev->poolId_ - 1);
    KEL_ASSERT(idx < Kel_maxPool_);
    Kel_pool_[idx]->put(ev);
}
