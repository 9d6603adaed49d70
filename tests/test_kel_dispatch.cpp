// Work queues on pooled threads and the rendezvous.
#include "kel_thread.h"
#include "support/fault_hooks.h"
#include "support/loop_harness.h"

namespace {

std::atomic<int> gDone{0};
bool doneReaches(int n) {
    return waitUntil([n] { return gDone >= n; }, 60);
}
void countWork(void*) { ++gDone; }

// Works carry (producer, sequence) and must arrive in per-producer order,
// one at a time, on pooled threads.
struct Order {
    std::atomic<int> inside{0}, faults{0};
    int next[4] = {};
} gOrder;

void orderedWork(void* ctx) {
    uintptr_t v = reinterpret_cast<uintptr_t>(ctx);
    int producer = static_cast<int>(v >> 24), seq = static_cast<int>(v & 0xFFFFFF);
    if (gOrder.inside++ != 0 || gOrder.next[producer] != seq) ++gOrder.faults;
    if (seq == 0 && threadName().rfind("kel-pool-", 0) != 0) ++gOrder.faults;
    gOrder.next[producer] = seq + 1;
    --gOrder.inside;
    ++gDone;
}

void expectSerial(DispathQueue* q, int producers, int per) {
    gDone = 0;
    std::fill(gOrder.next, gOrder.next + 4, 0);
    std::vector<std::thread> ts;
    for (int p = 0; p < producers; ++p) {
        ts.emplace_back([=] {
            for (int i = 0; i < per; ++i)
                kel_dispatch_async_t(q, orderedWork, reinterpret_cast<void*>((uintptr_t(p) << 24) | i));
        });
    }
    for (auto& t : ts) t.join();
    ASSERT_TRUE(doneReaches(producers * per));
    EXPECT_EQ(gOrder.faults, 0) << "overlap, disorder or an unnamed thread";
    for (int p = 0; p < producers; ++p) EXPECT_EQ(gOrder.next[p], per);
}

}  // namespace

// Longer under the soak label (KEL_SOAK_SECONDS).
TEST(WorkQueue, StressWorksFromFourThreadsRunInOrderWithoutOverlap) {
    DispathQueue* q = kel_dispatch_queue_create();
    expectSerial(q, 4, static_cast<int>(25000 * stressSeconds(1.0)));
    kel_dispatch_queue_destory(q);
    expectSerial(nullptr, 2, 2000);  // the default queue is serial too
    EXPECT_TRUE(waitForNoStrayThreads());
}

// Queuing never waits, also from a work of the same queue, and work queued
// from a work runs after what was queued before it.
TEST(WorkQueue, WorkQueuedFromAWorkRunsLaterWithoutBlockingTheQueuer) {
    static std::vector<intptr_t> seen;  // works of one queue run one after the other
    static DispathQueue* q = kel_dispatch_queue_create();
    static Gate gate;
    static DispatchFunc wait = [](void*) { gate.wait(); };
    static DispatchFunc note = [](void* v) { seen.push_back(reinterpret_cast<intptr_t>(v)), ++gDone; };
    static DispatchFunc nest = [](void*) { kel_dispatch_async_t(q, note, (void*)3), note((void*)1); };
    kel_dispatch_async_t(q, wait, nullptr);
    kel_dispatch_async_t(q, nest, nullptr);
    kel_dispatch_async_t(q, note, (void*)2);
    gate.open();
    ASSERT_TRUE(doneReaches(3));
    EXPECT_EQ(seen, (std::vector<intptr_t>{1, 2, 3}));
    kel_dispatch_queue_destory(q);
    ASSERT_TRUE(waitUntil(poolIdle));
}

// An idle queue holds no thread and its last handle frees it; a drained one
// gives its thread back and binds one again for new work; a second
// reference keeps it across a drop.
TEST(WorkQueue, DrainedQueueGivesItsThreadBackAndReferencesKeepIt) {
    kel_dispatch_queue_destory(nullptr);                      // ignored
    kel_dispatch_queue_destory(kel_dispatch_queue_create());  // the pool's first use
    hooks::counting = true;  // the last handle of an idle queue frees what making it took
    kel_dispatch_queue_destory(kel_dispatch_queue_create());
    hooks::counting = false;
    EXPECT_EQ(hooks::allocs.load(), hooks::deletes.load());
    gDone = 0;
    DispathQueue* q = kel_dispatch_queue_create();
    EXPECT_EQ(kel_pool_counts().used, 0);
    for (int round = 1; round <= 20; ++round) {
        kel_dispatch_async_t(q, countWork, nullptr);
        ASSERT_TRUE(doneReaches(round));
        ASSERT_TRUE(waitUntil(poolIdle)) << round;
        if (round == 10)
            kel_dispatch_queue_ref(q), kel_dispatch_queue_destory(q);  // use after free: sanitizer
    }
    EXPECT_LE(kel_pool_counts().alive, 2);
    kel_dispatch_queue_destory(q);
    EXPECT_TRUE(waitForNoStrayThreads());
}

// The last handle may go right after queuing, or from a work of the queue:
// every work still runs, and the queue is freed after it (the leak checker
// of a sanitizer run proves that part).
TEST(WorkQueue, LastHandleMayBeDroppedAfterQueuingOrFromAWork) {
    for (int i = 0; i < 300; ++i) {
        DispathQueue* q = kel_dispatch_queue_create();
        kel_dispatch_async_t(q, countWork, nullptr);
        if (i % 2 == 0)
            kel_dispatch_queue_destory(q);
        else
            kel_dispatch_async_t(
                q, [](void* h) { kel_dispatch_queue_destory(h), ++gDone; }, q);
    }
    ASSERT_TRUE(doneReaches(450));
    ASSERT_TRUE(waitUntil(poolIdle));
}

// Callers pair only with their own tag (null is a tag like any); an odd
// caller waits for the next partner, and every caller gets the value of
// exactly one other, symmetrically.
TEST(Rendezvous, CallersPairByTagAndSwapValues) {
    int x, y;
    intptr_t r[4] = {};
    void* tags[4] = {&x, &y, &y, &x};
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i) ts.emplace_back([&, i] { r[i] = kel_rendezvous(tags[i], 10 + i); });
    for (auto& t : ts) t.join();
    EXPECT_EQ(std::vector<intptr_t>(r, r + 4), (std::vector<intptr_t>{13, 12, 11, 10}));
    ts.clear();
    for (int i = 0; i < 3; ++i) ts.emplace_back([&, i] { r[i] = kel_rendezvous(nullptr, i), ++gDone; });
    ASSERT_TRUE(doneReaches(2));
    usleep(20 * 1000);
    EXPECT_EQ(gDone, 2);
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
    static struct Masks : SimpleThread {
        sigset_t inWork, inThread;
        void run() override { pthread_sigmask(SIG_SETMASK, nullptr, &inThread); }
    } m;
    kel_dispatch_async_t(
        nullptr,
        [](void*) {
            pthread_sigmask(SIG_SETMASK, nullptr, &m.inWork);
            m.start();
            m.join();
            ++gDone;
        },
        nullptr);
    ASSERT_TRUE(doneReaches(1));
    for (int sig : {SIGTERM, SIGPIPE})
        EXPECT_FALSE(sigismember(&m.inWork, sig) || sigismember(&m.inThread, sig)) << sig;
}

// A flush waits for the works queued before it, the running one included
// even when a cancel has dropped the works behind it; from a work of the
// queue, flush is refused and cancel drops the works behind the caller.
static Gate gStarted, gRelease;
static int gInsideFlush;
static size_t gInsideCancel;
static void flushAndCancelInside(void* q) {
    gStarted.open();
    gRelease.wait();
    gInsideFlush = kel_dispatch_queue_flush(q);
    gInsideCancel = kel_dispatch_queue_cancel(q);
    usleep(20 * 1000);  // a flusher woken by the cancel would see gDone 0
    ++gDone;
}

TEST(WorkQueue, FlushWaitsForEarlierWorksAndCancelDropsWaitingOnes) {
    DispathQueue* q = kel_dispatch_queue_create();
    EXPECT_EQ(kel_dispatch_queue_flush(q), 0);  // idle: at once
    gDone = 0;
    kel_dispatch_async_t(q, flushAndCancelInside, q);
    ASSERT_TRUE(gStarted.wait());
    int seen = -1;
    std::thread flusher([&] { kel_dispatch_queue_flush(q), seen = gDone; });
    usleep(20 * 1000);  // mostly, the flusher now waits for the running work alone
    for (int i = 0; i < 3; ++i) kel_dispatch_async_t(q, countWork, nullptr);
    gRelease.open();
    flusher.join();
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(gInsideFlush, -1);
    EXPECT_EQ(gInsideCancel, 3u);
    EXPECT_EQ(gDone, 1) << "a dropped work ran";
    kel_dispatch_queue_destory(q);
}

// Queuing, cancelling and flushing at once: every work runs or is counted
// by a cancel, and a last flush returns with none outstanding.
TEST(WorkQueue, StressAsyncCancelAndFlushTogether) {
    DispathQueue* q = kel_dispatch_queue_create();
    gDone = 0;
    std::atomic<size_t> dropped{0};
    auto produce = [&] {
        for (int i = 1; i <= 20000; ++i) {
            kel_dispatch_async_t(q, countWork, nullptr);
            if (i % 16 == 0) dropped += kel_dispatch_queue_cancel(q);
            if (i % 1000 == 0 && kel_dispatch_queue_flush(q) != 0) ADD_FAILURE();
        }
    };
    std::thread a(produce), b(produce), c(produce);
    for (std::thread* t : {&a, &b, &c}) t->join();
    EXPECT_EQ(kel_dispatch_queue_flush(q), 0);
    EXPECT_EQ(gDone + dropped, 60000u);
    kel_dispatch_queue_destory(q);
}
