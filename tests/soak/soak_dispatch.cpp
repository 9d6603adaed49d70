// Soak of the dispatch queues: producers of callbacks and loop events, run,
// cancelFn, notifications, timers and the explicit lock, all from other
// threads against one processing thread, and queues made and dropped beside
// them. Checks exactly-once delivery in each producer's order, node
// counters back to idle, and no hang.
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "dispatch_process.h"
#include "soak.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

using dispatch::FUNC;
using dispatch::Loop;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;

namespace {

constexpr int kProducers = 4;

int nodesUsed(Queue& q) {
    LogCapture cap;
    q.profile();
    int used = -1, made = -1;
    for (const auto& l : cap.lines()) {
        if (sscanf(l.text.c_str(), "node pools: used=%d, counts=%d", &used, &made) == 2) break;
    }
    return used;
}

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

    void check(long* next, long p, long seq) {
        if (held.load()) heldRuns.fetch_add(1);
        if (p < 0 || p >= kProducers || seq != next[p])
            errors.fetch_add(1);
        else
            ++next[p];
    }
};

// A callback that carries its producer and number; freed by the queue.
struct Item : public Object {
    Item(Sink* s, int p, long seq) : sink(s), p(p), seq(seq) {}
    void call() {
        sink->check(sink->nextCall, p, seq);
        sink->calls.fetch_add(1);
    }
    Sink* sink;
    int p;
    long seq;
};

class SoakLoop : public Loop {
public:
    explicit SoakLoop(Sink* s) : mSink(s) {}
    void procSubMsg(const Evt& e) override {
        mSink->check(mSink->nextEvent, e.sig, e.wParam);
        mSink->events.fetch_add(1);
    }

private:
    Sink* mSink;
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
    std::atomic<long> runs{0}, cancels{0};
    std::atomic<bool> runsDone{false};
    threads.emplace_back([&] {
        while (soak::Clock::now() < end) {
            q.run(FUNC(&Counter::hit), &ran);
            runs.fetch_add(1);
            wd.tick();
        }
        runsDone.store(true);
    });
    threads.emplace_back([&] {
        std::minstd_rand rnd(3);
        while (!runsDone.load()) {
            q.cancelFn(FUNC(&Counter::hit), &ran);
            cancels.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 200));
        }
    });
    // Notifications merge while pending and may be cancelled.
    Counter notified;
    std::atomic<long> notifies{0};
    threads.emplace_back([&] {
        std::minstd_rand rnd(4);
        while (soak::Clock::now() < end) {
            q.enqueueNotify(FUNC(&Counter::hit), &notified);
            notifies.fetch_add(1);
            if (rnd() % 4 == 0) q.cancelFn(FUNC(&Counter::hit), &notified);
            if (rnd() % 8 == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    // A one-shot timer armed and awaited; another armed and stopped, after
    // which (once a run() has passed the processing thread) it stays silent.
    std::atomic<long> chased{0}, lost{0}, stopped{0}, lateFires{0};
    threads.emplace_back([&] {
        Counter fired;
        Timer t(&q);
        t.setHandler(FUNC(&Counter::hit), &fired);
        std::minstd_rand rnd(5);
        while (soak::Clock::now() < end) {
            long before = fired.calls.load();
            t.restart(static_cast<int>(rnd() % 3));
            if (!waitUntil([&] { return fired.calls.load() != before; }, 10.0)) {
                lost.fetch_add(1);
                break;
            }
            t.stop();
            chased.fetch_add(1);
            wd.tick();
        }
    });
    threads.emplace_back([&] {
        Counter fired, barrier;
        Timer t(&q);
        t.setHandler(FUNC(&Counter::hit), &fired);
        std::minstd_rand rnd(6);
        while (soak::Clock::now() < end) {
            t.setRepeat(rnd() % 2 == 0);
            t.restart(static_cast<int>(rnd() % 3));
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 3000));
            t.stop();
            q.run(FUNC(&Counter::hit), &barrier);  // a callback in progress has ended
            long snap = fired.calls.load();
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 2000));
            if (fired.calls.load() != snap) lateFires.fetch_add(1);
            stopped.fetch_add(1);
            wd.tick();
        }
    });
    // The explicit lock holds the processing still.
    std::atomic<long> locks{0};
    threads.emplace_back([&] {
        std::minstd_rand rnd(7);
        while (soak::Clock::now() < end) {
            q.lock();
            sink.held.store(true);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 500));
            sink.held.store(false);
            q.unlock();
            locks.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 2000));
            wd.tick();
        }
    });
    // Queues with timers made, used and dropped on their own thread.
    std::atomic<long> made{0};
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
            made.fetch_add(1);
            wd.tick();
        }
    });
    for (auto& t : threads) t.join();

    wd.phase("drain");
    long totalCalls = 0, totalEvents = 0;
    for (int p = 0; p < kProducers; ++p) {
        totalCalls += sentCalls[p];
        totalEvents += sentEvents[p];
    }
    EXPECT_TRUE(waitUntil(
        [&] { return sink.calls.load() == totalCalls && sink.events.load() == totalEvents; }, 30.0));
    loop.exit();
    processor.join();

    EXPECT_EQ(sink.errors.load(), 0) << "an item arrived twice or out of its producer's order";
    for (int p = 0; p < kProducers; ++p) {
        EXPECT_EQ(sink.nextCall[p], sentCalls[p]) << "callbacks of producer " << p;
        EXPECT_EQ(sink.nextEvent[p], sentEvents[p]) << "events of producer " << p;
    }
    EXPECT_EQ(sink.heldRuns.load(), 0) << "a callback ran under the explicit lock";
    EXPECT_LE(ran.calls.load(), runs.load());
    EXPECT_LE(notified.calls.load(), notifies.load());
    EXPECT_EQ(lost.load(), 0) << "an armed timer never fired";
    EXPECT_EQ(lateFires.load(), 0) << "a stopped timer fired";
    EXPECT_EQ(nodesUsed(q), 0) << "nodes did not come back";
    printf(
        "soak: %ld callbacks, %ld events, %ld runs (%ld cancels), %ld notifications, %ld timer chases, "
        "%ld stops, %ld locks, %ld queues made\n",
        totalCalls, totalEvents, runs.load(), cancels.load(), notifies.load(), chased.load(), stopped.load(),
        locks.load(), made.load());
    RecordProperty("items", static_cast<int>(totalCalls + totalEvents));
}
