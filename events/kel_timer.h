// The main loop's timer list.
//
// NodeTimer: an event record (base QEvt, signal SIG_TIMER_ADD) that stands
// for one armed ATimer on the list. Nodes come from the event pools and go
// home through Kel::gc.
//
// KelTimer: the one list of armed nodes of the process, a ring sorted by
// deadline (CLOCK_MONOTONIC, whole milliseconds), with its own pool of 20
// nodes that is registered first among the event pools. The KelLoop creates
// and owns it.
//
// Thread rules: `processTimer` and `getTimeout` run on the loop's thread;
// `addTimer`, `removeOldTimer`, `cancelTimer`, `resetTimer` and `showArgs`
// on any thread. All serialise on `mutex`, which `processTimer` holds across
// every handler. From a handler (the firing pass's own thread, which holds
// `mutex` already) they work without taking it; `processTimer` and
// `getTimeout` assert there.
// A timer has at most one node, on the list or held by the firing pass:
// arming removes the timer's old node in the same lock section.
// Nodes armed during a firing pass (the re-arm of a repeating timer, and
// whatever its handler arms) join the list in the order they were armed
// when the pass ends, so they fire at a later pass, never in this one.
// Lock order: `mutex`, then the event mutex (taken by Kel::gc inside).
#ifndef KEL_EVENTS_KEL_TIMER_H
#define KEL_EVENTS_KEL_TIMER_H

#include <pthread.h>
#include <time.h>

#include <atomic>

#include "app_timer.h"
#include "event_def.h"
#include "kel_export.h"
#include "kel_pool.h"

class KEL_API NodeTimer : public QEvt {
public:
    // Links the node to itself and reads the clock into `time`. Runs only for
    // the list's root and its pool storage; pool blocks are not constructed
    // again.
    NodeTimer();

    // Deadline: now (truncated to the millisecond) plus the interval of `proc`.
    void resetTimer();
    // Links `item` directly before this node (on the root: at the tail).
    void addFirst(NodeTimer* item);
    // Unlinks this node and links it to itself.
    void del();
    // Nodes of the ring, not counting this one.
    int length();
    void setProc(ATimer* value) { proc = value; }
    // Links `item` directly after this node.
    void add(NodeTimer* item);
    // True when the node is linked to nothing but itself.
    bool isEmpty();

    ATimer* proc;
    timespec time;
    NodeTimer* next;
    NodeTimer* prev;

    NodeTimer(const NodeTimer&) = delete;
    NodeTimer& operator=(const NodeTimer&) = delete;
};

static_assert(sizeof(NodeTimer) == sizeof(StateQEvt),
              "timer nodes and state events share the largest pool blocks");

class KEL_API KelTimer {
public:
    enum { kPoolNodes = 20 };

    KelTimer();
    // Destroys the mutex and the node storage; fires and releases nothing.
    ~KelTimer();

    // Puts a node on the list with a deadline from the clock now, in place
    // of any node that its timer had.
    void addTimer(NodeTimer* timer);
    // Takes the first node of `tim->proc` off the list and releases it.
    void removeOldTimer(NodeTimer* tim);
    // Takes the first node of `proc` off the list and releases it; the
    // timer is not running afterwards.
    void cancelTimer(ATimer* proc);
    // Recomputes the deadline of every node of `tim->proc` in place.
    void resetTimer(NodeTimer* tim);
    // Fires the nodes that are due, latest deadline first. Loop thread only.
    // A handler that throws: its node goes home, its timer is left idle (if
    // the handler did not arm it anew), `mutex` is released and the
    // exception leaves here.
    void processTimer();
    // False when a running timer is overdue; otherwise true with the absolute
    // deadline to sleep until in `val` (far future when nothing runs).
    // Loop thread only.
    bool getTimeout(timespec* val);
    void showArgs();

    // Blocks of the timer's own pool, for diagnosis, tests and the
    // statistics (kel_stats.h). They serve events too, first of all pools.
    KelPool* nodePool() { return &pool; }
    // Most nodes on the list at once since the list was made: the timers
    // armed at once (a timer is off the list while its handler runs). Any
    // thread; read from another, it may lag behind an arming in progress.
    int armedPeak() const { return mArmedPeak.load(std::memory_order_relaxed); }

    KelTimer(const KelTimer&) = delete;
    KelTimer& operator=(const KelTimer&) = delete;

private:
    class ListLock;
    class PassScope;

    // True on the thread of a firing pass of this list (in a handler).
    bool firingHere() const;
    // Caller holds `mutex`. Deadline from the clock now, running, then on
    // the list (on `pending` during a firing pass).
    void _addTimer(NodeTimer* timer);
    // Caller holds `mutex`. Sorted insertion, behind equal deadlines.
    void insert(NodeTimer* timer);
    // Caller holds `mutex`. Unlinks the node of `proc` (from the list or
    // `pending`) and releases it, unless it is `keep`. Marks the firing
    // timer's own node as taken over when `proc` is the one firing.
    void takeOff(ATimer* proc, NodeTimer* keep = nullptr);

    NodeTimer root;
    timespec stone;
    KelPool pool;
    NodeTimer* time_pool;
    pthread_mutex_t mutex;
    // Firing pass (loop thread, under `mutex`): nodes armed during it, in
    // arming order; the timer whose handler runs and its node; whether the
    // handler restarted, stopped or destroyed that timer; the next node of
    // the walk, moved on when a handler removes it.
    NodeTimer pending;
    bool mInPass;
    ATimer* mFiring;
    NodeTimer* mHeld;
    bool mFiringTaken;
    NodeTimer* mWalk;
    // Nodes on the list. Written under `mutex`; read without it by
    // getTimeout, so that a loop with no timer armed takes no lock and reads
    // no clock. Memory ordering: release/acquire; an arming thread wakes the
    // loop afterwards, and the loop reads its wake-up count before this.
    std::atomic<int> mArmed;
    // Highest value of `mArmed`. Written under `mutex` as it rises.
    // Memory ordering: relaxed; a reader only needs a value that was true once.
    std::atomic<int> mArmedPeak;
};

#endif
