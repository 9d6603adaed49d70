// Soak of the dispatch queues: producers of callbacks and loop events, run,
// cancelFn, notifications, timers and the explicit lock, all from other
// threads against one processing thread, and queues made and dropped beside
// them. Checks exactly-once delivery in each producer's order, node
// counters back to idle, and no hang.
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "dispatch_process.h"
#include "soak.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"
#include "support/node_counts.h"

using dispatch::FUNC;
using dispatch::Loop;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;

namespace {

constexpr int kProducers = 4;

struct Counter : public Object {
    void hit() { calls.fetch_add(1); }
    std::atomic<long> calls{0};
};

// Shared by everything that runs on the processing thread.
struct Sink {
    long nextCall[kProducers] = {};
    long nextEvent[kProducers] = {};
    std::atomic<long> calls{0}, events{0}, errors{0}, heldRuns{0};
    // True while a thread holds the explicit lock: no callback and no event
    // may run then.
    std::atomic<bool> held{false};

    void check(long* next, long p, long seq, std::atomic<long>& count) {
        if (held.load()) heldRuns.fetch_add(1);
        if (p < 0 || p >= kProducers || seq != next[p])
            errors.fetch_add(1);
        else
            ++next[p];
        count.fetch_add(1);
    }
};

// A callback that carries its producer and number; freed by the queue.
struct Item : public Object {
    Item(Sink* s, int p, long seq) : sink(s), p(p), seq(seq) {}
    void call() { sink->check(sink->nextCall, p, seq, sink->calls); }
    Sink* sink;
    int p;
    long seq;
};

struct SoakLoop : public Loop {
    explicit SoakLoop(Sink* s) : sink(s) {}
    void procSubMsg(const Evt& e) override { sink->check(sink->nextEvent, e.sig, e.wParam, sink->events); }
    Sink* sink;
};

}  // namespace

TEST(DispatchSoak, ProducersRunCancelTimersAndLockFromOtherThreads) {
    soak::Watchdog wd("ProducersRunCancelTimersAndLockFromOtherThreads");
    Queue q;
    Sink sink;
    SoakLoop loop(&sink);
    loop.setQueue(&q);
    std::thread processor([&] { loop.exec(); });
    const auto end = soak::deadline();
    std::vector<std::thread> threads;

    // Producers: one stream of callbacks and one of loop events each. They
    // keep at most a few thousand items outstanding.
    std::vector<long> sentCalls(kProducers, 0), sentEvents(kProducers, 0);
    std::atomic<long> sentTotal{0};
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            while (soak::Clock::now() < end) {
                if (sentTotal.load() - sink.calls.load() - sink.events.load() > 4000) {
                    std::this_thread::yield();
                    continue;
                }
                q.enqueueAutofree(FUNC(&Item::call), new Item(&sink, p, sentCalls[p]++));
                Loop::Evt e(p);
                e.wParam = sentEvents[p]++;
                loop.post(e);
                sentTotal.fetch_add(2);
                wd.tick();
            }
        });
    }
    // run() against cancelFn of the same pair: each run returns, with or
    // without its call.
    Counter ran;
    std::atomic<long> runs{0};
    std::atomic<bool> runsDone{false};
    threads.emplace_back([&] {
        while (soak::Clock::now() < end) {
            q.run(FUNC(&Counter::hit), &ran);
            runs.fetch_add(1);
            wd.tick();
        }
        runsDone.store(true);
    });
    // cancelFn against those runs; notifications, merged while pending and
    // sometimes cancelled.
    Counter notified;
    std::atomic<long> notifies{0};
    threads.emplace_back([&] {
        std::minstd_rand rnd(3);
        while (!runsDone.load()) {
            q.cancelFn(FUNC(&Counter::hit), &ran);
            q.enqueueNotify(FUNC(&Counter::hit), &notified);
            notifies.fetch_add(1);
            if (rnd() % 4 == 0) q.cancelFn(FUNC(&Counter::hit), &notified);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 200));
        }
    });
    // A one-shot timer armed and awaited; then armed, maybe repeating, and
    // stopped, after which (once a run() has passed the processing thread)
    // it stays silent.
    std::atomic<long> lost{0}, lateFires{0};
    threads.emplace_back([&] {
        Counter fired, barrier;
        Timer t(&q);
        t.setHandler(FUNC(&Counter::hit), &fired);
        std::minstd_rand rnd(5);
        while (soak::Clock::now() < end && lost.load() == 0) {
            long before = fired.calls.load();
            t.setRepeat(false);
            t.restart(static_cast<int>(rnd() % 3));
            if (!waitUntil([&] { return fired.calls.load() != before; }, 10.0)) lost.fetch_add(1);
            t.setRepeat(rnd() % 2 == 0);
            t.restart(static_cast<int>(rnd() % 3));
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 3000));
            t.stop();
            q.run(FUNC(&Counter::hit), &barrier);  // a callback in progress has ended
            long snap = fired.calls.load();
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 2000));
            if (fired.calls.load() != snap) lateFires.fetch_add(1);
            wd.tick();
        }
    });
    // The explicit lock holds the processing still.
    threads.emplace_back([&] {
        std::minstd_rand rnd(7);
        while (soak::Clock::now() < end) {
            q.lock();
            sink.held.store(true);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 500));
            sink.held.store(false);
            q.unlock();
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 2000));
            wd.tick();
        }
    });
    // Queues with timers made, used and dropped on their own thread.
    threads.emplace_back([&] {
        while (soak::Clock::now() < end) {
            Queue q2;
            Counter c;
            {
                Timer t2(&q2);
                t2.setHandler(FUNC(&Counter::hit), &c);
                t2.restart(0);
                q2.enqueue(FUNC(&Counter::hit), &c);
                q2.enqueueNotify(FUNC(&Counter::hit), &c);
                while (c.calls.load() < 3) q2.queueProcess(0);
                Timer armed(&q2);  // dropped while armed
                armed.setHandler(FUNC(&Counter::hit), &c);
                armed.restart(1000);
            }
            wd.tick();
        }
    });
    for (auto& t : threads) t.join();

    wd.phase("drain");
    long totalCalls = std::accumulate(sentCalls.begin(), sentCalls.end(), 0L);
    long totalEvents = std::accumulate(sentEvents.begin(), sentEvents.end(), 0L);
    EXPECT_TRUE(waitUntil(
        [&] { return sink.calls.load() == totalCalls && sink.events.load() == totalEvents; }, 30.0));
    loop.exit();
    processor.join();

    EXPECT_EQ(sink.errors.load(), 0) << "an item arrived twice or out of its producer's order";
    EXPECT_EQ(std::vector<long>(sink.nextCall, sink.nextCall + kProducers), sentCalls) << "callbacks lost";
    EXPECT_EQ(std::vector<long>(sink.nextEvent, sink.nextEvent + kProducers), sentEvents) << "events lost";
    EXPECT_EQ(sink.heldRuns.load(), 0) << "a callback ran under the explicit lock";
    EXPECT_LE(ran.calls.load(), runs.load());
    EXPECT_LE(notified.calls.load(), notifies.load());
    EXPECT_EQ(lost.load(), 0) << "an armed timer never fired";
    EXPECT_EQ(lateFires.load(), 0) << "a stopped timer fired";
    EXPECT_EQ(dispatchNodesUsed(q), 0) << "nodes did not come back";
    RecordProperty("items", static_cast<int>(totalCalls + totalEvents));
}
