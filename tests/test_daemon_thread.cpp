// The thread pool behind DaemonThread: reuse in order, one pass per start,
// names, failures to make a thread or to allocate, and many starters.
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "kel_stats.h"
#include "support/fault_hooks.h"
#include "support/loop_harness.h"

namespace {

struct Task : public DaemonThread {
    std::function<void(Task&)> onRun, onExit;
    std::atomic<int> runs{0}, exits{0};
    std::atomic<long> runTid{0};
    std::string runName;
    void run() override {
        runTid = currentTid();
        runName = threadName();
        if (onRun) onRun(*this);
        ++runs;
    }
    void threadExit() override {
        if (onExit) onExit(*this);
        ++exits;
    }
    bool waitExits(int n) {
        return waitUntil([&] { return exits == n; });
    }
    using DaemonThread::setName;
};

// Every record is in exactly one list, every idle one has its thread, and
// no other thread is left.
void expectQuiescentPool(int alive) {
    ASSERT_TRUE(waitUntil(poolIdle));
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.free, c.alive);
    EXPECT_TRUE(alive == 0 || c.alive == alive) << c.alive;
    EXPECT_TRUE(waitUntil([&] {
        int pooled = 0;
        for (const std::string& n : threadNames()) pooled += n.rfind("kel-pool-", 0) == 0 ? 1 : 0;
        return pooled == c.alive && strayThreads().empty();
    })) << ::testing::PrintToString(threadNames());
}

}  // namespace

// Freed threads serve later tasks first-freed first; a name set in run()
// lasts one pass; setName from another thread or with null does nothing.
TEST(DaemonThread, FreedThreadsAreReusedInOrderAndForgetTheirName) {
    std::string mine = threadName(), nameInRun;
    Gate gateA, gateB;
    Task a, b, c, d;
    a.setName("from-main");
    EXPECT_EQ(threadName(), mine);
    a.onRun = [&](Task& self) {
        self.setName(nullptr);
        self.setName("fetcher");
        nameInRun = threadName();
        gateA.wait();
    };
    b.onRun = [&](Task&) { gateB.wait(); };
    ASSERT_TRUE(a.start() && b.start());
    ASSERT_TRUE(waitUntil([&] { return a.isRunning() && b.isRunning(); }));
    gateB.open();
    ASSERT_TRUE(waitUntil([] { return kel_pool_counts().free == 1; }));
    gateA.open();
    ASSERT_TRUE(waitUntil(poolIdle));
    EXPECT_EQ(nameInRun, "fetcher");
    ASSERT_TRUE(c.start() && c.waitExits(1));
    ASSERT_TRUE(d.start() && d.waitExits(1));
    EXPECT_EQ(c.runTid, b.runTid);
    EXPECT_EQ(d.runTid, a.runTid);
    EXPECT_EQ(d.runName.rfind("kel-pool-", 0), 0u) << d.runName;
    expectQuiescentPool(2);
    KelStats s = kel_stats_snapshot();
    EXPECT_EQ(std::vector<unsigned>({s.threads_busy, s.threads_peak, s.threads_made}),
              std::vector<unsigned>({0, 2, 2}));
}

// run() then threadExit() on one thread, no pool lock held (profile and
// start inside run would hang). Starts during run() are absorbed and leave
// no wake-up; one in threadExit() makes a second pass on another thread.
TEST(DaemonThread, PassRunsThenThreadExitAndOnlyAStartInThreadExitRunsAgain) {
    static LogCapture& cap = *new LogCapture;  // kept: a restore would race with idle pooled threads
    Task t;
    std::atomic<long> firstTid{0};
    t.onRun = [&](Task& self) {
        if (self.runs > 0) return;
        EXPECT_TRUE(self.isRunning());
        self.setRunningStep("working");
        DaemonThread::profile();
        EXPECT_TRUE(self.start() && self.start());
    };
    t.onExit = [&](Task& self) {
        if (firstTid != 0) return;
        EXPECT_FALSE(self.isRunning()) << "a start here must make a new pass";
        firstTid = currentTid();
        EXPECT_EQ(self.runTid, firstTid);
        EXPECT_TRUE(self.start());
    };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(t.waitExits(2));
    ASSERT_TRUE(waitUntil(poolIdle));
    usleep(50 * 1000);  // a leftover request would wake a thread by now
    EXPECT_EQ(t.runs, 2);
    EXPECT_NE(t.runTid, firstTid);
    EXPECT_EQ(cap.count("Wait end", LOG_DEBUG), 0);
    expectQuiescentPool(2);
}

// A failed pthread_create is logged; start() retries once, then reports
// false, and the threadless record is never handed out again; work queued
// meanwhile waits. A failed allocation in start() releases the pool lock.
TEST(DaemonThread, FailuresToMakeAThreadOrAllocateLeaveThePoolUsable) {
    static LogCapture& cap = *new LogCapture;  // kept: a restore would race with idle pooled threads
    Task t;
    for (int nth : {1, 2}) {  // the list entry, then the record
        hooks::failAllocIn = nth;
        EXPECT_THROW(t.start(), std::bad_alloc) << nth;
        hooks::failAllocIn = 0;
        KelPoolCounts c = kel_pool_counts();  // hangs on a held lock
        EXPECT_EQ(c.used + c.free, 0) << nth;
    }
    const std::string line = "pthread_create failed, " + std::to_string(EAGAIN) + ", " + strerror(EAGAIN);
    hooks::failCreates = 1;  // the second attempt in start() succeeds
    EXPECT_TRUE(t.start() && t.waitExits(1));
    EXPECT_EQ(cap.count(line, LOG_WARN), 1);
    Gate gate;
    Task hold, refused, after;
    hold.onRun = [&](Task&) { gate.wait(); };
    ASSERT_TRUE(hold.start());  // occupies the only free thread
    static std::atomic<int> ran{0};
    DispathQueue* stuck = kel_dispatch_queue_create();
    hooks::failCreates = 4;
    EXPECT_FALSE(refused.start());
    kel_dispatch_async_t(
        stuck, [](void*) { ++ran; }, nullptr);  // fails twice as well
    EXPECT_EQ(cap.count(line, LOG_WARN), 5);
#ifdef __SANITIZE_ADDRESS__
    __lsan_ignore_object(stuck);  // a queue left without a thread is never freed
#endif
    kel_dispatch_queue_destory(stuck);
    EXPECT_TRUE(after.start() && after.waitExits(1));
    gate.open();
    ASSERT_TRUE(hold.waitExits(1));
    // The threadless records stay in the used list, never handed out.
    ASSERT_TRUE(waitUntil([] { return kel_pool_counts().used == 2; }));
    EXPECT_EQ(kel_pool_counts().alive, 2);
    EXPECT_EQ(refused.runs + ran, 0);
}

// Every start of an idle task makes exactly one pass, from many threads.
TEST(DaemonThread, TasksStartedFromManyThreadsKeepThePoolConsistent) {
    std::vector<std::thread> starters;
    for (int i = 0; i < 4; ++i) {
        starters.emplace_back([&] {
            Task t;
            for (int r = 1; r <= 200; ++r) ASSERT_TRUE(t.start() && t.waitExits(r));
            EXPECT_EQ(t.runs, 200);
        });
    }
    for (auto& s : starters) s.join();
    EXPECT_LE(kel_pool_counts().alive, 8);
    expectQuiescentPool(0);
}

// A work queue whose first thread binding ran out of memory keeps its work
// and runs it, with the next work, after the next call.
TEST(DaemonThread, WorkQueueRunsAgainAfterItsBindingFailed) {
    static std::atomic<int> ran{0};
    DispatchFunc work = [](void*) { ++ran; };
    DispathQueue* q = kel_dispatch_queue_create();
    hooks::failAllocIn = 2;  // the work's node, then the pool's list entry
    EXPECT_THROW(kel_dispatch_async_t(q, work, nullptr), std::bad_alloc);
    hooks::failAllocIn = 0;
    kel_dispatch_async_t(q, work, nullptr);
    EXPECT_TRUE(waitUntil([] { return ran == 2; }));
    kel_dispatch_queue_destory(q);
}
