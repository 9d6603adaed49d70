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
#include "support/log_capture.h"
#include "support/thread_probe.h"

// ---------------------------------------------------------------------------
// Fault injection: thread creation and allocation can be made to fail.

namespace {

std::atomic<int> gFailCreates{0};
thread_local int tFailAllocIn = 0;  // fail the n-th allocation from now on

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

// The replacement pairs malloc with free on purpose.
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
    using DaemonThread::setName;
};

bool poolIdle() { return kel_pool_counts().used == 0; }

// Made before the first pooled thread and kept for the rest of the process:
// putting the old logger back would race with idle pooled threads.
LogCapture& keptLogCapture() {
    static LogCapture* cap = new LogCapture;
    return *cap;
}

// The last figures that DaemonThread::profile() logged.
void profiled(const LogCapture& cap, int* used, int* freeCount) {
    DaemonThread::profile();
    *used = *freeCount = -1;
    for (const auto& l : cap.lines()) {
        if (l.level != LOG_DEBUG) continue;
        sscanf(l.text.c_str(), "Thread Used count: %d", used);
        sscanf(l.text.c_str(), "Thread Free count: %d", freeCount);
    }
}

// Every record is in exactly one list and every idle one has its thread.
void expectQuiescentPool(int baseTasks) {
    ASSERT_TRUE(probe::waitFor(poolIdle));
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.used, 0);
    EXPECT_EQ(c.free, c.alive);
    EXPECT_TRUE(threadCountSettlesAt(baseTasks + c.alive)) << probe::taskCount();
}

}  // namespace

TEST(DaemonThread, FirstStartCreatesAThreadThatLaterServesAnotherTask) {
    LogCapture& cap = keptLogCapture();
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    probe::Gate gate;
    Task a;
    a.onRun = [&](Task&) { gate.wait(); };
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(probe::waitFor([&] { return a.isRunning(); }));
    int used, freeCount;
    profiled(cap, &used, &freeCount);
    EXPECT_EQ(used, 1);
    EXPECT_EQ(freeCount, 0);
    gate.open();
    ASSERT_TRUE(probe::waitFor([&] { return a.exits.load() == 1; }));
    ASSERT_TRUE(probe::waitFor(poolIdle));
    profiled(cap, &used, &freeCount);
    EXPECT_EQ(used, 0);
    EXPECT_EQ(freeCount, 1);

    Task b;
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(probe::waitFor([&] { return b.exits.load() == 1; }));
    EXPECT_EQ(b.runTid.load(), a.runTid.load());
    EXPECT_EQ(kel_pool_counts().alive, 1);
    expectQuiescentPool(base);
}

TEST(DaemonThread, PassRunsThenThreadExitOnOneNamedThreadWithNoLockHeld) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    Task other;
    Task t;
    EXPECT_STREQ(t.runningStep(), "init");
    std::atomic<bool> runningInRun{false}, runningInExit{true};
    sigset_t mask;
    t.onRun = [&](Task& self) {
        runningInRun = self.isRunning();
        self.setRunningStep("working");
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        // Would deadlock if the pool lock were held around run().
        DaemonThread::profile();
        EXPECT_TRUE(other.start());
    };
    t.onExit = [&](Task& self) { runningInExit = self.isRunning(); };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == 1 && other.exits.load() == 1; }));
    EXPECT_EQ(t.runs.load(), 1);
    EXPECT_EQ(t.runTid.load(), t.exitTid.load());
    EXPECT_TRUE(runningInRun.load());
    EXPECT_FALSE(runningInExit.load());
    EXPECT_STREQ(t.runningStep(), "working");
    EXPECT_EQ(t.runName.rfind("kel-pool-", 0), 0u) << t.runName;
    EXPECT_LE(t.runName.size(), 15u);
    // Asynchronous process signals are left to the application's threads.
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGCHLD}) {
        EXPECT_EQ(sigismember(&mask, sig), 1) << sig;
    }
    EXPECT_EQ(sigismember(&mask, SIGSEGV), 0);
    expectQuiescentPool(base);
}

TEST(DaemonThread, TwoTasksAtOnceTakeTwoThreadsAndTheFirstFreedIsReusedFirst) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    probe::Gate gateA, gateB;
    Task a, b, c;
    a.onRun = [&](Task&) { gateA.wait(); };
    b.onRun = [&](Task&) { gateB.wait(); };
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    ASSERT_TRUE(probe::waitFor([&] { return a.isRunning() && b.isRunning(); }));
    EXPECT_NE(a.runTid.load(), b.runTid.load());
    EXPECT_EQ(kel_pool_counts().used, 2);
    // b's thread is freed first, then a's.
    gateB.open();
    ASSERT_TRUE(probe::waitFor([] { return kel_pool_counts().free == 1; }));
    gateA.open();
    ASSERT_TRUE(probe::waitFor(poolIdle));
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(probe::waitFor([&] { return c.exits.load() == 1; }));
    EXPECT_EQ(c.runTid.load(), b.runTid.load());
    EXPECT_EQ(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

TEST(DaemonThread, StartDuringRunNeitherRepeatsRunNorLeavesAWakeUp) {
    LogCapture& cap = keptLogCapture();
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    probe::Gate gate;
    Task t;
    t.onRun = [&](Task&) { gate.wait(); };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.isRunning(); }));
    EXPECT_TRUE(t.start());
    EXPECT_TRUE(t.start());
    gate.open();
    ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == 1; }));
    ASSERT_TRUE(probe::waitFor(poolIdle));
    // A leftover request would wake the thread again at once.
    usleep(50 * 1000);
    EXPECT_EQ(t.runs.load(), 1);
    EXPECT_EQ(cap.count("Wait start", LOG_DEBUG), 1);
    EXPECT_EQ(cap.count("Wait end", LOG_DEBUG), 0);
    expectQuiescentPool(base);
}

TEST(DaemonThread, StartInsideThreadExitBindsAnotherThread) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    Task t;
    std::atomic<long> firstTid{0};
    std::atomic<bool> restarted{false};
    t.onExit = [&](Task& self) {
        if (!restarted.exchange(true)) {
            firstTid = probe::tid();
            EXPECT_TRUE(self.start());
        }
    };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == 2; }));
    EXPECT_EQ(t.runs.load(), 2);
    // The first thread was not free yet, so the second pass made a new one.
    EXPECT_NE(t.runTid.load(), firstTid.load());
    EXPECT_EQ(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

TEST(DaemonThread, EveryStartOfAnIdleTaskMakesOneFullPass) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    Task t;
    for (int i = 1; i <= 300; ++i) {
        ASSERT_TRUE(t.start());
        ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == i; })) << i;
    }
    EXPECT_EQ(t.runs.load(), 300);
    // A restart may overlap the previous thread's way back, never more.
    EXPECT_LE(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

TEST(DaemonThread, SetNameWorksOnlyFromRunAndLastsOnePass) {
    std::string mine = probe::threadName();
    Task t;
    t.setName("from-main");  // not the pooled thread: nothing happens
    EXPECT_EQ(probe::threadName(), mine);
    std::string inRun;
    t.onRun = [&](Task& self) {
        self.setName(nullptr);
        self.setName("fetcher");
        inRun = probe::threadName();
    };
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == 1; }));
    EXPECT_EQ(inRun, "fetcher");
    ASSERT_TRUE(probe::waitFor(poolIdle));
    Task u;
    ASSERT_TRUE(u.start());
    ASSERT_TRUE(probe::waitFor([&] { return u.exits.load() == 1; }));
    EXPECT_EQ(u.runTid.load(), t.runTid.load());
    EXPECT_EQ(u.runName.rfind("kel-pool-", 0), 0u) << u.runName;
}

namespace {

// Holds pooled threads that log "Wait end", i.e. that have been woken but
// have not yet looked at their task: the first such thread, then only that
// one again, as long as holds are left. Hold n ends when gReleased reaches n.
std::atomic<int> gHoldsLeft{0}, gHeld{0}, gReleased{0};
std::atomic<long> gHoldTid{0};

void holdingLogger(const char*, int, const char*, int, int, int, const char* fmt, ...) {
    if (strcmp(fmt, "Wait end") != 0) return;
    long me = probe::tid();
    long want = gHoldTid.load();
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

TEST(DaemonThread, TaskUnboundBeforeItsThreadLooksLeavesOneFreeEntry) {
    // Installed before any pooled thread exists and never restored, so the
    // pooled threads' reads of the pointer cannot race with a write.
    __logprintf = holdingLogger;
    int base = probe::baselineTaskCount();
    Task x, y;
    runTogether(x, y);  // two free threads, P (front) and Q

    gHoldsLeft = 2;
    Task* doomed = new Task;
    ASSERT_TRUE(doomed->start());  // hands out P
    ASSERT_TRUE(probe::waitFor([] { return gHeld.load() == 1; }));
    // P is woken but has not looked yet: leave a pending request, unbind.
    EXPECT_TRUE(doomed->start());
    delete doomed;
    gReleased = 1;
    // P finds no task and goes back to the free list, behind Q; the pending
    // request wakes it again at once, and it is held while already free.
    ASSERT_TRUE(probe::waitFor([] { return gHeld.load() == 2; }));
    Task z;
    ASSERT_TRUE(z.start());  // takes Q, which then goes behind P
    ASSERT_TRUE(probe::waitFor([&] { return z.exits.load() == 1; }));
    ASSERT_TRUE(probe::waitFor(poolIdle));
    gReleased = 2;  // P makes a second pass without a task while free
    usleep(50 * 1000);
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.used, 0);
    EXPECT_EQ(c.free, 2);
    EXPECT_EQ(c.alive, 2);
    // A record listed twice would be handed to both tasks.
    runTogether(x, y);
    EXPECT_EQ(kel_pool_counts().alive, 2);
    expectQuiescentPool(base);
}

TEST(DaemonThread, FailedThreadCreationIsLoggedAndThePoolStaysUsable) {
    LogCapture& cap = keptLogCapture();
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    const std::string line =
        std::string("pthread_create failed, ") + std::to_string(EAGAIN) + ", " + strerror(EAGAIN);
    // One failure: the second attempt in start() succeeds.
    gFailCreates = 1;
    Task once;
    EXPECT_TRUE(once.start());
    ASSERT_TRUE(probe::waitFor([&] { return once.exits.load() == 1; }));
    EXPECT_EQ(cap.count(line, LOG_WARN), 1);

    // Both attempts fail: false, twice logged, and the task stays stuck.
    probe::Gate gate;
    Task hold;
    hold.onRun = [&](Task&) { gate.wait(); };
    ASSERT_TRUE(hold.start());  // occupies the only free thread
    gFailCreates = 2;
    {
        Task stuck;
        EXPECT_FALSE(stuck.start());
        EXPECT_EQ(cap.count(line, LOG_WARN), 3);
        EXPECT_FALSE(stuck.start());
        EXPECT_EQ(cap.count(line, LOG_WARN), 3);
        EXPECT_EQ(stuck.runs.load(), 0);
    }
    // The pool still gives threads.
    Task after;
    EXPECT_TRUE(after.start());
    ASSERT_TRUE(probe::waitFor([&] { return after.exits.load() == 1; }));
    gate.open();
    ASSERT_TRUE(probe::waitFor([&] { return hold.exits.load() == 1; }));
    // The threadless record stays in the used list, never handed out.
    ASSERT_TRUE(probe::waitFor([] { return kel_pool_counts().used == 1; }));
    KelPoolCounts c = kel_pool_counts();
    EXPECT_EQ(c.free, 2);
    EXPECT_EQ(c.alive, 2);
    EXPECT_TRUE(threadCountSettlesAt(base + 2)) << probe::taskCount();
}

TEST(DaemonThread, AllocationFailureInStartReleasesThePoolLock) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    Task t;
    // First the list entry, then the record itself fails to allocate.
    for (int nth : {1, 2}) {
        tFailAllocIn = nth;
        EXPECT_THROW(t.start(), std::bad_alloc) << nth;
        tFailAllocIn = 0;
        KelPoolCounts c = kel_pool_counts();  // would hang on a held lock
        EXPECT_EQ(c.used + c.free, 0) << nth;
        EXPECT_TRUE(threadCountSettlesAt(base)) << nth;
    }
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == 1; }));
    EXPECT_EQ(t.runs.load(), 1);
    expectQuiescentPool(base);
}

TEST(DaemonThread, TasksStartedFromManyThreadsKeepThePoolConsistent) {
    int base = probe::baselineTaskCount() - kel_pool_counts().alive;
    constexpr int kThreads = 4, kRounds = 200;
    std::vector<std::thread> starters;
    std::atomic<int> total{0};
    for (int i = 0; i < kThreads; ++i) {
        starters.emplace_back([&] {
            Task t;
            t.onExit = [&](Task&) { total.fetch_add(1); };
            for (int r = 1; r <= kRounds; ++r) {
                t.start();
                ASSERT_TRUE(probe::waitFor([&] { return t.exits.load() == r; }));
            }
        });
    }
    for (auto& s : starters) s.join();
    EXPECT_EQ(total.load(), kThreads * kRounds);
    EXPECT_LE(kel_pool_counts().alive, 2 * kThreads);
    expectQuiescentPool(base);
}
