// Bad input at the boundary: null arguments where a call asserts, extreme
// timer delays, a loop or a pool too many. Each assertion carries its text
// ("ASSERT: <file>.<line>: <function>") and the process carries on.
#include <gtest/gtest.h>
#include <limits.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "app_timer.h"
#include "dispatch_process.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_state.h"
#include "kel_timer.h"
#include "state_list.h"
#include "state_mache.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

namespace {

enum { SIG_APP = SIG_INNER_PROC + 1 };

// Runs `f`, which must assert in `file` inside `func`, at any line.
template <typename F>
::testing::AssertionResult assertsIn(F f, const std::string& file, const std::string& func) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        // "ASSERT: <file>.<line>: <func>", the line a number.
        const std::string text = e.what(), head = "ASSERT: " + file + ".", tail = ": " + func;
        size_t digits = text.size() - head.size() - tail.size();
        if (text.size() > head.size() + tail.size() && text.compare(0, head.size(), head) == 0 &&
            text.compare(text.size() - tail.size(), tail.size(), tail) == 0 &&
            text.find_first_not_of("0123456789", head.size()) == head.size() + digits)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "asserted with \"" << e.what() << "\"";
    }
    return ::testing::AssertionFailure() << "did not assert";
}

class CountingLoop : public KelLoop {
public:
    CountingLoop() : KelLoop(8) {}
    void procSubMsg(const QEvt*) override { ++dispatched; }
    int dispatched = 0;
};

// The loop still takes, dispatches and stops, with every block back home.
void expectLoopWorks(CountingLoop& loop) {
    int before = loop.dispatched;
    QEvt* e = KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt));
    ASSERT_NE(e, nullptr);
    ASSERT_TRUE(loop.post(e));
    loop.exitLoop();
    EXPECT_EQ(loop.execLoop(), 0);
    EXPECT_EQ(loop.dispatched, before + 1);
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

struct Boundary : ::testing::Test {
    void SetUp() override {
        armWatchdog(60);
        startFramework();
    }
};

class OneState : public KelState {
public:
    int translate(const StateQEvt*) override { return state::STATE_RETURN_NORMAL; }
};

struct Hit : dispatch::Object {
    void hit() { ++n; }
    int n = 0;
};

}  // namespace

// Each misuse asserts before it changes anything: the queue's mutex is
// released (a later post would hang), nothing is queued, no block is taken,
// the spare state stays with its caller, and the loop goes on.
TEST_F(Boundary, MisuseAssertsWithoutSideEffectsAndTheLoopGoesOn) {
    CountingLoop loop;
    EXPECT_TRUE(assertsIn([&] { loop.post(nullptr); }, "kel_evt_pool_queue.cpp", "post"));
    EXPECT_TRUE(assertsIn([&] { loop.postLIFO(nullptr); }, "kel_evt_pool_queue.cpp", "postLIFO"));
    EXPECT_TRUE(assertsIn([&] { loop.procStateEvent(nullptr); }, "kel_loop.cpp", "procStateEvent"));
    StateList empty(2);
    EXPECT_TRUE(assertsIn([&] { empty.pop(); }, "state_list.cpp", "pop"));
    EXPECT_TRUE(loop.eventQueue()->isEmpty());
    {
        StateMache mache(1, 0);
        OneState spare;
        mache.registStates(new OneState, "one", 0);
        EXPECT_TRUE(
            assertsIn([&] { mache.registStates(&spare, "two", 0); }, "state_mache.cpp", "registStates"));
        ATimer t;
        const PoolCounts before = freeBlocks(&loop);
        EXPECT_TRUE(assertsIn([&] { t.restart(10); }, "app_timer.cpp", "restart"));
        EXPECT_FALSE(t.isRunning());
        EXPECT_EQ(freeBlocks(&loop), before);
    }
    static GeneralQEvt storage[4];
    KelPool extra;
    EXPECT_TRUE(assertsIn([&] { extra.init(storage, sizeof storage, sizeof(GeneralQEvt)); },
                          "kel_evt_pool_queue.cpp", "init"));
    EXPECT_EQ(Kel::Kel_maxPool_, 3u);
    expectLoopWorks(loop);
}

// Delays at the ends of int: the longest gives a deadline INT_MAX ms ahead
// without overflow, the most negative one fires at the next pass.
TEST_F(Boundary, ExtremeDelaysOfMainLoopTimers) {
    CountingLoop loop;
    std::atomic<int> fired{0};
    ATimer far, past;
    auto count = [](ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); };
    far.setHandler(count, &fired);
    past.setHandler(count, &fired);
    timespec now, val;
    clock_gettime(CLOCK_MONOTONIC, &now);
    far.restart(INT_MAX);
    ASSERT_TRUE(loop.timerList()->getTimeout(&val));
    long long aheadMs = (val.tv_sec - now.tv_sec) * 1000LL + (val.tv_nsec - now.tv_nsec) / 1000000;
    EXPECT_NEAR(static_cast<double>(aheadMs), static_cast<double>(INT_MAX), 1000.0);
    EXPECT_TRUE(val.tv_nsec >= 0 && val.tv_nsec < 1000000000);
    past.restart(INT_MIN);
    EXPECT_FALSE(loop.timerList()->getTimeout(&val)) << "the negative deadline is overdue";
    loop.timerList()->processTimer();
    EXPECT_EQ(fired.load(), 1);
    EXPECT_TRUE(far.isRunning());
    far.stop();
    expectLoopWorks(loop);
}

// Null targets assert before the queue's mutex or a node is taken; delays
// outside 0..2147483 ms never wait beyond the longest; the queue goes on.
TEST(DispatchBoundary, NullTargetsAndExtremeDelaysLeaveTheQueueWorking) {
    Hit c;
    dispatch::Queue q;
    auto fn = dispatch::FUNC(&Hit::hit);
    const char* f = "dispatch_process.cpp";
    EXPECT_TRUE(assertsIn([&] { q.enqueue(fn, nullptr); }, f, "enqueue"));
    EXPECT_TRUE(assertsIn([&] { q.enqueueAutofree(fn, nullptr); }, f, "enqueueAutofree"));
    EXPECT_TRUE(assertsIn([&] { q.enqueueNotify(fn, nullptr); }, f, "enqueueNotify"));
    EXPECT_TRUE(assertsIn([&] { q.cancelFn(fn, nullptr); }, f, "cancelFn"));
    EXPECT_TRUE(assertsIn([&] { q.run(fn, nullptr); }, f, "run"));
    dispatch::Timer t(&q);
    EXPECT_TRUE(assertsIn([&] { t.restart(0); }, "dispatch_timer.cpp", "restart"));
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    t.setHandler(fn, &c);
    for (int ms : {2147483, 2147484, INT_MAX, -1, INT_MIN}) {
        t.restart(ms);
        EXPECT_LE(q.getNeedWait(), 2147483000LL) << ms;
        t.stop();
    }
    q.enqueue(fn, &c);
    t.restart(0);
    while (c.n < 2) q.queueProcess(0);
    EXPECT_EQ(c.n, 2);
}

// One loop per process: a second one asserts, also after the first is gone.
TEST_F(Boundary, SecondLoopAfterTheFirstIsGoneAsserts) {
    {
        CountingLoop first;
        expectLoopWorks(first);
    }
    Kel::init();  // the first loop's end took the event mutex down
    EXPECT_TRUE(assertsIn([] { CountingLoop second; }, "kel_evt_pool_queue.cpp", "init"));
    EXPECT_EQ(_loop, nullptr);
}
