// StateList: copies of the events that reach a state machine before it is
// initialised, one per distinct `stateMsg` (the latest payload in the place
// of first arrival), up to a fixed count. `process` replays them through the
// loop's queue, ahead of everything queued, oldest first.
//
// Thread rules: no lock of its own; its machine's `mMtx` guards it.
// Storage is allocated once by the constructor: holding back and replaying
// allocate nothing.
#ifndef KEL_EVENTS_STATE_LIST_H
#define KEL_EVENTS_STATE_LIST_H

#include "event_def.h"
#include "kel_export.h"

class KEL_API StateList {
public:
    explicit StateList(int size);
    ~StateList();

    // Copies the whole record. Logs "BaseList list is full" and drops a new
    // `stateMsg` when all records are in use.
    void push(const StateQEvt* node);
    // The record appended last; asserts on an empty list. It stays readable
    // until the next push reaches it.
    const StateQEvt* pop();
    void clear() { ref = 0; }
    bool empty() { return ref == 0; }
    // Hands the records to KelLoop::procStateEvent, then empties the list.
    void process();

    int size() const { return ref; }
    // Room for one pointer per record, for KelLoop::procStateEvent to gather
    // a replay in before it posts it as one step. Caller holds the machine's
    // `mMtx`.
    const QEvt** replaySlots() { return replay; }

    StateList(const StateList&) = delete;
    StateList& operator=(const StateList&) = delete;

private:
    StateQEvt** nodes;
    int counts;
    int ref;
    const QEvt** replay;
};

#endif
