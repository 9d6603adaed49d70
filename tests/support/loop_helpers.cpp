#include "loop_helpers.h"

#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "kel_pool.h"
#include "kel_timer.h"

void startFramework() { KelLoop::init_all(0x3000000, "kel-test", nullptr); }

bool waitUntil(const std::function<bool()>& pred, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int polls = 0; std::chrono::steady_clock::now() < end; ++polls) {
        if (pred()) return true;
        // Short waits are polled closely, long ones gently.
        if (polls < 2000) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return pred();
}

void armWatchdog(int seconds) {
    std::thread([seconds] {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        fprintf(stderr, "watchdog: test still running after %d s, a hang\n", seconds);
        _exit(3);
    }).detach();
}

PoolCounts freeBlocks(KelLoop* loop) {
    return {loop->timerList()->nodePool()->getNFree(), loop->generalPool()->getNFree(),
            loop->statePool()->getNFree()};
}

PoolCounts totalBlocks(KelLoop* loop) {
    return {loop->timerList()->nodePool()->getNTot(), loop->generalPool()->getNTot(),
            loop->statePool()->getNTot()};
}

LoopRunner::LoopRunner(KelLoop* loop) : mLoop(loop), mResult(-2), mJoined(false) {
    mThread = std::thread([this] { mResult = mLoop->execLoop(); });
}

LoopRunner::~LoopRunner() {
    if (!mJoined && mThread.joinable()) {
        mLoop->exitLoop();
        mThread.join();
    }
}

int LoopRunner::join() {
    mThread.join();
    mJoined = true;
    return mResult;
}
