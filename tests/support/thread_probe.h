// Helpers for the thread-service tests: counting the process's threads,
// waiting for a condition with a generous bound, naming the calling thread.
#ifndef KEL_TESTS_SUPPORT_THREAD_PROBE_H
#define KEL_TESTS_SUPPORT_THREAD_PROBE_H

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace probe {

// Number of threads of this process, from /proc/self/task.
inline int taskCount() {
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n;
}

// Thread count before a test starts its own threads. One short-lived
// thread first, so that helper threads a sanitizer starts with the first
// pthread_create are already counted.
inline int baselineTaskCount() {
    std::thread([] {}).join();
    return taskCount();
}

// Polls `pred` until it holds or `seconds` have passed. The bound only keeps
// a broken build from hanging; it is far above any expected time.
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

// A one-shot gate: threads wait until it opens.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> l(mMutex);
        mOpen = true;
        mCond.notify_all();
    }
    // False when the gate did not open within `seconds`.
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
