// KelQueue: the bounded event queue of the main loop: a front slot plus a
// ring of `qLen` entries, so it holds qLen + 1 events. Delivery order: the
// front slot, then the ring from `m_tail` downward.
//
// Thread rules: any thread may post; one thread (the loop's) takes events out
// with `get`. `post`, `postLIFO` and `get` serialise on `mMtx`, which is never
// held together with the event mutex and never around application code.
// `isEmpty` reads without the lock.
//
// Ownership: the queue owns neither its ring storage nor the events in it.
// Posting counts one reference on a pool event; `get` hands that reference to
// the taker, who ends it with Kel::gc.
#ifndef KEL_EVENTS_KEL_QUEUE_H
#define KEL_EVENTS_KEL_QUEUE_H

#include <atomic>

#include "event_def.h"
#include "kel_export.h"
#include "kel_mutex.h"

class KEL_API KelQueue {
public:
    KelQueue();

    // Attaches the ring of `qLen` entries. Call once, before any post.
    void init(const QEvt** qSto, uint_fast16_t qLen);

    // First in, first out. True when stored; false (LOG_WARN "event not
    // posted") when no more than `margin` entries are free: then neither the
    // queue nor the event's count changes and the event stays with its caller.
    bool post(const QEvt* e, uint_fast16_t margin);

    // Puts `e` ahead of everything queued. It never refuses: on a full queue
    // the entry posted last gives way (see the source) and its reference is
    // released, so that `e` is still delivered next.
    void postLIFO(const QEvt* e);

    // The front event, or null when empty. Does not wait.
    const QEvt* get();

    QEQueueCtr getNFree() const { return m_nFree.load(std::memory_order_relaxed); }
    // Memory ordering: acquire, so that a taker that sees an event here also
    // sees what the poster wrote into it before posting.
    bool isEmpty() const { return m_frontEvt.load(std::memory_order_acquire) == nullptr; }
    void showArgs();

    KelQueue(const KelQueue&) = delete;
    KelQueue& operator=(const KelQueue&) = delete;

private:
    // Caller holds `mMtx`, and `nFree` (the free count) is above the margin.
    void postLocked(const QEvt* e, QEQueueCtr nFree);
    // Caller holds `mMtx`. Stores `e` ahead of everything; returns the entry
    // that gave way on a full queue, or null.
    const QEvt* putFront(const QEvt* e);

    // All fields are written under `mMtx`; the atomics let `isEmpty` and
    // `showArgs` read them without it.
    std::atomic<const QEvt*> m_frontEvt;
    const QEvt** m_ring;
    QEQueueCtr m_end;
    std::atomic<QEQueueCtr> m_head;
    std::atomic<QEQueueCtr> m_tail;
    std::atomic<QEQueueCtr> m_nFree;
    KelMutex mMtx;
};

#endif
