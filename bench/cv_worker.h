// The one baseline of every hand-off benchmark: a worker thread taking tasks
// from a FIFO under one std::mutex, woken by one std::condition_variable on
// every post. `capacity` 0 leaves the FIFO unbounded; otherwise a post that
// finds it full yields and retries, as a refused kel post does.
#ifndef KEL_BENCH_CV_WORKER_H
#define KEL_BENCH_CV_WORKER_H

#include <pthread.h>
#include <sched.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace bench {

class CvWorker {
public:
    typedef void (*Fn)(void*);

    explicit CvWorker(size_t capacity = 0) : mCapacity(capacity), mThread([this] { loop(); }) {}
    ~CvWorker() {
        {
            std::lock_guard<std::mutex> g(mMutex);
            mStop = true;
        }
        mCond.notify_one();
        mThread.join();
    }

    void post(Fn fn, void* arg) {
        for (;;) {
            {
                std::lock_guard<std::mutex> g(mMutex);
                if (mCapacity == 0 || mTasks.size() < mCapacity) {
                    mTasks.push_back({fn, arg});
                    break;
                }
            }
            std::this_thread::yield();
        }
        mCond.notify_one();
    }

    // Runs `fn` on the worker after everything posted before, and waits for it.
    void sync(Fn fn, void* arg) {
        struct Done {
            Fn fn;
            void* arg;
            std::mutex m;
            std::condition_variable cv;
            bool done;
        } d{fn, arg, {}, {}, false};
        post(
            [](void* p) {
                Done* d = static_cast<Done*>(p);
                d->fn(d->arg);
                std::lock_guard<std::mutex> g(d->m);
                d->done = true;
                d->cv.notify_one();
            },
            &d);
        std::unique_lock<std::mutex> g(d.m);
        d.cv.wait(g, [&] { return d.done; });
    }

    pthread_t handle() { return mThread.native_handle(); }

private:
    struct Task {
        Fn fn;
        void* arg;
    };

    void loop() {
        std::unique_lock<std::mutex> g(mMutex);
        for (;;) {
            mCond.wait(g, [&] { return mStop || !mTasks.empty(); });
            if (mTasks.empty()) return;
            Task t = mTasks.front();
            mTasks.pop_front();
            g.unlock();
            t.fn(t.arg);
            g.lock();
        }
    }

    size_t mCapacity;
    std::mutex mMutex;
    std::condition_variable mCond;
    std::deque<Task> mTasks;
    bool mStop = false;
    std::thread mThread;
};

// Pins a thread to one CPU (`cpu` >= 0) or lets it run on all of them (-1).
inline void pinThread(pthread_t th, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0) {
        CPU_SET(cpu, &set);
    } else {
        for (int i = 0; i < CPU_SETSIZE; ++i) CPU_SET(i, &set);
    }
    pthread_setaffinity_np(th, sizeof set, &set);
}

// Pins the calling thread to `self` and `other` to `otherCpu` for a scope,
// then lets both run anywhere again.
class Pinned {
public:
    Pinned(pthread_t other, int self, int otherCpu) : mOther(other) {
        pinThread(pthread_self(), self);
        pinThread(other, otherCpu);
    }
    ~Pinned() {
        pinThread(pthread_self(), -1);
        pinThread(mOther, -1);
    }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    pthread_t mOther;
};

}  // namespace bench

#endif
