#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dispatch_process.h"
#include "support/log_capture.h"
#include "support/threads.h"

using dispatch::FUNC;
using dispatch::Loop;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;
using namespace std::chrono_literals;

namespace {

struct PoolCounts {
    int used = -1;
    int count = -1;
};

// The process-wide node counters, read through the queue's own log line.
PoolCounts poolCounts() {
    LogCapture cap;
    PoolCounts c;
    {
        Queue q;
        q.profile();
    }
    for (const auto& l : cap.lines()) {
        if (l.level == LOG_INFO &&
            sscanf(l.text.c_str(), "node pools: used=%d, counts=%d", &c.used, &c.count) == 2)
            break;
    }
    return c;
}

template <typename Pred>
bool eventually(Pred p, std::chrono::milliseconds limit = 10s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!p()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Records, in order, which callbacks ran.
class Trace {
public:
    void add(const std::string& s) {
        std::lock_guard<std::mutex> g(mMutex);
        mText += s;
    }
    std::string str() {
        std::lock_guard<std::mutex> g(mMutex);
        return mText;
    }

private:
    std::mutex mMutex;
    std::string mText;
};

struct Rec : public Object {
    Rec(Trace* t, const char* n) : trace(t), name(n) {}
    void hit() {
        ++calls;
        thread = std::this_thread::get_id();
        trace->add(name);
        if (hook) hook();
    }
    void other() { trace->add(std::string("+") + name); }
    void noop() {}

    Trace* trace;
    std::string name;
    std::atomic<int> calls{0};
    std::thread::id thread;
    std::function<void()> hook;
};

// Drives a queue with blocking queueProcess calls until destroyed.
class Processor {
public:
    explicit Processor(Queue& q)
        : mQueue(q), mThread([this] {
              while (!mStop.load()) {
                  mQueue.queueProcess(1);
                  ++returns;
              }
          }) {}
    ~Processor() {
        mStop = true;
        mQueue.interrupt();
        mThread.join();
    }
    std::thread::id id() const { return mThread.get_id(); }

    std::atomic<int> returns{0};

private:
    Queue& mQueue;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override { mThreads = baselineThreadCount(); }
    void TearDown() override {
        EXPECT_EQ(poolCounts().used, 0) << "nodes left out of the pool";
        EXPECT_TRUE(threadCountSettlesAt(mThreads)) << "a thread was left behind";
    }

    // Every call queued before this one has returned.
    void drain(Queue& q) {
        Rec r(&trace, "");
        q.run(FUNC(&Rec::noop), &r);
    }

    Trace trace;
    int mThreads = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Queue

TEST_F(Dispatch, CallbacksRunInOrderOnTheProcessingThreadWithoutLock) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b"), c(&trace, "c");
    // Enqueuing from a callback needs the queue's mutex: it must be free.
    a.hook = [&] { q.enqueue(FUNC(&Rec::other), &a); };
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &b);
    q.enqueue(FUNC(&Rec::hit), &c);
    std::thread worker([&] { q.queueProcess(0); });
    std::thread::id wid = worker.get_id();
    worker.join();
    EXPECT_EQ(trace.str(), "abc+a");
    EXPECT_EQ(a.thread, wid);
    EXPECT_EQ(c.thread, wid);
}

TEST_F(Dispatch, NotificationsMergeOnlyWithEqualPendingNotifications) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b");
    q.enqueueNotify(FUNC(&Rec::hit), &a);
    q.enqueueNotify(FUNC(&Rec::hit), &a);    // merged
    q.enqueueNotify(FUNC(&Rec::hit), &b);    // other target
    q.enqueueNotify(FUNC(&Rec::other), &a);  // other function
    q.enqueue(FUNC(&Rec::hit), &a);          // not mergeable
    q.enqueueNotify(FUNC(&Rec::hit), &a);    // merged with the first
    EXPECT_EQ(poolCounts().used, 4) << "merged items go back to the pool at once";
    q.queueProcess(0);
    EXPECT_EQ(trace.str(), "ab+aa");

    // The running notification is on no list: an equal one queues anew.
    Rec n(&trace, "n");
    n.hook = [&] {
        if (n.calls == 1) q.enqueueNotify(FUNC(&Rec::hit), &n);
    };
    q.enqueueNotify(FUNC(&Rec::hit), &n);
    q.queueProcess(0);
    EXPECT_EQ(n.calls, 2);
}

namespace {
struct Owned : public Object {
    explicit Owned(std::atomic<int>* d) : deaths(d) {}
    ~Owned() override { ++*deaths; }
    void hit() { ++calls; }
    std::atomic<int>* deaths;
    int calls = 0;
};
}  // namespace

TEST_F(Dispatch, CancelRemovesEveryMatchAndKeepsTheRest) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b"), c(&trace, "c");
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &b);
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueueNotify(FUNC(&Rec::hit), &c);
    q.enqueue(FUNC(&Rec::hit), &a);
    q.cancelFn(FUNC(&Rec::other), &b);  // matches nothing
    q.cancelFn(FUNC(&Rec::hit), &a);    // removes three, the last being the tail
    q.enqueue(FUNC(&Rec::other), &c);   // must land behind c
    q.queueProcess(0);
    EXPECT_EQ(trace.str(), "bc+c");

    // Cancel everything, then the queue still takes work.
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &a);
    q.cancelFn(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &b);
    q.queueProcess(0);
    EXPECT_EQ(trace.str(), "bc+cb");

    // A cancelled auto-free target is not deleted and stays the caller's.
    std::atomic<int> deaths{0};
    Owned* o = new Owned(&deaths);
    q.enqueueAutofree(FUNC(&Owned::hit), o);
    q.cancelFn(FUNC(&Owned::hit), o);
    q.queueProcess(0);
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(o->calls, 0);
    delete o;
}

TEST_F(Dispatch, AutofreeDeletesTheTargetAfterTheCall) {
    Queue q;
    std::atomic<int> deaths{0};
    Owned* o = new Owned(&deaths);
    q.enqueueAutofree(FUNC(&Owned::hit), o);
    EXPECT_EQ(deaths, 0);
    q.queueProcess(0);
    EXPECT_EQ(deaths, 1);
}

namespace {
struct Signal : public Object {
    void fire() { ++count; }
    std::atomic<int> count{0};
};
}  // namespace

TEST_F(Dispatch, CancellingARunReleasesTheWaiterWithoutTheCall) {
    Queue q;
    Signal appended;
    q.setWakeupFn(FUNC(&Signal::fire), &appended);
    Rec a(&trace, "a");
    std::atomic<bool> returned{false};
    std::thread caller([&] {
        q.run(FUNC(&Rec::hit), &a);
        returned = true;
    });
    ASSERT_TRUE(eventually([&] { return appended.count == 1; }));
    q.cancelFn(FUNC(&Rec::hit), &a);
    caller.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(a.calls, 0);
    q.queueProcess(0);
    EXPECT_EQ(a.calls, 0);
}

TEST_F(Dispatch, RunReturnsAfterItsCallAndAfterEarlierItems) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b"), r(&trace, "r");
    a.hook = [&] { std::this_thread::sleep_for(20ms); };
    r.hook = [&] {
        std::this_thread::sleep_for(20ms);
        trace.add(".");
    };
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &b);
    Processor p(q);
    q.run(FUNC(&Rec::hit), &r);
    trace.add("!");
    EXPECT_EQ(trace.str(), "abr.!");
    EXPECT_EQ(r.thread, p.id());
}

TEST_F(Dispatch, NonBlockingProcessReturnsAtOnceAndClearsTheInterrupt) {
    Queue q;
    Rec a(&trace, "a");
    Timer t(&q);
    t.setHandler(FUNC(&Rec::hit), &a);
    t.restart(100000);
    q.queueProcess(0);
    q.queueProcess(-5);
    EXPECT_EQ(a.calls, 0);

    // An interrupt is consumed by the non-blocking call, so a blocking call
    // afterwards waits.
    q.interrupt();
    q.queueProcess(0);
    std::atomic<bool> done{false};
    std::thread worker([&] {
        q.queueProcess(1);
        done = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(done);
    q.interrupt();
    worker.join();
    t.stop();
}

TEST_F(Dispatch, BlockingProcessWithoutWakeupReturnsAfterEachBatch) {
    Queue q;
    Rec a(&trace, "a");
    std::atomic<bool> done{false};
    std::thread worker([&] {
        q.queueProcess(1);
        done = true;
    });
    std::this_thread::sleep_for(20ms);
    q.enqueue(FUNC(&Rec::hit), &a);
    worker.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(a.calls, 1);
}

TEST_F(Dispatch, BlockingProcessWithWakeupKeepsWaitingUntilInterrupted) {
    Queue q;
    Signal woken;
    q.setWakeupFn(FUNC(&Signal::fire), &woken);
    Rec a(&trace, "a");
    std::atomic<bool> done{false};
    std::thread worker([&] {
        q.queueProcess(1);
        done = true;
    });
    q.enqueue(FUNC(&Rec::hit), &a);
    EXPECT_EQ(woken.count, 1) << "the wakeup function runs on the enqueuing thread";
    ASSERT_TRUE(eventually([&] { return a.calls == 1; }));
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(done);
    q.interrupt();
    worker.join();
    EXPECT_EQ(woken.count, 1) << "interrupt does not call the wakeup function";
}

TEST_F(Dispatch, InterruptBeforeProcessingRunsPendingWorkThenReturns) {
    Queue q;
    Signal woken;
    q.setWakeupFn(FUNC(&Signal::fire), &woken);  // so enqueue sets no interrupt
    Rec a(&trace, "a");
    q.enqueue(FUNC(&Rec::hit), &a);
    q.interrupt();
    q.queueProcess(1);  // must not block
    EXPECT_EQ(a.calls, 1);

    std::atomic<bool> done{false};
    std::thread worker([&] {
        q.queueProcess(1);
        done = true;
    });
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(done);
    q.interrupt();
    worker.join();
}

TEST(DispatchTime, DeadlinesCarryAndClampSeconds) {
    using dispatch::internal::timespecAfter;
    timespec r = timespecAfter({5, 700000000}, 1500000);
    EXPECT_EQ(r.tv_sec, 7);
    EXPECT_EQ(r.tv_nsec, 200000000);
    r = timespecAfter({5, 0}, -1);
    EXPECT_EQ(r.tv_sec, 4);
    EXPECT_EQ(r.tv_nsec, 999999000);
    r = timespecAfter({5, 1000}, -1);
    EXPECT_EQ(r.tv_sec, 5);
    EXPECT_EQ(r.tv_nsec, 0);
    r = timespecAfter({100, 0}, INT64_MAX);
    EXPECT_EQ(r.tv_sec, 10000100);
    EXPECT_EQ(r.tv_nsec, 775807000);
}

TEST_F(Dispatch, BodyOutlivesTheHandleWhileATimerHoldsIt) {
    LogCapture cap;
    Queue* q = new Queue;
    Timer* t = new Timer(q);
    delete q;
    EXPECT_EQ(cap.count("release queue private.", LOG_INFO), 0);
    delete t;
    EXPECT_EQ(cap.count("release queue private.", LOG_INFO), 1);
}

TEST_F(Dispatch, MisuseFromACallbackAssertsAndLeavesTheQueueUsable) {
    Queue q;
    Rec a(&trace, "a");
    std::string nested, locked;
    a.hook = [&] {
        try {
            q.queueProcess(0);
        } catch (const std::runtime_error& e) {
            nested = e.what();
        }
        try {
            q.lock();
        } catch (const std::runtime_error& e) {
            locked = e.what();
        }
    };
    q.enqueue(FUNC(&Rec::hit), &a);
    q.queueProcess(0);
    EXPECT_NE(nested.find("ASSERT: dispatch_process.cpp."), std::string::npos) << nested;
    EXPECT_NE(nested.find(": queueProcess"), std::string::npos) << nested;
    EXPECT_NE(locked.find(": lock"), std::string::npos) << locked;
    EXPECT_THROW(q.enqueue(FUNC(&Rec::hit), nullptr), std::runtime_error);
    EXPECT_THROW(q.unlock(), std::runtime_error) << "no hold at all";
    q.enqueue(FUNC(&Rec::other), &a);
    q.queueProcess(0);
    EXPECT_EQ(trace.str(), "a+a") << "the queue still works";
}

TEST_F(Dispatch, DroppingTheLastHolderWithWorkPendingEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, KEL_DEATH_TEST_STYLE);
    Rec a(&trace, "a");
    EXPECT_DEATH(
        {
            Queue* q = new Queue;
            q->enqueue(FUNC(&Rec::hit), &a);
            delete q;
        },
        "ASSERT: dispatch_process.cpp.[0-9]+: ~QueuePrivate");
}

// Four producers each enqueue and run on one queue drained by one thread:
// every item runs once, each producer's items in its order.
TEST_F(Dispatch, StressFourProducersOneConsumer) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 25000;
    struct Item : public Object {
        int producer = 0;
        int seq = 0;
        std::vector<int>* last = nullptr;
        std::atomic<int>* errors = nullptr;
        int calls = 0;
        void hit() {
            ++calls;
            if ((*last)[producer] + 1 != seq) ++*errors;
            (*last)[producer] = seq;
        }
    };
    std::vector<int> last(kProducers, -1);  // touched by the consumer only
    std::atomic<int> errors{0};
    std::vector<std::vector<Item>> items(kProducers, std::vector<Item>(kPerProducer));
    for (int p = 0; p < kProducers; ++p) {
        for (int i = 0; i < kPerProducer; ++i) {
            items[p][i].producer = p;
            items[p][i].seq = i;
            items[p][i].last = &last;
            items[p][i].errors = &errors;
        }
    }
    Queue q;
    {
        Processor consumer(q);
        std::vector<std::thread> producers;
        for (int p = 0; p < kProducers; ++p) {
            producers.emplace_back([&, p] {
                for (int i = 0; i < kPerProducer; ++i) {
                    if (i % 64 == 63) {
                        q.run(FUNC(&Item::hit), &items[p][i]);
                    } else {
                        q.enqueue(FUNC(&Item::hit), &items[p][i]);
                    }
                }
            });
        }
        for (auto& t : producers) t.join();
        drain(q);
    }
    EXPECT_EQ(errors, 0);
    for (int p = 0; p < kProducers; ++p) {
        EXPECT_EQ(last[p], kPerProducer - 1);
        int once = 0;
        for (const Item& it : items[p]) once += it.calls == 1;
        EXPECT_EQ(once, kPerProducer);
    }
}

// ---------------------------------------------------------------------------
// Timers

TEST_F(Dispatch, TimersFireByDeadlineTiesInArmingOrder) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b"), c(&trace, "c"), z(&trace, "z");
    Timer ta(&q), tb(&q), tc(&q), tz(&q);
    ta.setHandler(FUNC(&Rec::hit), &a);
    tb.setHandler(FUNC(&Rec::hit), &b);
    tc.setHandler(FUNC(&Rec::hit), &c);
    tz.setHandler(FUNC(&Rec::hit), &z);
    ta.restart(30);
    tb.restart(30);
    tc.restart(60);
    tz.restart(5);  // armed last, due first
    {
        Processor p(q);
        ASSERT_TRUE(eventually([&] { return c.calls == 1; }));
    }
    EXPECT_EQ(trace.str(), "zabc");
    EXPECT_TRUE(ta.isRunning()) << "a fired one-shot timer still reports running";
}

TEST_F(Dispatch, RestartReplacesThePendingEntry) {
    Queue q;
    Rec a(&trace, "a");
    Timer t(&q);
    t.setHandler(FUNC(&Rec::hit), &a);
    t.restart(100000);
    int used = poolCounts().used;
    t.restart(10);      // earlier
    t.restart(100000);  // later
    t.restart(10);
    EXPECT_EQ(poolCounts().used, used);
    {
        Processor p(q);
        ASSERT_TRUE(eventually([&] { return a.calls == 1; }));
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
}

TEST_F(Dispatch, RepeatingTimerKeepsOneEntryAndCountsFromTheCallbacksEnd) {
    Queue q;
    Rec a(&trace, "a");
    Timer t(&q);
    t.setRepeat(true);
    t.setHandler(FUNC(&Rec::hit), &a);
    using Clock = std::chrono::steady_clock;
    Clock::time_point firstEnd, secondStart;
    a.hook = [&] {
        if (a.calls == 1) {
            std::this_thread::sleep_for(60ms);  // longer than the period
            firstEnd = Clock::now();
        } else if (a.calls == 2) {
            secondStart = Clock::now();
        }
    };
    int before = poolCounts().used;
    for (int i = 0; i < 5; ++i) t.restart(20);
    EXPECT_EQ(poolCounts().used, before + 1);
    {
        Processor p(q);
        ASSERT_TRUE(eventually([&] { return a.calls >= 4; }));
        drain(q);
        EXPECT_EQ(poolCounts().used, before + 1) << "the entry is reused, not duplicated";
        t.stop();
    }
    EXPECT_GE(secondStart - firstEnd, 20ms) << "no catching up after a long callback";
}

TEST_F(Dispatch, RepeatingTimerRestartedFromItsCallbackKeepsOneEntry) {
    Queue q;
    Rec a(&trace, "a");
    Timer t(&q);
    t.setRepeat(true);
    t.setHandler(FUNC(&Rec::hit), &a);
    a.hook = [&] {
        if (a.calls == 1) t.restart(100000);
    };
    t.restart(0);
    {
        Processor p(q);
        ASSERT_TRUE(eventually([&] { return a.calls == 1; }));
        drain(q);
        EXPECT_EQ(poolCounts().used, 1);
        EXPECT_GT(q.getNeedWait(), 50000000) << "the restart's deadline counts";
        t.stop();
        EXPECT_EQ(poolCounts().used, 0);
    }
    EXPECT_EQ(a.calls, 1);
}

TEST_F(Dispatch, StopFromCallbacks) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b");
    Timer ta(&q), tb(&q);
    ta.setHandler(FUNC(&Rec::hit), &a);
    tb.setHandler(FUNC(&Rec::hit), &b);
    ta.setRepeat(true);
    // A repeating timer stopping itself: no re-arm. It also stops b, whose
    // entry then stays on the list, inert.
    a.hook = [&] {
        ta.stop();
        tb.stop();
    };
    tb.restart(100000);
    ta.restart(0);
    // Non-blocking passes never compute a wait, so nothing prunes early.
    ASSERT_TRUE(eventually([&] {
        q.queueProcess(0);
        return a.calls == 1;
    }));
    EXPECT_EQ(poolCounts().used, 1) << "b's leftover";
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    EXPECT_EQ(poolCounts().used, 0) << "the leftover is pruned";
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 0);
    EXPECT_FALSE(ta.isRunning());
}

TEST_F(Dispatch, RestartFromCallbacksReplacesOrRearms) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b");
    Timer ta(&q), tb(&q);
    ta.setHandler(FUNC(&Rec::hit), &a);
    tb.setHandler(FUNC(&Rec::hit), &b);
    // a (one-shot) re-arms itself once and moves b's deadline close.
    a.hook = [&] {
        if (a.calls == 1) {
            ta.restart(10);
            tb.restart(5);
        }
    };
    tb.restart(100000);
    ta.restart(0);
    {
        Processor p(q);
        ASSERT_TRUE(eventually([&] { return a.calls == 2 && b.calls == 1; }));
        drain(q);
    }
    EXPECT_EQ(trace.str(), "aba");
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
}

namespace {
struct Gate : public Object {
    void pass() {
        std::unique_lock<std::mutex> g(m);
        entered = true;
        cv.notify_all();
        cv.wait(g, [&] { return open; });
    }
    void openUp() {
        std::lock_guard<std::mutex> g(m);
        open = true;
        cv.notify_all();
    }
    void awaitEntry() {
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return entered; });
    }
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool open = false;
};
}  // namespace

TEST_F(Dispatch, WaitQueryDuringAStoppedTimersCallbackLeavesItsEntry) {
    Queue q;
    Gate gate;
    Timer t(&q);
    t.setHandler(FUNC(&Gate::pass), &gate);
    t.restart(0);
    Processor p(q);
    gate.awaitEntry();
    t.stop();  // from outside, while its callback runs
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    EXPECT_EQ(poolCounts().used, 1) << "the firing entry belongs to the processing thread";
    gate.openUp();
    drain(q);
    EXPECT_EQ(poolCounts().used, 0);
}

TEST_F(Dispatch, ZeroDelayAndHandlerChanges) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b");
    Timer t(&q);
    EXPECT_THROW(t.restart(10), std::runtime_error);
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);

    t.setHandler(FUNC(&Rec::hit), &a);
    t.restart(0);
    EXPECT_LE(q.getNeedWait(), 0);
    t.setHandler(FUNC(&Rec::hit), &b);  // the pending entry keeps a
    q.queueProcess(0);
    ASSERT_TRUE(eventually([&] {
        q.queueProcess(0);
        return a.calls == 1;
    }));
    t.restart(0);
    ASSERT_TRUE(eventually([&] {
        q.queueProcess(0);
        return b.calls == 1;
    }));
    EXPECT_EQ(trace.str(), "ab");
}

TEST_F(Dispatch, DestroyingAnArmedTimerTakesItsEntryAlong) {
    Queue q;
    Rec a(&trace, "a");
    {
        Timer t(&q);
        t.setHandler(FUNC(&Rec::hit), &a);
        t.restart(0);
        EXPECT_EQ(poolCounts().used, 1);
    }
    EXPECT_EQ(poolCounts().used, 0);

    // Clearing the flag directly makes a pending entry inert until pruned.
    Timer t2(&q);
    t2.setHandler(FUNC(&Rec::hit), &a);
    t2.restart(0);
    t2.setIsRunning(false);
    std::this_thread::sleep_for(2ms);
    q.queueProcess(0);
    EXPECT_EQ(a.calls, 0);
    EXPECT_EQ(poolCounts().used, 0) << "the inert entry was dropped when it came due";
}

// ---------------------------------------------------------------------------
// Loop

namespace {
class RecLoop : public Loop {
public:
    explicit RecLoop(Trace* t) : trace(t) {}
    void procSubMsg(const Evt& e) override {
        trace->add(std::to_string(e.sig));
        if (hook) hook(e);
    }
    Trace* trace;
    std::function<void(const Evt&)> hook;
};
}  // namespace

TEST_F(Dispatch, LoopDeliversEventsInPostOrderAfterCallbacks) {
    Queue q;
    RecLoop loop(&trace);
    loop.setQueue(&q);
    Rec a(&trace, "a");
    Loop::Evt e(7);
    EXPECT_EQ(e.wParam, 0);
    EXPECT_EQ(e.pHandler, nullptr);

    // Posted before exec: delivered although nobody processes yet.
    loop.post(e);
    e.sig = 1;  // the loop holds a copy
    loop.post(e);
    Loop::Evt x(9);
    loop.postFIFO(x);  // in front
    q.enqueue(FUNC(&Rec::hit), &a);
    loop.hook = [&](const Loop::Evt& ev) {
        if (ev.sig == 1) {
            Loop::Evt again(5);
            loop.post(again);  // same turn
        }
    };
    std::thread t([&] { loop.exec(); });
    loop.exit();
    t.join();
    EXPECT_EQ(trace.str(), "a9715");
}

TEST_F(Dispatch, PostFifoOnAnEmptyListKeepsTheTail) {
    Queue q;
    RecLoop loop(&trace);
    loop.setQueue(&q);
    Loop::Evt x(1), y(2), b(3);
    loop.postFIFO(x);
    loop.postFIFO(y);
    loop.post(b);
    std::thread t([&] { loop.exec(); });
    loop.exit();
    t.join();
    EXPECT_EQ(trace.str(), "213");
}

TEST_F(Dispatch, LoopRunsAgainAfterExit) {
    Queue q;
    RecLoop loop(&trace);
    loop.setQueue(&q);
    for (int round = 1; round <= 2; ++round) {
        std::thread t([&] { loop.exec(); });
        Loop::Evt e(round);
        loop.post(e);
        ASSERT_TRUE(eventually([&] { return trace.str().size() == static_cast<size_t>(round); }));
        loop.exit();
        t.join();
    }
    EXPECT_EQ(trace.str(), "12");
}

TEST_F(Dispatch, LoopWithWakeupEndsOnTheNextPostAfterExit) {
    Queue q;
    Signal woken;
    q.setWakeupFn(FUNC(&Signal::fire), &woken);
    RecLoop loop(&trace);
    loop.setQueue(&q);
    std::atomic<bool> ended{false};
    std::thread t([&] {
        loop.exec();
        ended = true;
    });
    loop.exit();
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(ended);
    Loop::Evt e(4);
    loop.post(e);
    t.join();
    EXPECT_EQ(trace.str(), "4");
}

// ---------------------------------------------------------------------------
// Explicit lock

TEST_F(Dispatch, LockHoldsWorkAndTimersUntilUnlock) {
    Queue q;
    Rec a(&trace, "a"), tick(&trace, "t");
    Timer t(&q);
    t.setHandler(FUNC(&Rec::hit), &tick);
    Processor p(q);
    q.lock();  // the processor sleeps in its wait: no callback to wait for
    t.restart(5);
    q.enqueue(FUNC(&Rec::hit), &a);
    q.interrupt();
    int returns = p.returns;
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(trace.str(), "");
    EXPECT_EQ(p.returns, returns) << "queueProcess does not return during a hold";
    q.unlock();
    ASSERT_TRUE(eventually([&] { return tick.calls == 1; }));
    EXPECT_EQ(trace.str(), "at");
    EXPECT_THROW(q.unlock(), std::runtime_error);
}

TEST_F(Dispatch, LockWaitsForTheRunningCallbackOnly) {
    Queue q;
    Gate gate;
    Rec b(&trace, "b");
    Processor p(q);
    q.enqueue(FUNC(&Gate::pass), &gate);
    q.enqueue(FUNC(&Rec::hit), &b);
    gate.awaitEntry();
    std::atomic<bool> held{false};
    std::thread locker([&] {
        q.lock();
        held = true;
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(b.calls, 0) << "the item behind stays pending";
        EXPECT_THROW(q.lock(), std::runtime_error) << "not recursive";
        q.unlock();
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(held);
    EXPECT_THROW(q.unlock(), std::runtime_error) << "not the holder";
    gate.openUp();
    locker.join();
    drain(q);
    EXPECT_EQ(b.calls, 1);
}

namespace {
// Starts a processing thread when the queue asks for one.
struct OnDemand : public Object {
    explicit OnDemand(Queue* queue) : q(queue) {}
    void wake() {
        ++calls;
        std::lock_guard<std::mutex> g(m);
        if (!thread.joinable()) thread = std::thread([this] { q->queueProcess(1); });
    }
    Queue* q;
    std::atomic<int> calls{0};
    std::mutex m;
    std::thread thread;
};
}  // namespace

TEST_F(Dispatch, LockCallsTheWakeupFunctionToGetAProcessor) {
    Queue q;
    OnDemand od(&q);
    q.setWakeupFn(FUNC(&OnDemand::wake), &od);
    q.lock();
    EXPECT_GE(od.calls, 1);
    q.unlock();
    q.interrupt();
    od.thread.join();
}

TEST_F(Dispatch, TwoLockersExcludeEachOtherAndTheCallbacks) {
    Queue q;
    std::atomic<int> inCallback{0};
    std::atomic<int> holders{0};
    std::atomic<int> overlaps{0};
    std::atomic<bool> stop{false};
    struct Busy : public Object {
        std::atomic<int>* inCallback;
        std::atomic<int>* holders;
        std::atomic<int>* overlaps;
        void work() {
            inCallback->fetch_add(1);
            if (holders->load() != 0) ++*overlaps;
            std::this_thread::yield();
            inCallback->fetch_sub(1);
        }
        // A timer callback may legitimately outlast the start of a hold.
        void tick() {
            inCallback->fetch_add(1);
            std::this_thread::yield();
            inCallback->fetch_sub(1);
        }
    } busy;
    busy.inCallback = &inCallback;
    busy.holders = &holders;
    busy.overlaps = &overlaps;
    Timer t(&q);
    t.setHandler(FUNC(&Busy::tick), &busy);
    t.setRepeat(true);
    t.restart(0);  // keeps falling due, also during holds
    Processor p(q);
    std::thread feeder([&] {
        while (!stop) q.enqueue(FUNC(&Busy::work), &busy);
    });
    auto locker = [&] {
        for (int i = 0; i < 300; ++i) {
            q.lock();
            if (holders.fetch_add(1) != 0) ++overlaps;
            while (inCallback != 0) std::this_thread::yield();  // a timer finishing
            for (int k = 0; k < 20; ++k) {
                if (inCallback != 0) ++overlaps;
                std::this_thread::yield();
            }
            holders.fetch_sub(1);
            q.unlock();
        }
    };
    std::thread l1(locker), l2(locker);
    l1.join();
    l2.join();
    stop = true;
    feeder.join();
    t.stop();
    drain(q);
    EXPECT_EQ(overlaps, 0);
}
