// Dispatch queues: run, processing modes, misuse, timers, the event loop on
// a queue, holds, and the heap. Plain order of queued calls is the fuzz
// model's part.
#include "kel_stats.h"
#include "support/fault_hooks.h"
#include "support/loop_harness.h"

using namespace dispatch;
using namespace std::chrono_literals;

namespace {

// Nodes in use, process-wide.
int used() {
    Queue q;
    return dispatchNodesUsed(q);
}

struct Trace {
    std::mutex m;
    std::string text;
    void add(const std::string& s) {
        std::lock_guard<std::mutex> g(m);
        text += s;
    }
    std::string str() {
        std::lock_guard<std::mutex> g(m);
        return text;
    }
};

struct Rec : public Object {
    Rec(Trace* t, const char* n) : trace(t), name(n) {}
    void hit() {
        ++calls;
        thread = std::this_thread::get_id();
        trace->add(name);
        if (hook) hook();
    }
    void other() { trace->add("+" + name); }
    Trace* trace;
    std::string name;
    std::atomic<int> calls{0};
    std::atomic<std::thread::id> thread;  // queues on several threads may share a recorder
    std::function<void()> hook;
};

// A recorder with a timer of its own.
struct Tick : public Rec {
    Tick(Trace* t, const char* n, Queue* q) : Rec(t, n), timer(q) { timer.setHandler(FUNC(&Rec::hit), this); }
    Timer timer;
};

// Drives a queue with blocking queueProcess calls until destroyed.
struct Processor {
    explicit Processor(Queue& queue) : q(queue) {}
    ~Processor() {
        stop = true;
        q.interrupt();
        thread.join();
    }
    Queue& q;
    std::atomic<bool> stop{false};
    std::thread thread{[this] {
        while (!stop) q.queueProcess(1);
    }};
};

class Dispatch : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(used(), 0) << "nodes left out of the pool";
        EXPECT_TRUE(waitForNoStrayThreads()) << ::testing::PrintToString(strayThreads());
    }
    // Every call queued before this one has returned.
    void drain(Queue& q) { q.run(FUNC(&Rec::other), &sink); }
    Trace trace, sinkTrace;
    Rec sink{&sinkTrace, ""};
};

}  // namespace

// With a wakeup function: enqueue calls it and sets no interrupt, interrupt
// does not call it, a lock with nobody processing asks for a processor, and
// processing waits for an interrupt. A cancelled run returns without its
// call; run waits for earlier items and its own call on the processor.
TEST_F(Dispatch, RunAndProcessingWithAWakeupFunction) {
    Queue q;
    Rec woken(&trace, ""), a(&trace, "a"), b(&trace, "b"), r(&trace, "r");
    q.setWakeupFn(FUNC(&Rec::hit), &woken);
    std::thread caller([&] { q.run(FUNC(&Rec::hit), &a); });
    ASSERT_TRUE(waitUntil([&] { return woken.calls == 1; }));
    q.cancelFn(FUNC(&Rec::hit), &a);
    caller.join();
    q.enqueue(FUNC(&Rec::hit), &a);
    EXPECT_EQ(woken.calls, 2);
    q.interrupt();
    q.queueProcess(1);  // runs the pending work, then returns
    EXPECT_EQ(a.calls, 1) << "the cancelled run's call is gone";
    EXPECT_EQ(woken.calls, 2);
    std::thread locker([&] {
        q.lock();
        q.unlock();
    });
    ASSERT_TRUE(waitUntil([&] { return woken.calls == 3; }));
    std::atomic<bool> done{false};
    std::thread worker([&] { q.queueProcess(1), done = true; });
    locker.join();
    a.hook = [&] { std::this_thread::sleep_for(20ms); };
    r.hook = [&] { std::this_thread::sleep_for(20ms), trace.add("."); };
    q.enqueue(FUNC(&Rec::hit), &a);
    q.enqueue(FUNC(&Rec::hit), &b);
    q.run(FUNC(&Rec::hit), &r);
    trace.add("!");
    EXPECT_EQ(trace.str(), "aabr.!");
    EXPECT_EQ(r.thread.load(), worker.get_id());
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(done) << "processing with a wakeup function waits for an interrupt";
    q.interrupt();
    worker.join();
}

// Nested processing, locks from a callback, null targets and out-of-range
// delays are refused and leave the queue usable; a queue dropped with work
// pending is fatal.
TEST_F(Dispatch, MisuseAssertsAndLeavesTheQueueUsable) {
    Queue q;
    Rec a(&trace, "a");
    a.hook = [&] {
        EXPECT_THROW(q.queueProcess(0), std::runtime_error) << "nested processing";
        EXPECT_THROW(q.lock(), std::runtime_error) << "lock from a callback";
    };
    q.enqueue(FUNC(&Rec::hit), &a);
    q.queueProcess(0);
    auto fn = FUNC(&Rec::hit);
    for (auto put :
         {&Queue::enqueue, &Queue::enqueueAutofree, &Queue::enqueueNotify, &Queue::cancelFn, &Queue::run})
        EXPECT_THROW((q.*put)(fn, nullptr), std::runtime_error);
    EXPECT_THROW(q.unlock(), std::runtime_error) << "no hold at all";
    Timer t(&q);
    t.setHandler(fn, &a);
    for (int ms : {2147484, INT_MAX, INT_MIN}) {
        t.restart(ms);
        EXPECT_LE(q.getNeedWait(), 2147483000LL) << ms;
        t.stop();
    }
    q.enqueue(FUNC(&Rec::other), &a);
    q.queueProcess(0);
    EXPECT_EQ(trace.str(), "a+a") << "the queue still works";
    // Dropping the last holder with work pending ends the process.
    GTEST_FLAG_SET(death_test_style, KEL_DEATH_TEST_STYLE);
    Queue* dropped = new Queue;
    dropped->enqueue(FUNC(&Rec::other), &a);
    EXPECT_DEATH(delete dropped, "ASSERT: dispatch_process.cpp.[0-9]+: ~QueuePrivate");
    dropped->queueProcess(0);
    delete dropped;
}

// Four producers enqueue and run on one queue drained by one thread: every
// item runs once, each producer's items in its order. Longer under soak.
TEST_F(Dispatch, StressFourProducersOneConsumer) {
    constexpr int kProducers = 4;
    const int kEach = static_cast<int>(25000 * stressSeconds(1.0));
    struct Item : public Object {
        int seq = 0, calls = 0;
        int* next = nullptr;  // the producer's next number; consumer only
        void hit() {
            if (++calls == 1 && *next == seq) ++*next;
        }
    };
    std::vector<int> next(kProducers, 0);
    std::vector<Item> items(kProducers * kEach);
    Queue q;
    {
        Processor consumer(q);
        std::vector<std::thread> producers;
        for (int p = 0; p < kProducers; ++p) {
            producers.emplace_back([&, p] {
                for (int i = p * kEach; i < (p + 1) * kEach; ++i) {
                    items[i].seq = i % kEach, items[i].next = &next[p];
                    (q.*(i % 64 == 63 ? &Queue::run : &Queue::enqueue))(FUNC(&Item::hit), &items[i]);
                }
            });
        }
        for (auto& t : producers) t.join();
        drain(q);
    }
    EXPECT_EQ(next, std::vector<int>(kProducers, kEach)) << "an item ran out of its producer's order";
    EXPECT_EQ(std::count_if(items.begin(), items.end(), [](const Item& it) { return it.calls == 1; }),
              kProducers * kEach);
}

// A repeating timer reuses its one entry and counts its period from the end
// of a long callback (no catching up); stopping it from outside while its
// callback runs leaves the firing entry to the processing thread.
TEST_F(Dispatch, RepeatingTimerKeepsOneEntryAndCountsFromTheCallbacksEnd) {
    Queue q;
    Tick a(&trace, "a", &q);
    a.timer.setRepeat(true);
    using Clock = std::chrono::steady_clock;
    Clock::time_point firstEnd, secondStart;
    Gate entered, opened;
    a.hook = [&] {
        if (a.calls == 1) {
            std::this_thread::sleep_for(60ms);  // beyond the period
            firstEnd = Clock::now();
        }
        if (a.calls == 2) secondStart = Clock::now();
        if (a.calls == 4) {
            entered.open();
            opened.wait();
        }
    };
    for (int i = 0; i < 5; ++i) a.timer.restart(20);
    {
        Processor p(q);
        entered.wait();
        EXPECT_EQ(used(), 1) << "the entry is reused, not duplicated";
        a.timer.stop();
        EXPECT_EQ(q.getNeedWait(), INT64_MAX);
        EXPECT_EQ(used(), 1) << "the firing entry belongs to the processing thread";
        opened.open();
        drain(q);
    }
    EXPECT_GE(secondStart - firstEnd, 20ms);
}

// Traces the events it gets, or only counts them without a trace.
struct RecLoop : public Loop {
    RecLoop(Trace* t, Queue* q) : trace(t) { setQueue(q); }
    void procSubMsg(const Evt& e) override {
        delivered += e.sig;
        if (trace) trace->add(std::to_string(e.sig));
        if (e.sig == 1) post(Evt(5));  // delivered in the same turn
        if (e.sig == 13) throw std::runtime_error("event");
    }
    void post(Evt e) { Loop::post(e); }
    Trace* trace;
    std::atomic<long> delivered{0};
};

// Events posted before exec are delivered after the pending callbacks, FIFO
// ones in front; exec runs again after exit; with a wakeup function, exit
// takes effect on the next post.
TEST_F(Dispatch, LoopDeliversEventsInPostOrderAfterCallbacksAndRunsAgain) {
    Queue q;
    RecLoop loop(&trace, &q);
    Rec a(&trace, "a");
    Loop::Evt x(9), y(8);
    loop.postFIFO(x);  // on the empty list: what follows goes behind it
    loop.post(7);
    loop.post(1);
    loop.postFIFO(y);
    q.enqueue(FUNC(&Rec::hit), &a);
    std::thread t([&] { loop.exec(); });
    loop.exit();
    t.join();
    EXPECT_EQ(trace.str(), "a89715");
    std::thread t2([&] { loop.exec(); });
    loop.post(6);
    ASSERT_TRUE(waitUntil([&] { return trace.str() == "a897156"; }));
    loop.exit();
    t2.join();
    Rec woken(&trace, "");
    q.setWakeupFn(FUNC(&Rec::hit), &woken);
    std::atomic<bool> ended{false};
    std::thread t3([&] { loop.exec(), ended = true; });
    loop.exit();
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(ended);
    loop.post(4);
    t3.join();
    EXPECT_EQ(trace.str(), "a8971564");
}

namespace {
struct FdLoop : Object, RecLoop {
    FdLoop(Queue* q, int a, int b) : RecLoop(nullptr, q), fds{a, b} {}
    void onReady(int fd, unsigned ready) {  // 1st call: unwatches the other; 2nd: reads; then sits a while
        EXPECT_EQ(ready, KEL_FD_IN);
        char c;
        const int n = calls++;
        live = n == 0 ? fd : live.load();
        EXPECT_TRUE(n != 0 || unwatchFd(fd == fds[0] ? fds[1] : fds[0]));
        EXPECT_TRUE(n != 1 || read(fd, &c, 1) == 1);
        inside = n >= 2;
        std::this_thread::sleep_for(n >= 2 ? 30ms : 0ms);
        inside = false;
    }
    int fds[2];
    std::atomic<int> calls{0}, live{-1};
    std::atomic<bool> inside{false};
};
}  // namespace

// A loop watching descriptors: level-triggered, an unwatch from the handler
// drops a readiness already collected; a callback, an event and a timer
// from other threads end its wait; an unwatch from another thread returns
// once the running handler has.
TEST_F(Dispatch, LoopWatchesDescriptors) {
    Queue q;
    int p[2][2];
    ASSERT_TRUE(pipe(p[0]) == 0 && pipe(p[1]) == 0);
    FdLoop loop(&q, p[0][0], p[1][0]);
    Rec a(&trace, "a");
    Tick tick(&trace, "t", &q);
    for (auto& f : p)
        ASSERT_TRUE(write(f[1], "x", 1) == 1 &&
                    loop.watchFd(f[0], KEL_FD_IN, FDFUNC(&FdLoop::onReady), &loop));
    std::thread t([&] { loop.exec(); });
    ASSERT_TRUE(waitUntil([&] { return loop.calls == 2; }));
    std::this_thread::sleep_for(20ms);  // asleep in epoll_wait: the enqueue must wake it
    q.enqueue(FUNC(&Rec::hit), &a);
    ASSERT_TRUE(waitUntil([&] { return a.calls == 1; }));
    loop.post(3);
    ASSERT_TRUE(waitUntil([&] { return loop.delivered == 3; }));
    tick.timer.restart(1);
    ASSERT_TRUE(waitUntil([&] { return tick.calls == 1; }));
    EXPECT_EQ(loop.calls, 2);
    ASSERT_EQ(write(p[0][0] == loop.live ? p[0][1] : p[1][1], "x", 1), 1);
    ASSERT_TRUE(waitUntil([&] { return loop.calls > 2; }));
    EXPECT_TRUE(loop.unwatchFd(loop.live));
    EXPECT_FALSE(loop.inside);
    const int calls = loop.calls;
    drain(q);
    EXPECT_EQ(loop.calls, calls);
    loop.exit();
    t.join();
    // A descriptor that stays ready is served once by queueProcess(0), which returns.
    ASSERT_TRUE(loop.watchFd(loop.live, KEL_FD_IN, FDFUNC(&FdLoop::onReady), &loop));
    q.queueProcess(0);
    EXPECT_EQ(loop.calls, calls + 1);
    EXPECT_TRUE(loop.unwatchFd(loop.live));
    for (auto& f : p) close(f[0]), close(f[1]);
}

// Two lockers never hold at once, nor while a callback runs.
TEST_F(Dispatch, TwoLockersExcludeEachOtherAndTheCallbacks) {
    std::atomic<int> inCallback{0}, holders{0}, overlaps{0}, pending{0};
    Rec busy(&sinkTrace, "");
    busy.hook = [&] {
        if (inCallback++ != 0 || holders != 0) ++overlaps;
        std::this_thread::yield();
        --inCallback;
        --pending;
    };
    Queue q;
    Processor p(q);
    std::atomic<bool> stop{false};
    std::thread feeder([&] {
        for (; !stop; std::this_thread::yield())  // a short queue, so that holds come quickly
            if (pending < 64) ++pending, q.enqueue(FUNC(&Rec::hit), &busy);
    });
    auto locker = [&] {
        for (int i = 0; i < 300; ++i) {
            q.lock();
            if (holders++ != 0) ++overlaps;
            for (int k = 0; k < 20; ++k, std::this_thread::yield())
                if (inCallback != 0) ++overlaps;
            --holders;
            q.unlock();
        }
    };
    std::thread l1(locker), l2(locker);
    l1.join();
    l2.join();
    stop = true;
    feeder.join();
    drain(q);
    EXPECT_EQ(overlaps, 0);
}

// A callback, timer callback or loop event that throws gives its node back
// and leaves the queue usable; a timer may be destroyed from its own callback; a
// negative delay from a callback does not displace the firing entry.
TEST_F(Dispatch, ThrowingCallbacksSelfDestroyingTimersAndNegativeDelaysFromCallbacks) {
    Queue q;
    Rec a(&trace, "a"), b(&trace, "b");
    Tick t(&trace, "t", &q), n(&trace, "n", &q);
    auto poll = [&](Rec& r) { return waitUntil([&] { return q.queueProcess(0), r.calls == 1; }); };
    a.hook = t.hook = [] { throw std::runtime_error("callback"); };
    t.timer.setRepeat(true);
    q.enqueue(FUNC(&Rec::hit), &a);
    EXPECT_THROW(q.queueProcess(0), std::runtime_error);
    t.timer.restart(0);
    std::this_thread::sleep_for(2ms);
    EXPECT_THROW(q.queueProcess(0), std::runtime_error);
    EXPECT_EQ(q.getNeedWait(), INT64_MAX) << "a throwing repeating timer is not re-armed";
    RecLoop loop(nullptr, &q);
    const int used = dispatchNodesUsed(q);
    loop.post(Loop::Evt(13));
    EXPECT_THROW(loop.exec(), std::runtime_error);
    EXPECT_EQ(dispatchNodesUsed(q), used);
    Timer* self = new Timer(&q);
    b.hook = [&] { delete self; };
    self->setHandler(FUNC(&Rec::hit), &b);
    self->setRepeat(true);
    self->restart(0);
    ASSERT_TRUE(poll(b));
    t.hook = [&] { n.timer.restart(-5); };
    t.timer.setRepeat(false);
    t.timer.restart(0);
    ASSERT_TRUE(poll(n));
    EXPECT_EQ(trace.str(), "atbtn");
}

using DispatchAlloc = Dispatch;

// One burst of every kind of work, queued during a hold so that the peak is
// the same on every round.
static void burst(Queue& q, RecLoop& loop, Timer& timer, Rec& c, Rec& n) {
    long target = loop.delivered + 16;
    q.lock();
    for (int i = 0; i < 8; ++i) q.enqueue(FUNC(&Rec::hit), &c);
    for (int i = 0; i < 2; ++i) q.enqueueNotify(FUNC(&Rec::hit), &n);  // merged
    q.enqueue(FUNC(&Rec::other), &c);
    q.cancelFn(FUNC(&Rec::other), &c);
    timer.restart(0);
    Loop::Evt e(2);
    for (int i = 0; i < 4; ++i) loop.post(e), loop.postFIFO(e);
    q.unlock();
    q.run(FUNC(&Rec::hit), &c);
    while (loop.delivered < target) std::this_thread::yield();
}

TEST_F(DispatchAlloc, SteadyStateTouchesNoHeap) {
    hooks::counting = true;
    Queue q;
    RecLoop loop(nullptr, &q);
    Rec c(&trace, ""), n(&trace, "");
    Tick tc(&trace, "", &q);
    std::thread t([&] { loop.exec(); });
    for (int i = 0; i < 3; ++i) burst(q, loop, tc.timer, c, n);  // warm the pool
    int made0 = 0, made1 = 0;
    dispatchNodesUsed(q, &made0);
    hooks::allocs = 0;
    for (int i = 0; i < 200; ++i) burst(q, loop, tc.timer, c, n);
    EXPECT_EQ(hooks::allocs, 0);
    dispatchNodesUsed(q, &made1);
    EXPECT_EQ(made1, made0) << "the pool did not grow";
    EXPECT_EQ(c.calls, 203 * 9);
    tc.timer.stop();
    loop.exit();
    t.join();
}

// Every way of queuing that must grow the node store, failing in the
// store's allocation: bad_alloc reaches the caller, the queue's mutex is
// free, the counters and pending work are unchanged, the target of a failed
// enqueueAutofree is still the caller's, and the next call succeeds.
TEST_F(DispatchAlloc, HeapFailureWhileQueuingLeavesTheQueueUsable) {
    static bool deleted = false;
    struct Owned : public Rec {
        using Rec::Rec;
        ~Owned() override { deleted = true; }
    };
    Queue q;
    RecLoop loop(&trace, &q);
    Rec a(&trace, "1"), b(&trace, "2");
    Owned* owned = new Owned(&trace, "3");
    Tick t(&trace, "", &q);
    Loop::Evt ev(7);
    std::vector<std::function<void()>> ways = {
        [&] { q.enqueue(FUNC(&Rec::hit), &a); },
        [&] { q.enqueueNotify(FUNC(&Rec::hit), &b); },
        [&] { q.enqueueAutofree(FUNC(&Rec::hit), owned); },
        [&] { loop.post(ev); },
        [&] { t.timer.restart(0); },
    };
    for (size_t i = 0; i < ways.size(); ++i) {
        int made = 0, used = dispatchNodesUsed(q, &made);
        ASSERT_EQ(used, made) << i << ": the store must be empty so that the call grows it";
        hooks::failAllocIn = 1;
        EXPECT_THROW(ways[i](), std::bad_alloc) << i;
        hooks::failAllocIn = 0;
        EXPECT_EQ(dispatchNodesUsed(q), used) << i;
        EXPECT_FALSE(t.timer.isRunning()) << i;
        ways[i]();  // the retry; the queue's mutex was free
        EXPECT_EQ(dispatchNodesUsed(q), used + 1) << i;
    }
    EXPECT_FALSE(deleted) << "a failed enqueueAutofree leaves the target with its caller";
    std::thread th([&] { loop.exec(); });
    loop.exit();
    th.join();
    t.timer.stop();
    EXPECT_EQ(trace.str(), "1237");
    EXPECT_TRUE(deleted);
}

// One store for all queues, made by whichever queue comes first, also when
// the first ones are made at once on several threads; nodes given back by
// one queue serve another without a new allocation.
TEST_F(DispatchAlloc, QueuesMadeOnSeveralThreadsShareOneStore) {
    Rec c(&trace, "");
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!go) std::this_thread::yield();
            Queue q;
            for (int k = 0; k < 50; ++k) q.enqueue(FUNC(&Rec::hit), &c);
            q.queueProcess(0);
        });
    }
    go = true;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(c.calls, 200);
    hooks::counting = true;
    Queue q;
    int made = 0;
    EXPECT_EQ(dispatchNodesUsed(q, &made), 0);
    EXPECT_TRUE(made >= 50 && made <= 200) << made;
    hooks::allocs = 0;
    for (int k = 0; k < 50; ++k) q.enqueue(FUNC(&Rec::hit), &c);
    EXPECT_EQ(hooks::allocs, 0);
    KelStats s = kel_stats_snapshot();
    EXPECT_TRUE(s.nodes_used == 50 && s.nodes_made == unsigned(made)) << s.nodes_used << " " << s.nodes_made;
    q.queueProcess(0);
}
