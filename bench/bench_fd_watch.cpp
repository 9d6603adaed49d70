// Watched descriptors beside a bare thread in epoll_wait in the same run:
// - readiness-to-handler latency (a byte written to a pipe until the handler
//   starts) on the main loop, on a dispatch loop, and on the bare thread;
// - wake-ups of the main loop and of the bare thread over an idle half
//   second with ten descriptors watched (context switches of the thread).
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "cv_worker.h"
#include "dispatch_process.h"
#include "kel_loop.h"
#include "loop_host.h"
#include "msg_logger.h"

namespace {

enum { SIG_TID = SIG_INNER_PROC + 1 };

int64_t nowNs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

int gettid_() { return static_cast<int>(syscall(SYS_gettid)); }

// Voluntary and involuntary context switches of thread `tid` so far.
long switches(int tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/status");
    long n = 0, sum = 0;
    for (std::string k; f >> k;)
        if (k.find("ctxt_switches:") != std::string::npos && f >> n) sum += n;
    return sum;
}

// Where a handler stamps the time it started; the writer waits for it.
struct Stamp {
    std::atomic<int64_t> at{0};
    static void onReady(int fd, unsigned, void* arg) {
        char c;
        if (read(fd, &c, 1) == 1) static_cast<Stamp*>(arg)->at.store(nowNs(), std::memory_order_release);
    }
};

// One round per iteration: write a byte, wait for the handler's stamp, and
// count the time between the two. The writer and the handler's thread are
// pinned to CPUs 0 and 1, so that every contender wakes across CPUs alike.
void measure(benchmark::State& state, pthread_t handler, int wfd, Stamp& s) {
    bench::pinThread(handler, 1);
    bench::pinThread(pthread_self(), 0);
    for (auto _ : state) {
        s.at.store(0, std::memory_order_relaxed);
        int64_t t0 = nowNs();
        if (write(wfd, "x", 1) != 1) state.SkipWithError("write");
        int64_t t1;
        while ((t1 = s.at.load(std::memory_order_acquire)) == 0) std::this_thread::yield();
        state.SetIterationTime(double(t1 - t0) / 1e9);
    }
    bench::pinThread(handler, -1);
    bench::pinThread(pthread_self(), -1);
}

class BenchLoop : public KelLoop {
public:
    BenchLoop() : KelLoop(64) {}
    void procSubMsg(const QEvt* e) override {
        if (e->sig == SIG_TID) tid.store(gettid_(), std::memory_order_release);
    }
    std::atomic<int> tid{0};
};

// The loop's thread id is known before the first measurement.
bench::LoopHost<BenchLoop>& host() {
    static bench::LoopHost<BenchLoop> h;
    static bool known = [] {
        h.loop->postCmd(SIG_TID);
        while (h.loop->tid.load(std::memory_order_acquire) == 0) std::this_thread::yield();
        return true;
    }();
    static_cast<void>(known);
    return h;
}

// A bare thread in epoll_wait on the given descriptors: the baseline. It
// calls Stamp::onReady for each ready one; an eventfd ends it.
struct EpollThread {
    EpollThread(const int* fds, int n, Stamp* s)
        : ep(epoll_create1(EPOLL_CLOEXEC)), stop(eventfd(0, EFD_CLOEXEC)), stamp(s) {
        add(stop);
        for (int i = 0; i < n; ++i) add(fds[i]);
        thread = std::thread([this] {
            tid.store(gettid_(), std::memory_order_release);
            epoll_event ev[16];
            for (;;) {
                int k = epoll_wait(ep, ev, 16, -1);
                for (int i = 0; i < k; ++i) {
                    if (ev[i].data.fd == stop) return;
                    Stamp::onReady(ev[i].data.fd, 0, stamp);
                }
            }
        });
        while (tid.load(std::memory_order_acquire) == 0) std::this_thread::yield();
    }
    ~EpollThread() {
        uint64_t one = 1;
        if (write(stop, &one, sizeof one) != sizeof one) abort();
        thread.join();
        close(stop);
        close(ep);
    }
    void add(int fd) {
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.fd = fd;
        if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e) != 0) abort();
    }
    int ep;
    int stop;
    Stamp* stamp;
    std::atomic<int> tid{0};
    std::thread thread;
};

// Ten pipes; the read ends are watched.
struct Pipes {
    Pipes() {
        for (auto& f : p)
            if (pipe(f) != 0) abort();
    }
    ~Pipes() {
        for (auto& f : p) close(f[0]), close(f[1]);
    }
    int p[10][2];
    int reads[10];
    const int* readEnds() {
        for (int i = 0; i < 10; ++i) reads[i] = p[i][0];
        return reads;
    }
};

// A dispatch loop on its own thread, watching through a member handler.
struct FdLoop : dispatch::Object, dispatch::Loop {
    explicit FdLoop(dispatch::Queue* q)
        : thread([this, q] {
              setQueue(q);
              ready.store(true, std::memory_order_release);
              exec();
          }) {
        while (!ready.load(std::memory_order_acquire)) std::this_thread::yield();
    }
    ~FdLoop() {
        exit();
        thread.join();
    }
    void procSubMsg(const Evt&) override {}
    void onReady(int fd, unsigned ready) { Stamp::onReady(fd, ready, &stamp); }
    Stamp stamp;
    std::atomic<bool> ready{false};
    std::thread thread;
};

// -------------------------------------------------- readiness to handler

void BM_FdLatency_Loop(benchmark::State& state) {
    KelLoop* loop = host().loop;
    Pipes p;
    Stamp s;
    loop->watchFd(p.p[0][0], KEL_FD_IN, Stamp::onReady, &s);
    measure(state, host().thread.native_handle(), p.p[0][1], s);
    loop->unwatchFd(p.p[0][0]);
}
BENCHMARK(BM_FdLatency_Loop)->UseManualTime();

void BM_FdLatency_Dispatch(benchmark::State& state) {
    dispatch::Queue q;
    Pipes p;
    {
        FdLoop loop(&q);
        loop.watchFd(p.p[0][0], KEL_FD_IN, dispatch::FDFUNC(&FdLoop::onReady), &loop);
        measure(state, loop.thread.native_handle(), p.p[0][1], loop.stamp);
        loop.unwatchFd(p.p[0][0]);
    }
}
BENCHMARK(BM_FdLatency_Dispatch)->UseManualTime();

void BM_FdLatency_Epoll(benchmark::State& state) {
    Pipes p;
    Stamp s;
    EpollThread t(p.readEnds(), 1, &s);
    measure(state, t.thread.native_handle(), p.p[0][1], s);
}
BENCHMARK(BM_FdLatency_Epoll)->UseManualTime();

// --------------------------------------------------------- idle wake-ups

constexpr auto kIdle = std::chrono::milliseconds(500);

void idle(benchmark::State& state, int tid) {
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // settle
        long before = switches(tid);
        int64_t t0 = nowNs();
        std::this_thread::sleep_for(kIdle);
        state.SetIterationTime(double(nowNs() - t0) / 1e9);
        state.counters["wakeups"] = double(switches(tid) - before);
    }
}

void BM_IdleWakeups_Loop(benchmark::State& state) {
    BenchLoop* loop = host().loop;
    Pipes p;
    Stamp s;
    for (auto& f : p.p) loop->watchFd(f[0], KEL_FD_IN, Stamp::onReady, &s);
    idle(state, loop->tid.load(std::memory_order_acquire));
    for (auto& f : p.p) loop->unwatchFd(f[0]);
}
BENCHMARK(BM_IdleWakeups_Loop)->Iterations(1)->UseManualTime();

void BM_IdleWakeups_Epoll(benchmark::State& state) {
    Pipes p;
    Stamp s;
    EpollThread t(p.readEnds(), 10, &s);
    idle(state, t.tid.load(std::memory_order_acquire));
}
BENCHMARK(BM_IdleWakeups_Epoll)->Iterations(1)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
