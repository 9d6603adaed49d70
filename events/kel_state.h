// KelState: base class of the states of the state machine (state_mache.h).
//
// Thread rules: `entry`, `exit` and `translate` run with the machine's
// `mMtx` held, on the thread that delivers the event (normally the loop's).
// They must not call postEvent, initialize or exitState of their machine;
// they may post events to the loop and arm or stop timers.
#ifndef KEL_EVENTS_KEL_STATE_H
#define KEL_EVENTS_KEL_STATE_H

#include "event_def.h"
#include "kel_export.h"

namespace state {
// Results of KelState::translate besides a state index (0 or more).
enum {
    STATE_RETURN_NORMAL = -1,  // stay
    STATE_RETURN_BACK = -2,    // go back through the history
    STATE_RETURN_EVENT = -3,   // stay; reserved for child states, logged
};
}  // namespace state

class KEL_API KelState {
public:
    KelState() {}
    virtual ~KelState() {}

    // 0: entered; anything else: the state refuses.
    virtual int entry(const StateQEvt* evt);
    // 0: left; anything else: the state could not be left.
    virtual int exit(const StateQEvt* evt);
    // The next state's index, or one of the state:: results. Every state
    // that can become current overrides it: the default asserts.
    virtual int translate(const StateQEvt* evt);
};

#endif
