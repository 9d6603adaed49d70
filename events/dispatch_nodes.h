// The records of the dispatch queues and the node store they live in; not
// installed.
//
// Pending callbacks, timer entries and loop events each live in one
// fixed-size node of a process-wide store shared by every queue (only the
// item of Queue::run lies on the waiting caller's stack). A node is made
// (one heap allocation) only when a take finds no free node, one at a time;
// a node given back is at once free for every queue; nothing goes back to
// the heap. So the store holds the process's peak of pending work, and once
// that peak has been reached no queue operation touches the heap. The free
// list is a stack: the node given back last, still warm in the cache of the
// thread that gave it, is the next one taken.
//
// Locks: the store's mutex is a leaf lock. Callers may hold a queue's mutex,
// never the other way round. Its critical sections are a few pointer moves.
#ifndef KEL_EVENTS_DISPATCH_NODES_H
#define KEL_EVENTS_DISPATCH_NODES_H

#include <stdint.h>

#include "dispatch_process.h"

namespace dispatch {

// One pending callback. Records have no default constructors: every record
// is built from its callback.
struct DispatchItem {
    DispatchItem(Object::Callback1 f, Object* data, bool async, bool merge, bool compe = false)
        : asynchronous(async),
          mergeable(merge),
          completed(compe),
          delobject(false),
          fn(f),
          fn_data(data),
          next(nullptr) {}

    bool asynchronous;  // the queue owns the item and recycles it as the call starts
    bool mergeable;     // an equal pending mergeable item makes this one superfluous
    bool completed;     // the call of a run() item has returned (or was cancelled)
    bool delobject;     // fn_data is deleted after the call
    Object::Callback1 fn;
    Object* fn_data;
    DispatchItem* next;
};

// One pending timer entry; the timer list runs through `next`, sorted by
// deadline.
struct ItemTimer : public DispatchItem {
    ItemTimer(Object::Callback1 f, Object* data, bool, bool)
        : DispatchItem(f, data, true, false, false), that(nullptr), tiggerTime(0) {}

    Timer* that;
    int64_t tiggerTime;  // deadline, microseconds on CLOCK_MONOTONIC
};

inline ItemTimer* nextTimer(const ItemTimer* t) { return static_cast<ItemTimer*>(t->next); }

// One posted loop event.
struct LoopEvtItem {
    Loop::Evt evt;
    LoopEvtItem* next;
};

namespace nodes {

// Makes the store if it does not exist yet, also when several threads ask
// at once. Every queue calls it on construction; the store lives to the end
// of the process.
void init();
// A free node, sized and aligned for every record above, made if there is
// none. Any thread. If the heap fails, std::bad_alloc leaves the store as
// it was.
void* take();
// Gives back a node from take(), exactly once. Any thread.
void recycle(void* node);
// Logs "node pools: used=%d, counts=%d": the nodes holding records and the
// nodes made, read together as one snapshot.
void profile();

// The same two figures, for the statistics (kel_stats.h). A node is made
// only when every node made is in use, so `made` is also the most nodes in
// use at once since the process started. Any thread; takes the store's
// mutex, so both are exact as of one moment during the call. Zero before
// the first queue.
struct Counts {
    int used;
    int made;
};
Counts counts();

}  // namespace nodes

}  // namespace dispatch

#endif
