// KelLoop: the one event loop of a process.
//
// It owns the event queue (128 entries), the general and state event pools
// (`msgs` blocks each) and the timer list. One thread runs it with `execLoop`
// (or repeated `getMessage`): each turn serves due timers first, then takes
// one event, then sleeps in a timed wait until the next deadline or post.
// With watched descriptors (`watchFd`) a turn serves due timers, then the
// ready descriptors, then one event, and sleeps in epoll_wait.
// A loop woken by a poster on its own CPU yields that CPU once before it
// sleeps again, so that the poster runs on and its events are taken in one
// stretch; only the first post after the loop has gone to sleep wakes it.
// An application derives from it and overrides the virtual operations.
//
// Thread rules:
// - The loop's thread runs every timer handler, every virtual operation
//   (but `occurSysError` from the error branch of the signal handling) and
//   the state machine's handling of queued events.
// - Any thread may call `newEvt`, `post`, `postLIFO`, `postCmd`, `exitLoop`,
//   `wakeupCore` and `showAll`.
// - No lock is held while the virtual operations run; timer handlers run
//   with the timer list's mutex held (see app_timer.h).
//
// Lifetime: one KelLoop per process, for the life of the process (a second
// one asserts, even after the first is gone). Build it after
// KelLoop::init_all; build the state machine and the timers after it and
// destroy them before it. After `execLoop` has returned 0 the event mutex is
// gone: events may still be released and timers stopped (on a spare lock),
// and every post is refused (false, one log line) since no loop will take
// it, until Kel::init starts the framework again. Stop producers before the
// loop ends (in `poweroff`, or before `exitLoop`). The destructor waits for
// a signal branch that is still posting to the loop (a few instructions).
#ifndef KEL_EVENTS_KEL_LOOP_H
#define KEL_EVENTS_KEL_LOOP_H

#include <pthread.h>
#include <time.h>

#include <atomic>

#include "event_def.h"
#include "kel_export.h"
#include "kel_fd.h"

// Signals that KelLoop::enableSignals adds to SIGTERM and SIGPIPE.
enum KelSignalMask : unsigned {
    KEL_SIGNAL_INT = 0x1,   // SIGINT: `interrupt()` on the loop's thread, then the loop stops
    KEL_SIGNAL_HUP = 0x2,   // SIGHUP: logged "Application[%d] signal:1 tigger", otherwise ignored
    KEL_SIGNAL_USR1 = 0x4,  // SIGUSR1: `broadcast(sender's pid, sigqueue value)` ahead of the queue
    KEL_SIGNAL_USR2 = 0x8,  // SIGUSR2: the same as SIGUSR1
};

class KelQueue;
class KelPool;
class KelTimer;
class StateMache;
class StateList;
class KelWatch;

class KEL_API KelLoop {
public:
    // Builds the loop; `msgs` is the number of blocks of each event pool.
    explicit KelLoop(unsigned int msgs);
    virtual ~KelLoop();

    // Loop thread, for SIG_SYSTEM_POWEROFF, before the loop stops.
    virtual void poweroff() {}
    // Loop thread, for SIG_SYS_SIGNAL_INT, before the loop stops.
    virtual void interrupt() {}
    // Loop thread, for SIG_SYS_ERROR_OCCUR, before the loop stops; also from
    // the signal handling's error branch, just before the process exits.
    virtual void occurSysError() {}
    // Loop thread, for SIG_SYS_USER_SIGNAL; false stops the loop.
    virtual bool broadcast(int, int) { return true; }
    // Loop thread, by `execLoop`, for every signal above SIG_INNER_PROC.
    virtual void procSubMsg(const QEvt*) {}

    // Starts the framework in a process: signal handling (unless bit
    // 0x1000000), the logging library (unless bit 0x2000000), Kel::init.
    // Call once, before the first use of events. Only those two switch bits
    // of `def_level` count: its low bits are ignored and set no log level
    // (use KEL_LOG_LEVEL or kellog::kel_log_set_level, msg_logger.h).
    // 0x1000000 leaves SIGTERM and SIGPIPE at their default actions;
    // 0x2000000 is for a process that starts the logging library itself.
    // The signal handling runs
    // its branches on a thread "kel-signal", ended and joined at process
    // exit. Where that thread is missing (a forked child that did not call
    // init_all, or its creation failed) the handler does only what is safe
    // in signal context: it logs; the error and exit branches, and in a
    // forked child every branch that would post, end the process with
    // _exit(1) (no occurSysError, no exit handlers); otherwise the request is
    // dropped with the line "Application[%d] signal:%d dropped, no signal thread".
    static void init_all(unsigned int def_level, const char* name, const char* confpath);
    // Has the signal handling take the KEL_SIGNAL_* signals of `mask` too,
    // through the same signal-safe path; by default it takes SIGTERM and
    // SIGPIPE only. Call before init_all, which installs them with the
    // others; after init_all has installed its handling, they are installed
    // at once. Bits add up and cannot be taken back; unknown bits are
    // ignored. With bit 0x1000000 of `def_level` nothing is installed.
    // While no KelLoop exists, SIGINT, SIGUSR1 and SIGUSR2 end the process
    // with exit(1), as SIGTERM does. Any thread.
    static void enableSignals(unsigned mask);
    // Kel::init's counterpart, for applications that drive `getMessage` or
    // got -1 from `execLoop`. Harmless after `execLoop` returned 0.
    static void uninit_all();

    // Next pseudo-random number. Any thread, no lock.
    static unsigned long rand();
    // Kel::newX_(sig, size): null when no block is free; payload not set.
    static QEvt* newEvt(int sig, int size);

    // First in, first out at margin 0, then wakes the loop. False when the
    // queue is full or the loop has ended (the event then stays with the
    // caller), with one log line.
    bool post(const QEvt* e);
    // Ahead of everything queued, then wakes the loop. On a full queue the
    // newest application event gives way (released, with a log line); the
    // loop's own commands never do, so with none of those queued, and after
    // the loop has ended, it is refused like `post` (false, the event stays
    // with the caller).
    bool postLIFO(const QEvt* e);
    // Allocates a general event with signal `cmd` and posts it. When the
    // post is refused the block goes back to its pool and the result is false.
    bool postCmd(int cmd);
    // Wakes the loop without an event, so that it reads its deadline again.
    void wakeupCore();
    void showAll();
    // Asserts that no state machine is registered yet.
    void setStateMacheHandler(StateMache* state);
    // Posts SIG_EVENT_LOOP_EXIT.
    void exitLoop();

    // File descriptors watched by the loop. `fn(fd, ready, arg)` runs on the
    // loop's thread, with no lock held, whenever `fd` is ready for what
    // `interest` names (KEL_FD_IN, KEL_FD_OUT; errors and hang-ups always
    // come): level-triggered, so a handler that leaves data unread is called
    // again on the next turn, and one that gets KEL_FD_ERR or KEL_FD_HUP
    // should unwatch. Any thread, also handlers. Each returns false with one
    // log line for a bad descriptor (or null `fn`), a second registration, or
    // an unknown one. Once `unwatchFd` has returned on another thread the
    // handler is not running and will not start (do not call it there while
    // holding something the handler waits for); from the handler it takes
    // effect at once, even for a readiness already collected in the same
    // wait. Closing a watched descriptor: the registration stays until
    // removed; epoll forgets the closed description, so the handler is just
    // not called again, but the number stays taken. Unwatch before close,
    // and before a new descriptor with the same number is watched.
    // Registration may allocate; the turns after it do not. While a
    // descriptor is watched the loop sleeps in epoll_wait, with deadlines
    // rounded up to the next millisecond; with none it sleeps as without.
    bool watchFd(int fd, unsigned interest, KelFdHandler fn, void* arg);
    bool modifyFd(int fd, unsigned interest);
    bool unwatchFd(int fd);
    // Runs the loop on the calling thread: 0 on a normal stop (after
    // Kel::uninit; later posts are refused), -1 when the timed wait failed.
    int execLoop();
    // True when the caller is the loop's thread (not that the loop runs).
    bool isLooping();

    // Replays the held-back events of the state machine ahead of the queue,
    // oldest first, in one step (see KelQueue::postLIFO). A SIG_STATE_DELAY_EVENT
    // that reaches a loop without a machine is logged and released.
    void procStateEvent(StateList* st);

    // Pools and queue, for diagnosis and tests.
    KelQueue* eventQueue() { return queue; }
    KelPool* generalPool() { return pool_gen; }
    KelPool* statePool() { return pool_state; }
    KelTimer* timerList() { return timer; }

    KelLoop(KelLoop&) = delete;
    KelLoop& operator=(KelLoop&) = delete;

protected:
    // Runs the loop until an application event arrives: true with it in
    // `evt` (the caller owns its reference: end it with `recycleEvent`);
    // false with null when the loop stopped or the wait failed.
    bool getMessage(const QEvt*& evt);
    void recycleEvent(const QEvt* evt);
    void initThreadPrivate();

private:
    enum Turn { kNextTurn, kGotEvent, kWaitFailed };
    // One turn up to the taking of an event: due timers, then the queue,
    // then the timed wait. Loop thread only.
    Turn waitEvent(const QEvt*& evt);
    // The same turn's wait while descriptors are watched. Loop thread only.
    Turn waitWatched(const QEvt*& evt, uint32_t seen, const timespec& deadline);
    // The loop's own signals (8 and below). Returns whether the loop goes on.
    bool dispatchInner(const QEvt* evt);

    KelQueue* queue;
    KelPool* pool_gen;
    KelPool* pool_state;
    KelTimer* timer;
    GeneralQEvt* gen_pool;
    StateQEvt* state_pool;
    StateMache* state_mache;
    KelWatch* watch;  // owned; the table locks itself
    // Written by the loop's thread on entry, read by posters.
    // Memory ordering: relaxed; a poster only compares it with its own id,
    // and any value it may read (0 or the loop's id) differs from its own.
    std::atomic<unsigned long> thread_id;
    const QEvt* evt_queue[128];
};

extern "C++" {
extern KEL_API KelLoop* _loop;
extern KEL_API KelTimer* _timer;
}

#endif
