// State machine: order of entry/exit/translate calls, the history walk,
// history bookkeeping and its log lines, and the machine on a running loop.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <stdexcept>
#include <thread>

#include "app_timer.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"
#include "support/state_recorder.h"

namespace {

using state::STATE_RETURN_BACK;
using state::STATE_RETURN_EVENT;
using state::STATE_RETURN_NORMAL;

// ------------------------------------------------------- transition table

struct Transition {
    const char* name;
    std::vector<int> path;                 // switches from state 0 that set up "before"
    int result;                            // what the current state's translate returns
    std::map<int, std::deque<int>> entry;  // scripted refusals per state
    std::map<int, std::deque<int>> exit;
    bool defaultTestState;
    std::set<int> unreachable;
    std::vector<std::string> calls;
    int current;
    std::vector<int> history;
};

void PrintTo(const Transition& t, std::ostream* os) { *os << t.name; }

const Transition kTransitions[] = {
    {"BackAllAccept",
     {1, 2, 3},
     STATE_RETURN_BACK,
     {},
     {},
     false,
     {},
     {"translate(3)", "exit(3)", "entry(2)"},
     2,
     {1, 2}},
    {"BackOlderRefuses",
     {1, 2, 3},
     STATE_RETURN_BACK,
     {{2, {1}}},
     {},
     false,
     {},
     {"translate(3)", "exit(3)", "entry(2)", "entry(1)"},
     1,
     {1}},
    {"BackExitRetried",
     {1, 2, 3},
     STATE_RETURN_BACK,
     {},
     {{3, {1, 0}}},
     false,
     {},
     {"translate(3)", "exit(3)", "exit(3)", "entry(2)"},
     2,
     {1, 2}},
    {"BackDefaultTestState",
     {1, 2},
     STATE_RETURN_BACK,
     {},
     {},
     true,
     {},
     {"translate(2)", "exit(2)", "entry(0)"},
     0,
     {}},
    {"SwitchRefusedWalksBack",
     {1, 2},
     3,
     {{3, {1}}},
     {},
     false,
     {},
     {"translate(2)", "exit(2)", "entry(3)", "entry(2)"},
     2,
     {1, 2}},
    {"SwitchRefusedNeverLeft",
     {1, 2},
     3,
     {{3, {1}}},
     {{2, {1}}},
     false,
     {},
     {"translate(2)", "exit(2)", "entry(3)"},
     2,
     {1}},
    {"SwitchToVisited",
     {1, 2, 3},
     1,
     {},
     {},
     false,
     {},
     {"translate(3)", "exit(3)", "entry(1)"},
     1,
     {2, 3, 1}},
    {"BackInInitial",
     {},
     STATE_RETURN_BACK,
     {},
     {},
     false,
     {},
     {"translate(0)", "exit(0)", "entry(0)"},
     0,
     {}},
    {"BackAllRefuse",
     {1, 2, 3},
     STATE_RETURN_BACK,
     {{2, {1}}, {1, {1}}, {0, {1}}},
     {},
     false,
     {},
     {"translate(3)", "exit(3)", "entry(2)", "entry(1)", "entry(0)"},
     0,
     {}},
    {"SwitchToInitial", {1, 2}, 0, {}, {}, false, {}, {"translate(2)", "exit(2)", "entry(0)"}, 0, {}},
    {"InitialSwitchRefused",
     {},
     1,
     {{1, {1}}},
     {{0, {1}}},
     false,
     {},
     {"translate(0)", "exit(0)", "entry(1)", "entry(0)"},
     0,
     {}},
    {"BackSkipsUnreachable",
     {1, 2, 3},
     STATE_RETURN_BACK,
     {},
     {},
     false,
     {2},
     {"translate(3)", "exit(3)", "entry(1)"},
     1,
     {1}},
    {"SameIndexStays", {1, 2}, 2, {}, {}, false, {}, {"translate(2)"}, 2, {1, 2}},
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
    for (int st : t.path) ASSERT_TRUE(deliver(st));
    calls.clear();
    for (const auto& kv : t.entry) states[kv.first]->entryResults = kv.second;
    for (const auto& kv : t.exit) states[kv.first]->exitResults = kv.second;
    mache->defaultTestState = t.defaultTestState;
    mache->unreachable = t.unreachable;

    EXPECT_TRUE(deliver(t.result));
    EXPECT_EQ(calls, t.calls);
    EXPECT_EQ(mache->currentState(), t.current);
    EXPECT_EQ(mache->history(), t.history);
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

TEST_F(Mache, NegativeResultsStayPut) {
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    LogCapture cap;
    calls.clear();
    for (int r : {int(STATE_RETURN_NORMAL), int(STATE_RETURN_EVENT), -7}) {
        EXPECT_TRUE(deliver(r)) << r;
        EXPECT_EQ(mache->currentState(), 2);
        EXPECT_EQ(mache->history(), (std::vector<int>{1, 2}));
    }
    EXPECT_EQ(calls, (CallLog{"translate(2)", "translate(2)", "translate(2)"}));
    EXPECT_EQ(cap.count("+++++[not used] Record function move to child='-3' state +++++", LOG_WARN), 1);
}

TEST_F(Mache, AfterRefusedSwitchNextBackGoesToInitial) {
    // Left as "current 2, history 1": the switch to 3 was refused both ways.
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    states[2]->exitResults = {1};
    states[3]->entryResults = {1};
    ASSERT_TRUE(deliver(3));
    ASSERT_EQ(mache->history(), (std::vector<int>{1}));
    calls.clear();
    // The pop meant for the current state takes 1 instead.
    EXPECT_TRUE(deliver(STATE_RETURN_BACK));
    EXPECT_EQ(calls, (CallLog{"translate(2)", "exit(2)", "entry(0)"}));
    EXPECT_EQ(mache->currentState(), 0);
    EXPECT_TRUE(mache->history().empty());
}

TEST_F(Mache, HistoryBookkeepingAndItsLogLines) {
    LogCapture cap;
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    ASSERT_TRUE(deliver(STATE_RETURN_BACK));
    ASSERT_TRUE(deliver(STATE_RETURN_BACK));  // back from 1: history empty
    std::vector<std::string> debug;
    for (const auto& l : cap.lines()) {
        if (l.level == LOG_DEBUG) debug.push_back(l.text);
    }
    EXPECT_EQ(debug,
              (std::vector<std::string>{"---<<< push: 1", "---<<< push: 2", "-->>> pop: 2", "-->>> pop: 1",
                                        "---<<< push: 1", "-->>> pop: 1", "-->>> pop: -1"}));
    EXPECT_EQ(cap.count("+++++Try To entry State: s1+++++++", LOG_DUMP), 1);
    EXPECT_EQ(mache->currentState(), 0);
}

TEST_F(Mache, RefusedExitIsLoggedBeforeEachRetry) {
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    ASSERT_TRUE(deliver(3));
    states[3]->exitResults = {1, 1, 0};
    states[2]->entryResults = {1};
    LogCapture cap;
    calls.clear();
    ASSERT_TRUE(deliver(STATE_RETURN_BACK));
    EXPECT_EQ(calls, (CallLog{"translate(3)", "exit(3)", "exit(3)", "entry(2)", "exit(3)", "entry(1)"}));
    EXPECT_EQ(cap.count("+++++Try To exit State: s3+++++++", LOG_DUMP), 2);
    EXPECT_EQ(mache->history(), (std::vector<int>{1}));
}

TEST_F(Mache, PushOfTopEntryLeavesHistory) {
    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(2));
    states[2]->exitResults = {1};
    states[3]->entryResults = {1};
    ASSERT_TRUE(deliver(3));  // current 2, history 1
    ASSERT_TRUE(deliver(1));
    EXPECT_EQ(mache->currentState(), 1);
    EXPECT_EQ(mache->history(), (std::vector<int>{1}));
}

TEST_F(Mache, ProfileListsCurrentAndHistory) {
    LogCapture cap;
    mache->profile();
    std::vector<std::string> empty;
    for (const auto& l : cap.lines()) empty.push_back(l.text);
    EXPECT_EQ(empty, (std::vector<std::string>{"Current State: 's0'", "Total States: '0'"}));

    ASSERT_TRUE(deliver(1));
    ASSERT_TRUE(deliver(3));
    cap.clear();
    mache->profile();
    std::vector<std::string> two;
    for (const auto& l : cap.lines()) {
        EXPECT_EQ(l.level, LOG_DEBUG);
        two.push_back(l.text);
    }
    EXPECT_EQ(two, (std::vector<std::string>{"Current State: 's3'", "Total States: '2'", "State[1] = 's1'",
                                             "State[3] = 's3'"}));
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
}

TEST_F(Mache, SecondInitializeChangesNothing) {
    mache->exitState();
    ASSERT_FALSE(deliver(2));
    mache->initialize();
    QEQueueCtr afterFirst = loop->eventQueue()->getNFree();
    ASSERT_FALSE(loop->eventQueue()->isEmpty());
    mache->initialize();
    EXPECT_EQ(loop->eventQueue()->getNFree(), afterFirst);
    EXPECT_EQ(mache->currentState(), 0);
    EXPECT_TRUE(calls.empty());
    Kel::gc(loop->eventQueue()->get());
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
