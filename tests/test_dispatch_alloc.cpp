// Heap accounting for the dispatch queues: no allocation in steady state,
// nodes kept and handed on, and failures of the store's allocation.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "support/fault_hooks.h"
#include "support/loop_harness.h"

using namespace dispatch;
using hooks::allocs;

namespace {

struct Counter : public Object {
    void hit() { ++calls; }
    void other() { ++calls; }
    std::atomic<int> calls{0};
};

struct CountingLoop : public Loop {
    void procSubMsg(const Evt& e) override { delivered += e.sig; }
    std::atomic<long> delivered{0};
};

// One burst of every kind of work, queued during a hold so that the peak is
// the same on every round.
void burst(Queue& q, CountingLoop& loop, Timer& timer, Counter& c, Counter& n) {
    long target = loop.delivered + 16;
    q.lock();
    for (int i = 0; i < 8; ++i) q.enqueue(FUNC(&Counter::hit), &c);
    for (int i = 0; i < 2; ++i) q.enqueueNotify(FUNC(&Counter::hit), &n);  // merged
    q.enqueue(FUNC(&Counter::other), &c);
    q.cancelFn(FUNC(&Counter::other), &c);
    timer.restart(0);
    Loop::Evt e(2);
    for (int i = 0; i < 4; ++i) loop.post(e), loop.postFIFO(e);
    q.unlock();
    q.run(FUNC(&Counter::hit), &c);
    while (loop.delivered < target) std::this_thread::yield();
}

}  // namespace

TEST(DispatchAlloc, SteadyStateTouchesNoHeap) {
    hooks::counting = true;
    Queue q;
    CountingLoop loop;
    loop.setQueue(&q);
    Counter c, n, tc;
    Timer timer(&q);
    timer.setHandler(FUNC(&Counter::hit), &tc);
    std::thread t([&] { loop.exec(); });
    for (int i = 0; i < 3; ++i) burst(q, loop, timer, c, n);  // warm the pool
    int made0 = 0, made1 = 0;
    dispatchNodesUsed(q, &made0);
    allocs = 0;
    for (int i = 0; i < 200; ++i) burst(q, loop, timer, c, n);
    EXPECT_EQ(allocs, 0);
    dispatchNodesUsed(q, &made1);
    EXPECT_EQ(made1, made0) << "the pool did not grow";
    EXPECT_EQ(c.calls, 203 * 9);
    timer.stop();
    loop.exit();
    t.join();
    EXPECT_EQ(dispatchNodesUsed(q), 0);
}

// Every way of queuing that must grow the node store, failing in the
// store's allocation: bad_alloc reaches the caller, the queue's mutex is
// free, the counters and pending work are unchanged, the target of a failed
// enqueueAutofree is still the caller's, and the next call succeeds.
TEST(DispatchAlloc, HeapFailureWhileQueuingLeavesTheQueueUsable) {
    static std::vector<int> log;
    struct Tracker : public Object {
        Tracker(int t, bool* d = nullptr) : tag(t), deleted(d) {}
        ~Tracker() override {
            if (deleted) *deleted = true;
        }
        void call() { log.push_back(tag); }
        int tag;
        bool* deleted;
    };
    struct EvtLoop : public Loop {
        void procSubMsg(const Evt& e) override { log.push_back(e.sig); }
    };
    Queue q;
    EvtLoop loop;
    loop.setQueue(&q);
    bool deleted = false;
    Tracker a(1), b(2), *owned = new Tracker(3, &deleted), t(4);
    Timer timer(&q);
    timer.setHandler(FUNC(&Tracker::call), &t);
    Loop::Evt ev(7);
    std::vector<std::function<void()>> ways = {
        [&] { q.enqueue(FUNC(&Tracker::call), &a); },
        [&] { q.enqueueNotify(FUNC(&Tracker::call), &b); },
        [&] { q.enqueueAutofree(FUNC(&Tracker::call), owned); },
        [&] { loop.post(ev); },
        [&] { timer.restart(0); },
    };
    for (size_t i = 0; i < ways.size(); ++i) {
        int made = 0, used = dispatchNodesUsed(q, &made);
        ASSERT_EQ(used, made) << i << ": the store must be empty so that the call grows it";
        hooks::failAllocIn = 1;
        EXPECT_THROW(ways[i](), std::bad_alloc) << i;
        hooks::failAllocIn = 0;
        EXPECT_EQ(dispatchNodesUsed(q), used) << i;
        EXPECT_FALSE(timer.isRunning()) << i;
        ways[i]();  // the retry; the queue's mutex was free
        EXPECT_EQ(dispatchNodesUsed(q), used + 1) << i;
    }
    EXPECT_FALSE(deleted) << "a failed enqueueAutofree leaves the target with its caller";
    std::thread th([&] { loop.exec(); });
    loop.exit();
    th.join();
    timer.stop();
    log.erase(std::remove(log.begin(), log.end(), 4), log.end());  // the timer may be due yet
    EXPECT_EQ(log, (std::vector<int>{1, 2, 3, 7}));
    EXPECT_TRUE(deleted);
    EXPECT_EQ(dispatchNodesUsed(q), 0);
}

// One store for all queues: a node is made only when a request finds none
// free, and a node given back by one queue serves the next request of any.
TEST(DispatchAlloc, QueuesShareOneStoreMadeOnDemand) {
    hooks::counting = true;
    Counter c;
    Queue a, b;
    Timer timer(&a);
    timer.setHandler(FUNC(&Counter::hit), &c);
    timer.restart(60000);
    a.enqueue(FUNC(&Counter::hit), &c);
    b.enqueue(FUNC(&Counter::hit), &c);
    int made = 0;
    EXPECT_EQ(dispatchNodesUsed(a, &made), 3);
    EXPECT_EQ(made, 3);
    a.queueProcess(0);
    allocs = 0;
    b.enqueue(FUNC(&Counter::hit), &c);
    EXPECT_EQ(allocs, 0) << "the node queue a gave back serves queue b";
    EXPECT_EQ(dispatchNodesUsed(b, &made), 3);
    EXPECT_EQ(made, 3);
    timer.stop();
    b.queueProcess(0);
    EXPECT_EQ(c.calls, 3);
}

// The store is made by whichever queue comes first; queues made at the same
// moment on several threads must still end up sharing one.
TEST(DispatchAlloc, FirstQueuesMadeOnSeveralThreadsShareOneStore) {
    Counter c;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!go) std::this_thread::yield();
            Queue q;
            for (int k = 0; k < 50; ++k) q.enqueue(FUNC(&Counter::hit), &c);
            q.queueProcess(0);
        });
    }
    go = true;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(c.calls, 200);
    Queue q;
    int made = 0;
    EXPECT_EQ(dispatchNodesUsed(q, &made), 0);
    EXPECT_TRUE(made >= 50 && made <= 200) << made;
}
