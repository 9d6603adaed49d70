// The main loop's event path beside plain baselines in the same run:
// - allocate + release an event vs malloc + free;
// - post-to-procSubMsg round trip vs a mutex + condition-variable hand-off;
// - one-producer throughput vs a bounded mutex + condition-variable queue;
// - the same with every thread on one CPU and 1, 2 or 4 producers.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <vector>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "cv_worker.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "loop_host.h"
#include "msg_logger.h"

namespace {

enum { SIG_PING = SIG_INNER_PROC + 1, SIG_ITEM };

// The reply path is the same in both round trips, so the difference between
// them is the forward hand-off alone.
struct Reply {
    std::mutex m;
    std::condition_variable cv;
    long seq = 0;
    void signal() {
        {
            std::lock_guard<std::mutex> g(m);
            ++seq;
        }
        cv.notify_one();
    }
    void waitFor(long want) {
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return seq >= want; });
    }
};

class BenchLoop : public KelLoop {
public:
    BenchLoop() : KelLoop(256) {}
    void procSubMsg(const QEvt* e) override {
        if (e->sig == SIG_PING)
            reply.signal();
        else
            consumed.fetch_add(1, std::memory_order_release);
    }
    Reply reply;
    std::atomic<long> consumed{0};
};

// One loop per process, running on its own thread for the whole run.
bench::LoopHost<BenchLoop>& host() {
    static bench::LoopHost<BenchLoop> h;
    return h;
}

QEvt* newEvent(int sig) {
    for (;;) {
        QEvt* e = KelLoop::newEvt(sig, sizeof(GeneralQEvt));
        if (e) return e;
        std::this_thread::yield();
    }
}

void postRetrying(KelLoop* loop, int sig) {
    QEvt* e = newEvent(sig);
    while (!loop->post(e)) std::this_thread::yield();
}

// ------------------------------------------------------ allocate + release

void BM_NewEvtGc(benchmark::State& state) {
    host();
    for (auto _ : state) {
        QEvt* e = KelLoop::newEvt(SIG_ITEM, sizeof(GeneralQEvt));
        benchmark::DoNotOptimize(e);
        Kel::gc(e);
    }
}
BENCHMARK(BM_NewEvtGc);

void BM_MallocFree(benchmark::State& state) {
    for (auto _ : state) {
        void* p = malloc(sizeof(GeneralQEvt));
        benchmark::DoNotOptimize(p);
        free(p);
    }
}
BENCHMARK(BM_MallocFree);

// -------------------------------------------------------------- round trip

// Both round trips run with the caller on CPU 0 and the other thread on
// CPU 1, so that both pay the same cross-CPU wake-ups whatever the scheduler
// would have chosen.
void BM_LoopRoundTrip(benchmark::State& state) {
    BenchLoop* loop = host().loop;
    bench::Pinned pin(host().thread.native_handle(), 0, 1);
    long seq = loop->reply.seq;
    for (auto _ : state) {
        postRetrying(loop, SIG_PING);
        loop->reply.waitFor(++seq);
    }
}
BENCHMARK(BM_LoopRoundTrip)->UseRealTime();

void BM_CondVarRoundTrip(benchmark::State& state) {
    bench::CvWorker w;
    bench::Pinned pin(w.handle(), 0, 1);
    for (auto _ : state) w.sync([](void*) {}, nullptr);
}
BENCHMARK(BM_CondVarRoundTrip)->UseRealTime();

// --------------------------------------------------- one-producer throughput

constexpr long kBatch = 10000;
// Capacity of the loop's queue: a front slot and a ring of 128.
constexpr size_t kQueueLen = 129;

void BM_LoopThroughput(benchmark::State& state) {
    BenchLoop* loop = host().loop;
    for (auto _ : state) {
        long start = loop->consumed.load();
        for (long i = 0; i < kBatch; ++i) postRetrying(loop, SIG_ITEM);
        while (loop->consumed.load(std::memory_order_acquire) < start + kBatch) std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_LoopThroughput)->UseRealTime();

// Baseline: the worker on a FIFO of the queue's capacity; each item is taken
// from the heap by the producer and given back by the worker.
void BM_CondVarQueueThroughput(benchmark::State& state) {
    bench::CvWorker w(kQueueLen);
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i) w.post(free, malloc(sizeof(GeneralQEvt)));
        w.sync([](void*) {}, nullptr);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_CondVarQueueThroughput)->UseRealTime();

// ------------------------------------------------ everything on one CPU
//
// `producers` threads share kOneCpuEvents posts; the consumer and every
// producer are pinned to CPU 0. One repetition is one run of all events;
// "cs_per_evt" is the process's context switches (voluntary and involuntary,
// getrusage) per delivered event.

constexpr long kOneCpuEvents = 200000;

long contextSwitches() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_nvcsw + ru.ru_nivcsw;
}

template <typename PostFn, typename DrainFn>
void runOneCpu(benchmark::State& state, PostFn post, DrainFn drain) {
    int producers = static_cast<int>(state.range(0));
    bench::pinThread(pthread_self(), 0);
    for (auto _ : state) {
        long cs = contextSwitches();
        auto t0 = std::chrono::steady_clock::now();
        std::vector<std::thread> ths;
        for (int p = 0; p < producers; ++p) {
            ths.emplace_back([&] {
                bench::pinThread(pthread_self(), 0);
                for (long i = 0; i < kOneCpuEvents / producers; ++i) post();
            });
        }
        for (std::thread& t : ths) t.join();
        drain();
        auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        state.counters["cs_per_evt"] = static_cast<double>(contextSwitches() - cs) / kOneCpuEvents;
    }
    bench::pinThread(pthread_self(), -1);
    state.SetItemsProcessed(state.iterations() * kOneCpuEvents);
}

void BM_LoopOneCpu(benchmark::State& state) {
    BenchLoop* loop = host().loop;
    bench::pinThread(host().thread.native_handle(), 0);
    long start = loop->consumed.load();
    long want = start;
    runOneCpu(
        state, [loop] { postRetrying(loop, SIG_ITEM); },
        [&] {
            want += kOneCpuEvents;
            while (loop->consumed.load(std::memory_order_acquire) < want) std::this_thread::yield();
        });
    bench::pinThread(host().thread.native_handle(), -1);
}
BENCHMARK(BM_LoopOneCpu)->Arg(1)->Arg(2)->Arg(4)->Iterations(1)->UseManualTime();

void BM_CondVarQueueOneCpu(benchmark::State& state) {
    bench::CvWorker w(kQueueLen);
    bench::pinThread(w.handle(), 0);
    runOneCpu(
        state, [&w] { w.post(free, malloc(sizeof(GeneralQEvt))); }, [&w] { w.sync([](void*) {}, nullptr); });
}
BENCHMARK(BM_CondVarQueueOneCpu)->Arg(1)->Arg(2)->Arg(4)->Iterations(1)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
