// StateMache: the one flat state machine of a process, driven by state
// events of the main loop.
//
// States are numbered by their order of registration from 0. For each event
// the current state's `translate` says: stay, switch to a state by index, or
// go back through the history of visited states. `entry` and `exit` may
// refuse; a refusal starts a walk back through the history that ends in the
// initial state if nothing else accepts. Events that arrive before
// `initialize` are held back (latest per `stateMsg`, up to 10) and replayed
// ahead of the loop's queue when it runs, filtered by `test_event`.
//
// Override `test_state` to say which visited states can be returned to (the
// default, false, sends every walk back to the initial state), and
// `test_event` to say which held-back events are worth replaying (default:
// none).
//
// Thread rules: `procState`, `initialize` and `exitState` hold `mMtx`
// throughout, so state code and `test_state`/`test_event` run with it held
// and must not call `postEvent`, `initialize` or `exitState`. Events normally
// arrive on the loop's thread; an application thread may also call
// `postEvent` directly (then state code runs on that thread). A timer handler
// must post to the loop rather than call `postEvent` when state code can run
// on another thread (lock order: `mMtx`, then the timer list's mutex).
// `registStates` takes no lock and belongs before `initialize`.
//
// Lifetime: build it after the KelLoop (it registers itself there; a second
// machine asserts); stop the loop before destroying it. It owns the
// registered states (heap objects, deleted by its destructor).
#ifndef KEL_EVENTS_STATE_MACHE_H
#define KEL_EVENTS_STATE_MACHE_H

#include "event_def.h"
#include "kel_export.h"
#include "kel_mutex.h"
#include "kel_state.h"

class StateList;
class StateNums;

struct StateNodes {
    KelState* state;   // owned from registration on
    const char* desc;  // name for log lines; not copied
    int pori;          // carried for the application; no effect
};

class KEL_API StateMache {
public:
    StateMache(int st_num, int init_state);
    virtual ~StateMache();

    // Starts the machine and replays what was held back. Repeated calls do
    // nothing. The initial state's `entry` is not called. Replayed events go
    // ahead of what is queued, oldest first, queued as one step, so this may
    // run on any thread; from another thread than the loop's, only the event
    // the loop is dispatching at that moment may reach the machine first.
    void initialize();
    // Back to the initial state with an empty history, no exit or entry
    // called; events are held back again until the next `initialize`.
    void exitState();
    // Registers the next state (index = number registered so far).
    void registStates(KelState* st, const char* desc, int pori);
    // Runs the machine on `evt`, a StateQEvt.
    void postEvent(const QEvt* evt);
    int currentState();
    // True when `st` is a registered index and is current or in the history.
    bool checkState(int st);

    virtual bool test_event(int) { return false; }
    virtual bool test_state(int) { return false; }

    // Logs the current state and the history. No lock: for diagnosis.
    void profile();

    // History from oldest to newest, for diagnosis and tests. Caller holds
    // `mMtx` or knows that no event is being handled.
    int historyDepth();
    int historyAt(int i);
    bool isInitialized();
    // Number of held-back events.
    int heldBack();

    StateMache(const StateMache&) = delete;
    StateMache& operator=(const StateMache&) = delete;

protected:
    // False when the event was held back. Takes `mMtx`.
    bool procState(const StateQEvt* evt);
    // Caller holds `mMtx`.
    void backState(const StateQEvt* evt, int exitState);
    // Caller holds `mMtx`.
    void switchNewState(int st, const StateQEvt* evt);

private:
    int mCurState;
    const int mInitState;
    bool mIsInit;
    int mStateNums;
    int mStateRef;
    StateNums* mSts;
    StateList* mEvents;
    StateNodes* mStates;
    KelMutex mMtx;
};

#endif
