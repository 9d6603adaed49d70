// Timers of the main loop: deadlines, firing order, re-arming, stopping
// across threads, and the end of the loop.
#include "support/loop_harness.h"

namespace {

std::vector<int> gOrder;  // tags of the timers fired, in order

void record(ATimer*, void* p) { gOrder.push_back(static_cast<int>(reinterpret_cast<intptr_t>(p))); }
void* tag(int n) { return reinterpret_cast<void*>(static_cast<intptr_t>(n)); }
void tick(ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); }

// Re-arms its timer from the handler, twice; ends a repeating one at the
// fourth firing. Both count the firings in the int they are given.
void reArmTwice(ATimer* a, void* n) {
    if (++*static_cast<int*>(n) < 3) {
        a->setInternal(-1, 0);
        a->setReStart(true);
    }
}
void endAtFour(ATimer* a, void* n) {
    if (++*static_cast<int*>(n) == 4) a->setRepeat(false);
}

long long toMs(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000; }
long long nowMs() {
    timespec t;
    return clock_gettime(CLOCK_MONOTONIC, &t), toMs(t);
}

struct TimerTest : KelTest {
    void SetUp() override { KelTest::SetUp(), loop = new KelLoop(8), gOrder.clear(); }
    KelTimer* list() { return loop->timerList(); }
    unsigned nodesOut() { return list()->nodePool()->getNTot() - list()->nodePool()->getNFree(); }
};

}  // namespace

// The deadline is the clock cut to the millisecond plus the delay, at the
// ends of int too; a restart that finds no block keeps the armed deadline;
// a re-arm with an interval of mixed signs is normalised.
TEST_F(TimerTest, DeadlineIsTheClockTruncatedToTheMillisecondPlusTheDelay) {
    timespec before, after, val{1, 1};
    ASSERT_TRUE(list()->getTimeout(&val));  // nothing armed: the far future
    EXPECT_EQ(val.tv_sec, 0x7fffffff);
    ATimer t, far, past;
    t.setHandler(record, tag(1));
    clock_gettime(CLOCK_MONOTONIC, &before);
    t.restart(10500);
    clock_gettime(CLOCK_MONOTONIC, &after);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_EQ(val.tv_nsec % 1000000, 0);
    EXPECT_GE(toMs(val), toMs(before) + 10500);
    EXPECT_LE(toMs(val), toMs(after) + 10500);
    std::vector<QEvt*> hog;  // a restart that finds no block keeps the armed deadline
    LogCapture cap;
    long long armed = toMs(val);
    while (QEvt* e = KelLoop::newEvt(100, sizeof(GeneralQEvt))) hog.push_back(e);
    t.restart(-10);
    EXPECT_EQ(cap.count("Timer Run failled, eventLoop node is full", LOG_ERROR), 1);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_EQ(toMs(val), armed);
    for (QEvt* e : hog) Kel::gc(e);
    t.stop();
    far.setHandler(record, tag(2));
    past.setHandler(record, tag(3));
    far.restart(INT_MAX);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_NEAR(static_cast<double>(toMs(val) - toMs(after)), static_cast<double>(INT_MAX), 1000.0);
    past.restart(INT_MIN);
    EXPECT_FALSE(list()->getTimeout(&val));
    list()->processTimer();
    EXPECT_EQ(gOrder, std::vector<int>{3});
    far.stop();
    t.setRepeat(true);
    t.restart(-10);
    t.setInternal(5, -999);
    clock_gettime(CLOCK_MONOTONIC, &before);
    list()->processTimer();
    clock_gettime(CLOCK_MONOTONIC, &after);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_TRUE(val.tv_nsec >= 0 && val.tv_nsec < 1000000000) << val.tv_nsec;
    EXPECT_GE(toMs(val), toMs(before) + 4001);
    EXPECT_LE(toMs(val), toMs(after) + 4001);
    t.stop();
}

// Overdue timers fire latest deadline first, equal deadlines last added
// first; a timer that does not run is passed over (a one-shot's node goes
// home, a repeating one is re-armed).
TEST_F(TimerTest, FiringOrderByDeadline) {
    ATimer t[5], quiet, quietRepeat;
    for (int i = 0; i < 5; ++i) t[i].setHandler(record, tag(i + 1));
    for (int i = 0; i < 3; ++i) t[i].restart(-(3 - i) * 1000);
    // Arm both in the same millisecond (again when the clock ticks between).
    for (long long ms = -1; ms != nowMs();) ms = nowMs(), t[3].restart(-100), t[4].restart(-100);
    quietRepeat.setRepeat(true);
    for (ATimer* q : {&quiet, &quietRepeat}) {
        q->setHandler(record, tag(6));
        q->restart(-50);
        q->setRunning(false);
    }
    list()->processTimer();
    EXPECT_EQ(gOrder, (std::vector<int>{5, 4, 3, 2, 1}));
    EXPECT_TRUE(quietRepeat.isRunning());
    EXPECT_EQ(nodesOut(), 1u);
    quietRepeat.stop();
}

// A restart replaces the armed node; a handler re-arms its timer once with
// setReStart and ends a repeating one by clearing repeat.
TEST_F(TimerTest, RestartAndReArmFromTheHandler) {
    ATimer t, again, rep;
    t.setHandler(record, tag(1));
    t.restart(60000);
    t.restart(-10);
    EXPECT_EQ(nodesOut(), 1u);
    int fired[2] = {0, 0};
    again.setHandler(reArmTwice, &fired[0]);
    rep.setHandler(endAtFour, &fired[1]);
    rep.setRepeat(true);
    again.restart(-10);
    rep.restart(-10);
    for (int i = 0; i < 6; ++i) {
        rep.setInternal(-1, 0);
        list()->processTimer();
    }
    EXPECT_EQ(gOrder, std::vector<int>{1});
    EXPECT_EQ(fired[0], 3);  // one node, at most one firing a pass
    EXPECT_EQ(fired[1], 4);
    EXPECT_FALSE(again.isRunning());
    EXPECT_FALSE(rep.isRunning());
    EXPECT_EQ(nodesOut(), 0u);
}

// Once stop has returned on another thread the handler does not run again,
// also when the stop races the re-arm of a repeating timer; a restart from
// another thread wakes a loop that sleeps without a deadline; restarts and
// stops of one timer racing from several threads leave at most one node,
// and none after the destructor.
TEST_F(TimerTest, StopAndRestartFromAnotherThread) {
    LoopRunner runner(loop);
    std::atomic<int> ticks{0};
    ATimer t, once;
    t.setHandler(tick, &ticks);
    t.setRepeat(true);
    for (int i = 0; i < 300; ++i) {
        t.restart(0);
        int seen = ticks.load();
        waitUntil([&] { return ticks.load() > seen; }, 5);
        t.stop();
        int after = ticks.load();
        std::this_thread::yield();
        EXPECT_EQ(ticks.load(), after) << "handler ran after stop returned";
        EXPECT_EQ(nodesOut(), 0u);
    }
    std::atomic<int> onceTicks{0};
    once.setHandler(tick, &onceTicks);
    for (int i = 0; i < 2000; ++i) {
        once.restart(0);
        ASSERT_TRUE(waitUntil([&] { return onceTicks.load() == i + 1; }, 10)) << "lost wake-up at " << i;
    }
    ATimer* racer = new ATimer;
    racer->setHandler(tick, &ticks);
    std::vector<std::thread> th;
    std::atomic<int> ready{0};
    for (int k = 0; k < 4; ++k)
        th.emplace_back([&, k] {
            for (++ready; ready < 4;) std::this_thread::yield();
            for (int i = 0; i < 40000; ++i) i == 10000 ? racer->stop() : racer->restart(60000 + k);
        });
    for (auto& x : th) x.join();
    EXPECT_LE(nodesOut(), 1u) << "nodes of one timer";
    delete racer;
    EXPECT_EQ(nodesOut(), 0u);
    loop->exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// After execLoop returned 0 the event mutex is gone: stopping or destroying
// an armed timer still releases its node safely.
TEST_F(TimerTest, TimersEndSafelyAfterTheLoopHasEnded) {
    ATimer *a = new ATimer, b;
    for (ATimer* x : {a, &b}) x->setHandler(record, tag(1)), x->restart(60000);
    loop->exitLoop();
    EXPECT_EQ(loop->execLoop(), 0);
    b.stop();
    delete a;
    EXPECT_EQ(nodesOut(), 0u);
}

// Every re-arm reads the interval as one value: the old setting or the new
// one, while another thread keeps changing it.
TEST_F(TimerTest, ReArmSeesOneWholeIntervalWhileAnotherThreadSetsIt) {
    std::atomic<int> ticks{0};
    ATimer t;
    t.setHandler(tick, &ticks);
    t.setRepeat(true);
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        for (int i = 0; !stop; ++i) i % 2 ? t.setInternal(1, 500) : t.setInternal(3, 200);
    });
    int odd = 0;
    for (int i = 0; i < 50000 && odd == 0; ++i) {
        timespec before, after, val;
        clock_gettime(CLOCK_MONOTONIC, &before);
        t.restart(-10);  // the setter may get in before this deadline is made
        list()->processTimer();
        clock_gettime(CLOCK_MONOTONIC, &after);
        if (!list()->getTimeout(&val)) continue;  // re-armed with the restart's own interval
        long long d = toMs(val) - toMs(before), slack = toMs(after) - toMs(before);
        if (!((d >= 1500 && d <= 1500 + slack) || (d >= 3200 && d <= 3200 + slack))) ++odd;
    }
    stop = true;
    setter.join();
    EXPECT_EQ(odd, 0);
    t.stop();
}

// Handlers restart, stop and destroy timers, their own included; what they
// arm fires at a later pass. A handler that throws gives its node back.
TEST_F(TimerTest, HandlersUseTimerOperationsAndAThrowingOneGivesItsNodeBack) {
    ATimer a, other, victim;
    ATimer* ops[] = {&other, &victim};
    a.setHandler(
        [](ATimer* self, void* p) {
            gOrder.push_back(1);
            static_cast<ATimer**>(p)[0]->restart(-5);  // due at once, but fires at the next pass
            static_cast<ATimer**>(p)[1]->stop();
            self->stop();
        },
        ops);
    other.setHandler(record, tag(2));
    victim.setHandler(record, tag(3));
    a.setRepeat(true);
    victim.restart(-20);  // due, behind a in this pass
    a.restart(-10);
    list()->processTimer();
    EXPECT_EQ(gOrder, (std::vector<int>{1}));
    EXPECT_EQ(nodesOut(), 1u);
    list()->processTimer();
    EXPECT_EQ(gOrder, (std::vector<int>{1, 2}));
    ATimer* gone = new ATimer;
    gone->setHandler([](ATimer* self, void*) { delete self; }, nullptr);
    gone->setRepeat(true);
    gone->restart(-10);
    list()->processTimer();
    EXPECT_EQ(nodesOut(), 0u);

    a.setHandler([](ATimer*, void*) { throw std::runtime_error("handler"); }, nullptr);
    a.restart(-10);
    EXPECT_THROW(list()->processTimer(), std::runtime_error);
    EXPECT_FALSE(a.isRunning());
    EXPECT_EQ(nodesOut(), 0u);
    a.restart(60000);  // the list's mutex was released
    a.stop();
}
