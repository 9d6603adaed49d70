// Events held back before the machine is initialised: what is kept, what
// the filter is asked, and the order in which the loop replays them.
#include "support/state_recorder.h"

// A message held twice keeps its first place with its latest payload; the
// filter is asked newest first; the replay comes oldest first, ahead of
// what was queued, with the whole payload.
TEST_F(MacheFixture, HeldBackReplayedOldestFirstAheadOfQueueWithLatestPayload) {
    ScriptedState* s = addState();
    s->onTranslate = [](const StateQEvt*) { return int(state::STATE_RETURN_NORMAL); };
    ASSERT_TRUE(loop->post(newStateEvt(100)));  // already queued when initialize runs
    loop->exitLoop();
    long id = 1;
    for (long m : {5, 7, 5, 9, 4}) ASSERT_FALSE(deliver(m, id++));
    int marker = 0;
    StateQEvt full;
    full.stateMsg = 6, full.wParam = 12, full.lParam = -13, full.pHander = &marker;
    ASSERT_FALSE(mache->procState(&full));
    mache->unwanted = {4};
    mache->initialize();
    EXPECT_EQ(mache->askedEvents, (std::vector<long>{6, 4, 9, 7, 5}));
    EXPECT_EQ(loop->execLoop(), 0);
    std::vector<long> got;
    for (const auto& e : s->seen) got.push_back(e.stateMsg);
    EXPECT_EQ(got, (std::vector<long>{5, 7, 9, 6, 100}));
    EXPECT_EQ(s->seen[0].msgId, 3) << "5 carries the payload of its second arrival";
    const StateQEvt& e = s->seen[3];
    EXPECT_TRUE(e.sig == SIG_STATE_DELAY_EVENT && e.wParam == 12 && e.lParam == -13 && e.pHander == &marker);
}
