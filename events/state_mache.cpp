#include "state_mache.h"

#include "common_log.h"
#include "kel_loop.h"
#include "state_list.h"

// The history of visited states: a stack with the newest on top. Entries
// are distinct and never the initial state.
class StateNums {
public:
    StateNums(int st_num, int init_state)
        : mInit(init_state), mRef(-1), mStNums(st_num), mStList(new int[st_num]) {}
    ~StateNums() { delete[] mStList; }
    StateNums(const StateNums&) = delete;
    StateNums& operator=(const StateNums&) = delete;

    int pop() {
        int st = -1;
        if (mRef >= 0) {
            st = mStList[mRef];
            --mRef;
        }
        KEL_LOG(LOG_DEBUG, "-->>> pop: %d", st);
        return st;
    }

    void push(int st) {
        KEL_LOG(LOG_DEBUG, "---<<< push: %d", st);
        // Reaching the initial state forgets the history.
        if (st == mInit) {
            mRef = -1;
            return;
        }
        if (mRef < 0) {
            mRef = 0;
            mStList[0] = st;
            return;
        }
        KEL_ASSERT(mRef < mStNums);
        for (int i = 0; i <= mRef; ++i) {
            if (mStList[i] != st) continue;
            // A revisited state moves to the top instead of standing twice.
            for (int j = i; j < mRef; ++j) mStList[j] = mStList[j + 1];
            mStList[mRef] = st;
            return;
        }
        ++mRef;
        mStList[mRef] = st;
    }

    // The entry below the top (the state a walk back would try first), or
    // -1 when there is none.
    int getNext() { return mRef >= 1 ? mStList[mRef - 1] : -1; }

    void clean() { mRef = -1; }

    int mInit;
    int mRef;
    int mStNums;
    int* mStList;
};

StateMache::StateMache(int st_num, int init_state)
    : mCurState(init_state),
      mInitState(init_state),
      mIsInit(false),
      mStateNums(st_num),
      mStateRef(0),
      mSts(new StateNums(st_num, init_state)),
      mEvents(new StateList(10)),
      mStates(new StateNodes[st_num]) {
    _loop->setStateMacheHandler(this);
}

StateMache::~StateMache() {
    for (int i = 0; i < mStateRef; ++i) delete mStates[i].state;
    delete mEvents;
    delete[] mStates;
    delete mSts;
}

void StateMache::initialize() {
    Autolock lock(&mMtx);
    if (mIsInit) return;
    mIsInit = true;
    mEvents->process();
}

void StateMache::exitState() {
    Autolock lock(&mMtx);
    mCurState = mInitState;
    mSts->clean();
    mIsInit = false;
}

void StateMache::registStates(KelState* st, const char* desc, int pori) {
    KEL_ASSERT(mStateRef < mStateNums);
    mStates[mStateRef].state = st;
    mStates[mStateRef].desc = desc;
    mStates[mStateRef].pori = pori;
    ++mStateRef;
}

void StateMache::postEvent(const QEvt* evt) { procState(static_cast<const StateQEvt*>(evt)); }

int StateMache::currentState() { return mCurState; }

bool StateMache::checkState(int st) {
    if (st < 0 || st >= mStateRef) return false;
    if (st == mCurState) return true;
    for (int i = 0; i <= mSts->mRef; ++i) {
        if (mSts->mStList[i] == st) return true;
    }
    return false;
}

bool StateMache::procState(const StateQEvt* evt) {
    Autolock lock(&mMtx);
    if (!mIsInit) {
        KEL_LOG(LOG_DUMP, "StateMache is not init, %d", static_cast<int>(evt->stateMsg));
        mEvents->push(evt);
        return false;
    }
    int ret = mStates[mCurState].state->translate(evt);
    if (ret >= 0) {
        if (ret == mCurState) {
            KEL_LOG(LOG_DUMP, "Switch State equal current state: %s", mStates[mCurState].desc);
        } else {
            switchNewState(ret, evt);
        }
    } else if (ret == state::STATE_RETURN_BACK) {
        mSts->pop();  // the current state's own entry
        int exitState = mStates[mCurState].state->exit(evt);
        backState(evt, exitState);
    } else if (ret == state::STATE_RETURN_EVENT) {
        KEL_LOG(LOG_WARN, "+++++[not used] Record function move to child='%d' state +++++",
                static_cast<int>(evt->stateMsg));
    }
    return true;
}

void StateMache::switchNewState(int st, const StateQEvt* evt) {
    // A refused exit does not stop the switch.
    int curExitState = mStates[mCurState].state->exit(evt);
    if (mStates[st].state->entry(evt) == 0) {
        mSts->push(st);
        mCurState = st;
    } else {
        backState(evt, curExitState);
    }
}

void StateMache::backState(const StateQEvt* evt, int exitState) {
    int curExitState = exitState;
    int st = mSts->pop();
    while (st >= 0) {
        if (test_state(st)) {
            // The state to re-enter was never left: it simply stays current.
            if (st == mCurState && curExitState != 0) return;
            // The current state's exit is retried before each entry attempt.
            if (curExitState != 0) {
                KEL_LOG(LOG_DUMP, "+++++Try To exit State: %s+++++++", mStates[mCurState].desc);
                curExitState = mStates[mCurState].state->exit(evt);
            }
            KEL_LOG(LOG_DUMP, "+++++Try To entry State: %s+++++++", mStates[st].desc);
            if (mStates[st].state->entry(evt) == 0) {
                mCurState = st;
                mSts->push(st);
                return;
            }
        }
        st = mSts->pop();
    }
    // Nothing in the history accepts: the initial state, whatever it says.
    mStates[mInitState].state->entry(evt);
    mCurState = mInitState;
}

void StateMache::profile() {
    KEL_LOG(LOG_DEBUG, "Current State: '%s'", mStates[mCurState].desc);
    KEL_LOG(LOG_DEBUG, "Total States: '%d'", mSts->mRef + 1);
    for (int i = 0; i <= mSts->mRef; ++i) {
        KEL_LOG(LOG_DEBUG, "State[%d] = '%s'", mSts->mStList[i], mStates[mSts->mStList[i]].desc);
    }
}

int StateMache::historyDepth() { return mSts->mRef + 1; }

int StateMache::historyAt(int i) { return mSts->mStList[i]; }

bool StateMache::isInitialized() {
    Autolock lock(&mMtx);
    return mIsInit;
}

int StateMache::heldBack() {
    Autolock lock(&mMtx);
    return mEvents->size();
}
