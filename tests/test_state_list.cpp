// Events held back before the machine is initialised: what is kept, what
// the filter is asked, and the order in which the loop replays them.
#include <gtest/gtest.h>

#include <string.h>

#include "kel_port.h"
#include "kel_queue.h"
#include "support/log_capture.h"
#include "support/state_recorder.h"

namespace {

class HeldBack : public MacheFixture {
protected:
    void SetUp() override {
        MacheFixture::SetUp();
        // One state that stays put and records what reaches it.
        addState()->onTranslate = [this](const StateQEvt* e) {
            if (e->stateMsg == stopAfter) loop->exitLoop();
            return int(state::STATE_RETURN_NORMAL);
        };
    }

    // Hands each message to the machine while it is not initialised.
    void holdBack(std::initializer_list<long> msgs) {
        long id = 1;
        for (long m : msgs) ASSERT_FALSE(deliver(m, id++));
    }

    std::vector<long> dispatched() const {
        std::vector<long> out;
        for (const auto& e : states[0]->seen) out.push_back(e.stateMsg);
        return out;
    }

    long stopAfter = -1000;
};

TEST_F(HeldBack, LatestPayloadInPlaceOfFirstArrivalReplayedAheadOfQueue) {
    ASSERT_TRUE(postStateEvt(100));  // already queued when initialize runs
    loop->exitLoop();
    holdBack({5, 7, 5, 9});
    EXPECT_EQ(mache->heldBack(), 3);

    mache->initialize();
    EXPECT_EQ(mache->askedEvents, (std::vector<long>{9, 7, 5}));
    EXPECT_EQ(loop->execLoop(), 0);

    EXPECT_EQ(dispatched(), (std::vector<long>{5, 7, 9, 100}));
    EXPECT_EQ(states[0]->seen[0].msgId, 3) << "5 carries the payload of its second arrival";
    EXPECT_EQ(states[0]->seen[1].msgId, 2);
    EXPECT_EQ(states[0]->seen[2].msgId, 4);
}

TEST_F(HeldBack, FullListRefusesOnlyNewMessages) {
    LogCapture cap;
    holdBack({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    ASSERT_FALSE(deliver(10, 99));
    EXPECT_EQ(cap.count("BaseList list is full", LOG_ERROR), 1);
    ASSERT_FALSE(deliver(3, 42));  // known message: replaces, no error
    EXPECT_EQ(cap.count("BaseList list is full"), 1);
    EXPECT_EQ(mache->heldBack(), 10);

    stopAfter = 9;
    mache->initialize();
    EXPECT_EQ(loop->execLoop(), 0);
    EXPECT_EQ(dispatched(), (std::vector<long>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(states[0]->seen[3].msgId, 42);
}

TEST_F(HeldBack, FilterDropsTheMiddleOne) {
    holdBack({1, 2, 3});
    mache->unwanted = {2};
    stopAfter = 3;
    mache->initialize();
    EXPECT_EQ(loop->execLoop(), 0);
    EXPECT_EQ(mache->askedEvents, (std::vector<long>{3, 2, 1}));
    EXPECT_EQ(dispatched(), (std::vector<long>{1, 3}));
}

TEST_F(HeldBack, DefaultFilterDropsEverything) {
    holdBack({1, 2, 3});
    mache->defaultTestEvent = true;
    QEQueueCtr before = loop->eventQueue()->getNFree();
    mache->initialize();
    EXPECT_EQ(mache->askedEvents.size(), 3u);
    EXPECT_EQ(mache->heldBack(), 0);
    EXPECT_EQ(loop->eventQueue()->getNFree(), before);
    EXPECT_TRUE(loop->eventQueue()->isEmpty());
    EXPECT_TRUE(calls.empty());
}

TEST_F(HeldBack, ReplayCarriesAllFivePayloadFields) {
    // Leave garbage in every block a replayed event could come from.
    std::vector<StateQEvt*> blocks;
    while (StateQEvt* e = newStateEvt(0)) {
        memset(reinterpret_cast<char*>(e) + sizeof(QEvt), 0xa5, sizeof(StateQEvt) - sizeof(QEvt));
        blocks.push_back(e);
    }
    for (StateQEvt* e : blocks) Kel::gc(e);

    int marker = 0;
    StateQEvt held;
    held.sig = 77;  // the header of the copy has no effect on the replay
    held.stateMsg = 5;
    held.msgId = 11;
    held.wParam = 12;
    held.lParam = -13;
    held.pHander = &marker;
    ASSERT_FALSE(mache->procState(&held));

    stopAfter = 5;
    mache->initialize();
    EXPECT_EQ(loop->execLoop(), 0);
    ASSERT_EQ(states[0]->seen.size(), 1u);
    const StateQEvt& got = states[0]->seen[0];
    EXPECT_EQ(got.sig, SIG_STATE_DELAY_EVENT);
    EXPECT_NE(got.poolId_, 0);
    EXPECT_EQ(got.stateMsg, 5);
    EXPECT_EQ(got.msgId, 11);
    EXPECT_EQ(got.wParam, 12);
    EXPECT_EQ(got.lParam, -13);
    EXPECT_EQ(got.pHander, &marker);
}

class HeldBackFullQueue : public HeldBack {
protected:
    unsigned msgs() const override { return 200; }
};

// State events are the loop's own: none gives way to a replay, which is
// refused whole on a queue full of them.
TEST_F(HeldBackFullQueue, ReplayOntoQueueFullOfStateEventsIsRefused) {
    constexpr int kCapacity = 129;  // front slot plus 128 ring entries
    for (int i = 0; i < kCapacity; ++i) ASSERT_TRUE(postStateEvt(1000 + i));
    ASSERT_EQ(loop->eventQueue()->getNFree(), 0u);
    holdBack({5, 7, 9});

    LogCapture cap;
    mache->initialize();
    EXPECT_EQ(cap.count("event not posted", LOG_WARN), 1);
    EXPECT_EQ(mache->heldBack(), 0);

    stopAfter = 1000 + kCapacity - 1;
    EXPECT_EQ(loop->execLoop(), 0);
    std::vector<long> want;
    for (int i = 0; i < kCapacity; ++i) want.push_back(1000 + i);
    EXPECT_EQ(dispatched(), want);

    // The ring is in step again: it fills to the same capacity and gives
    // events back in order.
    Kel::init();  // execLoop has ended the event mutex
    EXPECT_EQ(loop->eventQueue()->getNFree(), QEQueueCtr(kCapacity));
    for (int i = 0; i < kCapacity; ++i) ASSERT_TRUE(postStateEvt(i));
    EXPECT_FALSE(postStateEvt(kCapacity));
    for (int i = 0; i < kCapacity; ++i) {
        const QEvt* e = loop->eventQueue()->get();
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(static_cast<const StateQEvt*>(e)->stateMsg, i);
        Kel::gc(e);
    }
    EXPECT_TRUE(loop->eventQueue()->isEmpty());
}

}  // namespace
