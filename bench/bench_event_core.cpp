// The main loop's event path beside plain baselines in the same run:
// - allocate + release an event vs malloc + free;
// - post-to-procSubMsg round trip vs a mutex + condition-variable hand-off;
// - one-producer throughput vs a bounded mutex + condition-variable queue.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "kel_loop.h"
#include "kel_port.h"
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
struct LoopHost {
    LoopHost() {
        KelLoop::init_all(0x1000000, "bench", nullptr);
        // A producer that outruns the loop retries refused posts; the log
        // line of each refusal would be measured instead of the hand-off.
        kellog::kel_log_set_level(LOG_ERROR + 1);
        loop = new BenchLoop;
        thread = std::thread([this] { loop->execLoop(); });
    }
    ~LoopHost() {
        loop->exitLoop();
        thread.join();
        delete loop;
    }
    BenchLoop* loop;
    std::thread thread;
};

LoopHost& host() {
    static LoopHost h;
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

void BM_LoopRoundTrip(benchmark::State& state) {
    BenchLoop* loop = host().loop;
    long seq = loop->reply.seq;
    for (auto _ : state) {
        postRetrying(loop, SIG_PING);
        loop->reply.waitFor(++seq);
    }
}
BENCHMARK(BM_LoopRoundTrip)->UseRealTime();

// Baseline: a worker sleeping on a condition variable, woken per item.
struct CvWorker {
    std::mutex m;
    std::condition_variable cv;
    long posted = 0;
    bool stop = false;
    Reply reply;
    std::thread th;
    CvWorker() {
        th = std::thread([this] {
            long taken = 0;
            for (;;) {
                std::unique_lock<std::mutex> g(m);
                cv.wait(g, [&] { return stop || posted > taken; });
                if (stop) return;
                ++taken;
                g.unlock();
                reply.signal();
            }
        });
    }
    ~CvWorker() {
        {
            std::lock_guard<std::mutex> g(m);
            stop = true;
        }
        cv.notify_one();
        th.join();
    }
};

void BM_CondVarRoundTrip(benchmark::State& state) {
    CvWorker w;
    long seq = 0;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> g(w.m);
            ++w.posted;
        }
        w.cv.notify_one();
        w.reply.waitFor(++seq);
    }
}
BENCHMARK(BM_CondVarRoundTrip)->UseRealTime();

// --------------------------------------------------- one-producer throughput

constexpr long kBatch = 10000;

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

// Baseline: a bounded ring of the same capacity under one mutex, the
// consumer woken by a condition variable on every push.
void BM_CondVarQueueThroughput(benchmark::State& state) {
    constexpr int kCap = 129;
    struct Ring {
        std::mutex m;
        std::condition_variable cv;
        void* slot[kCap];
        int head = 0, count = 0;
        bool stop = false;
        std::atomic<long> consumed{0};
    } r;
    std::thread consumer([&] {
        for (;;) {
            std::unique_lock<std::mutex> g(r.m);
            r.cv.wait(g, [&] { return r.stop || r.count > 0; });
            if (r.count == 0) return;
            void* item = r.slot[r.head];
            r.head = (r.head + 1) % kCap;
            --r.count;
            g.unlock();
            free(item);
            r.consumed.fetch_add(1, std::memory_order_release);
        }
    });
    for (auto _ : state) {
        long start = r.consumed.load();
        for (long i = 0; i < kBatch; ++i) {
            void* item = malloc(sizeof(GeneralQEvt));
            for (;;) {
                std::unique_lock<std::mutex> g(r.m);
                if (r.count < kCap) {
                    r.slot[(r.head + r.count) % kCap] = item;
                    ++r.count;
                    break;
                }
                g.unlock();
                std::this_thread::yield();
            }
            r.cv.notify_one();
        }
        while (r.consumed.load(std::memory_order_acquire) < start + kBatch) std::this_thread::yield();
    }
    {
        std::lock_guard<std::mutex> g(r.m);
        r.stop = true;
    }
    r.cv.notify_one();
    consumer.join();
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_CondVarQueueThroughput)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
