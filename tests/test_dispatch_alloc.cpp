// Heap accounting for the dispatch queues. This binary replaces the global
// allocation functions to count calls and to fail one on demand.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <new>
#include <thread>

#include "dispatch_process.h"
#include "support/log_capture.h"

namespace {
std::atomic<long> gAllocs{0};
std::atomic<bool> gFailNext{false};

void* countedAlloc(size_t n, size_t align) {
    if (gFailNext.exchange(false)) return nullptr;
    gAllocs.fetch_add(1, std::memory_order_relaxed);
    if (n == 0) n = 1;
    void* p = nullptr;
    if (align <= alignof(max_align_t)) {
        p = malloc(n);
    } else if (posix_memalign(&p, align, n) != 0) {
        p = nullptr;
    }
    return p;
}

void* allocOrThrow(size_t n, size_t align = alignof(max_align_t)) {
    void* p = countedAlloc(n, align);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
}  // namespace

void* operator new(size_t n) { return allocOrThrow(n); }
void* operator new[](size_t n) { return allocOrThrow(n); }
void* operator new(size_t n, std::align_val_t a) { return allocOrThrow(n, static_cast<size_t>(a)); }
void* operator new[](size_t n, std::align_val_t a) { return allocOrThrow(n, static_cast<size_t>(a)); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n, alignof(max_align_t)); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
    return countedAlloc(n, alignof(max_align_t));
}
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

int poolUsed(Queue& q, int* count = nullptr) {
    LogCapture cap;
    q.profile();
    int used = -1, made = -1;
    for (const auto& l : cap.lines()) {
        if (sscanf(l.text.c_str(), "node pools: used=%d, counts=%d", &used, &made) == 2) break;
    }
    if (count) *count = made;
    return used;
}

struct Counter : public Object {
    void hit() { calls.fetch_add(1, std::memory_order_relaxed); }
    void other() { calls.fetch_add(1, std::memory_order_relaxed); }
    std::atomic<int> calls{0};
};

class CountingLoop : public Loop {
public:
    void procSubMsg(const Evt& e) override { delivered.fetch_add(e.sig, std::memory_order_relaxed); }
    std::atomic<long> delivered{0};
};

}  // namespace

// One burst of every kind of work: callbacks of each kind, a timer restart
// and loop events, all queued during a hold so that the peak is the same
// on every round.
static void burst(Queue& q, CountingLoop& loop, Timer& timer, Counter& c, Counter& n) {
    long target = loop.delivered.load() + 16;
    q.lock();
    for (int i = 0; i < 8; ++i) q.enqueue(FUNC(&Counter::hit), &c);
    q.enqueueNotify(FUNC(&Counter::hit), &n);
    q.enqueueNotify(FUNC(&Counter::hit), &n);  // merged
    q.enqueue(FUNC(&Counter::other), &c);
    q.cancelFn(FUNC(&Counter::other), &c);
    timer.restart(0);
    Loop::Evt e(2);
    for (int i = 0; i < 4; ++i) loop.post(e);
    for (int i = 0; i < 4; ++i) loop.postFIFO(e);
    q.unlock();
    q.run(FUNC(&Counter::hit), &c);
    while (loop.delivered.load() < target) std::this_thread::yield();
}

TEST(DispatchAlloc, SteadyStateTouchesNoHeap) {
    Queue q;
    CountingLoop loop;
    loop.setQueue(&q);
    Counter c, n, tc;
    Timer timer(&q);
    timer.setHandler(FUNC(&Counter::hit), &tc);
    std::thread t([&] { loop.exec(); });

    for (int i = 0; i < 3; ++i) burst(q, loop, timer, c, n);  // warm the pool
    int count0 = 0;
    poolUsed(q, &count0);

    gAllocs = 0;
    for (int i = 0; i < 200; ++i) burst(q, loop, timer, c, n);
    long allocs = gAllocs.load();

    int count1 = 0;
    poolUsed(q, &count1);
    EXPECT_EQ(allocs, 0);
    EXPECT_EQ(count1, count0) << "the pool did not grow";
    EXPECT_EQ(c.calls, 203 * 9);

    timer.stop();
    loop.exit();
    t.join();
    EXPECT_EQ(poolUsed(q), 0);
}

TEST(DispatchAlloc, HeapFailureInRestartLeavesTheQueueUsable) {
    Queue q;
    Counter c;
    Timer timer(&q);
    timer.setHandler(FUNC(&Counter::hit), &c);
    int made = 0;
    ASSERT_EQ(poolUsed(q, &made), 0);
    ASSERT_EQ(made, 0) << "a fresh pool must allocate";

    gFailNext = true;
    EXPECT_THROW(timer.restart(0), std::bad_alloc);
    EXPECT_FALSE(timer.isRunning()) << "a restart that failed leaves the timer stopped";
    EXPECT_EQ(poolUsed(q, &made), 0);
    EXPECT_EQ(made, 0);
    // The queue's mutex was released: these would block otherwise.
    EXPECT_EQ(q.getNeedWait(), INT64_MAX);
    timer.restart(0);
    while (c.calls == 0) q.queueProcess(0);
    EXPECT_EQ(poolUsed(q), 0);
}
