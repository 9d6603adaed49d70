#include "kel_loop.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <string.h>

#include <memory>

#include "common_log.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_timer.h"
#include "state_list.h"
#include "state_mache.h"

KelLoop* _loop = nullptr;
KelTimer* _timer = nullptr;

static_assert(sizeof(pthread_t) == sizeof(unsigned long), "thread ids are kept as unsigned long");

namespace {

inline unsigned long selfId() { return static_cast<unsigned long>(pthread_self()); }

bool queueIsEmpty(void* q) { return static_cast<KelQueue*>(q)->isEmpty(); }

// ------------------------------------------------------ signal handling
//
// The handler runs in signal context on whatever thread the system picks,
// possibly one that holds the event mutex, a queue's mutex or the heap's
// lock. So it writes its log line (the logger is safe there) and hands the
// rest of the branch to the signal thread "kel-signal" through a pipe: one
// write(2) of a fixed record, never blocking. The signal thread allocates,
// posts, wakes the loop and, for the error and exit branches, calls
// occurSysError and exit(1) in plain thread context while the thread that
// took the signal waits in its handler. Without a signal thread of its own
// (a child made by fork that did not call init_all, or a failed creation)
// the handler does only what is safe there; see signal_handler.
// The signal thread ends at process exit (endSignalThread), so that nothing
// of it is left behind.

enum Branch { kOther, kInterrupt, kExit, kError, kUser, kTerminate };

Branch branchOf(int sig) {
    switch (sig) {
        case SIGINT:
            return kInterrupt;
        case SIGQUIT:
        case SIGKILL:
            return kExit;
        case SIGILL:
        case SIGABRT:
        case SIGBUS:
        case SIGFPE:
        case SIGSEGV:
        case SIGSTKFLT:
            return kError;
        case SIGUSR1:
        case SIGUSR2:
            return kUser;
        case SIGTERM:
            return kTerminate;
        default:
            return kOther;
    }
}

struct SigRequest {
    int32_t sig;
    int32_t pid;    // sender
    int32_t value;  // sival_int
    int32_t pad;
};

// Written by kel_signal_install before the handler is installed, read by the
// handler. Memory ordering: the descriptor is stored before the owner, both
// with release; the handler loads the owner first (acquire), then the
// descriptor. The owner is cleared (seq_cst) by endSignalThread.
std::atomic<int> _g_sig_write_fd{-1};
std::atomic<pid_t> _g_sig_owner{0};  // the process whose signal thread reads the pipe
int _g_sig_read_fd = -1;
pthread_t _g_sig_thread;
// Handlers between their look at the owner and their write to the pipe.
// Memory ordering: the increment and the load of the owner in the handler,
// like the store of the owner and the load of this count in
// endSignalThread, are sequentially consistent: either the handler sees no
// owner, or endSignalThread waits for its write before closing the pipe.
std::atomic<int> _g_sig_writers{0};

// Branches in progress that may use the loop. The loop's destructor clears
// `_loop` and then waits for this to be 0, so a branch never uses a loop
// that is being destroyed. Memory ordering: the increment here and the load
// of `_loop` below, like the destructor's store and load, are sequentially
// consistent: either the branch sees no loop or the destructor sees it busy.
std::atomic<int> _g_sig_busy{0};

// Ends the process from a branch; not counted as busy, so that the exit
// handlers may destroy the loop.
[[noreturn]] void exitFromBranch() {
    _g_sig_busy.fetch_sub(1, std::memory_order_release);
    exit(1);
}

// The rest of a branch, after its log line. Signal thread (or, with no
// signal thread, the handler).
void runBranch(const SigRequest& r) {
    _g_sig_busy.fetch_add(1, std::memory_order_seq_cst);
    KelLoop* loop = __atomic_load_n(&_loop, __ATOMIC_SEQ_CST);
    switch (branchOf(r.sig)) {
        case kError:
            if (loop != nullptr) loop->occurSysError();
            exitFromBranch();
        case kExit:
            exitFromBranch();
        case kUser: {
            if (loop == nullptr) exitFromBranch();
            GeneralQEvt* e =
                static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_SYS_USER_SIGNAL, sizeof(GeneralQEvt)));
            if (e != nullptr) {  // otherwise lost; newX_ has logged
                e->message = r.sig;
                e->wParam = r.pid;
                e->lParam = r.value;
                // Refused (nothing queued may give way, or the loop has
                // ended): the signal is lost, as the queue has logged.
                if (!loop->postLIFO(e)) Kel::gc(e);
                Kel::signal();
            }
            break;
        }
        case kInterrupt:
            if (loop == nullptr) exitFromBranch();
            loop->postCmd(SIG_SYS_SIGNAL_INT);
            Kel::signal();
            break;
        case kTerminate: {
            if (loop == nullptr) exitFromBranch();
            bool ret = loop->postCmd(SIG_SYSTEM_POWEROFF);
            Kel::signal();
            KEL_LOG(LOG_DEBUG, "post cmd state, ret: %d", ret ? 1 : 0);
            break;
        }
        case kOther:
            break;
    }
    _g_sig_busy.fetch_sub(1, std::memory_order_release);
}

void* signalThreadMain(void*) {
    prctl(PR_SET_NAME, "kel-signal", 0, 0, 0);
    for (;;) {
        SigRequest r;
        ssize_t n = read(_g_sig_read_fd, &r, sizeof r);
        if (n == static_cast<ssize_t>(sizeof r)) {
            runBranch(r);
        } else if (n == 0 || (n < 0 && errno != EINTR)) {
            return nullptr;  // the write end was closed: process exit
        }
    }
}

void signal_handler(int sig, siginfo_t* info, void*) {
    int savedErrno = errno;
    Branch b = branchOf(sig);
    switch (b) {
        case kError:
            KEL_LOG(LOG_WARN, "Application[%d] Occur error by signal:%d !!!", static_cast<int>(getpid()),
                    sig);
            break;
        case kInterrupt:
            KEL_LOG(LOG_WARN, "Application[%d] 'Ctrl+C' tigger.", static_cast<int>(getpid()));
            break;
        case kTerminate:
            KEL_LOG(LOG_WARN, "Application[%d] will poweroff or terminal, loop handler: %p",
                    static_cast<int>(getpid()),
                    static_cast<void*>(__atomic_load_n(&_loop, __ATOMIC_RELAXED)));
            break;
        case kExit:
            KEL_LOG(LOG_ERROR, "Application[%d] will exit by signal:%d", static_cast<int>(getpid()), sig);
            break;
        case kOther:
            KEL_LOG(LOG_ERROR, "Application[%d] signal:%d tigger", static_cast<int>(getpid()), sig);
            errno = savedErrno;
            return;
        case kUser:
            break;
    }
    SigRequest r = {sig, info ? static_cast<int32_t>(info->si_pid) : 0,
                    info ? static_cast<int32_t>(info->si_value.sival_int) : 0, 0};
    _g_sig_writers.fetch_add(1, std::memory_order_seq_cst);
    // The owner first: its acquire makes the descriptor read after it the one
    // stored before it, so a forked child never writes into its parent's pipe.
    pid_t owner = _g_sig_owner.load(std::memory_order_seq_cst);
    int fd = owner == getpid() ? _g_sig_write_fd.load(std::memory_order_relaxed) : -1;
    if (fd >= 0) {
        bool written = write(fd, &r, sizeof r) == static_cast<ssize_t>(sizeof r);
        _g_sig_writers.fetch_sub(1, std::memory_order_release);
        if (!written) {
            // The signal thread is that far behind: the request is refused
            // here rather than blocking the interrupted thread.
            KEL_LOG(LOG_ERROR, "Application[%d] signal:%d dropped, hand-over full",
                    static_cast<int>(getpid()), sig);
        } else if (b == kError || b == kExit) {
            // The signal thread ends the process. Should it be unable to (a
            // lock held by this thread), end it here after a while.
            for (int i = 0; i < 500; ++i) poll(nullptr, 0, 10);
            _exit(1);
        }
        errno = savedErrno;
        return;
    }
    _g_sig_writers.fetch_sub(1, std::memory_order_release);
    // No signal thread: only what is safe in a handler. The branches that end
    // the process end it with _exit(1), without occurSysError and the exit
    // handlers, which are not safe here. In a forked child the loop is the
    // parent's, so the posting branches act as with no loop; where creation of
    // the signal thread failed, their request is dropped with one line.
    if (b == kError || b == kExit || owner != 0 || __atomic_load_n(&_loop, __ATOMIC_SEQ_CST) == nullptr) {
        _exit(1);
    }
    KEL_LOG(LOG_ERROR, "Application[%d] signal:%d dropped, no signal thread", static_cast<int>(getpid()),
            sig);
    errno = savedErrno;
}

// At process exit: closes the hand-over pipe, so that the signal thread
// reads its end and returns, and joins it. Nothing to do in a forked child
// (the thread is the parent's) or on the signal thread itself (a branch
// that ends the process).
void endSignalThread() {
    if (_g_sig_owner.load(std::memory_order_seq_cst) != getpid()) return;
    if (pthread_equal(pthread_self(), _g_sig_thread)) return;
    // Handlers from here on find no signal thread.
    _g_sig_owner.store(0, std::memory_order_seq_cst);
    while (_g_sig_writers.load(std::memory_order_seq_cst) != 0) sched_yield();
    close(_g_sig_write_fd.exchange(-1, std::memory_order_relaxed));
    pthread_join(_g_sig_thread, nullptr);
    close(_g_sig_read_fd);
    _g_sig_read_fd = -1;
}

// Starts the signal thread of this process (once per process) and installs
// the handler for SIGTERM and SIGPIPE.
void kel_signal_install() {
    if (_g_sig_owner.load(std::memory_order_acquire) != getpid()) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
            _g_sig_read_fd = fds[0];
            // The signal thread blocks every signal, so that the handler
            // never runs on the thread that must serve it.
            sigset_t all, old;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &old);
            pthread_t th;
            int ret = pthread_create(&th, nullptr, signalThreadMain, nullptr);
            pthread_sigmask(SIG_SETMASK, &old, nullptr);
            if (ret == 0) {
                // Named here as well, so that it carries its name from the
                // moment init_all returns, not from whenever it first runs.
                pthread_setname_np(th, "kel-signal");
                _g_sig_thread = th;
                _g_sig_write_fd.store(fds[1], std::memory_order_release);
                _g_sig_owner.store(getpid(), std::memory_order_release);
                static bool registered = false;  // inherited by a forked child
                if (!registered) registered = atexit(endSignalThread) == 0;
            } else {
                KEL_LOG(LOG_WARN, "pthread_create failed, %d, %s", ret, strerror(ret));
                close(fds[0]);
                close(fds[1]);
            }
        }
    }
    int sigs[2] = {SIGTERM, SIGPIPE};
    struct sigaction act;
    struct sigaction old;
    memset(&act, 0, sizeof act);
    act.sa_sigaction = signal_handler;
    act.sa_flags = SA_SIGINFO | SA_NOCLDWAIT;
    sigemptyset(&act.sa_mask);
    for (int i = 0; i < 2; ++i) sigaction(sigs[i], &act, &old);
}

}  // namespace

KelLoop::KelLoop(unsigned int msgs) : state_mache(nullptr), thread_id(0) {
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
    _timer = timer;
    __atomic_store_n(&_loop, this, __ATOMIC_RELEASE);  // read by the signal thread
}

KelLoop::~KelLoop() {
    KEL_LOG(LOG_WARN, "Main Event Loop is exit.");
    __atomic_store_n(&_loop, nullptr, __ATOMIC_SEQ_CST);
    // A signal branch that found the loop finishes with it first.
    while (_g_sig_busy.load(std::memory_order_seq_cst) != 0) sched_yield();
    delete queue;  // events still queued are dropped, not released
    delete pool_gen;
    delete pool_state;
    delete timer;
    delete[] gen_pool;
    delete[] state_pool;
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

void KelLoop::uninit_all() { Kel::uninit(); }
