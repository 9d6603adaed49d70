// Process-exit behaviour of the thread pool and the default work queue. Each
// case runs its scenario in a child process and checks that the child exits
// by itself, promptly and with status 0: no hang in the pool's teardown, no
// crash. Run under valgrind, a child with memory errors or leaks exits with
// valgrind's error status and fails the case too.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "daemon_thread.h"
#include "kel_dispatch.h"
#include "support/thread_probe.h"

namespace {

// Waits for `pid` at most `seconds`; kills it if it is still there.
int waitChild(pid_t pid, int seconds = 60) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(1000);
    }
    return status;
}

void expectCleanExit(int status) {
    ASSERT_NE(status, -1) << "child hung at exit";
    ASSERT_TRUE(WIFEXITED(status)) << "child died by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

class Sleeper : public DaemonThread {
public:
    std::atomic<bool> inRun{false};
    void run() override {
        inRun = true;
        sleep(120);  // far longer than any test bound
    }
};

void noop(void*) {}
void longWork(void* flag) {
    static_cast<std::atomic<bool>*>(flag)->store(true);
    sleep(120);
}

bool poolIdle() { return kel_pool_counts().used == 0; }

}  // namespace

TEST(ThreadExit, ProcessWithIdlePooledThreadsExitsCleanly) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        DaemonThread a, b;
        a.start();
        b.start();
        DispathQueue* q = kel_dispatch_queue_create();
        for (int i = 0; i < 100; ++i) {
            kel_dispatch_async_t(q, noop, nullptr);
            kel_dispatch_async_t(nullptr, noop, nullptr);
        }
        kel_dispatch_queue_destory(q);
        if (!probe::waitFor(poolIdle)) _exit(3);
        exit(0);  // static destructors run, as after returning from main
    }
    expectCleanExit(waitChild(pid));
}

TEST(ThreadExit, ProcessWithAThreadInALongRunExitsWithoutWaitingForIt) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        static Sleeper sleeper;  // alive through exit, as the pass needs
        static std::atomic<bool> workStarted{false};
        sleeper.start();
        kel_dispatch_async_t(nullptr, longWork, &workStarted);
        DaemonThread idle;
        idle.start();
        if (!probe::waitFor([] { return sleeper.inRun.load() && workStarted.load(); })) _exit(3);
        exit(0);
    }
    // Far less than the two minutes that the busy threads sleep.
    expectCleanExit(waitChild(pid, 60));
}

TEST(ThreadExit, ForkedChildOfAPoolUserExitsAlthoughItsThreadsAreMissing) {
    // The parent has idle pooled threads, a busy one and a default queue
    // in use; none of these threads exists in the child.
    probe::Gate gate;
    DaemonThread idle;
    ASSERT_TRUE(idle.start());
    class Blocked : public DaemonThread {
    public:
        probe::Gate* gate;
        std::atomic<bool> inRun{false};
        void run() override {
            inRun = true;
            gate->wait();
        }
    } busy;
    busy.gate = &gate;
    ASSERT_TRUE(busy.start());
    kel_dispatch_async_t(nullptr, noop, nullptr);
    ASSERT_TRUE(probe::waitFor([&] { return busy.inRun.load(); }));

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        KelPoolCounts c = kel_pool_counts();
        // The child starts with an empty pool.
        if (c.used != 0 || c.free != 0 || c.alive != 0) _exit(4);
#ifndef __SANITIZE_THREAD__
        // It may use the pool afresh (thread creation after a multithreaded
        // fork is refused by the thread sanitizer, so not there).
        DaemonThread fresh;
        if (!fresh.start()) _exit(5);
        if (!probe::waitFor(poolIdle)) _exit(6);
#endif
        exit(0);
    }
    expectCleanExit(waitChild(pid));
    gate.open();
    ASSERT_TRUE(probe::waitFor(poolIdle));
}
