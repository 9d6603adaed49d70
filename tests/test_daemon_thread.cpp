#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "daemon_thread.h"
#include "kel_dispatch.h"
#include "support/log_capture.h"
#include "support/thread_probe.h"

using probe::poolIdle;

// Thread creation and allocation fail on demand.
namespace {
std::atomic<int> gFailCreates{0};
thread_local int tFailAllocIn = 0;  // the n-th allocation from now on fails
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* arg) noexcept {
    typedef int (*CreateFn)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
    int n = gFailCreates.load();
    while (n > 0) {
        if (gFailCreates.compare_exchange_weak(n, n - 1)) return EAGAIN;
    }
    return real(thread, attr, body, arg);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    if (tFailAllocIn > 0 && --tFailAllocIn == 0) throw std::bad_alloc();
    void* p = malloc(size != 0 ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, std::size_t) noexcept { free(p); }
#pragma GCC diagnostic pop

namespace {

class Task : public DaemonThread {
public:
    std::function<void(Task&)> onRun, onExit;
    std::atomic<int> runs{0}, exits{0};
    std::atomic<long> runTid{0}, exitTid{0};
    std::string runName;

    void run() override {
        runTid = probe::tid();
        runName = probe::threadName();
        if (onRun) onRun(*this);
        runs.fetch_add(1);
    }
    void threadExit() override {
        exitTid = probe::tid();
        if (onExit) onExit(*this);
        exits.fetch_add(1);
    }
    bool waitExits(int n) {
        return probe::waitFor([&] { return exits.load() == n; });
    }
    using DaemonThread::setName;
};

// Made before the first pooled thread and never restored: putting the old
// logger back would race with idle pooled threads.
LogCapture& keptLogCapture() {
    static LogCapture* cap = new LogCapture;
    return *cap;
}

// The used and free counts that DaemonThread::profile() logs.
std::pair<int, int> profiled(const LogCapture& cap) {
    DaemonThread::profile();
    int used = -1, freeCount = -1;
    for (const auto& l : cap.lines()) {
        sscanf(l.text.c_str(), "Thread Used count: %d", &used);
        sscanf(l.text.c_str(), "Thread Free count: %d", &freeCount);
    }
    return {used, freeCount};
}

int baseline() { return baselineThreadCount() - kel_pool_counts().alive; }

// Every record is in exactly one list, every idle one has its thread, and
// no other thread is left.
void expectQuiescentPool(int base) {
    ASSERT_TRUE(probe::waitFor(poolIdle));
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.free, c.alive);
    EXPECT_TRUE(threadCountSettlesAt(base + c.alive)) << threadCount();
}

}  // namespace

// Freed threads serve later tasks first-freed first; a name set in run()
// lasts one pass; setName from another thread or with null does nothing.
TEST(DaemonThread, FreedThreadsAreReusedInOrderAndForgetTheirName) {
    LogCapture& cap = keptLogCapture();
    int base = baseline();
    std::string mine = probe::threadName();
    probe::Gate gateA, gateB;
    Task a, b, c, d;
    std::string nameInRun;
    a.setName("from-main");
    EXPECT_EQ(probe::threadName(), mine);
    a.onRun = [&](Task& self) {
        self.setName(nullptr);
        self.setName("fetcher");
        nameInRun = probe::threadName();
        gateA.wait();
    };
    b.onRun = [&](Task&) { gateB.wait(); };
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(probe::waitFor([&] { return a.isRunning() && b.isRunning(); }));
    EXPECT_NE(a.runTid.load(), b.runTid.load());
    EXPECT_EQ(profiled(cap), std::make_pair(2, 0));
    gateB.open();
    ASSERT_TRUE(probe::waitFor([] { return kel_pool_counts().free == 1; }));
    gateA.open();
    ASSERT_TRUE(probe::waitFor(poolIdle));
    EXPECT_EQ(profiled(cap), std::make_pair(0, 2));
    EXPECT_EQ(nameInRun, "fetcher");
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(c.waitExits(1));
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.waitExits(1));
    EXPECT_EQ(c.runTid.load(), b.runTid.load());
    EXPECT_EQ(d.runTid.load(), a.runTid.load());
    EXPECT_EQ(d.runName.rfind("kel-pool-", 0), 0u) << d.runName;
    EXPECT_EQ(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

// run() then threadExit() on one named thread, no
// pool lock held (profile and start inside run would hang). Starts during
// run() are absorbed and leave no wake-up; one in threadExit() makes a
// second pass on another thread.
TEST(DaemonThread, PassRunsThenThreadExitAndOnlyAStartInThreadExitRunsAgain) {
    LogCapture& cap = keptLogCapture();
    int base = baseline();
    Task t;
    EXPECT_STREQ(t.runningStep(), "init");
    std::atomic<bool> runningInRun{false}, runningInExit{true};
    std::atomic<long> firstTid{0};
    t.onRun = [&](Task& self) {
        if (self.runs.load() > 0) return;
        runningInRun = self.isRunning();
        self.setRunningStep("working");
        DaemonThread::profile();
        EXPECT_TRUE(self.start());
        EXPECT_TRUE(self.start());
    };
    t.onExit = [&](Task& self) {
        if (firstTid.load() != 0) return;
        runningInExit = self.isRunning();
        firstTid = probe::tid();
        EXPECT_EQ(self.runTid.load(), firstTid.load());
        EXPECT_TRUE(self.start());
    };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(t.waitExits(2));
    ASSERT_TRUE(probe::waitFor(poolIdle));
    usleep(50 * 1000);  // a leftover request would wake a thread by now
    EXPECT_EQ(t.runs.load(), 2);
    EXPECT_NE(t.runTid.load(), firstTid.load());
    EXPECT_EQ(cap.count("Wait end", LOG_DEBUG), 0);
    EXPECT_TRUE(runningInRun.load());
    EXPECT_FALSE(runningInExit.load());
    EXPECT_STREQ(t.runningStep(), "working");
    EXPECT_EQ(t.runName.rfind("kel-pool-", 0), 0u) << t.runName;
    EXPECT_EQ(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

namespace {

// Holds pooled threads that log "Wait end" (woken, task not looked at yet):
// the first such thread, then only that one, while holds are left. Hold n
// ends when gReleased reaches n.
std::atomic<int> gHoldsLeft{0}, gHeld{0}, gReleased{0};
std::atomic<long> gHoldTid{0};

void holdingLogger(const char*, int, const char*, int, int, int, const char* fmt, ...) {
    if (strcmp(fmt, "Wait end") != 0) return;
    long me = probe::tid(), want = gHoldTid.load();
    if (want != 0 && want != me) return;
    int left = gHoldsLeft.load();
    while (left > 0) {
        if (gHoldsLeft.compare_exchange_weak(left, left - 1)) {
            gHoldTid = me;
            int n = gHeld.fetch_add(1) + 1;
            while (gReleased.load() < n) usleep(100);
            return;
        }
    }
}

void runTogether(Task& x, Task& y) {
    probe::Gate gate;
    x.onRun = y.onRun = [&](Task&) { gate.wait(); };
    int ex = x.exits.load(), ey = y.exits.load();
    ASSERT_TRUE(x.start());
    ASSERT_TRUE(y.start());
    ASSERT_TRUE(probe::waitFor([&] { return x.isRunning() && y.isRunning(); }));
    EXPECT_NE(x.runTid.load(), y.runTid.load());
    gate.open();
    ASSERT_TRUE(probe::waitFor([&] { return x.exits.load() > ex && y.exits.load() > ey; }));
    ASSERT_TRUE(probe::waitFor(poolIdle));
}

}  // namespace

TEST(DaemonThread, PassWithoutATaskNeverListsAThreadTwice) {
    __logprintf = holdingLogger;  // before any pooled thread, never restored
    int base = baselineThreadCount();
    Task x, y;
    runTogether(x, y);  // two free threads, P (front) and Q
    gHoldsLeft = 2;
    Task* doomed = new Task;
    ASSERT_TRUE(doomed->start());  // hands out P
    ASSERT_TRUE(probe::waitFor([] { return gHeld.load() == 1; }));
    EXPECT_TRUE(doomed->start());  // pending request, then unbound
    delete doomed;
    gReleased = 1;
    // P finds no task and is freed behind Q; the pending request wakes it
    // again, and it is held while already free.
    ASSERT_TRUE(probe::waitFor([] { return gHeld.load() == 2; }));
    Task z;
    ASSERT_TRUE(z.start());  // takes Q, which then goes behind P
    ASSERT_TRUE(z.waitExits(1));
    ASSERT_TRUE(probe::waitFor(poolIdle));
    gReleased = 2;  // P's second pass without a task, while free
    usleep(50 * 1000);
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.free, 2);
    EXPECT_EQ(c.alive, 2);
    runTogether(x, y);  // a record listed twice would go to both
    expectQuiescentPool(base);
}

TEST(DaemonThread, FailedThreadCreationIsLoggedAndThePoolStaysUsable) {
    LogCapture& cap = keptLogCapture();
    int base = baseline();
    const std::string line = "pthread_create failed, " + std::to_string(EAGAIN) + ", " + strerror(EAGAIN);
    gFailCreates = 1;  // the second attempt in start() succeeds
    Task once;
    EXPECT_TRUE(once.start());
    ASSERT_TRUE(once.waitExits(1));
    EXPECT_EQ(cap.count(line, LOG_WARN), 1);

    probe::Gate gate;
    Task hold;
    hold.onRun = [&](Task&) { gate.wait(); };
    ASSERT_TRUE(hold.start());  // occupies the only free thread
    gFailCreates = 2;
    {
        Task stuck;  // false, logged twice, then stays refused silently
        EXPECT_FALSE(stuck.start());
        EXPECT_FALSE(stuck.start());
        EXPECT_EQ(cap.count(line, LOG_WARN), 3);
        EXPECT_EQ(stuck.runs.load(), 0);
    }
    Task after;
    EXPECT_TRUE(after.start());
    ASSERT_TRUE(after.waitExits(1));
    gate.open();
    ASSERT_TRUE(hold.waitExits(1));
    // The threadless record stays in the used list, never handed out.
    ASSERT_TRUE(probe::waitFor([] { return kel_pool_counts().used == 1; }));
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.free, 2);
    EXPECT_EQ(c.alive, 2);
    EXPECT_TRUE(threadCountSettlesAt(base + 2)) << threadCount();
}

TEST(DaemonThread, AllocationFailureInStartReleasesThePoolLock) {
    int base = baseline();
    Task t;
    for (int nth : {1, 2}) {  // the list entry, then the record
        tFailAllocIn = nth;
        EXPECT_THROW(t.start(), std::bad_alloc) << nth;
        tFailAllocIn = 0;
        KelPoolCounts c = kel_pool_counts();  // hangs on a held lock
        EXPECT_EQ(c.used + c.free, 0) << nth;
        EXPECT_TRUE(threadCountSettlesAt(base)) << nth;
    }
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(t.waitExits(1));
    EXPECT_EQ(t.runs.load(), 1);
    expectQuiescentPool(base);
}

// Every start of an idle task makes exactly one pass, from many threads.
TEST(DaemonThread, TasksStartedFromManyThreadsKeepThePoolConsistent) {
    int base = baseline();
    constexpr int kThreads = 4, kRounds = 200;
    std::vector<std::thread> starters;
    std::atomic<int> total{0};
    for (int i = 0; i < kThreads; ++i) {
        starters.emplace_back([&] {
            Task t;
            t.onExit = [&](Task&) { total.fetch_add(1); };
            for (int r = 1; r <= kRounds; ++r) {
                t.start();
                ASSERT_TRUE(t.waitExits(r));
            }
            EXPECT_EQ(t.runs.load(), kRounds);
        });
    }
    for (auto& s : starters) s.join();
    EXPECT_EQ(total.load(), kThreads * kRounds);
    EXPECT_LE(kel_pool_counts().alive, 2 * kThreads);
    expectQuiescentPool(base);
}

// A work queue whose first thread binding ran out of memory keeps its work
// and runs it, with the next work, after the next call.
TEST(DaemonThread, WorkQueueRunsAgainAfterItsBindingFailed) {
    static std::atomic<int> ran{0};
    DispatchFunc work = [](void*) { ran.fetch_add(1); };
    DispathQueue* q = kel_dispatch_queue_create();
    tFailAllocIn = 2;  // the work's node, then the pool's list entry
    EXPECT_THROW(kel_dispatch_async_t(q, work, nullptr), std::bad_alloc);
    tFailAllocIn = 0;
    kel_dispatch_async_t(q, work, nullptr);
    EXPECT_TRUE(probe::waitFor([] { return ran.load() == 2; }));
    kel_dispatch_queue_destory(q);
}
