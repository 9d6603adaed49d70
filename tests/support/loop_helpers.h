// Helpers for tests that run the main loop.
#ifndef KEL_TESTS_SUPPORT_LOOP_HELPERS_H
#define KEL_TESTS_SUPPORT_LOOP_HELPERS_H

#include <chrono>
#include <functional>
#include <thread>

#include "kel_loop.h"
#include "threads.h"

// Starts the framework for a test: Kel::init only (no signal handling, the
// logging stand-in left as it is).
void startFramework();

// Polls `pred` until it holds or `seconds` pass. True when it held.
bool waitUntil(const std::function<bool()>& pred, double seconds = 20.0);

// Ends the process with a message if the test is still running after
// `seconds`: a hang fails the test instead of blocking the suite.
void armWatchdog(int seconds = 120);

// Free blocks in the loop's three pools, and their totals.
struct PoolCounts {
    unsigned timer, general, state;
    bool operator==(const PoolCounts& o) const {
        return timer == o.timer && general == o.general && state == o.state;
    }
};
PoolCounts freeBlocks(KelLoop* loop);
PoolCounts totalBlocks(KelLoop* loop);

// Runs `execLoop` of a loop on a thread of its own.
class LoopRunner {
public:
    explicit LoopRunner(KelLoop* loop);
    ~LoopRunner();
    // Waits for execLoop to return; its result.
    int join();
    pthread_t nativeHandle() { return mThread.native_handle(); }

private:
    KelLoop* mLoop;
    std::thread mThread;
    int mResult;
    bool mJoined;
};

#endif
