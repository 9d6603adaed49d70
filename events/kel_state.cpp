#include "kel_state.h"

#include "common_log.h"

int KelState::entry(const StateQEvt*) {
    KEL_LOG(LOG_DEBUG, "Default:KelState::entry");
    return 0;
}

int KelState::exit(const StateQEvt*) {
    KEL_LOG(LOG_DEBUG, "Default:KelState::exit");
    return 0;
}

int KelState::translate(const StateQEvt*) {
    KEL_LOG(LOG_DEBUG, "Default State translate");
    KEL_ASSERT_FAIL();
}
