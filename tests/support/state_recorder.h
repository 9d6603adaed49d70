// A state machine for tests: states that record the events they translate,
// a machine whose event filter runs a hook, and a fixture that builds loop
// and machine.
#ifndef KEL_TESTS_SUPPORT_STATE_RECORDER_H
#define KEL_TESTS_SUPPORT_STATE_RECORDER_H

#include "kel_state.h"
#include "state_mache.h"
#include "support/loop_harness.h"

// entry and exit accept (the library's defaults); translate returns
// `onTranslate`'s answer, by default the event's stateMsg.
class ScriptedState : public KelState {
public:
    std::function<int(const StateQEvt*)> onTranslate;
    std::vector<StateQEvt> seen;  // copies of the events translated
    int translate(const StateQEvt* e) override {
        seen.push_back(*e);
        return onTranslate ? onTranslate(e) : static_cast<int>(e->stateMsg);
    }
};

// test_state: the library's (no visited state is returned to). test_event:
// true, after running `onTestEvent`.
class TestMache : public StateMache {
public:
    TestMache(int st_num, int init_state) : StateMache(st_num, init_state) {}
    std::function<void(long)> onTestEvent;
    using StateMache::procState;
    bool test_event(int msg) override { return onTestEvent ? onTestEvent(msg), true : true; }
};

// The loop and a machine of `kStates` slots with initial state 0; the
// machine goes before KelTest checks the loop.
class MacheFixture : public KelTest {
protected:
    static constexpr int kStates = 4;
    void SetUp() override { KelTest::SetUp(), loop = new KelLoop(32), mache = new TestMache(kStates, 0); }
    void TearDown() override {
        delete mache;
        KelTest::TearDown();
    }
    ScriptedState* addState() {  // registered as the next index
        states.push_back(new ScriptedState);
        mache->registStates(states.back(), "s", 0);
        return states.back();
    }
    // An event handed straight to the machine; stateMsg is what translate
    // returns by default.
    bool deliver(long msg) {
        StateQEvt e;
        e.sig = SIG_STATE_DELAY_EVENT, e.stateMsg = msg;
        return mache->procState(&e);
    }
    TestMache* mache = nullptr;
    std::vector<ScriptedState*> states;
};

#endif
