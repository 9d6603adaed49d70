// Start-up switches and real operating-system signals: which handler is
// installed, what each branch of it does, and a storm of signals against a
// busy loop.
#include <pthread.h>
#include <stdarg.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <fstream>

#include "common_log.h"
#include "support/loop_harness.h"

namespace {

constexpr int kAppSig = 20;
constexpr unsigned kNoHandlers = 0x1000000;
constexpr unsigned kNoLogging = 0x2000000;

template <typename... A>
std::string format(const char* fmt, A... a) {
    char buf[200];
    snprintf(buf, sizeof buf, fmt, static_cast<int>(getpid()), a...);
    return buf;
}

// ------------------------------------------------------- start-up switches

class InitAll : public ::testing::TestWithParam<unsigned> {};

void expectHandlerState(bool installed) {
    struct sigaction term, pipe;
    sigaction(SIGTERM, nullptr, &term);
    sigaction(SIGPIPE, nullptr, &pipe);
    for (const struct sigaction* a : {&term, &pipe}) {
        EXPECT_EQ(a->sa_flags & (SA_SIGINFO | SA_NOCLDWAIT), installed ? SA_SIGINFO | SA_NOCLDWAIT : 0);
        EXPECT_EQ(a->sa_sigaction, term.sa_sigaction) << "one handler for both";
    }
}

// Whether `sig` has kel's handler, the one of SIGTERM.
bool kelTakes(int sig) {
    struct sigaction term, a;
    sigaction(SIGTERM, nullptr, &term), sigaction(sig, nullptr, &a);
    return (a.sa_flags & SA_SIGINFO) && a.sa_sigaction == term.sa_sigaction;
}
constexpr int kOptional[] = {SIGINT, SIGHUP, SIGUSR1, SIGUSR2};

TEST_P(InitAll, SwitchBitsSelectHandlersAndLogging) {
    const bool handlers = !(GetParam() & kNoHandlers), logging = !(GetParam() & kNoLogging);
    unsetenv("KEL_LOG_LEVEL");
    kellog::kel_log_set_level(LOG_INFO);
    char conf[] = "/tmp/kel-conf-XXXXXX";
    int fd = mkstemp(conf);
    ASSERT_EQ(write(fd, "level=20\n", 9), 9);
    close(fd);
    KelLoop::init_all(GetParam(), "kel-probe-name", conf);  // the level comes from confpath
    unlink(conf);
    EXPECT_TRUE(Kel::isAlive());
    expectHandlerState(handlers);
    for (int sig : kOptional) EXPECT_FALSE(kelTakes(sig)) << "not asked for: " << sig;
    EXPECT_EQ(threadsNamed("kel-signal"), handlers ? 1 : 0);
    EXPECT_EQ(kellog::kel_log_get_level(), logging ? LOG_DUMP : LOG_INFO);
    KelLoop::uninit_all();
    EXPECT_FALSE(Kel::isAlive());
    expectHandlerState(handlers);  // uninit_all restores nothing
}

INSTANTIATE_TEST_SUITE_P(DefLevel, InitAll,
                         ::testing::Values(0xff, kNoHandlers, kNoLogging, kNoHandlers | kNoLogging),
                         [](const ::testing::TestParamInfo<unsigned>& i) { return std::to_string(i.param); });

// ------------------------------------------------------------ signal loop

void say(const char* text) { (void)!write(STDERR_FILENO, text, strlen(text)); }

// Records what the loop calls. `order` is written on the loop's thread only.
class RecLoop : public KelLoop {
public:
    RecLoop() : KelLoop(64) {}
    void occurSysError() override { say("[occurSysError]\n"); }

    void poweroff() override { order.push_back("poweroff"); }
    void interrupt() override { order.push_back("interrupt"); }
    bool broadcast(int w, int l) override {
        broadcasts.fetch_add(1);
        if (w != static_cast<int>(getpid())) foreignSenders.fetch_add(1);
        if (recordOrder) order.push_back("broadcast " + std::to_string(w) + " " + std::to_string(l));
        return true;
    }
    void procSubMsg(const QEvt* e) override {
        received.fetch_add(1);
        long msg = static_cast<const GeneralQEvt*>(e)->lParam;
        if (recordOrder) order.push_back("app " + std::to_string(msg));
        if (msg == stopOnMessage) exitLoop();
    }

    std::atomic<long> broadcasts{0}, foreignSenders{0}, received{0};
    bool recordOrder = true;
    long stopOnMessage = -1;
    std::vector<std::string> order;
};

bool postApp(long msg) { return postGeneral(_loop, kAppSig, 0, msg); }

class SignalLoop : public KelTest {
protected:
    void SetUp() override {  // the capture before the handler exists, so that it sees every line
        cap = new LogCapture;
        KelLoop::init_all(0, "kel-test", nullptr);
        loop = rec = new RecLoop;
    }
    void TearDown() override {
        EXPECT_TRUE(loop->eventQueue()->isEmpty());
        KelTest::TearDown();
        delete cap;
    }
    LogCapture* cap = nullptr;
    RecLoop* rec = nullptr;
};

// SIGPIPE is only logged; SIGINT interrupts, SIGTERM from another thread
// powers off, each after its line.
TEST_F(SignalLoop, PipeIsLoggedInterruptAndTermStopTheLoop) {
    raise(SIGPIPE);
    ASSERT_EQ(cap->lines().size(), 1u);
    EXPECT_EQ(cap->count(format("Application[%d] signal:13 tigger"), LOG_ERROR), 1);
    installKelHandlerFor(SIGINT);
    std::thread sender([] { kill(getpid(), SIGINT); });
    EXPECT_EQ(rec->execLoop(), 0);
    sender.join();
    EXPECT_EQ(cap->count(format("Application[%d] 'Ctrl+C' tigger."), LOG_WARN), 1);
    Kel::init();
    std::thread term([] { kill(getpid(), SIGTERM); });
    EXPECT_EQ(rec->execLoop(), 0);
    term.join();
    EXPECT_EQ(rec->order, (std::vector<std::string>{"interrupt", "poweroff"}));
    const char* line = "Application[%d] will poweroff or terminal, loop handler: %p";
    EXPECT_EQ(cap->count(format(line, static_cast<void*>(loop)), LOG_WARN), 1);
}

class UserSignal : public SignalLoop, public ::testing::WithParamInterface<int> {};
// The signal's value and sender reach broadcast ahead of queued events.
TEST_P(UserSignal, ValueOvertakesQueuedEvents) {
    installKelHandlerFor(GetParam());
    for (long m = 1; m <= 3; ++m) ASSERT_TRUE(postApp(m));
    QEQueueCtr before = rec->eventQueue()->getNFree();
    ASSERT_EQ(sigqueue(getpid(), GetParam(), sigval{1234}), 0);
    ASSERT_TRUE(
        waitUntil([&] { return rec->eventQueue()->getNFree() != before; }));  // posted by the signal thread
    rec->stopOnMessage = 3;
    EXPECT_EQ(rec->execLoop(), 0);
    EXPECT_EQ(rec->order, (std::vector<std::string>{format("broadcast %d 1234"), "app 1", "app 2", "app 3"}));
}

INSTANTIATE_TEST_SUITE_P(Usr, UserSignal, ::testing::Values(SIGUSR1, SIGUSR2));

// Each signal asked for alone takes its branch; the others keep their
// default action.
struct OptIn {
    unsigned bit;
    int sig;
    const char* line;  // logged by the handler, with the pid
    int level;
    const char* first;  // what the loop does first, with the pid
};
void PrintTo(const OptIn& r, std::ostream* os) { *os << "signal " << r.sig; }
class OptInSignal : public SignalLoop, public ::testing::WithParamInterface<OptIn> {
    void SetUp() override { KelLoop::enableSignals(GetParam().bit), SignalLoop::SetUp(); }
};
TEST_P(OptInSignal, TakesTheBranchOfItsSignal) {
    const OptIn& row = GetParam();
    for (int sig : kOptional) EXPECT_EQ(kelTakes(sig), sig == row.sig) << sig;
    pthread_sigqueue(pthread_self(), row.sig, sigval{0});  // as raise, with a value of 0
    ASSERT_TRUE(waitUntil([&] { return row.sig == SIGHUP || !loop->eventQueue()->isEmpty(); }));
    rec->stopOnMessage = 99;
    ASSERT_TRUE(row.sig == SIGINT || postApp(99));
    EXPECT_EQ(rec->execLoop(), 0);
    std::vector<std::string> want;
    if (row.first != nullptr) want.push_back(format(row.first));
    if (row.sig != SIGINT) want.push_back("app 99");
    EXPECT_EQ(rec->order, want);
    EXPECT_TRUE(row.line == nullptr || cap->count(format(row.line), row.level) == 1);
}
INSTANTIATE_TEST_SUITE_P(Mask, OptInSignal,
                         ::testing::Values(OptIn{KEL_SIGNAL_INT, SIGINT, "Application[%d] 'Ctrl+C' tigger.",
                                                 LOG_WARN, "interrupt"},
                                           OptIn{KEL_SIGNAL_HUP, SIGHUP, "Application[%d] signal:1 tigger",
                                                 LOG_ERROR, nullptr},
                                           OptIn{KEL_SIGNAL_USR1, SIGUSR1, nullptr, 0, "broadcast %d 0"},
                                           OptIn{KEL_SIGNAL_USR2, SIGUSR2, nullptr, 0, "broadcast %d 0"}));

// -------------------------------------------------- branches that end it all

// Starts the framework in the child, with the handler also on `sig`, then
// raises `sig` and waits for the end.
[[noreturn]] void raiseInChild(int sig, bool withLoop) {
    Watchdog dog(30);
    KelLoop::init_all(0, "kel-child", nullptr);
    if (withLoop) new RecLoop;  // lives until the process ends
    atexit([] { say("[exit handlers]\n"); });
    installKelHandlerFor(sig);
    raise(sig);
    for (;;) pause();
}

struct Fatal {
    int sig;
    bool withLoop;
    const char* output;
};
class FatalBranch : public ::testing::TestWithParam<Fatal> {};

// Error: log, tell the loop, exit(1) with the exit handlers; exit: skip the
// loop; terminate without a loop: exit as well.
TEST_P(FatalBranch, LogsAndExitsThroughTheExitHandlers) {
    GTEST_FLAG_SET(death_test_style, KEL_DEATH_TEST_STYLE);
    EXPECT_EXIT(raiseInChild(GetParam().sig, GetParam().withLoop), ::testing::ExitedWithCode(1),
                GetParam().output);
}

INSTANTIATE_TEST_SUITE_P(
    Branches, FatalBranch,
    ::testing::Values(
        Fatal{SIGSEGV, true, "Occur error by signal:11 !!!.*\\[occurSysError\\].*\\[exit handlers\\]"},
        Fatal{SIGFPE, false, "Occur error by signal:8 !!!.*\\[exit handlers\\]"},
        Fatal{SIGQUIT, true, "will exit by signal:3\n.*\\[exit handlers\\]"},
        Fatal{SIGTERM, false, "will poweroff or terminal, loop handler: \\(nil\\).*\\[exit handlers\\]"}));

// The signal thread is ended and joined on the way out, so that nothing of
// it is left for a leak checker. Checked by an exit handler that runs after
// the framework's own.
TEST_F(FatalBranch, SignalThreadIsJoinedAtExit) {
    auto child = [] {
        atexit([] {
            for (int i = 0; i < 2000 && threadsNamed("kel-signal") != 0; ++i) usleep(1000);
            say(threadsNamed("kel-signal") == 0 ? "[joined]\n" : "[left]\n");
        });
        KelLoop::init_all(0, "kel-child", nullptr);
        exit(0);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "\\[joined\\]");
}

// A forked child without a signal thread of its own does in the handler only
// what is safe there; the loop is the parent's, so SIGTERM ends the child.
TEST_F(SignalLoop, TermInForkedChildWithoutSignalThreadEndsIt) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer holds back signals in a child forked from threads";
#endif
    pid_t pid = fork();
    if (pid == 0) {
        raise(SIGTERM);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
}

// ------------------------------------------------------------------ storm

// Counts the lines that tell of a lost request, from any thread and from
// signal context (atomics only).
std::atomic<long> gHandOverFull{0}, gSignalNoBlock{0}, gUserDropped{0}, gAppDropped{0};

void countingLog(const char*, int, const char*, int, int, int, const char* fmt, ...) {
    char name[17] = {0};
    va_list ap;
    va_start(ap, fmt);
    if (strcmp(fmt, "Application[%d] signal:%d dropped, hand-over full") == 0)
        gHandOverFull.fetch_add(1);
    else if ((strcmp(fmt, "not free blocks") == 0 || strcmp(fmt, "event not posted") == 0) &&
             (prctl(PR_GET_NAME, name, 0, 0, 0), strcmp(name, "kel-signal") == 0))
        gSignalNoBlock.fetch_add(1);
    else if (strcmp(fmt, "queue full, event %d dropped for a LIFO post") == 0)
        (va_arg(ap, int) == SIG_SYS_USER_SIGNAL ? gUserDropped : gAppDropped).fetch_add(1);
    va_end(ap);
}

void (*gKelHandler)(int, siginfo_t*, void*) = nullptr;
std::atomic<long> gEntered{0}, gLeft{0};

void countingHandler(int sig, siginfo_t* info, void* ctx) {
    gEntered.fetch_add(1);
    gKelHandler(sig, info, ctx);
    gLeft.fetch_add(1);
}

bool usr1Pending(int tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(f, line);)
        if ((line.rfind("SigPnd:", 0) == 0 || line.rfind("ShdPnd:", 0) == 0) &&
            (std::stoull(line.substr(7), nullptr, 16) & (1ULL << (SIGUSR1 - 1))))
            return true;
    return false;
}

TEST_F(SignalLoop, StormOfUserSignalsWhileThreadsPost) {
    const int kSignals = static_cast<int>(100000 * stressSeconds(1.0));
    struct sigaction act;
    sigaction(SIGTERM, nullptr, &act);
    gKelHandler = std::exchange(act.sa_sigaction, countingHandler);
    sigaction(SIGUSR1, &act, nullptr);
    KelLogFunction oldLog = std::exchange(__logprintf, countingLog);
    rec->recordOrder = false;
    int ret = -2;
    std::atomic<bool> stopPosting{false};
    std::atomic<long> posted{0};
    std::atomic<int> tids[3] = {{0}, {0}, {0}};  // the loop's and the posters'
    std::vector<std::thread> threads;
    threads.emplace_back([&] { tids[0] = currentTid(), ret = rec->execLoop(); });
    for (int p = 1; p <= 2; ++p) {
        threads.emplace_back([&, p] {
            tids[p].store(currentTid());
            for (long i = 0; !stopPosting.load(); ++i)
                postApp(i) ? void(posted.fetch_add(1)) : std::this_thread::yield();
        });
    }
    ASSERT_TRUE(waitUntil([&] { return tids[0].load() && tids[1].load() && tids[2].load(); }));
    // Aimed at the threads that allocate, post and release, so that the
    // handler interrupts them inside the event core.
    for (int i = 0; i < kSignals; ++i) pthread_kill(threads[i % 3].native_handle(), SIGUSR1);
    waitUntil(
        [&] {
            return !usr1Pending(tids[0]) && !usr1Pending(tids[1]) && !usr1Pending(tids[2]) &&
                   gEntered.load() == gLeft.load();
        },
        120);
    stopPosting.store(true);
    threads[1].join();
    threads[2].join();
    // Every request that the handler took must reach broadcast, unless the
    // log tells that it found no block or gave way on a full queue.
    long accepted = gEntered.load() - gHandOverFull.load();
    auto accounted = [&] { return rec->broadcasts.load() + gSignalNoBlock.load() + gUserDropped.load(); };
    waitUntil([&] { return accounted() >= accepted; }, 120);
    while (!rec->postCmd(SIG_EVENT_LOOP_EXIT)) std::this_thread::yield();
    threads[0].join();
    __logprintf = oldLog;
    EXPECT_EQ(ret, 0);
    EXPECT_GT(rec->broadcasts.load(), 0);
    EXPECT_EQ(accounted(), accepted);
    EXPECT_EQ(rec->foreignSenders.load(), 0);
    EXPECT_EQ(rec->received.load(), posted.load() - gAppDropped.load());
}

}  // namespace
