// What the tests share: a hang guard, bounded polling, the threads of the
// process, the checks every loop test ends with (pools full again, no thread
// left behind), and the length of the stress cases.
//
// A process has one loop for its life, so every test case that builds one
// runs in a process of its own (ctest runs each case separately).
#ifndef KEL_TESTS_SUPPORT_LOOP_HARNESS_H
#define KEL_TESTS_SUPPORT_LOOP_HARNESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app_timer.h"
#include "daemon_pool.h"
#include "daemon_thread.h"
#include "dispatch_process.h"
#include "event_def.h"
#include "kel_dispatch.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_timer.h"
#include "support/log_capture.h"

// Ends the process with status 2 and a message when the test has not
// finished after `seconds`, so that a hang fails instead of blocking CI.
// Uses SIGALRM; no thread.
class Watchdog {
public:
    explicit Watchdog(unsigned seconds = 120);
    ~Watchdog() { alarm(0); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
};

// Polls `pred` until it holds or `seconds` pass. True when it held.
bool waitUntil(const std::function<bool()>& pred, double seconds = 20.0);

// A one-shot gate between threads.
class Gate {
public:
    void open();
    bool wait(int seconds = 20);

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mOpen = false;
};

std::string threadName();  // of the calling thread
int currentTid();          // Linux thread id of the calling thread

// Names of the threads of this process, main thread first. Threads of a
// user-mode emulator ("qemu-...") are left out.
std::vector<std::string> threadNames();
int threadsNamed(const std::string& name);
// Threads besides the main thread, "kel-signal" and a sanitizer's helper.
std::vector<std::string> strayThreads();
// No pooled thread is busy.
inline bool poolIdle() { return kel_pool_counts().used == 0; }
// True once strayThreads() is empty, within 10 s (a joined thread may be
// listed for a moment while the kernel finishes it).
bool waitForNoStrayThreads();

// The length of a stress case: `dflt` seconds; in a soak run (KEL_SOAK set,
// as the ctest label `soak` does) KEL_SOAK_SECONDS, by default 10.
double stressSeconds(double dflt);

// An application event of `sig` with the two words; null when no block is
// free. postGeneral posts it and gives the block back when refused.
GeneralQEvt* newGeneral(int sig, long w = 0, long l = 0);
bool postGeneral(KelLoop* loop, int sig, long w = 0, long l = 0);
// A state event from the pools; null when no block is free.
StateQEvt* newStateEvt(long stateMsg, long msgId = 0);

// The handler that KelLoop::init_all installed for SIGTERM, installed the
// same way for `sig`.
void installKelHandlerFor(int sig);

// Dispatch nodes in use, process-wide, read from the store's profile line;
// `made` (if given) receives the nodes made.
int dispatchNodesUsed(dispatch::Queue& q, int* made = nullptr);

// Runs `execLoop` of a loop on a thread of its own; join() waits for it to
// return and gives its result. Not joined, it is ended by exitLoop.
struct LoopRunner {
    explicit LoopRunner(KelLoop* l) : loop(l), thread([this] { result = loop->execLoop(); }) {}
    ~LoopRunner() {
        if (!thread.joinable()) return;
        loop->exitLoop();
        thread.join();
    }
    int join() {
        thread.join();
        return result;
    }
    KelLoop* loop;
    int result = -2;
    std::thread thread;
};

// Starts the framework without signal handling or logging set-up; at the
// end checks that no thread is left and every block of the timer, general
// and state pools of `loop` came home.
class KelTest : public ::testing::Test {
protected:
    void SetUp() override { KelLoop::init_all(0x3000000, "kel-test", nullptr); }
    void TearDown() override;
    Watchdog dog{120};
    KelLoop* loop = nullptr;
};

// Death tests re-run the test binary in the child ("threadsafe"), as the
// process has threads; an emulator cannot exec that binary, so there the
// child forks without exec ("fast").
#ifdef KEL_TEST_UNDER_EMULATOR
#define KEL_DEATH_TEST_STYLE "fast"
#else
#define KEL_DEATH_TEST_STYLE "threadsafe"
#endif

#endif
