// State machine: order of entry/exit/translate calls, the history walk, and
// the machine on a running loop. Longer sequences, held-back events,
// initialize and exitState: the fuzz target's model.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/log_capture.h"
#include "support/state_recorder.h"

namespace {

// Lists as text: "1 2 3" for states, "2:1 3:1,0" for scripted results per
// state, "translate(3) exit(3)" for calls.
struct Transition {
    const char* name;
    const char* path;  // switches from state 0 that set up "before"
    int result;        // what the current state's translate returns
    const char *entry, *exit;
    int unreachable;  // -1: none; kDefault: the library's test_state
    const char* calls;
    int current;
    const char* history;
};
constexpr int kDefault = -2;
void PrintTo(const Transition& t, std::ostream* os) { *os << t.name; }

std::vector<std::string> words(const char* text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

std::vector<int> ints(const char* text) {
    std::vector<int> out;
    for (const std::string& w : words(text)) out.push_back(std::stoi(w));
    return out;
}

constexpr int B = state::STATE_RETURN_BACK;
const Transition kTransitions[] = {
    {"BackAllAccept", "1 2 3", B, "", "", -1, "translate(3) exit(3) entry(2)", 2, "1 2"},
    {"BackOlderRefuses", "1 2 3", B, "2:1", "", -1, "translate(3) exit(3) entry(2) entry(1)", 1, "1"},
    {"BackExitRetried", "1 2 3", B, "", "3:1,0", -1, "translate(3) exit(3) exit(3) entry(2)", 2, "1 2"},
    {"BackExitRetriedBeforeEachEntry", "1 2 3", B, "2:1", "3:1,1,0", -1,
     "translate(3) exit(3) exit(3) entry(2) exit(3) entry(1)", 1, "1"},
    {"BackDefaultTestState", "1 2", B, "", "", kDefault, "translate(2) exit(2) entry(0)", 0, ""},
    {"SwitchRefusedWalksBack", "1 2", 3, "3:1", "", -1, "translate(2) exit(2) entry(3) entry(2)", 2, "1 2"},
    {"SwitchRefusedNeverLeft", "1 2", 3, "3:1", "2:1", -1, "translate(2) exit(2) entry(3)", 2, "1"},
    {"SwitchToVisited", "1 2 3", 1, "", "", -1, "translate(3) exit(3) entry(1)", 1, "2 3 1"},
    {"BackInInitial", "", B, "", "", -1, "translate(0) exit(0) entry(0)", 0, ""},
    {"BackAllRefuse", "1 2 3", B, "2:1 1:1 0:1", "", -1, "translate(3) exit(3) entry(2) entry(1) entry(0)", 0,
     ""},
    {"SwitchToInitial", "1 2", 0, "", "", -1, "translate(2) exit(2) entry(0)", 0, ""},
    {"InitialSwitchRefused", "", 1, "1:1", "0:1", -1, "translate(0) exit(0) entry(1) entry(0)", 0, ""},
    {"BackSkipsUnreachable", "1 2 3", B, "", "", 2, "translate(3) exit(3) entry(1)", 1, "1"},
    {"SameIndexStays", "1 2", 2, "", "", -1, "translate(2)", 2, "1 2"},
    {"NormalStays", "1 2", state::STATE_RETURN_NORMAL, "", "", -1, "translate(2)", 2, "1 2"},
    {"EventStays", "1 2", state::STATE_RETURN_EVENT, "", "", -1, "translate(2)", 2, "1 2"},
    {"OtherNegativeStays", "1 2", -7, "", "", -1, "translate(2)", 2, "1 2"},
};

class TransitionTest : public MacheFixture, public ::testing::WithParamInterface<Transition> {
protected:
    void script(const char* text, bool entry) {
        for (const std::string& w : words(text)) {
            ScriptedState* s = states[std::stoi(w)];
            for (size_t i = w.find(':'); i != std::string::npos; i = w.find(',', i + 1))
                (entry ? s->entryResults : s->exitResults).push_back(std::stoi(w.substr(i + 1)));
        }
    }
};

TEST_P(TransitionTest, CallsAndHistory) {
    const Transition& t = GetParam();
    for (int i = 0; i < kStates; ++i) addState();
    mache->initialize();
    for (int st : ints(t.path)) ASSERT_TRUE(deliver(st));
    calls.clear();
    script(t.entry, true);
    script(t.exit, false);
    mache->defaultTestState = t.unreachable == kDefault;
    if (t.unreachable >= 0) mache->unreachable = {t.unreachable};
    EXPECT_TRUE(deliver(t.result));
    EXPECT_EQ(calls, words(t.calls));
    EXPECT_EQ(mache->currentState(), t.current);
    EXPECT_EQ(mache->history(), ints(t.history));
}

INSTANTIATE_TEST_SUITE_P(Table, TransitionTest, ::testing::ValuesIn(kTransitions),
                         [](const ::testing::TestParamInfo<Transition>& i) {
                             return std::string(i.param.name);
                         });

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

}  // namespace

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
