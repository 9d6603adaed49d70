// Process exit with the thread pool and the default work queue in use. Each
// case runs its scenario in a child process, which must exit by itself,
// promptly and with status 0: no hang in the pool's teardown, no crash.
// Under valgrind, memory errors or leaks give the child valgrind's error
// status and fail the case too.
#include <sys/wait.h>

#include "support/loop_harness.h"

namespace {

// Runs `child` in a forked process and expects it to exit with 0 within a
// minute, far less than the two minutes that busy threads sleep.
template <typename F>
void expectCleanExit(F child) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    // A hang at exit ends by SIGALRM; exit runs the static destructors, as
    // returning from main would.
    if (pid == 0) {
        alarm(60);
        child();
        exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

struct Sleeper : DaemonThread {
    std::atomic<bool> inRun{false};
    void run() override { inRun = true, sleep(120); }
};

void noop(void*) {}

}  // namespace

TEST(ThreadExit, ProcessWithIdlePooledThreadsExitsCleanly) {
    expectCleanExit([] {
        static DaemonThread a, b;  // bound tasks alive at exit
        a.start();
        b.start();
        DispathQueue* q = kel_dispatch_queue_create();
        for (int i = 0; i < 100; ++i) {
            kel_dispatch_async_t(q, noop, nullptr);
            kel_dispatch_async_t(nullptr, noop, nullptr);
        }
        kel_dispatch_queue_destory(q);
        if (!waitUntil(poolIdle)) _exit(3);
    });
}

TEST(ThreadExit, ProcessWithAThreadInALongRunExitsWithoutWaitingForIt) {
    expectCleanExit([] {
        static Sleeper sleeper;  // alive through exit, as the pass needs
        static std::atomic<bool> workStarted{false};
        sleeper.start();
        kel_dispatch_async_t(
            nullptr, [](void*) { workStarted = true, sleep(120); }, nullptr);
        static DaemonThread idle;
        idle.start();
        if (!waitUntil([] { return sleeper.inRun.load() && workStarted.load(); })) _exit(3);
    });
}

// The parent has idle and busy pooled threads and a default queue with work
// running and waiting; none of these threads exists in the child, which
// starts with an empty pool and queues that run new work only.
TEST(ThreadExit, ForkedChildOfAPoolUserExitsAlthoughItsThreadsAreMissing) {
    Gate gate;
    static std::atomic<int> ran{0};
    DaemonThread idle;
    ASSERT_TRUE(idle.start());
    kel_dispatch_async_t(
        nullptr, [](void* g) { ran += 1, static_cast<Gate*>(g)->wait(); }, &gate);
    kel_dispatch_async_t(
        nullptr, [](void*) { ran += 10; }, nullptr);  // pending at the fork
    ASSERT_TRUE(waitUntil([&] { return ran == 1; }));
    expectCleanExit([] {
        KelPoolCounts c = kel_pool_counts();
        if (c.used != 0 || c.free != 0 || c.alive != 0) _exit(4);
#if !defined(__SANITIZE_THREAD__) && !defined(KEL_TEST_UNDER_EMULATOR)
        // The pool works afresh (thread creation after a multithreaded fork
        // is refused by the thread sanitizer and unreliable under emulation).
        DaemonThread fresh;
        if (!fresh.start()) _exit(5);
        kel_dispatch_async_t(
            nullptr, [](void*) { ran += 100; }, nullptr);
        if (!waitUntil([] { return ran.load() == 101; })) _exit(6);
        if (!waitUntil(poolIdle)) _exit(7);
#endif
    });
    gate.open();
    ASSERT_TRUE(waitUntil([] { return ran.load() == 11; }));
    ASSERT_TRUE(waitUntil(poolIdle));
}

#ifdef KEL_TEST_EARLY_WORK
// A binary of its own, linked statically: this program's static initializer
// runs before the library's, and queues work on the default queue. The queue
// and the pool are made on that first use; the process then exits with work
// running and queued.
static std::atomic<bool> gEarlyRan{false};
[[maybe_unused]] static const bool gEarlyQueued = (kel_dispatch_async_t(
                                                       nullptr, [](void*) { gEarlyRan = true; }, nullptr),
                                                   true);

TEST(ThreadExit, WorkQueuedBeforeTheLibrarysStaticsRunsAndExitStaysClean) {
    EXPECT_TRUE(waitUntil([] { return gEarlyRan.load(); }));
    kel_dispatch_async_t(
        nullptr, [](void*) { sleep(120); }, nullptr);
    kel_dispatch_async_t(nullptr, noop, nullptr);
}
#endif
