// Dispatch queue against a plain mutex + condition-variable serial executor:
// enqueue+process throughput on two CPUs and on one, the cost of enqueue
// with the worker on the other CPU, synchronous round trip, and the
// lateness of a 10 ms one-shot timer.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "cv_worker.h"
#include "dispatch_process.h"

using dispatch::FUNC;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBatch = 1000;

using bench::CvWorker;

// Drives a dispatch queue with blocking processing calls on its own thread.
class QueueDriver {
public:
    explicit QueueDriver(Queue& q)
        : mQueue(q), mThread([this] {
              while (!mStop.load(std::memory_order_relaxed)) mQueue.queueProcess(1);
          }) {}
    ~QueueDriver() {
        mStop = true;
        mQueue.interrupt();
        mThread.join();
    }

    pthread_t handle() { return mThread.native_handle(); }

private:
    Queue& mQueue;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

struct Counter : public Object {
    void hit() { ++n; }
    void noop() {}
    long n = 0;
};

void cvCount(void* p) { ++static_cast<Counter*>(p)->n; }
void cvNoop(void*) {}

// Argument: the CPU both threads are pinned to, or -1 for the caller on CPU 0
// and the worker on CPU 1.
bench::Pinned pinnedFor(const benchmark::State& state, pthread_t worker) {
    const int cpu = static_cast<int>(state.range(0));
    return bench::Pinned(worker, cpu < 0 ? 0 : cpu, cpu < 0 ? 1 : cpu);
}

void BM_Throughput_Dispatch(benchmark::State& state) {
    Queue q;
    QueueDriver driver(q);
    bench::Pinned pin = pinnedFor(state, driver.handle());
    Counter c;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) q.enqueue(FUNC(&Counter::hit), &c);
        q.run(FUNC(&Counter::noop), &c);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_Throughput_CvExecutor(benchmark::State& state) {
    CvWorker ex;
    bench::Pinned pin = pinnedFor(state, ex.handle());
    Counter c;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) ex.post(cvCount, &c);
        ex.sync(cvNoop, nullptr);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// The queuing side alone: the caller on CPU 0 and the worker on CPU 1; only
// the enqueue calls are timed, the drain that follows each batch is not.
void BM_Enqueue_Dispatch(benchmark::State& state) {
    Queue q;
    QueueDriver driver(q);
    bench::Pinned pin(driver.handle(), 0, 1);
    Counter c;
    for (auto _ : state) {
        Clock::time_point t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) q.enqueue(FUNC(&Counter::hit), &c);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        q.run(FUNC(&Counter::noop), &c);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_Enqueue_CvExecutor(benchmark::State& state) {
    CvWorker ex;
    bench::Pinned pin(ex.handle(), 0, 1);
    Counter c;
    for (auto _ : state) {
        Clock::time_point t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) ex.post(cvCount, &c);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        ex.sync(cvNoop, nullptr);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_RoundTrip_Dispatch(benchmark::State& state) {
    Queue q;
    QueueDriver driver(q);
    bench::Pinned pin(driver.handle(), 0, 1);
    Counter c;
    for (auto _ : state) q.run(FUNC(&Counter::noop), &c);
}

void BM_RoundTrip_CvExecutor(benchmark::State& state) {
    CvWorker ex;
    bench::Pinned pin(ex.handle(), 0, 1);
    for (auto _ : state) ex.sync(cvNoop, nullptr);
}

void reportLateness(benchmark::State& state, std::vector<double>& lateUs) {
    std::sort(lateUs.begin(), lateUs.end());
    if (lateUs.empty()) return;
    state.counters["late_p50_us"] = lateUs[lateUs.size() / 2];
    state.counters["late_p99_us"] = lateUs[(lateUs.size() * 99) / 100];
}

struct Fired : public Object {
    void fire() {
        at = Clock::now();
        std::lock_guard<std::mutex> g(m);
        done = true;
        cv.notify_one();
    }
    void await() {
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return done; });
        done = false;
    }
    Clock::time_point at;
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
};

void BM_TimerLateness10ms_Dispatch(benchmark::State& state) {
    Queue q;
    QueueDriver driver(q);
    Timer t(&q);
    Fired f;
    t.setHandler(FUNC(&Fired::fire), &f);
    std::vector<double> late;
    for (auto _ : state) {
        Clock::time_point due = Clock::now() + std::chrono::milliseconds(10);
        t.restart(10);
        f.await();
        late.push_back(std::chrono::duration<double, std::micro>(f.at - due).count());
    }
    t.stop();
    reportLateness(state, late);
}

// The baseline timer: a worker sleeping in a timed condition wait.
void BM_TimerLateness10ms_CvExecutor(benchmark::State& state) {
    CvWorker ex;
    std::vector<double> late;
    struct Sleep {
        Clock::time_point due;
        Clock::time_point at;
    } s;
    for (auto _ : state) {
        s.due = Clock::now() + std::chrono::milliseconds(10);
        ex.sync(
            [](void* p) {
                Sleep* s = static_cast<Sleep*>(p);
                std::mutex m;
                std::condition_variable cv;
                std::unique_lock<std::mutex> g(m);
                while (cv.wait_until(g, s->due) != std::cv_status::timeout) {
                }
                s->at = Clock::now();
            },
            &s);
        late.push_back(std::chrono::duration<double, std::micro>(s.at - s.due).count());
    }
    reportLateness(state, late);
}

}  // namespace

BENCHMARK(BM_Throughput_Dispatch)->Arg(-1)->Arg(0)->UseRealTime();
BENCHMARK(BM_Throughput_CvExecutor)->Arg(-1)->Arg(0)->UseRealTime();
BENCHMARK(BM_Enqueue_Dispatch)->UseManualTime();
BENCHMARK(BM_Enqueue_CvExecutor)->UseManualTime();
BENCHMARK(BM_RoundTrip_Dispatch)->UseRealTime();
BENCHMARK(BM_RoundTrip_CvExecutor)->UseRealTime();
BENCHMARK(BM_TimerLateness10ms_Dispatch)->Iterations(200)->UseRealTime();
BENCHMARK(BM_TimerLateness10ms_CvExecutor)->Iterations(200)->UseRealTime();

BENCHMARK_MAIN();
