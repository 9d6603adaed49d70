// Heap accounting for the dispatch queues. This binary replaces the global
// allocation functions to count calls and to fail one on demand.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <thread>
#include <vector>

#include "dispatch_process.h"
#include "support/log_capture.h"
#include "support/node_counts.h"

namespace {
std::atomic<long> gAllocs{0};
std::atomic<bool> gFailNext{false};

void* countedAlloc(size_t n, size_t align = alignof(max_align_t)) {
    void* p = nullptr;
    if (gFailNext.exchange(false)) return nullptr;
    ++gAllocs;
    return posix_memalign(&p, std::max(align, sizeof(void*)), n ? n : 1) == 0 ? p : nullptr;
}

void* allocOrThrow(size_t n, size_t align = alignof(max_align_t)) {
    if (void* p = countedAlloc(n, align)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(size_t n) { return allocOrThrow(n); }
void* operator new[](size_t n) { return allocOrThrow(n); }
void* operator new(size_t n, std::align_val_t a) { return allocOrThrow(n, static_cast<size_t>(a)); }
void* operator new[](size_t n, std::align_val_t a) { return allocOrThrow(n, static_cast<size_t>(a)); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, std::align_val_t) noexcept { free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { free(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { free(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { free(p); }

using dispatch::FUNC;
using dispatch::Loop;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;

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
    gAllocs = 0;
    for (int i = 0; i < 200; ++i) burst(q, loop, timer, c, n);
    EXPECT_EQ(gAllocs, 0);
    dispatchNodesUsed(q, &made1);
    EXPECT_EQ(made1, made0) << "the pool did not grow";
    EXPECT_EQ(c.calls, 203 * 9);
    timer.stop();
    loop.exit();
    t.join();
    EXPECT_EQ(dispatchNodesUsed(q), 0);
}

TEST(DispatchAlloc, HeapFailureInRestartLeavesTheQueueUsable) {
    Queue q;
    Counter c;
    Timer timer(&q);
    timer.setHandler(FUNC(&Counter::hit), &c);
    int made = 0;
    ASSERT_EQ(dispatchNodesUsed(q, &made), 0);
    ASSERT_EQ(made, 0) << "a fresh pool must allocate";
    gFailNext = true;
    EXPECT_THROW(timer.restart(0), std::bad_alloc);
    EXPECT_FALSE(timer.isRunning()) << "a restart that failed leaves the timer stopped";
    EXPECT_EQ(dispatchNodesUsed(q, &made), 0);
    EXPECT_EQ(made, 0);
    // The queue's mutex was released: these would block otherwise.
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    timer.restart(0);
    while (c.calls == 0) q.queueProcess(0);
    EXPECT_EQ(dispatchNodesUsed(q), 0);
}

// One store for all queues: a node is made only when a request finds none
// free, and a node given back by one queue serves the next request of any.
TEST(DispatchAlloc, QueuesShareOneStoreMadeOnDemand) {
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
    gAllocs = 0;
    b.enqueue(FUNC(&Counter::hit), &c);
    EXPECT_EQ(gAllocs, 0) << "the node queue a gave back serves queue b";
    EXPECT_EQ(dispatchNodesUsed(b, &made), 3);
    EXPECT_EQ(made, 3);
    timer.stop();
    b.queueProcess(0);
    EXPECT_EQ(dispatchNodesUsed(b), 0);
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
    EXPECT_GE(made, 50);
    EXPECT_LE(made, 200);
}
