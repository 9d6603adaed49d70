// Shared pieces of the soak tests: the time budget and a progress watchdog.
//
// KEL_SOAK_SECONDS sets how long each soak case drives load (default 10).
// The watchdog ends the process with a message naming the phase when no
// progress has been counted for a while, so a hang fails the case instead of
// blocking the suite.
#ifndef KEL_TESTS_SOAK_SOAK_H
#define KEL_TESTS_SOAK_SOAK_H

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace soak {

inline double seconds() {
    const char* s = getenv("KEL_SOAK_SECONDS");
    double v = s ? atof(s) : 0.0;
    return v > 0 ? v : 10.0;
}

using Clock = std::chrono::steady_clock;

inline Clock::time_point deadline() {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds()));
}

// Counts progress and names the phase; `stallSeconds` without a change of
// the counter (or of the phase) ends the process with status 3.
class Watchdog {
public:
    explicit Watchdog(const char* test, int stallSeconds = 30) : mTest(test), mStall(stallSeconds) {
        mThread = std::thread([this] { watch(); });
    }
    ~Watchdog() {
        mDone.store(true);
        mThread.join();
    }
    void tick(long n = 1) { mProgress.fetch_add(n, std::memory_order_relaxed); }
    void phase(const char* p) {
        mPhase.store(p);
        tick();
    }

private:
    void watch() {
        long last = -1;
        auto since = Clock::now();
        while (!mDone.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            long now = mProgress.load(std::memory_order_relaxed);
            if (now != last) {
                last = now;
                since = Clock::now();
            } else if (Clock::now() - since > std::chrono::seconds(mStall)) {
                fprintf(stderr, "soak watchdog: %s made no progress for %d s in phase '%s': a hang\n", mTest,
                        mStall, mPhase.load());
                fflush(stderr);
                _exit(3);
            }
        }
    }

    const char* mTest;
    int mStall;
    std::atomic<long> mProgress{0};
    std::atomic<const char*> mPhase{"start"};
    std::atomic<bool> mDone{false};
    std::thread mThread;
};

}  // namespace soak

#endif
