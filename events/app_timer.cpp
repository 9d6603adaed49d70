#include "app_timer.h"

#include "common_log.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_timer.h"

ATimer::ATimer()
    : mHandler(nullptr),
      mPptr(nullptr),
      mFlagRunning(false),
      mFlagRepeat(false),
      mFlagRestart(false),
      mInterval(0) {
    KEL_ASSERT(_timer != nullptr);
}

ATimer::~ATimer() { _timer->cancelTimer(this); }

void ATimer::exec() {
    if (isRunning() && mHandler != nullptr) mHandler(this, mPptr);
}

void ATimer::restart(int msec) {
    NodeTimer* dispTimer = static_cast<NodeTimer*>(Kel::newX_(SIG_TIMER_ADD, sizeof(NodeTimer)));
    if (dispTimer == nullptr) {
        if (_loop != nullptr) _loop->showAll();
        KEL_LOG(LOG_ERROR, "Timer Run failled, eventLoop node is full");
        return;
    }
    if (mHandler == nullptr) {
        Kel::gc(dispTimer);  // the node goes home before the contract fails
        KEL_ASSERT_FAIL();
    }
    setRunning(false);
    dispTimer->setProc(this);
    setInternal(msec / 1000, msec % 1000);
    // The new node is taken before the old one goes home, so a full store
    // fails the restart and leaves the old deadline standing. addTimer
    // replaces the old node in the same lock section.
    _timer->addTimer(dispTimer);
    if (_loop != nullptr) _loop->wakeupCore();
}

void ATimer::stop() {
    setRunning(false);
    _timer->cancelTimer(this);
}
