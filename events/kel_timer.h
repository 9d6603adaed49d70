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
// every handler; so none of them may be called from a handler.
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

    // Puts a node on the list with a deadline from the clock now.
    void addTimer(NodeTimer* timer);
    // Takes the first node of `tim->proc` off the list and releases it.
    void removeOldTimer(NodeTimer* tim);
    // Takes the first node of `proc` off the list and releases it; the
    // timer is not running afterwards.
    void cancelTimer(ATimer* proc);
    // Recomputes the deadline of every node of `tim->proc` in place.
    void resetTimer(NodeTimer* tim);
    // Fires the nodes that are due, latest deadline first. Loop thread only.
    void processTimer();
    // False when a running timer is overdue; otherwise true with the absolute
    // deadline to sleep until in `val` (far future when nothing runs).
    // Loop thread only.
    bool getTimeout(timespec* val);
    void showArgs();

    // Blocks of the timer's own pool, for diagnosis and tests.
    KelPool* nodePool() { return &pool; }

    KelTimer(const KelTimer&) = delete;
    KelTimer& operator=(const KelTimer&) = delete;

private:
    // Caller holds `mutex`.
    void _addTimer(NodeTimer* timer);
    // Caller holds `mutex`. Unlinks and releases the first node of `proc`.
    bool removeFirstOf(ATimer* proc);

    NodeTimer root;
    timespec stone;
    KelPool pool;
    NodeTimer* time_pool;
    pthread_mutex_t mutex;
    // Nodes on the list. Written under `mutex`; read without it by
    // getTimeout, so that a loop with no timer armed takes no lock and reads
    // no clock. Memory ordering: release/acquire; an arming thread wakes the
    // loop afterwards, and the loop reads its wake-up count before this.
    std::atomic<int> mArmed;
};

#endif
