// A state machine for tests: states that record every call of `entry`,
// `exit` and `translate` and answer from scripts, a machine whose
// `test_state` and `test_event` are set by the test, and a fixture that
// builds loop and machine in a fresh process.
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
// Written with the machine's mutex held.
using CallLog = std::vector<std::string>;

class ScriptedState : public KelState {
public:
    ScriptedState(int id, CallLog* log) : mId(id), mLog(log) {}

    // Results of the next calls; 0 (accept) once a script runs out.
    std::deque<int> entryResults;
    std::deque<int> exitResults;
    // What `translate` returns; by default the event's stateMsg, so that a
    // test names the next step in the event.
    std::function<int(const StateQEvt*)> onTranslate;
    // Copies of the events that reached `translate`.
    std::vector<StateQEvt> seen;

    int entry(const StateQEvt*) override { return record("entry", entryResults); }
    int exit(const StateQEvt*) override { return record("exit", exitResults); }
    int translate(const StateQEvt* e) override {
        mLog->push_back(call("translate"));
        seen.push_back(*e);
        return onTranslate ? onTranslate(e) : static_cast<int>(e->stateMsg);
    }

private:
    std::string call(const char* what) const { return std::string(what) + "(" + std::to_string(mId) + ")"; }
    int record(const char* what, std::deque<int>& script) {
        mLog->push_back(call(what));
        if (script.empty()) return 0;
        int r = script.front();
        script.pop_front();
        return r;
    }

    int mId;
    CallLog* mLog;
};

class TestMache : public StateMache {
public:
    TestMache(int st_num, int init_state) : StateMache(st_num, init_state) {}

    // test_state: the library's default when set, otherwise true for all
    // states but these.
    bool defaultTestState = false;
    std::set<int> unreachable;
    // test_event: the library's default when set, otherwise true for all
    // messages but these. Every question is recorded.
    bool defaultTestEvent = false;
    std::set<long> unwanted;
    std::vector<long> askedEvents;
    // Runs at each question of test_event, with the message.
    std::function<void(long)> onTestEvent;

    bool test_state(int st) override {
        return defaultTestState ? StateMache::test_state(st) : unreachable.count(st) == 0;
    }
    bool test_event(int msg) override {
        askedEvents.push_back(msg);
        if (onTestEvent) onTestEvent(msg);
        return defaultTestEvent ? StateMache::test_event(msg) : unwanted.count(msg) == 0;
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
        loop = new KelLoop(msgs());
        mache = new TestMache(kStates, 0);
    }
    void TearDown() override {
        delete mache;
        KelTest::TearDown();
    }
    virtual unsigned msgs() const { return 32; }

    // Registers the next state as "s<index>".
    ScriptedState* addState() {
        static const char* const kNames[] = {"s0", "s1", "s2", "s3"};
        int id = static_cast<int>(states.size());
        ScriptedState* s = new ScriptedState(id, &calls);
        mache->registStates(s, kNames[id], 0);
        states.push_back(s);
        return s;
    }
    // An event handed straight to the machine; its stateMsg is the result
    // that the current state's translate gives.
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
