// The event path and the timers touch no heap after start-up. This binary
// counts every heap allocation (operator new always; malloc too where no
// sanitizer owns it) while events and timers run.
#include <sched.h>
#include <sys/resource.h>

#include "support/fault_hooks.h"
#include "support/loop_harness.h"

namespace {

struct CountingLoop : KelLoop {
    CountingLoop() : KelLoop(16) {}
    void procSubMsg(const QEvt*) override { dispatched.fetch_add(1, std::memory_order_release); }
    std::atomic<int> dispatched{0};
};

void tick(ATimer*, void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1, std::memory_order_release); }

}  // namespace

using KelLoopHeap = KelTest;

TEST_F(KelLoopHeap, EventsAndTimersAllocateNothingAfterStartUp) {
    CountingLoop& loop = *static_cast<CountingLoop*>(this->loop = new CountingLoop);
    LoopRunner runner(&loop);
    std::atomic<int> oneShot{0}, repeating{0};
    ATimer once, every;
    once.setHandler(tick, &oneShot);
    every.setHandler(tick, &repeating);
    every.setRepeat(true);
    // Warm-up: the first turn, the first wait and the first firing.
    loop.postCmd(SIG_INNER_PROC + 1);
    ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load() == 1; }));

    // The counter sees allocations at all.
    hooks::counting.store(true);
    ::operator delete(::operator new(16));
    ASSERT_GE(hooks::allocs.exchange(0), 1);

    constexpr int kEvents = 2000;
    for (int i = 0; i < kEvents; ++i) {
        ASSERT_TRUE(postGeneral(&loop, SIG_INNER_PROC + 1, i));
        if (i % 100 == 0) {
            once.restart(0);
            ASSERT_TRUE(waitUntil([&] { return oneShot.load() == i / 100 + 1; }));
        }
        ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load() == i + 2; }));
    }
    every.restart(1);
    ASSERT_TRUE(waitUntil([&] { return repeating.load() >= 5; }));
    every.stop();
    hooks::counting.store(false);

    EXPECT_EQ(hooks::allocs.load(), 0) << "heap allocations on the event path";
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
}

// On one CPU a post must not cost a sleep and a wake-up of the loop each:
// the loop, woken by one poster, has to let the posters run on and take
// what they posted in a batch.
TEST_F(KelLoopHeap, PostersSharingTheLoopsCpuAreServedInBatches) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof one, &one), 0);  // threads below inherit it
    CountingLoop& loop = *static_cast<CountingLoop*>(this->loop = new CountingLoop);
    LoopRunner runner(&loop);
    constexpr int kPerPoster = 5000;
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    std::thread posters[2];
    for (std::thread& t : posters) {
        t = std::thread([&] {
            for (int i = 0; i < kPerPoster; ++i)
                while (!postGeneral(&loop, SIG_INNER_PROC + 1)) sched_yield();
        });
    }
    for (std::thread& t : posters) t.join();
    ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load() == 2 * kPerPoster; }));
    getrusage(RUSAGE_SELF, &after);
    long switches = after.ru_nvcsw + after.ru_nivcsw - before.ru_nvcsw - before.ru_nivcsw;
    EXPECT_LT(switches, kPerPoster / 2) << "context switches for " << 2 * kPerPoster << " events";
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
}
