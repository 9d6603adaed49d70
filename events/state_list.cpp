#include "state_list.h"

#include "common_log.h"
#include "kel_loop.h"

StateList::StateList(int size)
    : nodes(new StateQEvt*[size]), counts(size), ref(0), replay(new const QEvt*[size]) {
    KEL_ASSERT(nodes != nullptr);
    for (int i = 0; i < size; ++i) {
        nodes[i] = new StateQEvt();
        KEL_ASSERT(nodes[i] != nullptr);
    }
}

StateList::~StateList() {
    for (int i = 0; i < counts; ++i) delete nodes[i];
    delete[] nodes;
    delete[] replay;
}

void StateList::push(const StateQEvt* node) {
    // A message already held takes the new payload in its old place.
    for (int i = 0; i < ref; ++i) {
        if (nodes[i]->stateMsg == node->stateMsg) {
            *nodes[i] = *node;
            return;
        }
    }
    if (ref < counts) {
        *nodes[ref] = *node;
        ++ref;
        return;
    }
    KEL_LOG(LOG_ERROR, "BaseList list is full");
}

const StateQEvt* StateList::pop() {
    KEL_ASSERT(!empty());
    --ref;
    return nodes[ref];
}

void StateList::process() {
    _loop->procStateEvent(this);
    ref = 0;
}
