// Timers of the main loop: deadlines, firing order, re-arming, stopping
// across threads, and the end of the loop.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "app_timer.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_timer.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

namespace {

// Records the order in which timers fire, by a tag.
struct FireLog {
    std::vector<int> order;
};

struct Tagged {
    FireLog* log;
    int tag;
};

void recordFire(ATimer*, void* p) {
    Tagged* t = static_cast<Tagged*>(p);
    t->log->order.push_back(t->tag);
}

void noop(ATimer*, void*) {}

struct TimerTest : ::testing::Test {
    void SetUp() override {
        startFramework();
        loop = new KelLoop(8);
        full = freeBlocks(loop);
    }
    void TearDown() override {
        EXPECT_EQ(freeBlocks(loop), full) << "a node was not given back";
        delete loop;
    }
    // Blocks taken out of the event store (nodes on the list, mostly).
    unsigned taken() {
        PoolCounts f = freeBlocks(loop);
        return (full.timer - f.timer) + (full.general - f.general) + (full.state - f.state);
    }
    KelTimer* list() { return loop->timerList(); }

    KelLoop* loop = nullptr;
    PoolCounts full{};
};

long long toMs(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000; }

}  // namespace

TEST_F(TimerTest, DeadlineIsTheClockTruncatedToTheMillisecondPlusTheDelay) {
    timespec before, val{1, 1};
    ASSERT_TRUE(list()->getTimeout(&val));  // nothing armed: the far future
    EXPECT_EQ(val.tv_sec, 0x7fffffff);
    EXPECT_EQ(val.tv_nsec, 0);
    ATimer t;
    t.setHandler(noop, nullptr);
    clock_gettime(CLOCK_MONOTONIC, &before);
    t.restart(10000);
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &after);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_EQ(val.tv_nsec % 1000000, 0);
    EXPECT_GE(toMs(val), toMs(before) + 10000);
    EXPECT_LE(toMs(val), toMs(after) + 10000);
    EXPECT_TRUE(t.isRunning());
    EXPECT_EQ(t.repeatSec(), 10);
    EXPECT_EQ(taken(), 1u);
    t.stop();
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(taken(), 0u);
}

TEST_F(TimerTest, ZeroAndNegativeDelaysFireAtTheNextPass) {
    FireLog log;
    Tagged a{&log, 1}, b{&log, 2};
    ATimer t0, tn;
    t0.setHandler(recordFire, &a);
    tn.setHandler(recordFire, &b);
    tn.restart(-1500);
    EXPECT_EQ(tn.repeatSec(), -1);
    EXPECT_EQ(tn.repeatMSec(), -500);
    t0.restart(0);
    timespec val;
    // restart(0) lands on the current millisecond: overdue once it has passed.
    ASSERT_TRUE(waitUntil([&] { return !list()->getTimeout(&val); }));
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{1, 2}));  // the later deadline first
    EXPECT_FALSE(t0.isRunning());
    EXPECT_FALSE(tn.isRunning());
}

TEST_F(TimerTest, OverdueTimersFireLatestDeadlineFirst) {
    FireLog log;
    Tagged tags[3] = {{&log, 1}, {&log, 2}, {&log, 3}};
    ATimer t[3];
    // Deadlines 3 s, 2 s and 1 s in the past.
    for (int i = 0; i < 3; ++i) {
        t[i].setHandler(recordFire, &tags[i]);
        t[i].restart(-(3 - i) * 1000);
    }
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{3, 2, 1}));
    EXPECT_EQ(taken(), 0u);
}

TEST_F(TimerTest, EqualDeadlinesFireLastAddedFirst) {
    FireLog log;
    Tagged a{&log, 1}, b{&log, 2};
    ATimer ta, tb;
    ta.setHandler(recordFire, &a);
    tb.setHandler(recordFire, &b);
    // Arm both in the same millisecond (retry when the clock ticks between).
    for (int attempt = 0; attempt < 1000; ++attempt) {
        timespec s, e;
        clock_gettime(CLOCK_MONOTONIC, &s);
        ta.restart(-100);
        tb.restart(-100);
        clock_gettime(CLOCK_MONOTONIC, &e);
        if (toMs(s) == toMs(e)) break;
    }
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{2, 1}));
}

TEST_F(TimerTest, RestartOfAnArmedTimerReplacesItsNode) {
    FireLog log;
    Tagged a{&log, 1};
    ATimer t;
    t.setHandler(recordFire, &a);
    t.restart(60000);
    t.restart(60000);
    t.restart(-10);
    EXPECT_EQ(taken(), 1u);
    list()->processTimer();
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{1}));
}

TEST_F(TimerTest, RestartFailsWhenNoBlockIsLeftAndOldDeadlineStands) {
    FireLog log;
    Tagged a{&log, 1};
    ATimer t;
    t.setHandler(recordFire, &a);
    t.restart(50000);
    timespec armed;
    ASSERT_TRUE(list()->getTimeout(&armed));
    std::vector<QEvt*> hog;
    while (QEvt* e = KelLoop::newEvt(100, sizeof(GeneralQEvt))) hog.push_back(e);
    LogCapture cap;
    t.restart(-10);
    EXPECT_EQ(cap.count("Timer Run failled, eventLoop node is full", LOG_ERROR), 1);
    EXPECT_GE(cap.countContaining("m_nFree"), 1) << "the loop's state is shown";
    timespec val;
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_EQ(toMs(val), toMs(armed));
    EXPECT_TRUE(t.isRunning());
    for (QEvt* e : hog) Kel::gc(e);
    t.stop();
}

TEST_F(TimerTest, NotRunningNodeIsPassedOverThenFreedWithoutItsHandler) {
    FireLog log;
    Tagged a{&log, 1}, b{&log, 2};
    ATimer quiet, later;
    quiet.setHandler(recordFire, &a);
    later.setHandler(recordFire, &b);
    later.restart(30000);
    quiet.restart(-10);
    quiet.setRunning(false);
    timespec val;
    EXPECT_TRUE(list()->getTimeout(&val)) << "a timer that does not run is not overdue";
    EXPECT_GT(val.tv_sec, 0);
    list()->processTimer();
    EXPECT_TRUE(log.order.empty());
    EXPECT_EQ(taken(), 1u);  // quiet's node went home
    later.stop();
}

TEST_F(TimerTest, NotRunningRepeatingNodeIsReArmedAndRunsAgain) {
    FireLog log;
    Tagged a{&log, 1};
    ATimer t;
    t.setHandler(recordFire, &a);
    t.setRepeat(true);
    t.restart(-10);
    t.setRunning(false);
    list()->processTimer();
    EXPECT_TRUE(log.order.empty());
    EXPECT_TRUE(t.isRunning());
    EXPECT_EQ(taken(), 1u);
    t.stop();
}

namespace {

// Handler that uses the means a handler has: flags and interval.
struct Script {
    int fired = 0;
    int stopAfter = 0;
};

void countAndRestart(ATimer* t, void* p) {
    Script* s = static_cast<Script*>(p);
    ++s->fired;
    if (s->fired < s->stopAfter) {
        t->setInternal(-1, 0);  // due again at the next pass
        t->setReStart(true);
    }
}

void countAndEndRepeat(ATimer* t, void* p) {
    Script* s = static_cast<Script*>(p);
    if (++s->fired == s->stopAfter) t->setRepeat(false);
}

}  // namespace

TEST_F(TimerTest, HandlerReArmsItselfOnceWithSetReStart) {
    Script s;
    s.stopAfter = 3;
    ATimer t;
    t.setHandler(countAndRestart, &s);
    t.restart(-10);
    for (int i = 0; i < 5; ++i) list()->processTimer();
    EXPECT_EQ(s.fired, 3);  // one node, at most one firing a pass
    EXPECT_FALSE(t.isRunning());
    EXPECT_FALSE(t.isReStart());
}

TEST_F(TimerTest, RepeatingTimerEndsWhenItsHandlerClearsRepeat) {
    Script s;
    s.stopAfter = 4;
    ATimer t;
    t.setHandler(countAndEndRepeat, &s);
    t.setRepeat(true);
    t.restart(-10);
    for (int i = 0; i < 10; ++i) {
        t.setInternal(-1, 0);
        list()->processTimer();
    }
    EXPECT_EQ(s.fired, 4);
    EXPECT_FALSE(t.isRunning());
}

TEST_F(TimerTest, RemovingATimerWithoutNodeChangesNothing) {
    ATimer armed, idle;
    armed.setHandler(noop, nullptr);
    armed.restart(40000);
    NodeTimer* probe = static_cast<NodeTimer*>(KelLoop::newEvt(SIG_TIMER_ADD, sizeof(NodeTimer)));
    probe->setProc(&idle);
    list()->removeOldTimer(probe);
    EXPECT_EQ(taken(), 2u);
    EXPECT_TRUE(armed.isRunning());
    Kel::gc(probe);
}

TEST_F(TimerTest, RestartWithoutHandlerAssertsAndGivesTheNodeBack) {
    ATimer t;
    EXPECT_THROW(t.restart(10), std::runtime_error);
    EXPECT_EQ(taken(), 0u);
}

// ------------------------------------------------------ with a running loop

namespace {

struct Ticks {
    std::atomic<int> n{0};
};

void tick(ATimer*, void* p) { static_cast<Ticks*>(p)->n.fetch_add(1); }

}  // namespace

// Once stop has returned on another thread, the handler does not run again,
// the timer is idle and has no node: also when the stop races the re-arm of
// a repeating timer.
TEST_F(TimerTest, StopFromAnotherThreadEndsARepeatingTimerForGood) {
    armWatchdog();
    LoopRunner runner(loop);
    Ticks ticks;
    ATimer t;
    t.setHandler(tick, &ticks);
    t.setRepeat(true);
    for (int i = 0; i < 300; ++i) {
        t.restart(0);
        // Each firing re-arms at once with a zero interval.
        int seen = ticks.n.load();
        waitUntil([&] { return ticks.n.load() > seen; }, 5);
        t.stop();
        int after = ticks.n.load();
        EXPECT_FALSE(t.isRunning());
        std::this_thread::yield();
        EXPECT_EQ(ticks.n.load(), after) << "handler ran after stop returned";
        EXPECT_EQ(taken(), 0u);
    }
    loop->exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// A timer armed from another thread while the loop sleeps with no deadline
// wakes it: the wake-up is not lost.
TEST_F(TimerTest, RestartFromAnotherThreadWakesASleepingLoop) {
    armWatchdog();
    LoopRunner runner(loop);
    Ticks ticks;
    ATimer t;
    t.setHandler(tick, &ticks);
    for (int i = 0; i < 2000; ++i) {
        t.restart(0);
        ASSERT_TRUE(waitUntil([&] { return ticks.n.load() == i + 1; }, 10)) << "lost wake-up at " << i;
    }
    loop->exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// After execLoop returned 0 the event mutex is gone: stopping or destroying
// an armed timer still releases its node safely, and uninit_all after it
// changes nothing.
TEST_F(TimerTest, TimersEndSafelyAfterTheLoopHasEnded) {
    ATimer* a = new ATimer;
    ATimer b;
    a->setHandler(noop, nullptr);
    b.setHandler(noop, nullptr);
    a->restart(60000);
    b.restart(60000);
    loop->exitLoop();
    EXPECT_EQ(loop->execLoop(), 0);
    EXPECT_FALSE(Kel::isAlive());
    b.stop();
    delete a;
    KelLoop::uninit_all();
    EXPECT_EQ(taken(), 0u);
}

// Restarts and stops of one timer racing from several threads while the
// loop fires it leave at most one node; after the destructor, none.
TEST_F(TimerTest, ConcurrentRestartsAndStopsLeaveAtMostOneNode) {
    armWatchdog();
    LoopRunner runner(loop);
    Ticks ticks;
    ATimer* t = new ATimer;
    t->setHandler(tick, &ticks);
    std::vector<std::thread> th;
    std::atomic<int> ready{0};
    for (int k = 0; k < 4; ++k)
        th.emplace_back([&, k] {
            for (++ready; ready < 4;) std::this_thread::yield();
            for (int i = 0; i < 40000; ++i) i == 10000 ? t->stop() : t->restart(60000 + k);
        });
    for (auto& x : th) x.join();
    EXPECT_LE(taken(), 1u) << "nodes of one timer";
    delete t;
    EXPECT_EQ(taken(), 0u);
    loop->exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// An interval with mixed signs gives a normalised deadline.
TEST_F(TimerTest, MixedSignIntervalGivesANormalisedDeadline) {
    ATimer t;
    t.setHandler(noop, nullptr);
    t.setRepeat(true);
    t.restart(-10);
    t.setInternal(5, -999);
    timespec before, after, val;
    clock_gettime(CLOCK_MONOTONIC, &before);
    list()->processTimer();
    clock_gettime(CLOCK_MONOTONIC, &after);
    ASSERT_TRUE(list()->getTimeout(&val));
    EXPECT_TRUE(val.tv_nsec >= 0 && val.tv_nsec < 1000000000) << val.tv_nsec;
    EXPECT_GE(toMs(val), toMs(before) + 4001);
    EXPECT_LE(toMs(val), toMs(after) + 4001);
    t.stop();
}

// Every re-arm reads the interval as one value: the old setting or the new
// one, while another thread keeps changing it.
TEST_F(TimerTest, ReArmSeesOneWholeIntervalWhileAnotherThreadSetsIt) {
    ATimer t;
    t.setHandler(noop, nullptr);
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

namespace {

// A handler that uses the timer operations themselves.
struct Ops {
    FireLog* log;
    ATimer *other, *victim;
};

void restartOtherStopVictimAndSelf(ATimer* self, void* p) {
    Ops* o = static_cast<Ops*>(p);
    o->log->order.push_back(1);
    o->other->restart(-5);  // due at once, but fires at the next pass
    o->victim->stop();
    self->stop();
}

void deleteSelf(ATimer* self, void*) { delete self; }

void throwUp(ATimer*, void*) { throw std::runtime_error("handler"); }

}  // namespace

// Handlers restart, stop and destroy timers, their own included; what they
// arm fires at a later pass. A handler that throws gives its node back.
TEST_F(TimerTest, HandlersUseTimerOperationsAndAThrowingOneGivesItsNodeBack) {
    armWatchdog(60);
    FireLog log;
    Tagged b{&log, 2}, c{&log, 3};
    ATimer a, other, victim;
    Ops ops{&log, &other, &victim};
    a.setHandler(restartOtherStopVictimAndSelf, &ops);
    other.setHandler(recordFire, &b);
    victim.setHandler(recordFire, &c);
    a.setRepeat(true);
    victim.restart(-20);  // due, behind a in this pass
    a.restart(-10);
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{1}));
    EXPECT_FALSE(a.isRunning());
    EXPECT_EQ(taken(), 1u);
    list()->processTimer();
    EXPECT_EQ(log.order, (std::vector<int>{1, 2}));
    ATimer* gone = new ATimer;
    gone->setHandler(deleteSelf, nullptr);
    gone->setRepeat(true);
    gone->restart(-10);
    list()->processTimer();
    EXPECT_EQ(taken(), 0u);

    a.setHandler(throwUp, nullptr);
    a.restart(-10);
    EXPECT_THROW(list()->processTimer(), std::runtime_error);
    EXPECT_FALSE(a.isRunning());
    EXPECT_EQ(taken(), 0u);
    a.restart(60000);  // the list's mutex was released
    a.stop();
}
