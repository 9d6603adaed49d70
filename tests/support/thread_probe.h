// Helpers for the thread-service tests: bounded polling, a one-shot gate,
// the calling thread's name and id, the pool's idle state.
#ifndef KEL_TESTS_SUPPORT_THREAD_PROBE_H
#define KEL_TESTS_SUPPORT_THREAD_PROBE_H

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "daemon_pool.h"
#include "daemon_thread.h"
#include "threads.h"

namespace probe {

// Polls `pred` until it holds; the bound only keeps a broken build from hanging.
template <typename Pred>
bool waitFor(Pred pred, int seconds = 20) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

inline std::string threadName() {
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

inline long tid() { return static_cast<long>(syscall(SYS_gettid)); }

inline bool poolIdle() { return kel_pool_counts().used == 0; }

class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> l(mMutex);
        mOpen = true;
        mCond.notify_all();
    }
    bool wait(int seconds = 20) {
        std::unique_lock<std::mutex> l(mMutex);
        return mCond.wait_for(l, std::chrono::seconds(seconds), [this] { return mOpen; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mOpen = false;
};

}  // namespace probe

#endif
