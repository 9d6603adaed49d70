// The signal handling of the main loop.
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

#include "kel_signal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>

#include "common_log.h"
#include "event_def.h"
#include "kel_loop.h"
#include "kel_port.h"

namespace {

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

// Signals asked for on top of SIGTERM and SIGPIPE (KEL_SIGNAL_* bits), and
// whether kel_signal_install has installed the handler in this process.
// Memory ordering: sequentially consistent on both sides: kel_signal_enable
// adds to the mask, then looks at the flag; kel_signal_install sets the
// flag, then reads the mask. So at least one of them installs a new signal.
std::atomic<unsigned> _g_sig_optin{0};
std::atomic<bool> _g_sig_installed{false};

// Installs signal_handler for `sig`.
void installHandler(int sig);

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

void installHandler(int sig) {
    struct sigaction act;
    struct sigaction old;
    memset(&act, 0, sizeof act);
    act.sa_sigaction = signal_handler;
    act.sa_flags = SA_SIGINFO | SA_NOCLDWAIT;
    sigemptyset(&act.sa_mask);
    sigaction(sig, &act, &old);
}

}  // namespace

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
    for (int i = 0; i < 2; ++i) installHandler(sigs[i]);
    _g_sig_installed.store(true, std::memory_order_seq_cst);
    kel_signal_enable(0);
}

void kel_signal_enable(unsigned mask) {
    // In the order of the KEL_SIGNAL_* bits.
    static const int optional[] = {SIGINT, SIGHUP, SIGUSR1, SIGUSR2};
    unsigned all = _g_sig_optin.fetch_or(mask, std::memory_order_seq_cst) | mask;
    if (!_g_sig_installed.load(std::memory_order_seq_cst)) return;  // init_all installs them
    for (unsigned i = 0; i < sizeof optional / sizeof optional[0]; ++i)
        if (all & (1u << i)) installHandler(optional[i]);
}

void kel_signal_wait_branches() {
    while (_g_sig_busy.load(std::memory_order_seq_cst) != 0) sched_yield();
}
