#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "daemon_thread.h"
#include "kel_dispatch.h"
#include "support/thread_probe.h"

namespace {

bool poolIdle() { return kel_pool_counts().used == 0; }

// Counts finished works and lets the test wait for a number of them.
struct Done {
    std::mutex m;
    std::condition_variable cv;
    int n = 0;

    void add() {
        std::lock_guard<std::mutex> l(m);
        ++n;
        cv.notify_all();
    }
    bool waitFor(int want) {
        std::unique_lock<std::mutex> l(m);
        return cv.wait_for(l, std::chrono::seconds(60), [&] { return n >= want; });
    }
};

// Ordering check for one queue: works carry (producer, sequence) and must
// arrive in per-producer order, one at a time.
struct Order {
    static constexpr int kProducers = 4;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    int next[kProducers] = {};
    int misordered = 0;
    Done done;
};
Order* gOrder = nullptr;

void orderedWork(void* ctx) {
    uintptr_t v = reinterpret_cast<uintptr_t>(ctx);
    int producer = static_cast<int>(v >> 24), seq = static_cast<int>(v & 0xFFFFFF);
    if (gOrder->inside.fetch_add(1) != 0) gOrder->overlaps.fetch_add(1);
    // Plain fields: serial execution is what makes this safe.
    if (gOrder->next[producer] != seq) ++gOrder->misordered;
    gOrder->next[producer] = seq + 1;
    gOrder->inside.fetch_sub(1);
    gOrder->done.add();
}

void countWork(void* ctx) { static_cast<Done*>(ctx)->add(); }

}  // namespace

TEST(WorkQueue, HundredThousandWorksFromFourThreadsRunInOrderWithoutOverlap) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    Order order;
    gOrder = &order;
    DispathQueue* q = kel_dispatch_queue_create();
    constexpr int kPer = 25000;
    std::vector<std::thread> producers;
    for (int p = 0; p < Order::kProducers; ++p) {
        producers.emplace_back([=] {
            for (int i = 0; i < kPer; ++i) {
                uintptr_t v = (static_cast<uintptr_t>(p) << 24) | static_cast<uintptr_t>(i);
                kel_dispatch_async_t(q, orderedWork, reinterpret_cast<void*>(v));
            }
        });
    }
    for (auto& t : producers) t.join();
    ASSERT_TRUE(order.done.waitFor(Order::kProducers * kPer));
    EXPECT_EQ(order.overlaps.load(), 0);
    EXPECT_EQ(order.misordered, 0);
    for (int p = 0; p < Order::kProducers; ++p) EXPECT_EQ(order.next[p], kPer);
    kel_dispatch_queue_destory(q);
    ASSERT_TRUE(probe::waitFor(poolIdle));
    EXPECT_TRUE(threadCountSettlesAt(base + kel_pool_counts().alive)) << probe::taskCount();
}

TEST(WorkQueue, AsyncReturnsWithoutWaitingAlsoFromAWorkOfTheSameQueue) {
    DispathQueue* q = kel_dispatch_queue_create();
    probe::Gate gate;
    Done done;
    struct Ctx {
        DispathQueue* q;
        probe::Gate* gate;
        Done* done;
        std::atomic<bool> innerRan{false};
        std::atomic<bool> returnedFirst{false};
    } ctx{q, &gate, &done};
    kel_dispatch_async_t(
        q,
        [](void* p) {
            Ctx* c = static_cast<Ctx*>(p);
            c->gate->wait();
            kel_dispatch_async_t(
                c->q,
                [](void* p2) {
                    Ctx* c2 = static_cast<Ctx*>(p2);
                    c2->innerRan = true;
                    c2->done->add();
                },
                c);
            c->returnedFirst = !c->innerRan.load();
            c->done->add();
        },
        &ctx);
    // The first work is still blocked: queuing returned without it.
    EXPECT_EQ(done.n, 0);
    gate.open();
    ASSERT_TRUE(done.waitFor(2));
    EXPECT_TRUE(ctx.returnedFirst.load());
    EXPECT_TRUE(ctx.innerRan.load());
    kel_dispatch_queue_destory(q);
}

namespace {

struct Trace {
    std::mutex m;
    std::vector<int> seen;
    DispathQueue* q;
    Done done;
    void note(int v) {
        std::lock_guard<std::mutex> l(m);
        seen.push_back(v);
    }
};
Trace* gTrace = nullptr;

void traceLate(void*) {
    gTrace->note(3);
    gTrace->done.add();
}
void traceFirst(void*) {
    gTrace->note(1);
    kel_dispatch_async_t(gTrace->q, traceLate, nullptr);
    gTrace->done.add();
}
void traceSecond(void*) {
    gTrace->note(2);
    gTrace->done.add();
}

}  // namespace

TEST(WorkQueue, WorkQueuedFromAWorkRunsAfterThoseQueuedBeforeIt) {
    Trace trace;
    gTrace = &trace;
    trace.q = kel_dispatch_queue_create();
    probe::Gate gate;
    // Hold the queue so that both works are queued before the first runs.
    kel_dispatch_async_t(
        trace.q, [](void* g) { static_cast<probe::Gate*>(g)->wait(); }, &gate);
    kel_dispatch_async_t(trace.q, traceFirst, nullptr);
    kel_dispatch_async_t(trace.q, traceSecond, nullptr);
    gate.open();
    ASSERT_TRUE(trace.done.waitFor(3));
    EXPECT_EQ(trace.seen, (std::vector<int>{1, 2, 3}));
    kel_dispatch_queue_destory(trace.q);
}

TEST(WorkQueue, SeveralQueuesRunInParallel) {
    constexpr int kQueues = 3;
    struct Meet {
        std::mutex m;
        std::condition_variable cv;
        int arrived = 0;
        Done done;
    } meet;
    DispathQueue* qs[kQueues];
    for (auto& q : qs) q = kel_dispatch_queue_create();
    // Each work waits until all are in flight at once: only possible if the
    // queues have a thread each.
    for (auto& q : qs) {
        kel_dispatch_async_t(
            q,
            [](void* p) {
                Meet* mt = static_cast<Meet*>(p);
                std::unique_lock<std::mutex> l(mt->m);
                ++mt->arrived;
                mt->cv.notify_all();
                if (mt->cv.wait_for(l, std::chrono::seconds(30), [&] { return mt->arrived == kQueues; })) {
                    l.unlock();
                    mt->done.add();
                }
            },
            &meet);
    }
    ASSERT_TRUE(meet.done.waitFor(kQueues));
    EXPECT_GE(kel_pool_counts().alive, kQueues);
    for (auto& q : qs) kel_dispatch_queue_destory(q);
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

TEST(WorkQueue, NullQueueWorkRunsSeriallyOnThePool) {
    Order order;
    gOrder = &order;
    constexpr int kPer = 2000;
    std::vector<std::thread> producers;
    for (int p = 0; p < 2; ++p) {
        producers.emplace_back([=] {
            for (int i = 0; i < kPer; ++i) {
                uintptr_t v = (static_cast<uintptr_t>(p) << 24) | static_cast<uintptr_t>(i);
                kel_dispatch_async_t(nullptr, orderedWork, reinterpret_cast<void*>(v));
            }
        });
    }
    for (auto& t : producers) t.join();
    ASSERT_TRUE(order.done.waitFor(2 * kPer));
    EXPECT_EQ(order.overlaps.load(), 0);
    EXPECT_EQ(order.misordered, 0);
    std::string name;
    Done done;
    struct NameCtx {
        std::string* name;
        Done* done;
    } nc{&name, &done};
    kel_dispatch_async_t(
        nullptr,
        [](void* p) {
            NameCtx* c = static_cast<NameCtx*>(p);
            *c->name = probe::threadName();
            c->done->add();
        },
        &nc);
    ASSERT_TRUE(done.waitFor(1));
    EXPECT_EQ(name.rfind("kel-pool-", 0), 0u) << name;
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

TEST(WorkQueue, DrainedQueueGivesItsThreadBackAndBindsAgainForNewWork) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    DispathQueue* q = kel_dispatch_queue_create();
    EXPECT_EQ(kel_pool_counts().used, 0);  // an idle queue holds no thread
    Done done;
    for (int round = 1; round <= 20; ++round) {
        kel_dispatch_async_t(q, countWork, &done);
        ASSERT_TRUE(done.waitFor(round));
        ASSERT_TRUE(probe::waitFor(poolIdle)) << round;
    }
    EXPECT_LE(kel_pool_counts().alive, 2);
    kel_dispatch_queue_destory(q);
    EXPECT_TRUE(threadCountSettlesAt(base + kel_pool_counts().alive)) << probe::taskCount();
}

TEST(WorkQueue, ReferencesKeepTheQueueAcrossDestroys) {
    kel_dispatch_queue_destory(nullptr);  // ignored
    DispathQueue* q = kel_dispatch_queue_create();
    kel_dispatch_queue_ref(q);
    kel_dispatch_queue_destory(q);
    // Still alive on the second reference (a sanitizer or valgrind run would
    // flag a use after free here).
    Done done;
    kel_dispatch_async_t(q, countWork, &done);
    ASSERT_TRUE(done.waitFor(1));
    kel_dispatch_queue_destory(q);
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

TEST(WorkQueue, LastHandleMayBeDroppedRightAfterQueuingWork) {
    Done done;
    for (int i = 0; i < 300; ++i) {
        DispathQueue* q = kel_dispatch_queue_create();
        kel_dispatch_async_t(q, countWork, &done);
        kel_dispatch_async_t(q, countWork, &done);
        kel_dispatch_queue_destory(q);
    }
    // Every queued work still ran; each queue is freed by its last pass
    // (the leak checker of a sanitizer run proves that part).
    ASSERT_TRUE(done.waitFor(600));
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

TEST(WorkQueue, WorkMayDropTheLastHandleOfItsOwnQueue) {
    Done done;
    struct Ctx {
        DispathQueue* q;
        Done* done;
    };
    for (int i = 0; i < 100; ++i) {
        Ctx* c = new Ctx{kel_dispatch_queue_create(), &done};
        kel_dispatch_async_t(
            c->q,
            [](void* p) {
                Ctx* ctx = static_cast<Ctx*>(p);
                kel_dispatch_queue_destory(ctx->q);
                ctx->done->add();
                delete ctx;
            },
            c);
    }
    ASSERT_TRUE(done.waitFor(100));
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

TEST(Rendezvous, TwoCallersSwapValuesZeroAndNullTagIncluded) {
    for (void* tag : {static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234)}) {
        intptr_t got = -1;
        std::thread t([&] { got = kel_rendezvous(tag, 0); });
        EXPECT_EQ(kel_rendezvous(tag, 77), 0);
        t.join();
        EXPECT_EQ(got, 77);
    }
}

TEST(Rendezvous, InterleavedTagsPairOnlyWithTheirOwnTag) {
    int x, y;
    intptr_t r[4] = {};
    // Waiters on both tags at once; every broadcast wakes both.
    std::thread a([&] { r[0] = kel_rendezvous(&x, 10); });
    std::thread b([&] { r[1] = kel_rendezvous(&y, 20); });
    std::thread c([&] { r[2] = kel_rendezvous(&y, 21); });
    std::thread d([&] { r[3] = kel_rendezvous(&x, 11); });
    for (auto* t : {&a, &b, &c, &d}) t->join();
    EXPECT_EQ(r[0], 11);
    EXPECT_EQ(r[3], 10);
    EXPECT_EQ(r[1], 21);
    EXPECT_EQ(r[2], 20);
}

TEST(Rendezvous, OddCallerWaitsForTheNextPartner) {
    int tag;
    std::atomic<int> returned{0};
    intptr_t r[4] = {};
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i) {
        ts.emplace_back([&, i] {
            r[i] = kel_rendezvous(&tag, 100 + i);
            returned.fetch_add(1);
        });
    }
    ASSERT_TRUE(probe::waitFor([&] { return returned.load() == 2; }));
    usleep(20 * 1000);
    EXPECT_EQ(returned.load(), 2);  // the third has nobody to meet
    r[3] = kel_rendezvous(&tag, 103);
    for (auto& t : ts) t.join();
    // Every caller got the value of exactly one other caller, symmetrically.
    for (int i = 0; i < 4; ++i) {
        int partner = static_cast<int>(r[i] - 100);
        ASSERT_TRUE(partner >= 0 && partner < 4 && partner != i) << i;
        EXPECT_EQ(r[partner], 100 + i) << i;
    }
}
