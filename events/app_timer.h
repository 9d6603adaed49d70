// ATimer: a timer of the main loop, owned by the application.
//
// While armed, one NodeTimer from the event pools stands for it on the loop's
// timer list (kel_timer.h). Its handler runs on the loop's thread.
//
// Thread rules: `restart`, `stop` and the destructor may be called from any
// thread, but never from inside a timer handler (they take the timer list's
// mutex, which the handler's thread already holds). A handler may instead
// change the flags and the interval (setReStart, setRepeat, setInternal) and
// may post events.
//
// Lock held when application code runs: the handler runs with the timer
// list's `mutex` held.
//
// Lifetime: make timers after the KelLoop and destroy them before it. Once
// `stop` or the destructor has returned on any thread, the handler has
// finished and does not run again. A timer stopped or destroyed after the
// loop has ended is safe (its node goes home without the event mutex).
#ifndef KEL_EVENTS_APP_TIMER_H
#define KEL_EVENTS_APP_TIMER_H

#include <atomic>

#include "kel_export.h"

class ATimer;
class KelTimer;
typedef void (*TimerHandler)(ATimer*, void*);

class KEL_API ATimer {
public:
    // Asserts that the loop (and with it the timer list) exists.
    ATimer();
    ~ATimer();

    // Arms or re-arms the timer to fire `msec` milliseconds from now (the
    // deadline is truncated to the millisecond). On a timer that is armed the
    // new deadline replaces the old one. If no event block is free, it logs
    // "Timer Run failled, eventLoop node is full" and changes nothing.
    // Asserts that a handler is set.
    void restart(int msec);
    // Disarms the timer: on return it has no node on the list and its
    // handler does not run. Repeat, interval and handler stay as they are.
    void stop();

    void setRunning(bool st) { mFlagRunning.store(st, std::memory_order_relaxed); }
    bool isRunning() const { return mFlagRunning.load(std::memory_order_relaxed); }
    void setRepeat(bool st) { mFlagRepeat.store(st, std::memory_order_relaxed); }
    bool isRepeat() const { return mFlagRepeat.load(std::memory_order_relaxed); }
    void setReStart(bool st) { mFlagRestart.store(st, std::memory_order_relaxed); }
    bool isReStart() const { return mFlagRestart.load(std::memory_order_relaxed); }
    // Takes effect at the next (re-)arming. A repeating timer needs a
    // positive interval.
    void setInternal(int sec, int msec) {
        mRepeatSec.store(sec, std::memory_order_relaxed);
        mRepeatMSec.store(msec, std::memory_order_relaxed);
    }
    void setHandler(TimerHandler handler, void* pptr) {
        mHandler = handler;
        mPptr = pptr;
    }
    int repeatSec() { return mRepeatSec.load(std::memory_order_relaxed); }
    int repeatMSec() { return mRepeatMSec.load(std::memory_order_relaxed); }

    ATimer(const ATimer&) = delete;
    ATimer& operator=(const ATimer&) = delete;

private:
    friend class KelTimer;
    friend class NodeTimer;
    // Runs the handler if the timer is running. Loop thread, timer mutex held.
    void exec();

    TimerHandler mHandler;
    void* mPptr;
    // The flags and the interval are written by any thread and read by the
    // loop's. Memory ordering: relaxed; the timer list's mutex orders what
    // matters (the node on the list), these only need to be free of tearing.
    std::atomic<bool> mFlagRunning;
    std::atomic<bool> mFlagRepeat;
    std::atomic<bool> mFlagRestart;
    std::atomic<int> mRepeatSec;
    std::atomic<int> mRepeatMSec;
};

#endif
