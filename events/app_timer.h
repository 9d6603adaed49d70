// ATimer: a timer of the main loop, owned by the application.
//
// While armed, one NodeTimer from the event pools stands for it on the loop's
// timer list (kel_timer.h). Its handler runs on the loop's thread.
//
// Thread rules: `restart`, `stop` and the destructor may be called from any
// thread, also from inside a timer handler, on any timer (the handler's own
// included). Concurrent calls on one timer leave it with at most one node.
//
// From a handler: the handler's thread holds the timer list's mutex, so the
// calls work on the list without taking it. Whatever a handler arms joins
// the list when the firing pass ends: it fires at a later pass, after its
// delay, never in the pass that armed it. A restart, stop or destruction of
// the handler's own timer decides what becomes of it after the handler
// (repeat and once-more are not applied to that firing). A handler may also
// post events and change the flags and the interval.
//
// Lock held when application code runs: the handler runs with the timer
// list's `mutex` held.
//
// Exceptions: a handler that throws leaves its timer idle (unless it armed
// it anew), its node goes home, and the exception leaves execLoop (or
// KelTimer::processTimer) with the list's mutex released.
//
// Lifetime: make timers after the KelLoop and destroy them before it. Once
// `stop` or the destructor has returned on another thread, the handler has
// finished and does not run again. A timer stopped or destroyed after the
// loop has ended is safe (its node goes home without the event mutex).
//
// Patterns:
//   one-shot        setHandler, restart(ms): fires once, then idle.
//   periodic        setRepeat(true), restart(period): fires every period,
//                   counted from the end of each handler; stop() ends it.
//   once more       in the handler: setReStart(true) fires it again after
//                   the same interval; setInternal(sec, msec) first for
//                   another one.
#ifndef KEL_EVENTS_APP_TIMER_H
#define KEL_EVENTS_APP_TIMER_H

#include <stdint.h>

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
    // Repeat: re-arm after every firing, with the interval, until cleared.
    void setRepeat(bool st) { mFlagRepeat.store(st, std::memory_order_relaxed); }
    bool isRepeat() const { return mFlagRepeat.load(std::memory_order_relaxed); }
    // Once more: re-arm once after the firing in progress (set it from the
    // handler); cleared at that re-arm.
    void setReStart(bool st) { mFlagRestart.store(st, std::memory_order_relaxed); }
    bool isReStart() const { return mFlagRestart.load(std::memory_order_relaxed); }
    // Interval of the next (re-)arming: `sec` seconds plus `msec`
    // milliseconds; restart(ms) sets it to (ms / 1000, ms % 1000). Any
    // thread; a re-arm sees the old pair or the new one, never a mix. A
    // repeating timer needs a positive interval.
    void setInternal(int sec, int msec) { mInterval.store(pack(sec, msec), std::memory_order_relaxed); }
    void setHandler(TimerHandler handler, void* pptr) {
        mHandler = handler;
        mPptr = pptr;
    }
    int repeatSec() const { return static_cast<int32_t>(mInterval.load(std::memory_order_relaxed) >> 32); }
    int repeatMSec() const { return static_cast<int32_t>(mInterval.load(std::memory_order_relaxed)); }

    ATimer(const ATimer&) = delete;
    ATimer& operator=(const ATimer&) = delete;

private:
    friend class KelTimer;
    friend class NodeTimer;
    // Runs the handler if the timer is running. Loop thread, timer mutex held.
    void exec();
    // Both halves of the interval from one read.
    void interval(int* sec, int* msec) const {
        uint64_t v = mInterval.load(std::memory_order_relaxed);
        *sec = static_cast<int32_t>(v >> 32);
        *msec = static_cast<int32_t>(v);
    }
    static uint64_t pack(int sec, int msec) {
        return static_cast<uint64_t>(static_cast<uint32_t>(sec)) << 32 | static_cast<uint32_t>(msec);
    }

    TimerHandler mHandler;
    void* mPptr;
    // The flags and the interval are written by any thread and read by the
    // loop's. Memory ordering: relaxed; the timer list's mutex orders what
    // matters (the node on the list), these only need to be free of tearing.
    // The interval's seconds (high half) and milliseconds (low half) are one
    // value, so that no reader combines halves of two settings.
    std::atomic<bool> mFlagRunning;
    std::atomic<bool> mFlagRepeat;
    std::atomic<bool> mFlagRestart;
    std::atomic<uint64_t> mInterval;
};

#endif
