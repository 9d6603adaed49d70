// A state machine for tests: states that record their calls and answer from
// scripts, a machine whose filters the test sets, and a fixture that builds
// loop and machine.
#ifndef KEL_TESTS_SUPPORT_STATE_RECORDER_H
#define KEL_TESTS_SUPPORT_STATE_RECORDER_H

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "kel_loop.h"
#include "kel_state.h"
#include "state_mache.h"
#include "support/loop_harness.h"

// Calls of all states of one machine, in order ("exit(3)", "entry(2)", ...).
using CallLog = std::vector<std::string>;

class ScriptedState : public KelState {
public:
    ScriptedState(int id, CallLog* log) : mId(id), mLog(log) {}

    // Results of the next entry/exit calls; 0 (accept) once a script runs out.
    std::deque<int> entryResults, exitResults;
    // What `translate` returns; by default the event's stateMsg.
    std::function<int(const StateQEvt*)> onTranslate;
    std::vector<StateQEvt> seen;  // copies of the events translated

    int entry(const StateQEvt*) override { return record("entry", &entryResults); }
    int exit(const StateQEvt*) override { return record("exit", &exitResults); }
    int translate(const StateQEvt* e) override {
        record("translate", nullptr);
        seen.push_back(*e);
        return onTranslate ? onTranslate(e) : static_cast<int>(e->stateMsg);
    }

private:
    int record(const char* what, std::deque<int>* script) {
        mLog->push_back(std::string(what) + "(" + std::to_string(mId) + ")");
        if (script == nullptr || script->empty()) return 0;
        int r = script->front();
        script->pop_front();
        return r;
    }

    int mId;
    CallLog* mLog;
};

// test_state: the library's default when `defaultTestState`, otherwise true
// but for `unreachable`. test_event: true but for `unwanted`; each question
// is recorded and runs `onTestEvent`.
class TestMache : public StateMache {
public:
    TestMache(int st_num, int init_state) : StateMache(st_num, init_state) {}

    bool defaultTestState = false;
    std::set<int> unreachable;
    std::set<long> unwanted;
    std::vector<long> askedEvents;
    std::function<void(long)> onTestEvent;

    bool test_state(int st) override {
        return defaultTestState ? StateMache::test_state(st) : unreachable.count(st) == 0;
    }
    bool test_event(int msg) override {
        askedEvents.push_back(msg);
        if (onTestEvent) onTestEvent(msg);
        return unwanted.count(msg) == 0;
    }
    using StateMache::procState;
    std::vector<int> history() {
        std::vector<int> h;
        for (int i = 0; i < historyDepth(); ++i) h.push_back(historyAt(i));
        return h;
    }
};

// The loop and a machine of `kStates` slots with initial state 0; the
// machine goes before KelTest checks the loop.
class MacheFixture : public KelTest {
protected:
    static constexpr int kStates = 4;

    void SetUp() override {
        KelTest::SetUp();
        loop = new KelLoop(32);
        mache = new TestMache(kStates, 0);
    }
    void TearDown() override {
        delete mache;
        KelTest::TearDown();
    }
    ScriptedState* addState() {  // registered as the next index
        states.push_back(new ScriptedState(static_cast<int>(states.size()), &calls));
        mache->registStates(states.back(), "s", 0);
        return states.back();
    }
    // An event handed straight to the machine; stateMsg is what translate
    // returns by default.
    bool deliver(long msg, long msgId = 0) {
        StateQEvt e;
        e.sig = SIG_STATE_DELAY_EVENT;
        e.stateMsg = msg;
        e.msgId = msgId;
        return mache->procState(&e);
    }

    TestMache* mache = nullptr;
    std::vector<ScriptedState*> states;
    CallLog calls;
};

#endif
