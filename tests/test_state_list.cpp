// Events held back before the machine is initialised: what is kept, what
// the filter is asked, and the order in which the loop replays them.
// (Dedupe, a full list and filters over long sequences: fuzz_state_machine.)
#include <gtest/gtest.h>

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

}  // namespace

// A message held twice keeps its first place with its latest payload; the
// filter is asked newest first; the replay comes oldest first, ahead of
// what was queued, with the whole payload.
TEST_F(HeldBack, LatestPayloadInPlaceOfFirstArrivalReplayedAheadOfQueue) {
    ASSERT_TRUE(postStateEvt(100));  // already queued when initialize runs
    loop->exitLoop();
    holdBack({5, 7, 5, 9, 4});
    int marker = 0;
    StateQEvt full;
    full.stateMsg = 6;
    full.wParam = 12;
    full.lParam = -13;
    full.pHander = &marker;
    ASSERT_FALSE(mache->procState(&full));
    EXPECT_EQ(mache->heldBack(), 5);
    mache->unwanted = {4};
    mache->initialize();
    EXPECT_EQ(mache->askedEvents, (std::vector<long>{6, 4, 9, 7, 5}));
    EXPECT_EQ(loop->execLoop(), 0);
    EXPECT_EQ(dispatched(), (std::vector<long>{5, 7, 9, 6, 100}));
    EXPECT_EQ(states[0]->seen[0].msgId, 3) << "5 carries the payload of its second arrival";
    EXPECT_EQ(states[0]->seen[1].msgId, 2);
    const StateQEvt& got = states[0]->seen[3];
    EXPECT_EQ(got.sig, SIG_STATE_DELAY_EVENT);
    EXPECT_EQ(got.wParam, 12);
    EXPECT_EQ(got.lParam, -13);
    EXPECT_EQ(got.pHander, &marker);
}
