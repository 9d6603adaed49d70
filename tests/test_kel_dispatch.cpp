// Work queues on pooled threads and the rendezvous.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "daemon_pool.h"
#include "daemon_thread.h"
#include "kel_dispatch.h"
#include "kel_thread.h"
#include "support/loop_harness.h"

namespace {

bool poolIdle() { return kel_pool_counts().used == 0; }

// Counts finished works and lets the test wait for a number of them.
struct Done {
    std::atomic<int> n{0};
    void add() { ++n; }
    bool waitFor(int want) {
        return waitUntil([&] { return n.load() >= want; }, 60);
    }
};

// Works carry (producer, sequence) and must arrive in per-producer order,
// one at a time, on pooled threads.
struct Order {
    std::atomic<int> inside{0}, overlaps{0}, misnamed{0};
    int next[4] = {};
    int misordered = 0;  // plain: serial execution makes this safe
    Done done;
};
Order* gOrder = nullptr;

void orderedWork(void* ctx) {
    uintptr_t v = reinterpret_cast<uintptr_t>(ctx);
    int producer = static_cast<int>(v >> 24), seq = static_cast<int>(v & 0xFFFFFF);
    if (gOrder->inside.fetch_add(1) != 0) gOrder->overlaps.fetch_add(1);
    if (gOrder->next[producer] != seq) ++gOrder->misordered;
    if (seq == 0 && threadName().rfind("kel-pool-", 0) != 0) gOrder->misnamed.fetch_add(1);
    gOrder->next[producer] = seq + 1;
    gOrder->inside.fetch_sub(1);
    gOrder->done.add();
}

void expectSerial(DispathQueue* q, int producers, int per) {
    Order order;
    gOrder = &order;
    std::vector<std::thread> ts;
    for (int p = 0; p < producers; ++p) {
        ts.emplace_back([=] {
            for (int i = 0; i < per; ++i)
                kel_dispatch_async_t(q, orderedWork, reinterpret_cast<void*>((uintptr_t(p) << 24) | i));
        });
    }
    for (auto& t : ts) t.join();
    ASSERT_TRUE(order.done.waitFor(producers * per));
    EXPECT_EQ(order.overlaps.load(), 0);
    EXPECT_EQ(order.misordered, 0);
    EXPECT_EQ(order.misnamed.load(), 0);
    for (int p = 0; p < producers; ++p) EXPECT_EQ(order.next[p], per);
}

void countWork(void* ctx) { static_cast<Done*>(ctx)->add(); }

}  // namespace

// Longer under the soak label (KEL_SOAK_SECONDS).
TEST(WorkQueue, StressWorksFromFourThreadsRunInOrderWithoutOverlap) {
    DispathQueue* q = kel_dispatch_queue_create();
    expectSerial(q, 4, static_cast<int>(25000 * stressSeconds(1.0)));
    kel_dispatch_queue_destory(q);
    expectSerial(nullptr, 2, 2000);  // the default queue is serial too
    EXPECT_TRUE(waitForNoStrayThreads());
}

namespace {
struct Trace {
    std::mutex m;
    std::vector<int> seen;
    DispathQueue* q;
    Gate gate;
    std::atomic<bool> lateRan{false}, returnedFirst{false};
    Done done;
    void note(int v) {
        std::lock_guard<std::mutex> l(m);
        seen.push_back(v);
        done.add();
    }
} * gTrace;
}  // namespace

// Queuing never waits, also from a work of the same queue, and work queued
// from a work runs after what was queued before it.
TEST(WorkQueue, WorkQueuedFromAWorkRunsLaterWithoutBlockingTheQueuer) {
    Trace trace;
    gTrace = &trace;
    trace.q = kel_dispatch_queue_create();
    kel_dispatch_async_t(
        trace.q, [](void*) { gTrace->gate.wait(); }, nullptr);
    kel_dispatch_async_t(
        trace.q,
        [](void*) {
            kel_dispatch_async_t(
                gTrace->q, [](void*) { gTrace->lateRan = true, gTrace->note(3); }, nullptr);
            gTrace->returnedFirst = !gTrace->lateRan.load();
            gTrace->note(1);
        },
        nullptr);
    kel_dispatch_async_t(
        trace.q, [](void*) { gTrace->note(2); }, nullptr);
    EXPECT_EQ(trace.done.n, 0);  // the first work still blocks
    trace.gate.open();
    ASSERT_TRUE(trace.done.waitFor(3));
    EXPECT_TRUE(trace.returnedFirst.load());
    EXPECT_EQ(trace.seen, (std::vector<int>{1, 2, 3}));
    kel_dispatch_queue_destory(trace.q);
    ASSERT_TRUE(waitUntil(poolIdle));
}

// An idle queue holds no thread; a drained one gives its thread back and
// binds one again for new work; a second reference keeps it across a drop.
TEST(WorkQueue, DrainedQueueGivesItsThreadBackAndReferencesKeepIt) {
    kel_dispatch_queue_destory(nullptr);  // ignored
    DispathQueue* q = kel_dispatch_queue_create();
    EXPECT_EQ(kel_pool_counts().used, 0);
    Done done;
    for (int round = 1; round <= 20; ++round) {
        kel_dispatch_async_t(q, countWork, &done);
        ASSERT_TRUE(done.waitFor(round));
        ASSERT_TRUE(waitUntil(poolIdle)) << round;
        if (round == 10) {
            kel_dispatch_queue_ref(q);
            kel_dispatch_queue_destory(q);  // a use after free shows under a sanitizer
        }
    }
    EXPECT_LE(kel_pool_counts().alive, 2);
    kel_dispatch_queue_destory(q);
    EXPECT_TRUE(waitForNoStrayThreads());
}

// The last handle may go right after queuing, or from a work of the queue:
// every work still runs, and the queue is freed after it (the leak checker
// of a sanitizer run proves that part).
TEST(WorkQueue, LastHandleMayBeDroppedAfterQueuingOrFromAWork) {
    Done done;
    for (int i = 0; i < 300; ++i) {
        DispathQueue* q = kel_dispatch_queue_create();
        kel_dispatch_async_t(q, countWork, &done);
        if (i % 2 == 0) {
            kel_dispatch_queue_destory(q);
        } else {
            static Done* d = &done;
            kel_dispatch_async_t(
                q, [](void* h) { kel_dispatch_queue_destory(h), d->add(); }, q);
        }
    }
    ASSERT_TRUE(done.waitFor(450));
    ASSERT_TRUE(waitUntil(poolIdle));
}

// Callers pair only with their own tag (null is a tag like any); an odd
// caller waits for the next partner, and every caller gets the value of
// exactly one other, symmetrically.
TEST(Rendezvous, CallersPairByTagAndSwapValues) {
    int x, y;
    intptr_t r[4] = {};
    std::thread a([&] { r[0] = kel_rendezvous(&x, 10); });
    std::thread b([&] { r[1] = kel_rendezvous(&y, 20); });
    std::thread c([&] { r[2] = kel_rendezvous(&y, 21); });
    std::thread d([&] { r[3] = kel_rendezvous(&x, 11); });
    for (auto* t : {&a, &b, &c, &d}) t->join();
    EXPECT_EQ(r[0], 11);
    EXPECT_EQ(r[3], 10);
    EXPECT_EQ(r[1], 21);
    EXPECT_EQ(r[2], 20);
    std::atomic<int> returned{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i) {
        ts.emplace_back([&, i] {
            r[i] = kel_rendezvous(nullptr, i);
            returned.fetch_add(1);
        });
    }
    ASSERT_TRUE(waitUntil([&] { return returned.load() == 2; }));
    usleep(20 * 1000);
    EXPECT_EQ(returned.load(), 2);
    r[3] = kel_rendezvous(nullptr, 3);
    for (auto& t : ts) t.join();
    for (int i = 0; i < 4; ++i) {
        int partner = static_cast<int>(r[i]);
        ASSERT_TRUE(partner >= 0 && partner < 4 && partner != i) << i;
        EXPECT_EQ(r[partner], i) << i;
    }
}

// Works, and threads started from them, run with the application's signal
// mask: the pool blocks nothing of its own.
TEST(WorkQueue, WorksAndThreadsTheyStartKeepTheSignalMask) {
    struct Masks : SimpleThread {
        sigset_t inWork, inThread;
        Done done;
        void run() override { pthread_sigmask(SIG_SETMASK, nullptr, &inThread); }
    } m;
    kel_dispatch_async_t(
        nullptr,
        [](void* p) {
            Masks* m = static_cast<Masks*>(p);
            pthread_sigmask(SIG_SETMASK, nullptr, &m->inWork);
            m->start(), m->join(), m->done.add();
        },
        &m);
    ASSERT_TRUE(m.done.waitFor(1));
    for (int sig : {SIGTERM, SIGPIPE}) {
        EXPECT_EQ(sigismember(&m.inWork, sig), 0) << sig;
        EXPECT_EQ(sigismember(&m.inThread, sig), 0) << sig;
    }
}
