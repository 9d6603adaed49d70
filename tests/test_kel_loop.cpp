// The main loop: dispatch table, order of timers and events, wake-ups,
// getMessage, misuse, exhausted pools and a full queue, load from several
// threads.
#include <fstream>

#include "kel_state.h"
#include "state_mache.h"
#include "support/loop_harness.h"

namespace {

enum { SIG_APP = SIG_INNER_PROC + 1, SIG_APP2 };
using Calls = std::vector<std::string>;

// Records what reaches the loop, on the loop's thread.
class RecLoop : public KelLoop {
public:
    explicit RecLoop(unsigned msgs) : KelLoop(msgs) {}
    void poweroff() override { calls.push_back("poweroff"); }
    void interrupt() override { calls.push_back("interrupt"); }
    void occurSysError() override { calls.push_back("error"); }
    bool broadcast(int w, int l) override {
        calls.push_back("broadcast " + std::to_string(w) + " " + std::to_string(l));
        return w != 0;
    }
    void procSubMsg(const QEvt* e) override {
        calls.push_back("app " + std::to_string(e->sig));
        seen.push_back(static_cast<const GeneralQEvt*>(e)->lParam);
        if (onEvent) onEvent(e);
        dispatched.fetch_add(1, std::memory_order_release);
    }
    Calls calls;
    std::vector<long> seen;
    std::function<void(const QEvt*)> onEvent;
    std::atomic<int> dispatched{0};
    using KelLoop::getMessage;
    using KelLoop::recycleEvent;
};

struct LoopTest : KelTest {
    RecLoop* make(unsigned msgs = 16) { return static_cast<RecLoop*>(loop = new RecLoop(msgs)); }
};

void idle(ATimer*, void*) {}

// A machine of one state that records the messages it translates; it
// starts with 5, 7 and 9 held back.
struct RecState : KelState {
    int translate(const StateQEvt* e) override {
        return msgs.push_back(e->stateMsg), state::STATE_RETURN_NORMAL;
    }
    std::vector<long> msgs;
};
struct HoldingMache : StateMache {
    HoldingMache() : StateMache(1, 0) {
        registStates(rec, "only", 0);
        StateQEvt e;
        e.sig = SIG_STATE_DELAY_EVENT;
        for (long m : {5, 7, 9}) e.stateMsg = m, postEvent(&e);
    }
    bool test_event(int) override { return true; }
    RecState* rec = new RecState;  // the machine's
};

}  // namespace

TEST_F(LoopTest, DispatchTableAndStoppingSignals) {
    // Each stopping signal, and a broadcast that answers false: its virtual
    // operation once, then execLoop returns 0 with the event behind the stop
    // still queued.
    const std::pair<int, const char*> cases[] = {{SIG_SYSTEM_POWEROFF, "poweroff"},
                                                 {SIG_SYS_SIGNAL_INT, "interrupt"},
                                                 {SIG_SYS_ERROR_OCCUR, "error"},
                                                 {SIG_SYS_USER_SIGNAL, "broadcast 0 1"},
                                                 {SIG_EVENT_LOOP_EXIT, nullptr}};
    RecLoop* l = make();
    for (const auto& c : cases) {
        l->calls.clear();
        Kel::init();  // each execLoop ends with Kel::uninit
        postGeneral(l, SIG_INVALID);
        postGeneral(l, SIG_INNER_PROC);
        postGeneral(l, SIG_SYS_USER_SIGNAL, 5, -6);
        postGeneral(l, SIG_APP);
        postGeneral(l, c.first, 0, 1);
        postGeneral(l, SIG_APP2);
        EXPECT_EQ(l->execLoop(), 0);
        Calls want = {"broadcast 5 -6", "app 9"};
        if (c.second) want.push_back(c.second);
        EXPECT_EQ(l->calls, want);
        EXPECT_FALSE(Kel::isAlive());
        const QEvt* left = l->eventQueue()->get();
        ASSERT_NE(left, nullptr);
        EXPECT_EQ(left->sig, SIG_APP2);
        Kel::gc(left);
    }
}

TEST_F(LoopTest, DueTimerFirstThenEventsAndPostsFromTheLoopThreadComeLaterWithoutWakeUp) {
    RecLoop* l = make();
    ATimer t;
    t.setHandler([](ATimer*, void* p) { static_cast<RecLoop*>(p)->calls.push_back("timer"); }, l);
    t.restart(-5);
    uint32_t wakeupsInHandler = 1;
    l->onEvent = [&](const QEvt* e) {
        if (e->sig != SIG_APP) return;
        uint32_t before = Kel::wakeups();
        postGeneral(l, SIG_APP2);
        l->wakeupCore();
        l->exitLoop();
        wakeupsInHandler = Kel::wakeups() - before;
        l->calls.push_back("posted");
    };
    postGeneral(l, SIG_APP);
    EXPECT_EQ(l->execLoop(), 0);
    EXPECT_TRUE(l->isLooping()) << "the loop's thread stays the loop's thread";
    EXPECT_EQ(wakeupsInHandler, 0u);
    EXPECT_EQ(l->calls, (Calls{"timer", "app 9", "posted", "app 10"}));
}

TEST_F(LoopTest, PostedTimerNodeReplacesTheOlderOne) {
    RecLoop* l = make();
    ATimer t;
    t.setHandler(idle, nullptr);
    t.restart(60000);
    const unsigned freeBefore = l->timerList()->nodePool()->getNFree();
    t.setInternal(60, 0);
    NodeTimer* n = static_cast<NodeTimer*>(KelLoop::newEvt(SIG_TIMER_ADD, sizeof(NodeTimer)));
    n->setProc(&t);
    ASSERT_TRUE(l->post(n));
    l->exitLoop();
    EXPECT_EQ(l->execLoop(), 0);
    EXPECT_EQ(n->refCtr_, 1);  // kept by the list
    EXPECT_EQ(l->timerList()->nodePool()->getNFree(), freeBefore);
    t.stop();
}

TEST_F(LoopTest, GetMessageHandsOutAppEventsWithTheirReference) {
    RecLoop* l = make();
    postGeneral(l, SIG_APP, 41);
    l->postCmd(SIG_SYSTEM_POWEROFF);
    const QEvt* e = nullptr;
    ASSERT_TRUE(l->getMessage(e));
    EXPECT_EQ(static_cast<const GeneralQEvt*>(e)->wParam, 41);
    EXPECT_EQ(e->refCtr_, 1);
    l->recycleEvent(e);
    EXPECT_FALSE(l->getMessage(e));
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(l->calls, Calls{"poweroff"});  // procSubMsg never called
    EXPECT_TRUE(Kel::isAlive()) << "getMessage leaves the event mutex to uninit_all";
}

// Each misuse asserts before it changes anything, and the loop goes on.
TEST_F(LoopTest, MisuseAssertsWithoutSideEffects) {
    EXPECT_THROW(ATimer t, std::runtime_error) << "a timer before the loop";
    RecLoop* l = make();
    EXPECT_THROW(RecLoop second(8), std::runtime_error);
    EXPECT_EQ(_loop, l);
    EXPECT_THROW(l->post(nullptr), std::runtime_error);
    EXPECT_THROW(l->postLIFO(nullptr), std::runtime_error);
    EXPECT_THROW(l->procStateEvent(nullptr), std::runtime_error);
    l->setStateMacheHandler(reinterpret_cast<StateMache*>(l));
    EXPECT_THROW(l->setStateMacheHandler(reinterpret_cast<StateMache*>(l)), std::runtime_error);
    ATimer t;
    EXPECT_THROW(t.restart(10), std::runtime_error) << "restart without a handler";
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(l->eventQueue()->isEmpty());
}

// With no block anywhere every allocation refuses, touches no pool and sends
// no wake-up; the machine starts all the same, and a retry works later.
TEST_F(LoopTest, ExhaustedPoolsRefuseEveryAllocationAndRecover) {
    RecLoop* l = make(8);
    HoldingMache mache;
    std::vector<QEvt*> hog;
    ATimer timer;
    timer.setHandler(idle, nullptr);
    LogCapture cap;
    while (QEvt* e = KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt))) hog.push_back(e);
    uint32_t wakeups = Kel::wakeups();
    EXPECT_EQ(KelLoop::newEvt(SIG_APP, sizeof(StateQEvt)), nullptr);
    EXPECT_FALSE(l->postCmd(SIG_APP));
    timer.restart(10);
    mache.initialize();
    EXPECT_EQ(Kel::wakeups(), wakeups) << "a refused allocation sends no wake-up";
    EXPECT_FALSE(timer.isRunning());
    EXPECT_TRUE(mache.isInitialized());
    EXPECT_TRUE(l->eventQueue()->isEmpty());
    Kel::gc(hog.back());
    hog.pop_back();
    timer.restart(0);
    EXPECT_TRUE(timer.isRunning());
    timer.stop();
    ASSERT_TRUE(postGeneral(l, SIG_APP, 0, 1));
    for (QEvt* e : hog) Kel::gc(e);
    ASSERT_TRUE(l->post(newStateEvt(11)));
    l->exitLoop();
    EXPECT_EQ(l->execLoop(), 0);
    EXPECT_EQ(l->seen, std::vector<long>{1});
    EXPECT_EQ(mache.rec->msgs, std::vector<long>{11});
}

// A full queue refuses posts and commands (the event stays with its caller,
// the command's block goes home) but still wakes the loop; a replay of
// held-back events goes first all the same, the newest events giving way.
TEST_F(LoopTest, FullQueueRefusesPostsAndKeepsWhatItHolds) {
    RecLoop* l = make(200);
    HoldingMache mache;
    long n = 0;
    while (l->eventQueue()->getNFree() != 0) ASSERT_TRUE(postGeneral(l, SIG_APP, 0, n++));
    ASSERT_EQ(n, 129);
    GeneralQEvt* e = newGeneral(SIG_APP, 0, 200);
    const unsigned freeGeneral = l->generalPool()->getNFree();
    LogCapture cap;
    uint32_t wakeups = Kel::wakeups();
    EXPECT_FALSE(l->post(e));
    EXPECT_EQ(e->refCtr_, 0) << "a refused event keeps its count";
    EXPECT_FALSE(l->postCmd(SIG_APP));
    EXPECT_EQ(Kel::wakeups(), wakeups + 2) << "a refused post wakes the loop all the same";
    EXPECT_EQ(l->generalPool()->getNFree(), freeGeneral) << "the refused command's block went home";
    mache.initialize();  // the three newest give way
    LoopRunner runner(l);
    ASSERT_TRUE(waitUntil([&] { return l->dispatched.load() == 126; }));
    ASSERT_TRUE(l->post(e)) << "the caller's retry";
    l->exitLoop();
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(mache.rec->msgs, (std::vector<long>{5, 7, 9}));
    ASSERT_EQ(l->seen.size(), 127u);
    for (long i = 0; i < 126; ++i) EXPECT_EQ(l->seen[i], i);
    EXPECT_EQ(l->seen.back(), 200);
}

// Producers on other threads for a while (longer under the soak label):
// each event arrives once and in its producer's order, and a post racing
// the loop's way into its wait is never left for a later wake-up.
TEST_F(LoopTest, StressProducersFromOtherThreads) {
    constexpr int kProducers = 4;
    RecLoop* l = make(32);
    std::vector<long> next(kProducers, 0), sent(kProducers, 0);
    long errors = 0;
    l->onEvent = [&](const QEvt* e) {
        const GeneralQEvt* g = static_cast<const GeneralQEvt*>(e);
        bool ok = g->wParam >= 0 && g->wParam < kProducers && g->lParam == next[g->wParam];
        ok ? ++next[g->wParam] : ++errors;
        l->calls.clear();
        l->seen.clear();
    };
    LogCapture quiet;  // refusals are expected and retried
    LoopRunner runner(l);
    for (sent[0] = 0; sent[0] < 2000; ++sent[0]) {  // one at a time
        ASSERT_TRUE(postGeneral(l, SIG_APP, 0, sent[0]));
        ASSERT_TRUE(waitUntil([&] { return l->dispatched.load() == sent[0] + 1; }, 10)) << "lost wake-up";
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(stressSeconds(1.0));
    std::vector<std::thread> threads;
    for (int p = 1; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            while (std::chrono::steady_clock::now() < end) {
                if (postGeneral(l, SIG_APP, p, sent[p]))
                    ++sent[p];
                else
                    std::this_thread::yield();
            }
        });
    }
    for (auto& t : threads) t.join();
    while (!l->postCmd(SIG_EVENT_LOOP_EXIT)) std::this_thread::yield();  // exitLoop is lost on a full queue
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(next, sent);
}

// An application may post any signal: a state event without a machine is
// released and the loop goes on. Once execLoop has returned no loop takes
// events: posts are refused like a full queue's, and every block stays or
// goes home.
TEST_F(LoopTest, PostsAfterTheLoopHasEndedAreRefused) {
    RecLoop* l = make();
    LogCapture cap;
    postGeneral(l, SIG_STATE_DELAY_EVENT);
    postGeneral(l, SIG_APP);
    l->exitLoop();
    EXPECT_EQ(l->execLoop(), 0);
    EXPECT_EQ(l->calls, Calls{"app 9"});
    QEvt* e = KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt));
    EXPECT_FALSE(l->post(e));
    EXPECT_FALSE(l->postLIFO(e));
    EXPECT_EQ(e->refCtr_, 0);
    Kel::gc(e);
    EXPECT_FALSE(l->postCmd(SIG_APP));
    EXPECT_TRUE(l->eventQueue()->isEmpty());
}

// A turn serves due timers, then ready descriptors, then one event. Level-
// triggered: a descriptor left unread comes again. An unwatch from a handler
// takes effect at once, also for a readiness collected in the same wait.
TEST_F(LoopTest, WatchedDescriptorsComeAfterDueTimersAndBeforeTheEvent) {
    RecLoop* l = make();
    static int p[2][2];
    ATimer t;
    t.setHandler([](ATimer*, void* p) { static_cast<RecLoop*>(p)->calls.push_back("timer"); }, l);
    KelFdHandler h = [](int fd, unsigned ready, void* arg) {  // 1st call: unwatches the other; 2nd: reads
        RecLoop* l = static_cast<RecLoop*>(arg);
        l->calls.push_back("fd " + std::to_string(ready));
        char c;
        if (l->calls.size() == 2) {
            EXPECT_TRUE(l->unwatchFd(fd == p[0][0] ? p[1][0] : p[0][0]));
        } else if (read(fd, &c, 1) == 1) {
            l->exitLoop();
        }
    };
    for (auto& f : p)
        ASSERT_TRUE(pipe(f) == 0 && write(f[1], "x", 1) == 1 && l->watchFd(f[0], KEL_FD_IN, h, l));
    t.restart(-5);
    postGeneral(l, SIG_APP);
    EXPECT_EQ(l->execLoop(), 0);
    EXPECT_EQ(l->calls, (Calls{"timer", "fd 1", "app 9", "fd 1"}));
    EXPECT_NE(l->unwatchFd(p[0][0]), l->unwatchFd(p[1][0])) << "one was unwatched by the handler";
    for (auto& f : p) close(f[0]), close(f[1]);
}

// modifyFd changes what counts as ready; once unwatchFd has returned on
// another thread the handler has ended and is not called again.
TEST_F(LoopTest, UnwatchFromAnotherThreadWaitsForTheRunningHandler) {
    RecLoop* l = make();
    int p[2];
    ASSERT_TRUE(pipe(p) == 0 && write(p[1], "x", 1) == 1);
    static std::atomic<int> calls{0}, inside{0};
    KelFdHandler h = [](int, unsigned, void*) {  // never reads: called on every turn
        inside = 1, ++calls;
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        inside = 0;
    };
    EXPECT_FALSE(l->watchFd(-1, KEL_FD_IN, h, nullptr));
    ASSERT_TRUE(l->watchFd(p[0], KEL_FD_OUT, h, nullptr));  // a read end is never writable
    EXPECT_FALSE(l->watchFd(p[0], KEL_FD_IN, h, nullptr)) << "one registration per descriptor";
    LoopRunner run(l);
    postGeneral(l, SIG_APP);
    ASSERT_TRUE(waitUntil([&] { return l->dispatched == 1; }));
    EXPECT_EQ(calls, 0);
    ASSERT_TRUE(l->modifyFd(p[0], KEL_FD_IN));
    ASSERT_TRUE(waitUntil([&] { return calls > 0; }));
    EXPECT_TRUE(l->unwatchFd(p[0]));
    EXPECT_EQ(inside, 0);
    const int n = calls;
    postGeneral(l, SIG_APP);
    ASSERT_TRUE(waitUntil([&] { return l->dispatched == 2; }));
    EXPECT_EQ(calls, n);
    EXPECT_FALSE(l->unwatchFd(p[0]) || l->modifyFd(p[0], KEL_FD_IN));
    close(p[0]), close(p[1]);
}

// With ten descriptors watched, a post, a timer armed from another thread
// and a readiness each end the wait; an idle loop does not wake at all.
TEST_F(LoopTest, PostsTimersAndReadinessEndTheWaitAndAnIdleLoopSleeps) {
    RecLoop* l = make();
    int p[10][2];
    static std::atomic<int> reads{0}, fired{0}, tid{0};
    KelFdHandler h = [](int fd, unsigned, void*) {
        char c;
        reads += static_cast<int>(read(fd, &c, 1));
    };
    for (auto& f : p) ASSERT_TRUE(pipe(f) == 0 && l->watchFd(f[0], KEL_FD_IN, h, nullptr));
    l->onEvent = [&](const QEvt*) { tid = currentTid(); };
    LoopRunner run(l);
    ATimer t;
    t.setHandler([](ATimer*, void* p) { ++*static_cast<std::atomic<int>*>(p); }, &fired);
    for (int i = 1; i <= 30; ++i) {
        postGeneral(l, SIG_APP);
        ASSERT_TRUE(waitUntil([&] { return l->dispatched == i; }));
        t.restart(1);
        ASSERT_TRUE(waitUntil([&] { return fired == i; }));
        ASSERT_EQ(write(p[i % 10][1], "x", 1), 1);
        ASSERT_TRUE(waitUntil([&] { return reads == i; }));
    }
    auto switches = [&] {  // of the loop's thread
        std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/status");
        long n = 0, sum = 0;
        for (std::string k; f >> k;) sum += k.find("ctxt_switches:") != std::string::npos && f >> n ? n : 0;
        return sum;
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const long before = switches();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(switches(), before) << "an idle loop sleeps";
    for (auto& f : p) EXPECT_TRUE(l->unwatchFd(f[0]) && close(f[0]) == 0 && close(f[1]) == 0);
}
