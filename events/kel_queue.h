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
//
// Sizing figure: the lowest free count since `init` (0: the queue was full at
// least once), kept under `mMtx` where the free count falls. Read from
// another thread it may lag behind posts in progress: the true low is at
// most what was read.
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

    // Puts `e` ahead of everything queued, so that it is taken next. On a
    // full queue the newest application event (signal above SIG_INNER_PROC)
    // gives way: it is logged and its reference released. The loop's own
    // commands never give way: with no application event queued, the post
    // is refused like a full queue's (false, LOG_WARN "event not posted";
    // the event stays with its caller).
    bool postLIFO(const QEvt* e);
    // Puts `evts[0..n)` ahead of everything queued, `evts[0]` first, in one
    // section under `mMtx`: the taker sees all of them or none. Room is made
    // as for one event; when it cannot be made for all, none is posted and
    // the result is false. On true the array's entries are used up (the
    // queue keeps there the entries that gave way while it releases them).
    bool postLIFO(const QEvt** evts, uint_fast16_t n);

    // After the loop has ended: every later post and LIFO post is refused
    // with "event not posted, the loop has ended" (false, the event stays
    // with its caller), until Kel::init starts the framework again.
    void close();

    // The front event, or null when empty. Does not wait.
    const QEvt* get();

    QEQueueCtr getNFree() const { return m_nFree.load(std::memory_order_relaxed); }
    QEQueueCtr getNLow() const { return m_nLow.load(std::memory_order_relaxed); }
    // Events it holds at most: qLen + 1, the free count of the empty queue.
    QEQueueCtr capacity() const { return m_end + 1; }
    // A taker that sees an event here also sees what the poster wrote into
    // it before posting (see m_frontEvt).
    bool isEmpty() const { return m_frontEvt.load(std::memory_order_acquire) == nullptr; }
    void showArgs();

    KelQueue(const KelQueue&) = delete;
    KelQueue& operator=(const KelQueue&) = delete;

private:
    // Caller holds `mMtx`, and `nFree` (the free count) is above the margin.
    void postLocked(const QEvt* e, QEQueueCtr nFree);
    // Caller holds `mMtx`, and there is a free entry. Stores `e` ahead of
    // everything.
    void putFront(const QEvt* e);
    // Caller holds `mMtx`. The free count falls to `nFree`.
    void setFreeLower(QEQueueCtr nFree);
    // Caller holds `mMtx`. Application events queued.
    QEQueueCtr applicationEntries();
    // Caller holds `mMtx`. Takes the newest application event out of the
    // queue, keeping the order of the others; null when there is none.
    const QEvt* dropNewestApplicationEvent();
    // Caller holds `mMtx`. The front event, taken out; null when empty.
    const QEvt* takeFront();
    // Caller holds `mMtx`. True (with its log line) when closed.
    bool closedLocked();

    // All fields are written under `mMtx`; the atomics let `isEmpty`,
    // `showArgs` and the statistics read them without it.
    // Memory ordering: an event is stored here with release, and `isEmpty`
    // loads it with acquire; every other access is relaxed.
    std::atomic<const QEvt*> m_frontEvt;
    const QEvt** m_ring;
    QEQueueCtr m_end;
    std::atomic<QEQueueCtr> m_head;
    std::atomic<QEQueueCtr> m_tail;
    std::atomic<QEQueueCtr> m_nFree;
    std::atomic<QEQueueCtr> m_nLow;
    // Kel::generation() when the loop ended; 0 while open. Under `mMtx`.
    uint32_t m_closedIn;
    KelMutex mMtx;
};

#endif
