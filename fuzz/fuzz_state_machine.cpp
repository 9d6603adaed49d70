// Random translate results, entry and exit refusals, test_state answers,
// held-back events, initialize and exitState, checked against a reference
// model of the transition rules and the history. The loop is not run: the
// target takes the replayed events out of its queue and hands them to the
// machine itself, as the loop's dispatch would.
#include "fuzz_common.h"
#include "kel_state.h"
#include "state_mache.h"

namespace {

constexpr int kStates = 5;
constexpr int kInit = 0;
constexpr size_t kHeld = 10;
constexpr size_t kBlocks = 20 + 16;  // state-sized blocks: the timer pool and the state pool

// Answers of entry, exit and test_state come from a small generator; the
// machine and the model each have one, started from the same seed before
// every operation, so equal call sequences get equal answers. Each call is
// logged as 'T'ranslate, 'N' entry, 'X' exit or 'S' test_state and the state,
// or 'E' test_event and the message ('a' + stateMsg).
struct Answers {
    uint32_t s = 1, refuseMask = 0;  // refuseMask: how often entry/exit refuse
    std::string calls;
    int entryOrExit(char what, int st) {
        calls += {what, static_cast<char>('0' + st)};
        return (fuzz::xorshift(s) & 7) < (refuseMask & 7) ? 1 : 0;
    }
    bool testState(int st) { return calls += {'S', static_cast<char>('0' + st)}, fuzz::xorshift(s) & 1; }
};

Answers gReal;
uint32_t gEventMask = 0;  // test_event: which stateMsg values are replayed

// translate's result is carried by the event: msgId.
struct FuzzState : KelState {
    explicit FuzzState(int id) : mId(id) {}
    int translate(const StateQEvt* e) override {
        return gReal.calls += {'T', char('0' + mId)}, int(e->msgId);
    }
    int entry(const StateQEvt*) override { return gReal.entryOrExit('N', mId); }
    int exit(const StateQEvt*) override { return gReal.entryOrExit('X', mId); }
    int mId;
};

struct FuzzMache : StateMache {
    FuzzMache() : StateMache(kStates, kInit) {
        for (int i = 0; i < kStates; ++i) registStates(new FuzzState(i), "s", 0);
    }
    bool test_event(int msg) override {
        return gReal.calls += {'E', static_cast<char>('a' + msg)}, (gEventMask >> (msg & 31)) & 1;
    }
    bool test_state(int st) override { return gReal.testState(st); }
};

// ------------------------------------------------------------------ model

struct Model {
    int cur = kInit;
    bool isInit = false;
    std::vector<int> hist;  // oldest first
    std::vector<StateQEvt> held;
    std::deque<StateQEvt> queue;  // the loop's queue (state events only)
    Answers answers;

    int pop() {
        int st = hist.empty() ? -1 : hist.back();
        if (st >= 0) hist.pop_back();
        return st;
    }
    void push(int st) {  // the initial state clears the history
        hist.erase(std::remove(hist.begin(), hist.end(), st), hist.end());
        st == kInit ? hist.clear() : hist.push_back(st);
    }
    void back(int ce) {  // ce: the result of the exit already called
        for (int st = pop(); st >= 0; st = pop()) {
            if (!answers.testState(st)) continue;
            if (st == cur && ce != 0) return;
            if (ce != 0) ce = answers.entryOrExit('X', cur);
            if (answers.entryOrExit('N', st) == 0) return push(cur = st);
        }
        answers.entryOrExit('N', cur = kInit);
    }
    void proc(const StateQEvt& e) {
        if (!isInit) {
            for (StateQEvt& h : held)
                if (h.stateMsg == e.stateMsg) return void(h = e);
            if (held.size() < kHeld) held.push_back(e);
            return;
        }
        answers.calls += {'T', static_cast<char>('0' + cur)};
        int ret = static_cast<int>(e.msgId), ce = 0;
        if (ret == state::STATE_RETURN_BACK) {
            pop();
            back(answers.entryOrExit('X', cur));
        } else if (ret >= 0 && ret != cur) {
            if ((ce = answers.entryOrExit('X', cur), answers.entryOrExit('N', ret)) != 0) return back(ce);
            push(cur = ret);
        }
    }
    void initialize() {
        if (isInit) return;
        isInit = true;
        for (; !held.empty(); held.pop_back()) {
            // Every block out is in the queue; a replay finding none is lost.
            const StateQEvt& e = held.back();  // test_event is asked newest first
            answers.calls += {'E', static_cast<char>('a' + e.stateMsg)};
            if (((gEventMask >> (e.stateMsg & 31)) & 1) && queue.size() < kBlocks) queue.push_front(e);
        }
    }
};

KelLoop* gLoop = nullptr;
FuzzMache* gMache = nullptr;

void compare(const Model& m) {
    FUZZ_CHECK(gReal.calls == m.answers.calls && gMache->currentState() == m.cur);
    FUZZ_CHECK(gMache->isInitialized() == m.isInit && gMache->heldBack() == static_cast<int>(m.held.size()));
    FUZZ_CHECK(gMache->historyDepth() == static_cast<int>(m.hist.size()));
    for (size_t i = 0; i < m.hist.size(); ++i)
        FUZZ_CHECK(gMache->historyAt(static_cast<int>(i)) == m.hist[i]);
    FUZZ_CHECK(gLoop->eventQueue()->getNFree() == 129 - m.queue.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (gLoop == nullptr) {
        __logprintf = fuzz::quietLog;
        KelLoop::init_all(0x3000000, "fuzz", nullptr);
        gLoop = new KelLoop(16);
        gMache = new FuzzMache;
    }
    // Back to the start without running any state code: no replay, nothing
    // queued, nothing held back.
    while (const QEvt* e = gLoop->eventQueue()->get()) Kel::gc(e);
    gEventMask = 0;
    gMache->initialize();
    gMache->exitState();
    FUZZ_CHECK(gLoop->eventQueue()->isEmpty() && gMache->heldBack() == 0);
    fuzz::Input in(data, size);
    gEventMask = in.word();
    uint32_t refuse = in.byte();
    Model m;
    long msgId = 0;
    while (in.more()) {
        uint8_t op = in.byte(), arg = in.byte();
        gReal.s = m.answers.s = (static_cast<uint32_t>(op) << 8 | arg) + 1;
        gReal.refuseMask = m.answers.refuseMask = refuse;
        gReal.calls.clear();
        m.answers.calls.clear();
        // The event: stateMsg from a small set, translate's result from the
        // states, the three special results and one unknown negative.
        StateQEvt e;
        e.sig = SIG_STATE_DELAY_EVENT;
        e.stateMsg = arg % 12;
        int r = (arg >> 4) % (kStates + 4);
        e.msgId = r < kStates ? r : kStates - 1 - r;
        e.wParam = ++msgId, e.lParam = -msgId, e.pHander = &e.wParam + msgId % 2;
        if (op % 5 == 0) {  // the event reaches the machine directly
            gMache->postEvent(&e);
            m.proc(e);
        } else if (op % 5 == 1 && m.queue.size() < 30) {  // the event is queued for the loop
            StateQEvt* q = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
            FUZZ_CHECK(q != nullptr);
            q->stateMsg = e.stateMsg, q->msgId = e.msgId, q->wParam = e.wParam, q->lParam = e.lParam;
            q->pHander = e.pHander;
            FUZZ_CHECK(gLoop->post(q));
            m.queue.push_back(e);
        } else if (op % 5 == 2) {  // the loop dispatches the front event
            const StateQEvt* q = static_cast<const StateQEvt*>(gLoop->eventQueue()->get());
            FUZZ_CHECK((q == nullptr) == m.queue.empty());
            if (q != nullptr) {
                const StateQEvt& f = m.queue.front();  // the whole payload of the latest arrival
                FUZZ_CHECK(q->sig == SIG_STATE_DELAY_EVENT && q->stateMsg == f.stateMsg &&
                           q->wParam == f.wParam && q->lParam == f.lParam && q->pHander == f.pHander);
                gMache->postEvent(q);
                Kel::gc(q);
                m.proc(m.queue.front());
                m.queue.pop_front();
            }
        } else if (op % 5 == 3) {
            gMache->initialize();
            m.initialize();
        } else if (op % 5 == 4) {
            gMache->exitState();
            m.cur = kInit;
            m.isInit = false;
            m.hist.clear();
        }
        compare(m);
    }
    return 0;
}
