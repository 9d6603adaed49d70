// The main loop: dispatch table, order of timers and events, wake-ups,
// getMessage, stopping, and load from several threads.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app_timer.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_timer.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

namespace {

enum { SIG_APP = SIG_INNER_PROC + 1, SIG_APP2, SIG_STOP_AFTER };

// A loop that records what reaches it, on the loop's thread.
class RecordingLoop : public KelLoop {
public:
    explicit RecordingLoop(unsigned msgs = 16) : KelLoop(msgs) {}

    void poweroff() override { calls.push_back("poweroff"); }
    void interrupt() override { calls.push_back("interrupt"); }
    void occurSysError() override { calls.push_back("error"); }
    bool broadcast(int w, int l) override {
        calls.push_back("broadcast " + std::to_string(w) + " " + std::to_string(l));
        return w != 0;
    }
    void procSubMsg(const QEvt* e) override {
        calls.push_back("app " + std::to_string(e->sig));
        if (onEvent) onEvent(e);
        dispatched.fetch_add(1, std::memory_order_release);
    }

    std::vector<std::string> calls;
    std::function<void(const QEvt*)> onEvent;
    std::atomic<int> dispatched{0};

    using KelLoop::getMessage;
    using KelLoop::initThreadPrivate;
    using KelLoop::recycleEvent;
};

struct LoopTest : ::testing::Test {
    void SetUp() override {
        armWatchdog();
        startFramework();
    }
    static bool postApp(KelLoop* loop, int sig, long w = 0) {
        GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(sig, sizeof(GeneralQEvt)));
        if (e == nullptr) return false;
        e->wParam = w;
        if (loop->post(e)) return true;
        Kel::gc(e);
        return false;
    }
};

void noop(ATimer*, void*) {}

}  // namespace

TEST_F(LoopTest, DispatchTableAndStoppingSignals) {
    // Each stopping signal: its virtual operation once, then execLoop returns 0.
    struct Case {
        int sig;
        const char* call;
    } cases[] = {{SIG_SYSTEM_POWEROFF, "poweroff"},
                 {SIG_SYS_SIGNAL_INT, "interrupt"},
                 {SIG_SYS_ERROR_OCCUR, "error"},
                 {SIG_EVENT_LOOP_EXIT, nullptr}};
    RecordingLoop loop;
    const PoolCounts full = freeBlocks(&loop);
    for (const Case& c : cases) {
        loop.calls.clear();
        Kel::init();  // each execLoop ends with Kel::uninit
        LogCapture cap;
        postApp(&loop, SIG_INVALID);
        postApp(&loop, SIG_INNER_PROC);
        postApp(&loop, SIG_APP);
        loop.postCmd(c.sig);
        postApp(&loop, SIG_APP2);  // behind the stop: never dispatched
        EXPECT_EQ(loop.execLoop(), 0);
        std::vector<std::string> want = {"app 9"};
        if (c.call) want.push_back(c.call);
        EXPECT_EQ(loop.calls, want);
        EXPECT_EQ(cap.count("[0] Event is UNKOWN.", LOG_DEBUG), 1);
        EXPECT_EQ(cap.count("[8] Event is UNKOWN.", LOG_DEBUG), 1);
        EXPECT_EQ(cap.count("PowerOff", LOG_DEBUG), c.sig == SIG_SYSTEM_POWEROFF ? 1 : 0);
        EXPECT_FALSE(Kel::isAlive());
        // The one left behind stays queued and out of its pool.
        const QEvt* left = loop.eventQueue()->get();
        ASSERT_NE(left, nullptr);
        EXPECT_EQ(left->sig, SIG_APP2);
        Kel::gc(left);
        EXPECT_EQ(freeBlocks(&loop), full);
    }
}

TEST_F(LoopTest, BroadcastResultDecidesWhetherTheLoopGoesOn) {
    RecordingLoop loop;
    GeneralQEvt* go = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_SYS_USER_SIGNAL, sizeof(GeneralQEvt)));
    go->wParam = 5;
    go->lParam = -6;
    loop.post(go);
    postApp(&loop, SIG_APP);
    GeneralQEvt* stop = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_SYS_USER_SIGNAL, sizeof(GeneralQEvt)));
    stop->wParam = 0;
    stop->lParam = 1;
    loop.post(stop);
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.calls, (std::vector<std::string>{"broadcast 5 -6", "app 9", "broadcast 0 1"}));
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

TEST_F(LoopTest, TwoExitsInTheQueueOnlyTheFirstIsDispatched) {
    RecordingLoop loop;
    loop.exitLoop();
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.eventQueue()->getNFree(), 128u);  // one still queued
}

TEST_F(LoopTest, DueTimerFiresBeforeAQueuedEvent) {
    RecordingLoop loop;
    ATimer t;
    t.setHandler([](ATimer*, void* p) { static_cast<RecordingLoop*>(p)->calls.push_back("timer"); }, &loop);
    t.restart(-5);
    postApp(&loop, SIG_APP);
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.calls, (std::vector<std::string>{"timer", "app 9"}));
}

TEST_F(LoopTest, PostFromTheLoopThreadSendsNoWakeUpAndComesLater) {
    RecordingLoop loop;
    uint32_t wakeupsInHandler = 0;
    loop.onEvent = [&](const QEvt* e) {
        if (e->sig != SIG_APP) return;
        uint32_t before = Kel::wakeups();
        postApp(&loop, SIG_APP2);
        loop.wakeupCore();
        loop.exitLoop();
        wakeupsInHandler = Kel::wakeups() - before;
        loop.calls.push_back("posted");
    };
    postApp(&loop, SIG_APP);
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(wakeupsInHandler, 0u);
    EXPECT_EQ(loop.calls, (std::vector<std::string>{"app 9", "posted", "app 10"}));
}

TEST_F(LoopTest, IsLoopingNamesTheLoopThreadEvenAfterTheEnd) {
    RecordingLoop loop;
    EXPECT_FALSE(loop.isLooping());
    bool otherThread = true;
    std::thread([&] { otherThread = loop.isLooping(); }).join();
    EXPECT_FALSE(otherThread);
    loop.exitLoop();
    loop.execLoop();
    EXPECT_TRUE(loop.isLooping());
}

TEST_F(LoopTest, WakeupCoreFromAnotherThreadMakesTheLoopReadItsDeadlineAgain) {
    RecordingLoop loop;
    LoopRunner runner(&loop);
    ASSERT_TRUE(postApp(&loop, SIG_APP));
    ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load() == 1; }));
    // Arm a timer behind the loop's back (no wake-up of its own), then wake it.
    std::atomic<int> fired{0};
    ATimer t;
    t.setHandler([](ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); }, &fired);
    t.setInternal(0, 0);
    NodeTimer* n = static_cast<NodeTimer*>(KelLoop::newEvt(SIG_TIMER_ADD, sizeof(NodeTimer)));
    n->setProc(&t);
    loop.timerList()->addTimer(n);
    loop.wakeupCore();
    EXPECT_TRUE(waitUntil([&] { return fired.load() == 1; }));
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

TEST_F(LoopTest, PostedTimerNodeReplacesTheOlderOne) {
    RecordingLoop loop;
    std::atomic<int> fired{0};
    ATimer t;
    t.setHandler([](ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); }, &fired);
    t.restart(60000);
    const unsigned freeBefore = freeBlocks(&loop).timer;
    t.setInternal(60, 0);
    NodeTimer* n = static_cast<NodeTimer*>(KelLoop::newEvt(SIG_TIMER_ADD, sizeof(NodeTimer)));
    n->setProc(&t);
    ASSERT_TRUE(loop.post(n));
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(n->refCtr_, 1);                        // kept by the list
    EXPECT_EQ(freeBlocks(&loop).timer, freeBefore);  // old node home, new one out
    t.stop();
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

TEST_F(LoopTest, GetMessageHandsOutAppEventsWithTheirReference) {
    RecordingLoop loop;
    postApp(&loop, SIG_APP, 41);
    loop.postCmd(SIG_SYSTEM_POWEROFF);
    const QEvt* e = nullptr;
    ASSERT_TRUE(loop.getMessage(e));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->sig, SIG_APP);
    EXPECT_EQ(static_cast<const GeneralQEvt*>(e)->wParam, 41);
    EXPECT_EQ(e->refCtr_, 1);
    EXPECT_EQ(freeBlocks(&loop).timer, totalBlocks(&loop).timer - 2);  // it and the queued command
    loop.recycleEvent(e);
    LogCapture cap;
    EXPECT_FALSE(loop.getMessage(e));
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(cap.count("--------------", LOG_DEBUG), 1);
    EXPECT_EQ(loop.calls, (std::vector<std::string>{"poweroff"}));  // procSubMsg never called
    EXPECT_TRUE(Kel::isAlive()) << "getMessage leaves the event mutex to uninit_all";
    KelLoop::uninit_all();
    EXPECT_FALSE(Kel::isAlive());
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

TEST_F(LoopTest, RefusedCommandGivesItsBlockBack) {
    RecordingLoop loop;
    while (postApp(&loop, SIG_APP)) {
    }
    const PoolCounts before = freeBlocks(&loop);
    EXPECT_FALSE(loop.postCmd(SIG_APP2));
    EXPECT_EQ(freeBlocks(&loop), before);
    while (const QEvt* e = loop.eventQueue()->get()) Kel::gc(e);
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

TEST_F(LoopTest, SetStateMacheHandlerTwiceAsserts) {
    RecordingLoop loop;
    loop.setStateMacheHandler(reinterpret_cast<StateMache*>(&loop));
    EXPECT_THROW(loop.setStateMacheHandler(reinterpret_cast<StateMache*>(&loop)), std::runtime_error);
}

TEST_F(LoopTest, SecondLoopAssertsAndLeavesTheFirstWorking) {
    RecordingLoop loop;
    EXPECT_THROW(RecordingLoop second, std::runtime_error);
    EXPECT_EQ(_loop, &loop);
    postApp(&loop, SIG_APP);
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.calls.size(), 1u);
}

TEST_F(LoopTest, TimerMadeBeforeTheLoopAsserts) { EXPECT_THROW(ATimer t, std::runtime_error); }

// ------------------------------------------------------------ under load

// Many thousands of posts racing the loop's way into its wait: none is left
// waiting for a later wake-up (the loop has no deadline to save it).
TEST_F(LoopTest, NoPostIsLeftWaitingForALaterWakeUp) {
    RecordingLoop loop;
    LoopRunner runner(&loop);
    for (int i = 0; i < 20000; ++i) {
        ASSERT_TRUE(postApp(&loop, SIG_APP));
        ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load(std::memory_order_acquire) == i + 1; }, 10))
            << "post " << i << " was not dispatched: lost wake-up";
    }
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

// 4 producers x 100,000 events: each dispatched exactly once, in each
// producer's order, and all blocks home at the end.
TEST_F(LoopTest, FourProducersEveryEventExactlyOnce) {
    constexpr int kProducers = 4;
    constexpr long kPerProducer = 100000;
    RecordingLoop loop(32);
    std::vector<long> next(kProducers, 0);
    long errors = 0;
    loop.onEvent = [&](const QEvt* e) {
        const GeneralQEvt* g = static_cast<const GeneralQEvt*>(e);
        long p = g->wParam, seq = g->lParam;
        if (p < 0 || p >= kProducers || seq != next[p])
            ++errors;
        else
            ++next[p];
    };
    loop.calls.reserve(0);
    std::atomic<long> retries{0};
    LogCapture quiet;  // refusals are expected and retried
    LoopRunner runner(&loop);
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (long i = 0; i < kPerProducer; ++i) {
                for (;;) {
                    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt)));
                    if (e != nullptr) {
                        e->wParam = p;
                        e->lParam = i;
                        if (loop.post(e)) break;
                        Kel::gc(e);
                    }
                    retries.fetch_add(1, std::memory_order_relaxed);
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& t : producers) t.join();
    loop.exitLoop();
    while (loop.dispatched.load() < kProducers * kPerProducer)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(errors, 0);
    for (int p = 0; p < kProducers; ++p) EXPECT_EQ(next[p], kPerProducer);
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
    RecordProperty("retries", static_cast<int>(retries.load()));
}

namespace {

long voluntarySwitches(pid_t tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stol(line.substr(24));
    }
    return -1;
}

}  // namespace

// An idle loop sleeps: no wake-ups over a second, with no timer and with a
// distant one.
TEST_F(LoopTest, IdleLoopDoesNotWakeUp) {
    RecordingLoop loop;
    std::atomic<pid_t> tid{0};
    loop.onEvent = [&](const QEvt*) { tid.store(static_cast<pid_t>(syscall(SYS_gettid))); };
    LoopRunner runner(&loop);
    ASSERT_TRUE(waitUntil([&] { return postApp(&loop, SIG_APP); }));
    ASSERT_TRUE(waitUntil([&] { return tid.load() != 0; }));
    for (int withTimer = 0; withTimer < 2; ++withTimer) {
        ATimer far;
        far.setHandler(noop, nullptr);
        if (withTimer) far.restart(3600 * 1000);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        long before = voluntarySwitches(tid.load());
        std::this_thread::sleep_for(std::chrono::seconds(1));
        long after = voluntarySwitches(tid.load());
        EXPECT_LE(after - before, 1) << (withTimer ? "with a distant timer" : "with no timer");
        far.stop();
    }
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// An application may post any signal: a state event without a machine is
// logged and released, and the loop goes on.
TEST_F(LoopTest, StrayStateEventWithoutMachineIsLoggedAndReleased) {
    RecordingLoop loop;
    LogCapture cap;
    postApp(&loop, SIG_STATE_DELAY_EVENT);
    postApp(&loop, SIG_APP);
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.calls, (std::vector<std::string>{"app 9"}));
    EXPECT_EQ(cap.count("[2] Event has no state machine.", LOG_ERROR), 1);
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

// Once execLoop has returned no loop takes events: posts are refused like a
// full queue's, with one line each, and every block stays or goes home.
TEST_F(LoopTest, PostsAfterTheLoopHasEndedAreRefused) {
    RecordingLoop loop;
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    LogCapture cap;
    QEvt* e = KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt));
    EXPECT_FALSE(loop.post(e));
    EXPECT_FALSE(loop.postLIFO(e));
    EXPECT_EQ(e->refCtr_, 0);
    Kel::gc(e);
    EXPECT_FALSE(loop.postCmd(SIG_APP));
    EXPECT_EQ(cap.count("event not posted, the loop has ended", LOG_WARN), 3);
    EXPECT_TRUE(loop.eventQueue()->isEmpty());
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}
