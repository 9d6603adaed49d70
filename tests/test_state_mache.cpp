// State machine: order of entry/exit/translate calls, the history walk,
// history bookkeeping and its log lines, and the machine on a running loop.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "app_timer.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "support/log_capture.h"
#include "support/state_recorder.h"

namespace {

using state::STATE_RETURN_BACK;
using state::STATE_RETURN_EVENT;
using state::STATE_RETURN_NORMAL;

// ------------------------------------------------------- transition table

// Lists are written as text: "1 2 3" for states, "2:1 3:1,0" for scripted
// results per state, "translate(3) exit(3)" for calls.
struct Transition {
    const char* name;
    const char* path;  // switches from state 0 that set up "before"
    int result;        // what the current state's translate returns
    const char* entry;
    const char* exit;
    bool defaultTestState;
    int unreachable;  // -1: none
    const char* calls;
    int current;
    const char* history;
};

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

void script(std::vector<ScriptedState*>& states, const char* text, bool entry) {
    for (const std::string& w : words(text)) {
        std::deque<int>& d = entry ? states[std::stoi(w)]->entryResults : states[std::stoi(w)]->exitResults;
        for (size_t i = w.find(':'); i != std::string::npos; i = w.find(',', i + 1))
            d.push_back(std::stoi(w.substr(i + 1)));
    }
}

constexpr int B = STATE_RETURN_BACK;
const Transition kTransitions[] = {
    {"BackAllAccept", "1 2 3", B, "", "", false, -1, "translate(3) exit(3) entry(2)", 2, "1 2"},
    {"BackOlderRefuses", "1 2 3", B, "2:1", "", false, -1, "translate(3) exit(3) entry(2) entry(1)", 1, "1"},
    {"BackExitRetried", "1 2 3", B, "", "3:1,0", false, -1, "translate(3) exit(3) exit(3) entry(2)", 2,
     "1 2"},
    {"BackExitRetriedBeforeEachEntry", "1 2 3", B, "2:1", "3:1,1,0", false, -1,
     "translate(3) exit(3) exit(3) entry(2) exit(3) entry(1)", 1, "1"},
    {"BackDefaultTestState", "1 2", B, "", "", true, -1, "translate(2) exit(2) entry(0)", 0, ""},
    {"SwitchRefusedWalksBack", "1 2", 3, "3:1", "", false, -1, "translate(2) exit(2) entry(3) entry(2)", 2,
     "1 2"},
    {"SwitchRefusedNeverLeft", "1 2", 3, "3:1", "2:1", false, -1, "translate(2) exit(2) entry(3)", 2, "1"},
    {"SwitchToVisited", "1 2 3", 1, "", "", false, -1, "translate(3) exit(3) entry(1)", 1, "2 3 1"},
    {"BackInInitial", "", B, "", "", false, -1, "translate(0) exit(0) entry(0)", 0, ""},
    {"BackAllRefuse", "1 2 3", B, "2:1 1:1 0:1", "", false, -1,
     "translate(3) exit(3) entry(2) entry(1) entry(0)", 0, ""},
    {"SwitchToInitial", "1 2", 0, "", "", false, -1, "translate(2) exit(2) entry(0)", 0, ""},
    {"InitialSwitchRefused", "", 1, "1:1", "0:1", false, -1, "translate(0) exit(0) entry(1) entry(0)", 0, ""},
    {"BackSkipsUnreachable", "1 2 3", B, "", "", false, 2, "translate(3) exit(3) entry(1)", 1, "1"},
    {"SameIndexStays", "1 2", 2, "", "", false, -1, "translate(2)", 2, "1 2"},
    {"NormalStays", "1 2", STATE_RETURN_NORMAL, "", "", false, -1, "translate(2)", 2, "1 2"},
    {"EventStays", "1 2", STATE_RETURN_EVENT, "", "", false, -1, "translate(2)", 2, "1 2"},
    {"OtherNegativeStays", "1 2", -7, "", "", false, -1, "translate(2)", 2, "1 2"},
};

class TransitionTest : public MacheFixture, public ::testing::WithParamInterface<Transition> {
protected:
    void SetUp() override {
        MacheFixture::SetUp();
        for (int i = 0; i < kStates; ++i) addState();
        mache->initialize();
    }
};

TEST_P(TransitionTest, CallsAndHistory) {
    const Transition& t = GetParam();
    for (int st : ints(t.path)) ASSERT_TRUE(deliver(st));
    calls.clear();
    script(states, t.entry, true);
    script(states, t.exit, false);
    mache->defaultTestState = t.defaultTestState;
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

// --------------------------------------------------------- machine details

class Mache : public MacheFixture {
protected:
    void SetUp() override {
        MacheFixture::SetUp();
        for (int i = 0; i < kStates; ++i) addState();
        mache->initialize();
    }
};

// Left as "current 2, history 1" (the switch to 3 refused both ways): the
// pop meant for the current state takes 1, so back goes to the initial
// state; a switch to 1 leaves the history as it is.
TEST_F(Mache, AfterRefusedSwitchHistoryIsOneShort) {
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    states[2]->exitResults = {1};
    states[3]->entryResults = {1};
    ASSERT_TRUE(deliver(3));
    ASSERT_EQ(mache->history(), (std::vector<int>{1}));
    EXPECT_TRUE(mache->checkState(1));
    EXPECT_FALSE(mache->checkState(3));
    ASSERT_TRUE(deliver(1));
    EXPECT_EQ(mache->history(), (std::vector<int>{1}));
    ASSERT_TRUE(deliver(2));
    states[2]->exitResults = {1};
    states[3]->entryResults = {1};
    ASSERT_TRUE(deliver(3));
    calls.clear();
    EXPECT_TRUE(deliver(STATE_RETURN_BACK));
    EXPECT_EQ(calls, (CallLog{"translate(2)", "exit(2)", "entry(0)"}));
    EXPECT_EQ(mache->currentState(), 0);
}

TEST_F(Mache, ExitStateResetsWithoutCallsAndHoldsBackAgain) {
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    calls.clear();
    mache->exitState();
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(mache->currentState(), 0);
    EXPECT_TRUE(mache->history().empty());
    EXPECT_FALSE(mache->isInitialized());

    LogCapture cap;
    EXPECT_FALSE(deliver(3, 77));
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(mache->heldBack(), 1);
    EXPECT_EQ(cap.count("StateMache is not init, 3", LOG_DUMP), 1);

    // The next initialize replays what came in meanwhile, through the queue.
    mache->initialize();
    EXPECT_EQ(mache->heldBack(), 0);
    const QEvt* e = loop->eventQueue()->get();
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->sig, SIG_STATE_DELAY_EVENT);
    mache->postEvent(e);
    Kel::gc(e);
    EXPECT_EQ(calls, (CallLog{"translate(0)", "exit(0)", "entry(3)"}));
    EXPECT_EQ(states[0]->seen.back().msgId, 77);
    mache->initialize();  // a second one changes nothing
    EXPECT_TRUE(loop->eventQueue()->isEmpty());
}

TEST_F(MacheFixture, DefaultTranslateAssertsAndReleasesTheLock) {
    addState();
    mache->registStates(new KelState, "plain", 0);
    mache->initialize();
    ASSERT_TRUE(deliver(1));  // default entry accepts
    ASSERT_EQ(mache->currentState(), 1);

    LogCapture cap;
    EXPECT_THROW(deliver(0), std::runtime_error);
    EXPECT_EQ(cap.count("Default State translate", LOG_DEBUG), 1);
    // Another thread can take the machine's mutex: the failure freed it.
    bool initialized = false;
    std::thread t([&] { initialized = mache->isInitialized(); });
    t.join();
    EXPECT_TRUE(initialized);
    EXPECT_EQ(mache->currentState(), 1);
}

// ------------------------------------------------------ machine on the loop

enum { kGo = 1, kTimeout = 2 };

int onlyOn(const StateQEvt* e, long msg, int next) {
    return e->stateMsg == msg ? next : int(STATE_RETURN_NORMAL);
}

TEST_F(MacheFixture, StateArmsTimerThatDrivesItOn) {
    ScriptedState* idle = addState();
    ScriptedState* waiting = addState();
    ScriptedState* done = addState();
    ATimer timer;
    std::atomic<int> fired{0};
    timer.setHandler(
        [](ATimer*, void* n) {
            static_cast<std::atomic<int>*>(n)->fetch_add(1);
            // A handler posts to the loop; it never calls postEvent.
            postStateEvt(kTimeout);
        },
        &fired);
    std::chrono::steady_clock::time_point armedAt;
    idle->onTranslate = [](const StateQEvt* e) { return onlyOn(e, kGo, 1); };
    waiting->onTranslate = [](const StateQEvt* e) { return onlyOn(e, kTimeout, 2); };
    waiting->onEntry = [&] {
        armedAt = std::chrono::steady_clock::now();
        timer.restart(30);
    };
    waiting->onExit = [&] { timer.stop(); };
    done->onEntry = [&] { loop->exitLoop(); };
    mache->initialize();

    ASSERT_TRUE(postStateEvt(kGo));
    EXPECT_EQ(loop->execLoop(), 0);

    auto waited = std::chrono::steady_clock::now() - armedAt;
    EXPECT_GE(waited, std::chrono::milliseconds(25));
    EXPECT_EQ(fired.load(), 1);
    EXPECT_FALSE(timer.isRunning());
    EXPECT_EQ(calls, (CallLog{"translate(0)", "exit(0)", "entry(1)", "translate(1)", "exit(1)", "entry(2)"}));
    EXPECT_EQ(mache->currentState(), 2);
    EXPECT_EQ(mache->history(), (std::vector<int>{1, 2}));
}

TEST_F(MacheFixture, AppThreadPostsDirectlyWhileLoopDelivers) {
    constexpr int kEach = 2000;
    ScriptedState* a = addState();
    ScriptedState* b = addState();
    std::atomic<int> inside{0}, overlaps{0}, fromLoop{0}, fromApp{0};
    auto toggleTo = [&](int next) {
        return [&, next](const StateQEvt* e) {
            if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
            // Events of the loop come from a pool, the direct ones do not.
            (e->poolId_ != 0 ? fromLoop : fromApp).fetch_add(1);
            inside.fetch_sub(1);
            return next;
        };
    };
    a->onTranslate = toggleTo(1);
    b->onTranslate = toggleTo(0);
    mache->initialize();
    LogCapture quiet;  // pools and queue run dry now and then

    int ret = -2;
    std::thread looper([&] { ret = loop->execLoop(); });
    std::thread app([&] {
        for (int i = 0; i < kEach; ++i) {
            StateQEvt e;
            e.sig = SIG_STATE_DELAY_EVENT;
            e.stateMsg = i;
            mache->postEvent(&e);
        }
    });
    for (int i = 0; i < kEach; ++i) {
        while (!postStateEvt(i)) std::this_thread::yield();
    }
    app.join();
    while (fromLoop.load() < kEach) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    loop->exitLoop();
    looper.join();

    EXPECT_EQ(ret, 0);
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(fromLoop.load(), kEach);
    EXPECT_EQ(fromApp.load(), kEach);
    // An even number of toggles: back in the initial state, history empty.
    EXPECT_EQ(mache->currentState(), 0);
    EXPECT_TRUE(mache->history().empty());
    EXPECT_EQ(calls.size(), 3u * 2 * kEach);
}

}  // namespace
