// Producers feed shared serial queues while queues are made, fed and dropped
// beside them: every work runs once, in its producer's order, never two of
// one queue at once, and the pool comes back to idle.
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <thread>
#include <vector>

#include "daemon_pool.h"
#include "daemon_thread.h"
#include "kel_dispatch.h"
#include "soak.h"
#include "support/loop_helpers.h"

namespace {

constexpr int kProducers = 4;
constexpr int kQueues = 3;

struct QueueState {
    long next[kProducers] = {};  // touched only by the queue's works
    std::atomic<int> inside{0};
    std::atomic<long> overlaps{0}, errors{0}, done{0};
};

struct Work {
    QueueState* q;
    int producer;
    long seq;
};

void runWork(void* p) {
    Work* w = static_cast<Work*>(p);
    QueueState* q = w->q;
    if (q->inside.fetch_add(1) != 0) q->overlaps.fetch_add(1);
    if (w->seq != q->next[w->producer])
        q->errors.fetch_add(1);
    else
        ++q->next[w->producer];
    q->inside.fetch_sub(1);
    q->done.fetch_add(1);
    delete w;
}

void countDone(void* p) { static_cast<std::atomic<long>*>(p)->fetch_add(1); }

}  // namespace

TEST(WorkQueueSoak, ManyProducersAndQueuesMadeAndDropped) {
    soak::Watchdog wd("ManyProducersAndQueuesMadeAndDropped");
    const auto end = soak::deadline();
    DispathQueue* queues[kQueues];
    QueueState states[kQueues];
    for (auto& q : queues) q = kel_dispatch_queue_create();

    std::vector<std::vector<long>> sent(kQueues, std::vector<long>(kProducers, 0));
    std::atomic<long> outstanding{0};
    auto done = [&] {
        long t = 0;
        for (auto& s : states) t += s.done.load();
        return t;
    };
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (long i = 0; soak::Clock::now() < end; ++i) {
                int qi = static_cast<int>(i % kQueues);
                if (outstanding.load() - done() > 20000) {
                    std::this_thread::yield();
                    continue;
                }
                outstanding.fetch_add(1);
                kel_dispatch_async_t(queues[qi], runWork, new Work{&states[qi], p, sent[qi][p]++});
                wd.tick();
            }
        });
    }
    // Short-lived queues: made, given a few works, dropped at once.
    std::atomic<long> made{0}, shortWorks{0}, shortDone{0};
    threads.emplace_back([&] {
        while (soak::Clock::now() < end) {
            if (shortWorks.load() - shortDone.load() > 64) {  // bounds the pool's size
                std::this_thread::yield();
                continue;
            }
            DispathQueue* q = kel_dispatch_queue_create();
            int n = static_cast<int>(made.load() % 4);
            for (int i = 0; i < n; ++i) kel_dispatch_async_t(q, countDone, &shortDone);
            shortWorks.fetch_add(n);
            if (made.load() % 3 == 0) {  // an extra reference dropped from a work
                kel_dispatch_queue_ref(q);
                kel_dispatch_async_t(
                    q, [](void* h) { kel_dispatch_queue_destory(h); }, q);
            }
            kel_dispatch_queue_destory(q);
            made.fetch_add(1);
            wd.tick();
        }
    });
    for (auto& t : threads) t.join();

    wd.phase("drain");
    EXPECT_TRUE(
        waitUntil([&] { return done() + shortDone.load() == outstanding.load() + shortWorks.load(); }, 60.0));
    for (auto& q : queues) kel_dispatch_queue_destory(q);
    EXPECT_TRUE(waitUntil([] { return kel_pool_counts().used == 0; }, 30.0)) << "the pool is not idle";
    long works = 0;
    for (int qi = 0; qi < kQueues; ++qi) {
        EXPECT_EQ(states[qi].overlaps.load(), 0) << qi;
        EXPECT_EQ(states[qi].errors.load(), 0) << qi;
        for (int p = 0; p < kProducers; ++p) {
            EXPECT_EQ(states[qi].next[p], sent[qi][p]);
            works += sent[qi][p];
        }
    }
    printf("soak: %ld works on shared queues, %ld queues made and dropped\n", works, made.load());
    RecordProperty("works", static_cast<int>(works));
}
