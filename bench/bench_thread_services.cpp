// Thread services against plain baselines, in one run:
// - throughput of kel_dispatch_async_t on one queue vs a mutex + condition
//   variable serial executor on one std::thread;
// - DaemonThread::start to the first instruction of run() on a warm pool vs
//   creating a std::thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "cv_worker.h"
#include "daemon_thread.h"
#include "kel_dispatch.h"

namespace {

constexpr int kBatch = 1000;
typedef std::chrono::steady_clock Clock;

// Completion counter shared by both executors.
struct Counter {
    std::mutex m;
    std::condition_variable cv;
    int n = 0;
};

void tick(void* ctx) {
    Counter* c = static_cast<Counter*>(ctx);
    std::lock_guard<std::mutex> l(c->m);
    if (++c->n == kBatch) c->cv.notify_one();
}

void waitBatch(Counter& c) {
    std::unique_lock<std::mutex> l(c.m);
    c.cv.wait(l, [&] { return c.n == kBatch; });
    c.n = 0;
}

void BM_WorkQueueAsync(benchmark::State& state) {
    DispathQueue* q = kel_dispatch_queue_create();
    Counter c;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) kel_dispatch_async_t(q, tick, &c);
        waitBatch(c);
    }
    kel_dispatch_queue_destory(q);
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_WorkQueueAsync)->UseRealTime();

void BM_BaselineMutexCondExecutor(benchmark::State& state) {
    bench::CvWorker ex;
    Counter c;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) ex.post(tick, &c);
        waitBatch(c);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_BaselineMutexCondExecutor)->UseRealTime();

// Records the moment run() begins and signals the end of each pass.
class Probe : public DaemonThread {
public:
    std::mutex m;
    std::condition_variable cv;
    Clock::rep entered = 0;
    int exits = 0;

    void run() override {
        Clock::rep now = Clock::now().time_since_epoch().count();
        std::lock_guard<std::mutex> l(m);
        entered = now;
        cv.notify_one();
    }
    void threadExit() override {
        std::lock_guard<std::mutex> l(m);
        ++exits;
        cv.notify_one();
    }
};

void BM_DaemonThreadWarmStart(benchmark::State& state) {
    Probe p;
    int passes = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        p.start();
        std::unique_lock<std::mutex> l(p.m);
        p.cv.wait(l, [&] { return p.entered != 0; });
        Clock::rep t1 = p.entered;
        p.entered = 0;
        ++passes;
        // Let the thread get back to the pool before the next start.
        p.cv.wait(l, [&] { return p.exits == passes; });
        state.SetIterationTime(
            std::chrono::duration<double>(Clock::duration(t1) - t0.time_since_epoch()).count());
    }
}
BENCHMARK(BM_DaemonThreadWarmStart)->UseManualTime();

void BM_BaselineStdThreadCreate(benchmark::State& state) {
    for (auto _ : state) {
        std::atomic<Clock::rep> entered{0};
        auto t0 = Clock::now();
        std::thread t([&] { entered.store(Clock::now().time_since_epoch().count()); });
        t.join();
        state.SetIterationTime(
            std::chrono::duration<double>(Clock::duration(entered.load()) - t0.time_since_epoch()).count());
    }
}
BENCHMARK(BM_BaselineStdThreadCreate)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
