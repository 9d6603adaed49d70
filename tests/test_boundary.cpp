// Bad input at the boundary: null arguments where a call asserts, extreme
// timer delays, a loop or a pool too many. Each assertion carries its text
// ("ASSERT: <file>.<line>: <function>") and the process carries on.
#include <gtest/gtest.h>
#include <limits.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

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

// Runs `f`, which must assert in `file` inside `func`.
template <typename F>
::testing::AssertionResult assertsIn(F f, const char* file, const char* func) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        // "ASSERT: <file>.<digits>: <func>", the line number being any.
        std::string text = e.what(), head = std::string("ASSERT: ") + file + ".",
                    tail = std::string(": ") + func;
        size_t digits = text.size() - head.size() - tail.size();
        bool ok = text.size() > head.size() + tail.size() && text.compare(0, head.size(), head) == 0 &&
                  text.compare(text.size() - tail.size(), tail.size(), tail) == 0 &&
                  text.find_first_not_of("0123456789", head.size()) == head.size() + digits;
        if (ok) return ::testing::AssertionSuccess();
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

// The loop still takes, dispatches and stops.
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

}  // namespace

// Null events and lists: the queue's mutex is released on the way out (a
// later post would hang otherwise) and the loop goes on.
TEST_F(Boundary, NullEventsAssertAndTheLoopGoesOn) {
    CountingLoop loop;
    EXPECT_TRUE(assertsIn([&] { loop.post(nullptr); }, "kel_evt_pool_queue.cpp", "post"));
    EXPECT_TRUE(assertsIn([&] { loop.postLIFO(nullptr); }, "kel_evt_pool_queue.cpp", "postLIFO"));
    EXPECT_TRUE(assertsIn([&] { loop.procStateEvent(nullptr); }, "kel_loop.cpp", "procStateEvent"));
    StateList empty(2);
    EXPECT_TRUE(assertsIn([&] { empty.pop(); }, "state_list.cpp", "pop"));
    EXPECT_TRUE(loop.eventQueue()->isEmpty());
    expectLoopWorks(loop);
}

// A state too many, a timer without handler: asserted before anything
// changes.
TEST_F(Boundary, StateAndTimerMisuseAssertsWithoutSideEffects) {
    CountingLoop loop;
    {
        StateMache mache(1, 0);
        KelState* spare = new OneState;
        mache.registStates(new OneState, "one", 0);
        EXPECT_TRUE(
            assertsIn([&] { mache.registStates(spare, "two", 0); }, "state_mache.cpp", "registStates"));
        delete spare;  // not taken by the machine
        ATimer t;
        const PoolCounts before = freeBlocks(&loop);
        EXPECT_TRUE(assertsIn([&] { t.restart(10); }, "app_timer.cpp", "restart"));
        EXPECT_FALSE(t.isRunning());
        EXPECT_EQ(freeBlocks(&loop), before);
    }
    expectLoopWorks(loop);
}

// Delays at the ends of int: the longest one gives a deadline INT_MAX ms
// ahead without overflow, the most negative one fires at the next pass.
TEST_F(Boundary, ExtremeDelaysOfMainLoopTimers) {
    CountingLoop loop;
    std::atomic<int> fired{0};
    ATimer far, past;
    auto count = [](ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); };
    far.setHandler(count, &fired);
    past.setHandler(count, &fired);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    far.restart(INT_MAX);
    timespec val;
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

// Dispatch delays outside 0..2147483 ms are misuse; they must still give a
// wait no longer than the longest delay, and the queue goes on.
TEST(DispatchBoundary, DelaysOutsideTheRangeNeverWaitBeyondTheLongest) {
    struct Hit : dispatch::Object {
        void hit() { ++n; }
        int n = 0;
    } c;
    dispatch::Queue q;
    dispatch::Timer t(&q);
    t.setHandler(dispatch::FUNC(&Hit::hit), &c);
    for (int ms : {2147483, 2147484, INT_MAX, -1, INT_MIN}) {
        SCOPED_TRACE(ms);
        t.restart(ms);
        EXPECT_LE(q.getNeedWait(), 2147483000LL);
        t.stop();
    }
    t.restart(0);
    while (c.n == 0) q.queueProcess(0);
    EXPECT_EQ(c.n, 1);
}

// Null targets: each call asserts before it takes the queue's mutex or a
// node, and the queue goes on.
TEST(DispatchBoundary, NullTargetsAssertAndTheQueueGoesOn) {
    struct Hit : dispatch::Object {
        void hit() { ++n; }
        int n = 0;
    } c;
    using dispatch::FUNC;
    dispatch::Queue q;
    auto fn = FUNC(&Hit::hit);
    const char* f = "dispatch_process.cpp";
    EXPECT_TRUE(assertsIn([&] { q.enqueue(fn, nullptr); }, f, "enqueue"));
    EXPECT_TRUE(assertsIn([&] { q.enqueueAutofree(fn, nullptr); }, f, "enqueueAutofree"));
    EXPECT_TRUE(assertsIn([&] { q.enqueueNotify(fn, nullptr); }, f, "enqueueNotify"));
    EXPECT_TRUE(assertsIn([&] { q.cancelFn(fn, nullptr); }, f, "cancelFn"));
    EXPECT_TRUE(assertsIn([&] { q.run(fn, nullptr); }, f, "run"));
    dispatch::Timer t(&q);
    EXPECT_TRUE(assertsIn([&] { t.restart(0); }, f, "restart"));
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    q.enqueue(fn, &c);
    q.queueProcess(0);
    EXPECT_EQ(c.n, 1);
}

// One loop per process: a second one asserts in the timer list's pool, also
// after the first is gone, and the process exits cleanly.
TEST_F(Boundary, SecondLoopAfterTheFirstIsGoneAsserts) {
    {
        CountingLoop first;
        expectLoopWorks(first);
    }
    Kel::init();  // the first loop's end took the event mutex down
    EXPECT_TRUE(assertsIn([] { CountingLoop second; }, "kel_evt_pool_queue.cpp", "init"));
    EXPECT_EQ(_loop, nullptr);
}

// A fourth pool beside a running loop asserts and leaves the loop working.
TEST_F(Boundary, FourthPoolAssertsBesideTheLoop) {
    CountingLoop loop;
    static GeneralQEvt storage[4];
    KelPool extra;
    EXPECT_TRUE(assertsIn([&] { extra.init(storage, sizeof storage, sizeof(GeneralQEvt)); },
                          "kel_evt_pool_queue.cpp", "init"));
    EXPECT_EQ(Kel::Kel_maxPool_, 3u);
    expectLoopWorks(loop);
}
