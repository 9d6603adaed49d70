// Random translate results, entry and exit refusals, test_state answers,
// held-back events, initialize and exitState, checked against a reference
// model of the transition rules and the history. The loop is not run: the
// target takes the replayed events out of its queue and hands them to the
// machine itself, as the loop's dispatch would.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_state.h"
#include "state_mache.h"

namespace {

constexpr int kStates = 5;
constexpr int kInit = 0;
constexpr size_t kHeld = 10;
constexpr size_t kBlocks = 20 + 16;  // state-sized blocks: the timer pool and the state pool

// Answers of entry, exit and test_state come from a small generator; the
// machine and the model each have one, started from the same seed before
// every operation, so equal call sequences get equal answers.
struct Answers {
    uint32_t s = 1;
    uint32_t refuseMask = 0;  // how often entry/exit refuse
    int next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return static_cast<int>(s & 0xff);
    }
    int entryOrExit() { return (next() & 7) < static_cast<int>(refuseMask & 7) ? 1 : 0; }
    bool testState() { return next() & 1; }
};

// The calls that state code sees, in order: 'T'ranslate, 'N' entry, 'X'
// exit, 'S' test_state, each with the state.
struct Calls {
    std::string log;
    void add(char what, int st) { log += {what, static_cast<char>('0' + st)}; }
};

// translate's result is carried by the event: msgId.
int translateResult(const StateQEvt* e) { return static_cast<int>(e->msgId); }

Answers gRealAnswers;
Calls gRealCalls;
uint32_t gEventMask = 0;  // test_event: which stateMsg values are replayed

struct FuzzState : KelState {
    explicit FuzzState(int id) : mId(id) {}
    int translate(const StateQEvt* e) override { return gRealCalls.add('T', mId), translateResult(e); }
    int entry(const StateQEvt*) override { return gRealCalls.add('N', mId), gRealAnswers.entryOrExit(); }
    int exit(const StateQEvt*) override { return gRealCalls.add('X', mId), gRealAnswers.entryOrExit(); }
    int mId;
};

struct FuzzMache : StateMache {
    FuzzMache() : StateMache(kStates, kInit) {
        for (int i = 0; i < kStates; ++i) registStates(new FuzzState(i), "s", 0);
    }
    bool test_event(int msg) override { return (gEventMask >> (msg & 31)) & 1; }
    bool test_state(int st) override { return gRealCalls.add('S', st), gRealAnswers.testState(); }
};

// ------------------------------------------------------------------ model

struct Model {
    int cur = kInit;
    bool isInit = false;
    std::vector<int> hist;  // oldest first
    std::vector<StateQEvt> held;
    std::deque<StateQEvt> queue;  // the loop's queue (state events only)
    Answers answers;
    Calls calls;

    int pop() {
        int st = hist.empty() ? -1 : hist.back();
        if (st >= 0) hist.pop_back();
        return st;
    }
    void push(int st) {  // the initial state clears the history
        hist.erase(std::remove(hist.begin(), hist.end(), st), hist.end());
        if (st == kInit)
            hist.clear();
        else
            hist.push_back(st);
    }
    int entry(int st) { return calls.add('N', st), answers.entryOrExit(); }
    int exit(int st) { return calls.add('X', st), answers.entryOrExit(); }
    bool testState(int st) { return calls.add('S', st), answers.testState(); }

    void back(int exitResult) {
        int ce = exitResult;
        for (int st = pop(); st >= 0; st = pop()) {
            if (!testState(st)) continue;
            if (st == cur && ce != 0) return;
            if (ce != 0) ce = exit(cur);
            if (entry(st) == 0) {
                cur = st;
                push(st);
                return;
            }
        }
        entry(kInit);
        cur = kInit;
    }
    void switchTo(int st) {
        int ce = exit(cur);
        if (entry(st) == 0) {
            push(st);
            cur = st;
        } else {
            back(ce);
        }
    }
    void hold(const StateQEvt& e) {
        for (StateQEvt& h : held)
            if (h.stateMsg == e.stateMsg) return void(h = e);
        if (held.size() < kHeld) held.push_back(e);
    }
    void proc(const StateQEvt& e) {
        if (!isInit) return hold(e);
        calls.add('T', cur);
        int ret = translateResult(&e);
        if (ret >= 0) {
            if (ret != cur) switchTo(ret);
        } else if (ret == state::STATE_RETURN_BACK) {
            pop();
            back(exit(cur));
        }
    }
    void initialize() {
        if (isInit) return;
        isInit = true;
        while (!held.empty()) {
            StateQEvt e = held.back();
            held.pop_back();
            // Every block out is in the queue; a replay finding none is lost.
            if (((gEventMask >> (e.stateMsg & 31)) & 1) && queue.size() < kBlocks) queue.push_front(e);
        }
    }
    void exitState() {
        cur = kInit;
        hist.clear();
        isInit = false;
    }
};

KelLoop* gLoop = nullptr;
FuzzMache* gMache = nullptr;

void compare(const Model& m) {
    FUZZ_CHECK(gRealCalls.log == m.calls.log);
    FUZZ_CHECK(gMache->currentState() == m.cur);
    FUZZ_CHECK(gMache->isInitialized() == m.isInit);
    FUZZ_CHECK(gMache->historyDepth() == static_cast<int>(m.hist.size()));
    for (size_t i = 0; i < m.hist.size(); ++i)
        FUZZ_CHECK(gMache->historyAt(static_cast<int>(i)) == m.hist[i]);
    FUZZ_CHECK(gMache->heldBack() == static_cast<int>(m.held.size()));
    FUZZ_CHECK(gLoop->eventQueue()->getNFree() == 129 - m.queue.size());
}

// Takes the machine back to its start without running any state code: no
// replay, nothing queued, nothing held back.
void reset() {
    while (const QEvt* e = gLoop->eventQueue()->get()) Kel::gc(e);
    gEventMask = 0;
    gMache->initialize();
    gMache->exitState();
    FUZZ_CHECK(gLoop->eventQueue()->isEmpty());
    FUZZ_CHECK(gMache->heldBack() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (gLoop == nullptr) {
        __logprintf = fuzz::quietLog;
        KelLoop::init_all(0x3000000, "fuzz", nullptr);
        gLoop = new KelLoop(16);
        gMache = new FuzzMache;
    }
    reset();
    fuzz::Input in(data, size);
    gEventMask = in.word();
    uint32_t refuse = in.byte();
    Model m;
    long msgId = 0;
    while (in.more()) {
        uint8_t op = in.byte(), arg = in.byte();
        uint32_t seed = (static_cast<uint32_t>(op) << 8 | arg) + 1;
        gRealAnswers.s = m.answers.s = seed;
        gRealAnswers.refuseMask = m.answers.refuseMask = refuse;
        gRealCalls.log.clear();
        m.calls.log.clear();

        // The event: stateMsg from a small set, translate's result from the
        // states, the two special results and one unknown negative.
        StateQEvt e;
        e.sig = SIG_STATE_DELAY_EVENT;
        e.stateMsg = arg % 12;
        int r = (arg >> 4) % (kStates + 3);
        e.msgId = r < kStates ? r : -(r - kStates + 1) - (r == kStates + 2 ? 1 : 0);
        e.wParam = ++msgId;
        switch (op % 5) {
            case 0:  // the event reaches the machine directly
                gMache->postEvent(&e);
                m.proc(e);
                break;
            case 1: {  // the event is queued for the loop
                if (m.queue.size() >= 30) break;
                StateQEvt* q =
                    static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
                FUZZ_CHECK(q != nullptr);
                q->stateMsg = e.stateMsg, q->msgId = e.msgId, q->wParam = e.wParam;
                FUZZ_CHECK(gLoop->post(q));
                m.queue.push_back(e);
                break;
            }
            case 2: {  // the loop dispatches the front event
                const QEvt* q = gLoop->eventQueue()->get();
                if (m.queue.empty()) {
                    FUZZ_CHECK(q == nullptr);
                    break;
                }
                FUZZ_CHECK(q != nullptr && q->sig == SIG_STATE_DELAY_EVENT);
                const StateQEvt* s = static_cast<const StateQEvt*>(q);
                FUZZ_CHECK(s->stateMsg == m.queue.front().stateMsg && s->wParam == m.queue.front().wParam);
                StateQEvt copy = m.queue.front();
                m.queue.pop_front();
                gMache->postEvent(q);
                Kel::gc(q);
                m.proc(copy);
                break;
            }
            case 3:
                gMache->initialize();
                m.initialize();
                break;
            case 4:
                gMache->exitState();
                m.exitState();
                break;
        }
        compare(m);
    }
    return 0;
}
