// Soak of the main loop: producers, timers re-armed and stopped from other
// threads, state machine traffic with held-back events, and user signals.
// Each case checks that every event arrives once and in its producer's
// order, that the pools come back full, and that nothing hangs.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "app_timer.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_state.h"
#include "soak.h"
#include "state_mache.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

namespace {

enum { SIG_APP = SIG_INNER_PROC + 1, SIG_MACHINE_DOWN, SIG_MACHINE_UP };
constexpr int kProducers = 4;

// Producers hold back while the queue or the pools run low, so that the
// replays and user signals, which cannot be refused, always find room.
bool roomFor(KelLoop* loop) {
    PoolCounts f = freeBlocks(loop);
    return loop->eventQueue()->getNFree() > 24 && f.timer + f.general + f.state > 40 && f.state > 12;
}

unsigned freeTotal(KelLoop* loop) {
    PoolCounts f = freeBlocks(loop);
    return f.timer + f.general + f.state;
}

unsigned blocksTotal(KelLoop* loop) {
    PoolCounts t = totalBlocks(loop);
    return t.timer + t.general + t.state;
}

// Order check of one producer's stream, on the thread that receives it.
struct Stream {
    long next = 0;  // next sequence number expected
    long gaps = 0;  // numbers skipped (allowed only where noted)
};

class SoakLoop : public KelLoop {
public:
    SoakLoop() : KelLoop(64) {}
    void procSubMsg(const QEvt* e) override {
        if (e->sig == SIG_MACHINE_DOWN || e->sig == SIG_MACHINE_UP) {
            if (e->sig == SIG_MACHINE_DOWN)
                machine->exitState();
            else
                machine->initialize();
            toggles.fetch_add(1);
            return;
        }
        const GeneralQEvt* g = static_cast<const GeneralQEvt*>(e);
        long p = g->wParam, seq = g->lParam;
        if (p < 0 || p >= kProducers || seq != streams[p].next) {
            errors.fetch_add(1);
        } else {
            ++streams[p].next;
        }
        received.fetch_add(1, std::memory_order_relaxed);
    }
    bool broadcast(int pid, int value) override {
        if (pid != getpid() || value != signals.load()) errors.fetch_add(1);
        signals.fetch_add(1);
        return true;
    }
    Stream streams[kProducers];
    StateMache* machine = nullptr;
    std::atomic<long> toggles{0};
    std::atomic<long> received{0};
    std::atomic<long> signals{0};
    std::atomic<long> errors{0};
};

// Posts application events until the deadline; returns how many.
long produce(SoakLoop& loop, int p, soak::Clock::time_point end, soak::Watchdog& wd) {
    long seq = 0;
    while (soak::Clock::now() < end) {
        if (!roomFor(&loop)) {
            std::this_thread::yield();
            continue;
        }
        GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt)));
        if (e == nullptr) continue;
        e->wParam = p;
        e->lParam = seq;
        if (!loop.post(e)) {
            Kel::gc(e);
            continue;
        }
        ++seq;
        wd.tick();
    }
    return seq;
}

struct TimerProbe {
    std::atomic<long> fired{0};
    std::atomic<bool> stopped{false};
    std::atomic<long> lateFires{0};
};

void onFire(ATimer*, void* p) {
    TimerProbe* t = static_cast<TimerProbe*>(p);
    if (t->stopped.load()) t->lateFires.fetch_add(1);
    t->fired.fetch_add(1);
}

}  // namespace

TEST(MainLoopSoak, ProducersAndTimersFromOtherThreads) {
    soak::Watchdog wd("ProducersAndTimersFromOtherThreads");
    startFramework();
    LogCapture quiet;
    SoakLoop loop;
    const unsigned full = blocksTotal(&loop);
    LoopRunner runner(&loop);
    const auto end = soak::deadline();

    // A repeating timer runs for the whole soak.
    TimerProbe tick;
    ATimer repeating;
    repeating.setHandler(onFire, &tick);
    repeating.setRepeat(true);
    repeating.restart(1);

    std::vector<long> sent(kProducers, 0);
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] { sent[p] = produce(loop, p, end, wd); });
    }
    // Two threads arm a one-shot timer and wait for each firing: a lost
    // wake-up or a lost node shows as a timer that never fires.
    std::atomic<long> chased{0}, lost{0};
    for (int c = 0; c < 2; ++c) {
        threads.emplace_back([&, c] {
            TimerProbe probe;
            ATimer t;
            t.setHandler(onFire, &probe);
            std::minstd_rand rnd(c + 1);
            while (soak::Clock::now() < end) {
                long before = probe.fired.load();
                t.restart(static_cast<int>(rnd() % 3));
                if (!waitUntil([&] { return probe.fired.load() != before; }, 10.0)) {
                    lost.fetch_add(1);
                    break;
                }
                chased.fetch_add(1);
                wd.tick();
            }
        });
    }
    // One thread arms and stops a timer at random moments, repeating or not:
    // once stop has returned the handler must not run.
    TimerProbe churn;
    std::atomic<long> stops{0};
    threads.emplace_back([&] {
        ATimer t;
        t.setHandler(onFire, &churn);
        std::minstd_rand rnd(7);
        while (soak::Clock::now() < end) {
            t.setRepeat(rnd() % 2 == 0);
            churn.stopped.store(false);
            t.restart(static_cast<int>(rnd() % 3));
            if (rnd() % 2) std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 3000));
            t.stop();
            churn.stopped.store(true);
            std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 500));
            stops.fetch_add(1);
            wd.tick();
        }
    });
    for (auto& t : threads) t.join();

    wd.phase("drain");
    repeating.stop();
    long total = 0;
    for (long s : sent) total += s;
    EXPECT_TRUE(waitUntil([&] { return loop.received.load() == total; }, 30.0))
        << loop.received.load() << " of " << total << " events arrived";
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);

    EXPECT_EQ(loop.errors.load(), 0) << "an event arrived twice or out of its producer's order";
    for (int p = 0; p < kProducers; ++p) EXPECT_EQ(loop.streams[p].next, sent[p]) << "producer " << p;
    EXPECT_EQ(lost.load(), 0) << "an armed timer never fired";
    EXPECT_EQ(churn.lateFires.load(), 0) << "a handler ran after stop had returned";
    EXPECT_GT(tick.fired.load(), 0);
    EXPECT_EQ(freeTotal(&loop), full) << "blocks did not come home";
    printf("soak: %ld events, %ld timer chases, %ld stops, %ld repeating fires\n", total, chased.load(),
           stops.load(), tick.fired.load());
    RecordProperty("events", static_cast<int>(total));
    RecordProperty("timer_chases", static_cast<int>(chased.load()));
}

// ------------------------------------------------ state machine and signals

namespace {

// Every state records the streams it sees. Held-back events of one producer
// share one record (the latest wins), so a stream may skip numbers, but it
// never goes back or repeats one.
struct Recorder {
    Stream streams[kProducers];
    std::atomic<long> seen[kProducers] = {};
    std::atomic<long> errors{0};
    std::atomic<long> translated{0};

    void record(const StateQEvt* e) {
        long p = e->wParam, seq = e->lParam;
        if (p < 0 || p >= kProducers || seq < streams[p].next) {
            errors.fetch_add(1);
            return;
        }
        streams[p].gaps += seq - streams[p].next;
        streams[p].next = seq + 1;
        seen[p].store(seq + 1);
        translated.fetch_add(1, std::memory_order_relaxed);
    }
};

constexpr int kStates = 4;

// The event's msgId decides the move, refusals included, so that every path
// of the engine is taken over a long run.
class SoakState : public KelState {
public:
    explicit SoakState(Recorder* r) : mRec(r) {}
    int translate(const StateQEvt* e) override {
        mRec->record(e);
        long m = e->msgId;
        if (m % 11 == 0) return state::STATE_RETURN_BACK;
        if (m % 3 == 0) return state::STATE_RETURN_NORMAL;
        return static_cast<int>(m % kStates);
    }
    int entry(const StateQEvt* e) override { return e->msgId % 13 == 0 ? 1 : 0; }
    int exit(const StateQEvt* e) override { return e->msgId % 17 == 0 ? 1 : 0; }

private:
    Recorder* mRec;
};

class SoakMache : public StateMache {
public:
    explicit SoakMache(Recorder* r) : StateMache(kStates, 0) {
        for (int i = 0; i < kStates; ++i) registStates(new SoakState(r), "soak", 0);
    }
    bool test_event(int) override { return true; }
    bool test_state(int st) override { return st != 2; }
};

}  // namespace

TEST(MainLoopSoak, StateMachineTrafficAndUserSignals) {
    soak::Watchdog wd("StateMachineTrafficAndUserSignals");
    KelLoop::init_all(0, "kel-soak", nullptr);
    // The user branch of the signal handling serves SIGUSR1 once it is given
    // the handler that init_all installed for SIGTERM.
    struct sigaction act;
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &act), 0);
    ASSERT_EQ(sigaction(SIGUSR1, &act, nullptr), 0);

    LogCapture quiet;
    SoakLoop loop;
    const unsigned full = blocksTotal(&loop);
    Recorder rec;
    SoakMache mache(&rec);
    mache.initialize();
    loop.machine = &mache;
    LoopRunner runner(&loop);
    const auto end = soak::deadline();

    std::vector<long> sent(kProducers, 0);
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            std::minstd_rand rnd(p + 11);
            long seq = 0;
            while (soak::Clock::now() < end) {
                if (!roomFor(&loop)) {
                    std::this_thread::yield();
                    continue;
                }
                StateQEvt* e =
                    static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
                if (e == nullptr) continue;
                e->stateMsg = p;  // one held-back record per producer
                e->msgId = static_cast<long>(rnd() % 1000);
                e->wParam = p;
                e->lParam = seq;
                e->pHander = nullptr;
                if (!loop.post(e)) {
                    Kel::gc(e);
                    continue;
                }
                ++seq;
                wd.tick();
            }
            sent[p] = seq;
        });
    }
    // Takes the machine down and up again, so that events are held back and
    // replayed ahead of the queue. The loop's thread does it: from another
    // thread, an event that the loop has already taken out of the queue and
    // that waits for the machine's lock would overtake the replayed ones.
    threads.emplace_back([&] {
        std::minstd_rand rnd(5);
        while (soak::Clock::now() < end) {
            for (int sig : {SIG_MACHINE_DOWN, SIG_MACHINE_UP}) {
                while (!loop.postCmd(sig)) std::this_thread::yield();
                std::this_thread::sleep_for(std::chrono::microseconds(rnd() % 3000));
            }
        }
    });
    // Sends SIGUSR1 with a count and waits for each to reach broadcast:
    // pending signals of one number merge, so one at a time.
    std::atomic<bool> signalLost{false};
    threads.emplace_back([&] {
        for (int i = 0; soak::Clock::now() < end; ++i) {
            union sigval v;
            v.sival_int = i;
            ASSERT_EQ(sigqueue(getpid(), SIGUSR1, v), 0);
            if (!waitUntil([&] { return loop.signals.load() > i; }, 10.0)) {
                signalLost.store(true);
                return;
            }
            wd.tick();
        }
    });
    for (auto& t : threads) t.join();

    wd.phase("drain");
    while (!loop.postCmd(SIG_MACHINE_UP)) std::this_thread::yield();
    EXPECT_TRUE(waitUntil(
        [&] {
            for (int p = 0; p < kProducers; ++p) {
                if (rec.seen[p].load() != sent[p]) return false;
            }
            return true;
        },
        30.0))
        << "the last event of a producer never reached the machine";
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);

    EXPECT_FALSE(signalLost.load()) << "a user signal never reached broadcast";
    EXPECT_EQ(loop.errors.load(), 0) << "broadcast got a wrong sender or value";
    EXPECT_EQ(rec.errors.load(), 0) << "a state event repeated or went back in its producer's order";
    long gaps = 0, total = 0;
    for (int p = 0; p < kProducers; ++p) {
        gaps += rec.streams[p].gaps;
        total += sent[p];
    }
    EXPECT_EQ(rec.translated.load() + gaps, total);
    // The machine is consistent: a registered state, a history of distinct
    // states without the initial one.
    int cur = mache.currentState();
    EXPECT_TRUE(cur >= 0 && cur < kStates);
    ASSERT_LE(mache.historyDepth(), kStates);
    for (int i = 0; i < mache.historyDepth(); ++i) {
        EXPECT_NE(mache.historyAt(i), 0);
        for (int j = 0; j < i; ++j) EXPECT_NE(mache.historyAt(i), mache.historyAt(j));
    }
    EXPECT_EQ(mache.heldBack(), 0);
    EXPECT_EQ(freeTotal(&loop), full) << "blocks did not come home";
    printf("soak: %ld state events (%ld merged while held back), %ld toggles, %ld signals\n", total, gaps,
           loop.toggles.load(), loop.signals.load());
    RecordProperty("state_events", static_cast<int>(total));
    RecordProperty("signals", static_cast<int>(loop.signals.load()));
}
