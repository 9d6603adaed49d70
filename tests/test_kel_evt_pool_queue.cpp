// Pools, the queue and the reference counts of the event core.
#include "kel_stats.h"
#include "support/loop_harness.h"

namespace {

constexpr unsigned kUnit = sizeof(void*);  // one free-list link
alignas(8) unsigned char gStore[2048];

}  // namespace

// Blocks are whole units; a remainder smaller than a block stays unused;
// blocks come out in address order, then last in first out; get keeps the
// margin; puts outside the pool or beyond its total assert.
TEST(KelPool, CuttingMarginOrderAndMisuse) {
    struct Case {
        unsigned size, block, wantBlock, wantTot;
    } cases[] = {{64, kUnit + 1, 2 * kUnit, 64 / (2 * kUnit)},
                 {3 * kUnit, 0, kUnit, 3},
                 {11 * kUnit, 2 * kUnit, 2 * kUnit, 5}};
    unsigned char* at = gStore;
    KelPool pools[3];
    for (int i = 0; i < 3; ++i, at += 128) {
        pools[i].init(at, cases[i].size, static_cast<uint_fast16_t>(cases[i].block));
        EXPECT_EQ(pools[i].getBlockSize(), cases[i].wantBlock) << i;
        EXPECT_EQ(pools[i].getNTot(), cases[i].wantTot) << i;
        EXPECT_EQ(pools[i].getEnd(), at + (cases[i].wantTot - 1) * cases[i].wantBlock) << i;
    }
    KelPool& p = pools[2];  // five blocks of two units
    EXPECT_THROW(p.put(p.getStart()), std::runtime_error) << "all free: a double release";
    void *b0 = p.get(3), *b1 = p.get(3);
    EXPECT_EQ(b0, p.getStart());
    EXPECT_EQ(b1, static_cast<unsigned char*>(p.getStart()) + 2 * kUnit);
    LogCapture cap;
    EXPECT_EQ(p.get(3), nullptr) << "exactly the margin left";
    EXPECT_EQ(cap.count("Free Block is empty.", LOG_WARN), 1);
    EXPECT_THROW(p.put(static_cast<unsigned char*>(p.getStart()) - kUnit), std::runtime_error);
    EXPECT_THROW(p.put(static_cast<unsigned char*>(p.getEnd()) + kUnit), std::runtime_error);
    EXPECT_EQ(p.getNFree(), 3u);
    p.put(b0);
    EXPECT_EQ(p.get(0), b0);
    KelPool bad;
    EXPECT_THROW(bad.init(gStore, 2 * kUnit, 3 * kUnit), std::runtime_error) << "no whole block";
    EXPECT_THROW(bad.init(gStore + 1024, 128, 16), std::runtime_error) << "a fourth pool";
    EXPECT_EQ(Kel::Kel_maxPool_, 3u);
}

using EventStore = KelTest;

// A record of no pool keeps its count and its release asserts; after the
// end of the event mutex releasing still works. (Counts and first fit over
// the pools: fuzz_pool_queue.)
TEST_F(EventStore, ReleaseOfRecordsWithoutPoolAndAfterUninit) {
    loop = new KelLoop(4);
    QEvt stray(300);
    stray.refCtr_ = 7;
    EXPECT_EQ(Kel::newRef_(&stray), &stray);
    EXPECT_EQ(stray.refCtr_, 7);
    LogCapture cap;
    EXPECT_THROW(Kel::gc(&stray), std::runtime_error);
    EXPECT_EQ(cap.count("poolId_ is invalid", LOG_ERROR), 1);
    QEvt* late = KelLoop::newEvt(0x12345, sizeof(GeneralQEvt));
    EXPECT_EQ(late->sig, 0x2345);  // cut to 16 bits
    Kel::uninit();
    Kel::gc(late);
    Kel::signal();  // nobody to wake, nothing to lock
}

// Threads on the pools exclude each other also while the event mutex goes
// (uninit) and comes back (init): one holds the lock across the switch, one
// arrives during it.
TEST_F(EventStore, PoolsStayExclusiveAcrossUninitAndInit) {
    for (bool goingDown : {true, false}) {
        std::atomic<bool> held{false}, inside{false}, arriving{false}, overlap{false};
        std::thread holder([&] {
            Kel::Autolock l;
            inside = held = true;
            waitUntil([&] { return arriving.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            inside = false;
        });
        waitUntil([&] { return held.load(); });
        std::thread change([&] { goingDown ? Kel::uninit() : Kel::init(); });
        waitUntil([&] { return Kel::isAlive() != goingDown; }, 0.2);
        std::thread late([&] {
            arriving = true;
            Kel::Autolock l;
            if (inside) overlap = true;
        });
        for (std::thread* t : {&holder, &change, &late}) t->join();
        EXPECT_FALSE(overlap) << (goingDown ? "uninit" : "init");
    }
}

// Statistics: each pool's low and the refusals along the chain of pools
// (24 blocks out, the 25th request refused by all three), the queue's low,
// and the timers armed at once (re-arming does not count twice), in the
// snapshot and its log line; no dispatch node or pooled thread was made.
TEST_F(EventStore, StatisticsShowLowsRefusalsAndPeaks) {
    loop = new KelLoop(2);
    std::vector<QEvt*> out{KelLoop::newEvt(100, sizeof(GeneralQEvt))};
    EXPECT_EQ(kel_stats_snapshot().timer_pool.low, 19u) << "the low follows the first block out";
    while (QEvt* e = KelLoop::newEvt(100, sizeof(GeneralQEvt))) out.push_back(e);
    ASSERT_EQ(out.size(), 24u);
    for (int i = 0; i < 3; ++i) loop->eventQueue()->post(out[i], 0);
    while (const QEvt* e = loop->eventQueue()->get()) Kel::gc(e);
    for (size_t i = 3; i < out.size(); ++i) Kel::gc(out[i]);
    ATimer t[3];
    for (ATimer& a : t) a.setHandler([](ATimer*, void*) {}, nullptr), a.restart(100000);
    t[0].restart(100000);
    for (ATimer& a : t) a.stop();
    EXPECT_EQ(kel_stats_snapshot().state_pool.refused, 1u);
    LogCapture cap;
    kel_stats_log();
    EXPECT_EQ(
        cap.count("stats: pools blocks/free/low/refused: timer 20/20/0/5, general 2/2/0/3, state 2/2/0/1; "
                  "queue entries/low: 129/126; timers peak: 3; dispatch nodes used/made: 0/0; "
                  "threads busy/peak/made: 0/0/0",
                  LOG_INFO),
        1)
        << (cap.lines().empty() ? "" : cap.lines()[0].text);
}
