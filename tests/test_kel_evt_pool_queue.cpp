// Pools, the queue and the reference counts of the event core.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <vector>

#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_timer.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"

namespace {

constexpr unsigned kUnit = sizeof(void*);  // one free-list link

struct Storage {
    alignas(8) unsigned char bytes[1024];
};

}  // namespace

// ------------------------------------------------------------- pool cutting

TEST(KelPool, BlockSizeIsRoundedUpToWholeUnits) {
    static Storage a, b, c;
    KelPool p0, p1, p2;
    p0.init(a.bytes, 64, 0);
    p1.init(b.bytes, 64, 1);
    p2.init(c.bytes, 64, kUnit + 1);
    EXPECT_EQ(p0.getBlockSize(), kUnit);
    EXPECT_EQ(p1.getBlockSize(), kUnit);
    EXPECT_EQ(p2.getBlockSize(), 2 * kUnit);
    EXPECT_EQ(p2.getNTot(), 64 / (2 * kUnit));
}

TEST(KelPool, OneBlockAndUnusedRemainder) {
    static Storage a, b;
    KelPool one, rest;
    one.init(a.bytes, 3 * kUnit, 3 * kUnit);
    EXPECT_EQ(one.getNTot(), 1u);
    EXPECT_EQ(one.getStart(), one.getEnd());
    // Five blocks of two units and one unit left over.
    rest.init(b.bytes, 11 * kUnit, 2 * kUnit);
    EXPECT_EQ(rest.getNTot(), 5u);
    EXPECT_EQ(rest.getEnd(), b.bytes + 8 * kUnit);
}

TEST(KelPool, GetHonoursMarginAndLogsWhenRefusing) {
    static Storage a;
    KelPool p;
    p.init(a.bytes, 4 * kUnit, kUnit);
    LogCapture cap;
    std::vector<void*> out;
    for (int i = 0; i < 2; ++i) out.push_back(p.get(2));  // 4 and 3 free: more than 2
    EXPECT_NE(out[0], nullptr);
    EXPECT_NE(out[1], nullptr);
    EXPECT_EQ(p.getNFree(), 2u);
    EXPECT_EQ(p.get(2), nullptr);  // exactly the margin left
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "Free Block is empty.");
    EXPECT_EQ(lines[0].level, LOG_WARN);
    EXPECT_EQ(lines[1].text, "m_blockSize: " + std::to_string(kUnit) + ", m_nTot: 4, m_nFree: 2");
    EXPECT_EQ(p.getNFree(), 2u);
    EXPECT_NE(p.get(1), nullptr);
}

TEST(KelPool, BlocksComeOutInAddressOrderThenLastInFirstOut) {
    static Storage a;
    KelPool p;
    p.init(a.bytes, 3 * 2 * kUnit, 2 * kUnit);
    void* b0 = p.get(0);
    void* b1 = p.get(0);
    EXPECT_EQ(b0, a.bytes);
    EXPECT_EQ(b1, a.bytes + 2 * kUnit);
    p.put(b0);
    EXPECT_EQ(p.get(0), b0);
}

TEST(KelPool, PutOfForeignAddressOrIntoFullPoolAsserts) {
    static Storage a;
    KelPool p;
    p.init(a.bytes + 64, 4 * kUnit, kUnit);
    // All free: any put is a double release.
    EXPECT_THROW(p.put(a.bytes + 64), std::runtime_error);
    void* b = p.get(0);
    EXPECT_THROW(p.put(a.bytes + 64 - kUnit), std::runtime_error);      // below the start
    EXPECT_THROW(p.put(a.bytes + 64 + 4 * kUnit), std::runtime_error);  // above the last block
    EXPECT_EQ(p.getNFree(), 3u);                                        // unchanged by the refused puts
    p.put(b);
    EXPECT_EQ(p.getNFree(), 4u);
}

TEST(KelPool, BadInitArgumentsAndFourthPoolAssert) {
    static Storage a;
    KelPool bad;
    EXPECT_THROW(bad.init(nullptr, 64, 8), std::runtime_error);
    EXPECT_THROW(bad.init(a.bytes, kUnit - 1, 1), std::runtime_error);
    EXPECT_THROW(bad.init(a.bytes, 2 * kUnit, 3 * kUnit), std::runtime_error);
    KelPool p[4];
    for (int i = 0; i < 3; ++i) p[i].init(a.bytes + 128 * i, 128, 16);
    EXPECT_EQ(Kel::Kel_maxPool_, 3u);
    // Still refused after the event mutex is gone: nothing lowers the count.
    Kel::init();
    Kel::uninit();
    EXPECT_THROW(p[3].init(a.bytes + 512, 128, 16), std::runtime_error);
}

// ------------------------------------------------------------------- queue

namespace {

struct QueueTest : ::testing::Test {
    static constexpr int kLen = 4;
    const QEvt* ring[kLen];
    KelQueue q;
    QEvt ev[16];

    void SetUp() override {
        q.init(ring, kLen);
        for (int i = 0; i < 16; ++i) ev[i].sig = static_cast<QSignal>(100 + i);
    }
    std::vector<int> drain() {
        std::vector<int> out;
        while (const QEvt* e = q.get()) out.push_back(e->sig - 100);
        return out;
    }
};

}  // namespace

TEST_F(QueueTest, HoldsRingLengthPlusOneAndRefusesBeyond) {
    EXPECT_EQ(q.getNFree(), static_cast<QEQueueCtr>(kLen + 1));
    LogCapture cap;
    for (int i = 0; i <= kLen; ++i) EXPECT_TRUE(q.post(&ev[i], 0));
    EXPECT_FALSE(q.post(&ev[kLen + 1], 0));
    EXPECT_EQ(cap.count("event not posted", LOG_WARN), 1);
    EXPECT_EQ(drain(), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(q.getNFree(), static_cast<QEQueueCtr>(kLen + 1));
}

TEST_F(QueueTest, FirstInFirstOutAcrossManyWraps) {
    std::vector<int> got, want;
    int next = 0;
    for (int round = 0; round < 50; ++round) {
        int n = std::min<int>(1 + round % (kLen + 1), static_cast<int>(q.getNFree()));
        for (int i = 0; i < n; ++i) {
            ASSERT_TRUE(q.post(&ev[next % 16], 0));
            want.push_back(next % 16);
            ++next;
        }
        int m = n == 0 ? 1 : 1 + (round * 7) % n;
        for (int i = 0; i < m; ++i) got.push_back(q.get()->sig - 100);
        while (!q.isEmpty() && round % 5 == 4) got.push_back(q.get()->sig - 100);
    }
    for (int v : drain()) got.push_back(v);
    EXPECT_EQ(got, want);
}

TEST_F(QueueTest, MarginKeepsEntriesInReserve) {
    for (int i = 0; i < kLen - 1; ++i) ASSERT_TRUE(q.post(&ev[i], 2));
    EXPECT_EQ(q.getNFree(), 2u);
    EXPECT_FALSE(q.post(&ev[9], 2));
    EXPECT_TRUE(q.post(&ev[9], 1));
}

TEST_F(QueueTest, LifoGoesAheadOfEverything) {
    q.post(&ev[0], 0);
    q.post(&ev[1], 0);
    q.postLIFO(&ev[2]);
    q.postLIFO(&ev[3]);
    EXPECT_EQ(drain(), (std::vector<int>{3, 2, 0, 1}));
    // On an empty queue it just fills the front slot.
    q.postLIFO(&ev[5]);
    q.post(&ev[6], 0);
    EXPECT_EQ(drain(), (std::vector<int>{5, 6}));
}

TEST_F(QueueTest, GetOnEmptyChangesNothing) {
    EXPECT_EQ(q.get(), nullptr);
    EXPECT_EQ(q.getNFree(), static_cast<QEQueueCtr>(kLen + 1));
    EXPECT_TRUE(q.isEmpty());
}

TEST_F(QueueTest, RecordsFromNoPoolKeepTheirCount) {
    ev[0].refCtr_ = 7;
    q.post(&ev[0], 0);
    q.postLIFO(&ev[0]);
    EXPECT_EQ(ev[0].refCtr_, 7);
    EXPECT_EQ(Kel::newRef_(&ev[0]), &ev[0]);
    EXPECT_EQ(ev[0].refCtr_, 7);
}

TEST(KelQueue, ZeroLengthRingHoldsOneEvent) {
    KelQueue q;
    q.init(nullptr, 0);
    QEvt a(101), b(102), c(103);
    EXPECT_EQ(q.getNFree(), 1u);
    EXPECT_TRUE(q.post(&a, 0));
    EXPECT_FALSE(q.post(&b, 0));
    // A LIFO post displaces the front event without touching any ring.
    q.postLIFO(&c);
    EXPECT_EQ(q.get(), &c);
    EXPECT_EQ(q.get(), nullptr);
    EXPECT_EQ(q.getNFree(), 1u);
}

// A LIFO post on a full queue: the event posted last gives way (its block goes
// home), the LIFO event comes next, and the queue keeps working as before.
TEST(KelQueue, LifoOnFullQueueDropsNewestAndReleasesIt) {
    startFramework();
    KelLoop loop(40);
    KelQueue q;
    const QEvt* ring[4];
    q.init(ring, 4);
    const PoolCounts before = freeBlocks(&loop);
    std::vector<QEvt*> evs;
    for (int i = 0; i < 7; ++i) evs.push_back(KelLoop::newEvt(100 + i, sizeof(GeneralQEvt)));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(q.post(evs[i], 0));
    EXPECT_EQ(q.getNFree(), 0u);
    LogCapture cap;
    q.postLIFO(evs[5]);
    EXPECT_EQ(cap.countContaining("dropped"), 1);
    EXPECT_EQ(q.getNFree(), 0u);
    EXPECT_FALSE(q.post(evs[6], 0));

    std::vector<int> order;
    while (const QEvt* e = q.get()) {
        order.push_back(e->sig - 100);
        Kel::gc(e);
    }
    EXPECT_EQ(order, (std::vector<int>{5, 0, 1, 2, 3}));
    Kel::gc(evs[6]);  // refused, still its creator's
    EXPECT_EQ(freeBlocks(&loop), before) << "the dropped event must have gone home";

    // Later traffic behaves as on a queue that never overflowed.
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(q.post(evs[i], 0));
        for (int i = 0; i < 5; ++i) EXPECT_EQ(q.get(), evs[i]);
        EXPECT_EQ(q.getNFree(), 5u);
    }
}

// The loop's own commands never give way to a LIFO post: the newest
// application event does, wherever it stands; with none left it is refused.
TEST(KelQueue, LifoOnFullQueueNeverDropsTheLoopsCommands) {
    startFramework();
    KelLoop loop(40);
    KelQueue q;
    const QEvt* ring[4];
    q.init(ring, 4);
    auto ev = [](int sig) { return KelLoop::newEvt(sig, sizeof(GeneralQEvt)); };
    for (int sig : {100, int(SIG_EVENT_LOOP_EXIT), 101, int(SIG_SYSTEM_POWEROFF), int(SIG_EVENT_LOOP_EXIT)})
        q.post(ev(sig), 0);
    LogCapture cap;
    EXPECT_TRUE(q.postLIFO(ev(102)));
    EXPECT_TRUE(q.postLIFO(ev(103)));
    EXPECT_EQ(cap.count("queue full, event 101 dropped for a LIFO post", LOG_WARN), 1);
    EXPECT_EQ(cap.count("queue full, event 100 dropped for a LIFO post", LOG_WARN), 1);
    std::vector<int> order;
    auto drain = [&] {
        while (const QEvt* e = q.get()) {
            order.push_back(e->sig);
            Kel::gc(e);
        }
    };
    drain();
    EXPECT_EQ(order,
              (std::vector<int>{103, 102, SIG_EVENT_LOOP_EXIT, SIG_SYSTEM_POWEROFF, SIG_EVENT_LOOP_EXIT}));

    for (int i = 0; i < 5; ++i) q.post(ev(SIG_EVENT_LOOP_EXIT), 0);
    QEvt* refused = ev(104);
    EXPECT_FALSE(q.postLIFO(refused));
    EXPECT_EQ(cap.count("event not posted", LOG_WARN), 1);
    EXPECT_EQ(refused->refCtr_, 0);
    Kel::gc(refused);
    order.clear();
    drain();
    EXPECT_EQ(order, std::vector<int>(5, SIG_EVENT_LOOP_EXIT));
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
}

// ------------------------------------------------------- allocation and gc

namespace {

struct EventStore : ::testing::Test {
    void SetUp() override { startFramework(); }
};

}  // namespace

// With two blocks in each event pool: the timer pool's twenty serve all sizes
// first, then the general pool, then the state pool, then nothing.
TEST_F(EventStore, FirstFitOverflowsAcrossThePools) {
    KelLoop loop(2);
    std::vector<int> ids;
    LogCapture cap;
    for (int i = 0; i < 25; ++i) {
        QEvt* e = KelLoop::newEvt(200, sizeof(GeneralQEvt));
        ids.push_back(e ? e->poolId_ : 0);
    }
    std::vector<int> want(20, 1);
    want.insert(want.end(), {2, 2, 3, 3, 0});
    EXPECT_EQ(ids, want);
    EXPECT_EQ(cap.count("not free blocks", LOG_ERROR), 1);
}

TEST_F(EventStore, StateSizedRequestsSkipTheGeneralPool) {
    KelLoop loop(4);
    std::vector<int> ids;
    for (int i = 0; i < 25; ++i) {
        QEvt* e = KelLoop::newEvt(200, sizeof(StateQEvt));
        ids.push_back(e ? e->poolId_ : 0);
    }
    std::vector<int> want(20, 1);
    want.insert(want.end(), {3, 3, 3, 3, 0});
    EXPECT_EQ(ids, want);
    EXPECT_EQ(loop.generalPool()->getNFree(), 4u);
    // Larger than any block: refused although blocks are free.
    LogCapture cap;
    EXPECT_EQ(KelLoop::newEvt(200, sizeof(StateQEvt) + 1), nullptr);
    EXPECT_EQ(cap.count("not free blocks", LOG_ERROR), 1);
}

TEST_F(EventStore, AllocationStampsHeaderAndKeepsOldPayload) {
    KelLoop loop(4);
    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(0x12345, sizeof(GeneralQEvt)));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->sig, 0x2345);  // cut to 16 bits
    EXPECT_EQ(e->refCtr_, 0);
    e->wParam = 77;
    e->lParam = 88;
    loop.post(e);
    EXPECT_EQ(e->refCtr_, 1);
    const QEvt* got = loop.eventQueue()->get();
    Kel::gc(got);
    GeneralQEvt* again = static_cast<GeneralQEvt*>(KelLoop::newEvt(300, sizeof(GeneralQEvt)));
    ASSERT_EQ(again, e);  // last in, first out
    EXPECT_EQ(again->refCtr_, 0);
    EXPECT_EQ(again->wParam, 77);
    EXPECT_EQ(again->lParam, 88);
    Kel::gc(again);
}

TEST_F(EventStore, ReferenceCountsDecideWhenTheBlockGoesHome) {
    KelLoop loop(4);
    const PoolCounts full = freeBlocks(&loop);
    QEvt* e = KelLoop::newEvt(300, sizeof(GeneralQEvt));
    Kel::gc(e);  // never posted: count 0, home at once
    EXPECT_EQ(freeBlocks(&loop), full);

    e = KelLoop::newEvt(300, sizeof(GeneralQEvt));
    Kel::newRef_(e);
    Kel::gc(e);  // count 1: home
    EXPECT_EQ(freeBlocks(&loop), full);

    e = KelLoop::newEvt(300, sizeof(GeneralQEvt));
    Kel::newRef_(e);
    Kel::newRef_(e);
    Kel::newRef_(e);
    Kel::gc(e);  // 3 -> 2, still out
    EXPECT_EQ(e->refCtr_, 2);
    EXPECT_EQ(freeBlocks(&loop).timer, full.timer - 1);
    Kel::gc(e);
    Kel::gc(e);
    EXPECT_EQ(freeBlocks(&loop), full);
}

TEST_F(EventStore, ReleaseOfRecordWithoutPoolLogsAndAsserts) {
    KelLoop loop(4);
    QEvt stray(300);
    LogCapture cap;
    EXPECT_THROW(Kel::gc(&stray), std::runtime_error);
    EXPECT_EQ(cap.count("poolId_ is invalid", LOG_ERROR), 1);
    // The event mutex was released on the way out.
    Kel::gc(KelLoop::newEvt(300, sizeof(GeneralQEvt)));
}

// After the loop has ended the event mutex is gone; releasing still works and
// a second uninit changes nothing.
TEST_F(EventStore, ReleaseAfterUninitUsesNoDestroyedMutex) {
    KelLoop loop(4);
    QEvt* e = KelLoop::newEvt(300, sizeof(GeneralQEvt));
    Kel::uninit();
    EXPECT_FALSE(Kel::isAlive());
    Kel::gc(e);
    Kel::signal();  // nobody to wake, nothing to lock
    KelLoop::uninit_all();
    EXPECT_EQ(freeBlocks(&loop), totalBlocks(&loop));
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
