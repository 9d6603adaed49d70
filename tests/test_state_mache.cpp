// State machine: the library's default test_state and translate, and the
// machine on a running loop. Transitions, the history walk, held-back
// events, initialize and exitState: the fuzz target's reference model.
#include "support/state_recorder.h"

// The library's test_state returns to no visited state: going back from
// the third state ends in the initial one with an empty history.
TEST_F(MacheFixture, BackWithTheDefaultTestStateEndsInTheInitialState) {
    for (int i = 0; i < kStates; ++i) addState();
    mache->initialize();
    for (int st : {1, 2, int(state::STATE_RETURN_BACK)}) EXPECT_TRUE(deliver(st));
    EXPECT_EQ(mache->currentState(), 0);
    EXPECT_EQ(mache->historyDepth(), 0);
}

// A state without translate asserts, and the failure frees the machine's
// mutex for another thread.
TEST_F(MacheFixture, DefaultTranslateAssertsAndReleasesTheLock) {
    addState();
    mache->registStates(new KelState, "plain", 0);
    mache->initialize();
    ASSERT_TRUE(deliver(1));  // default entry accepts
    LogCapture cap;
    EXPECT_THROW(deliver(0), std::runtime_error);
    bool initialized = false;
    std::thread([&] { initialized = mache->isInitialized(); }).join();
    EXPECT_TRUE(initialized);
    EXPECT_EQ(mache->currentState(), 1);
}

// Replay from another thread while the loop runs: held-back events reach
// translate oldest first. The pause in test_event gives the loop time to
// take a replayed event early, were the replay not queued as one step.
TEST_F(MacheFixture, ReplayFromAnotherThreadArrivesOldestFirst) {
    ScriptedState* s0 = addState();
    s0->onTranslate = [](const StateQEvt*) { return 0; };
    for (long m : {31, 32, 33}) deliver(m);
    mache->onTestEvent = [](long m) {
        if (m == 32) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    };
    LoopRunner runner(loop);
    mache->initialize();
    loop->exitLoop();
    EXPECT_EQ(runner.join(), 0);
    std::vector<long> got;
    for (const StateQEvt& e : s0->seen) got.push_back(e.stateMsg);
    EXPECT_EQ(got, (std::vector<long>{31, 32, 33}));
}
