// KelPool and KelQueue.
#include <stddef.h>

#include "common_log.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"

namespace {

// A block while it is free: its first word links the free list and overlays
// the QEvt header of an event block. Its size is the grain of every pool.
struct QFreeBlock {
    QFreeBlock* m_next;
};

}  // namespace

// ---------------------------------------------------------------- KelPool

KelPool::KelPool()
    : m_start(nullptr),
      m_end(nullptr),
      m_free_head(nullptr),
      m_blockSize(0),
      m_nTot(0),
      m_nFree(0),
      m_nLow(0),
      m_nRefused(0) {}

void KelPool::init(void* poolSto, uint_fast32_t poolSize, uint_fast16_t blockSize) {
    KEL_ASSERT(poolSto != nullptr);
    KEL_ASSERT(poolSize >= sizeof(QFreeBlock));
    KEL_ASSERT(static_cast<uint_fast16_t>(blockSize + sizeof(QFreeBlock)) > blockSize);

    m_free_head = poolSto;

    // Round the block size up to whole free-list units.
    m_blockSize = sizeof(QFreeBlock);
    uint_fast16_t nblocks = 1;
    while (m_blockSize < blockSize) {
        m_blockSize += sizeof(QFreeBlock);
        ++nblocks;
    }
    blockSize = static_cast<uint_fast16_t>(m_blockSize);

    KEL_ASSERT(poolSize >= blockSize);

    // Chain the blocks in ascending address order; a remainder smaller than
    // one block is left unused.
    QFreeBlock* fb = static_cast<QFreeBlock*>(poolSto);
    poolSize -= blockSize;
    m_nTot = 1;
    while (poolSize >= blockSize) {
        fb->m_next = &fb[nblocks];
        fb = fb->m_next;
        poolSize -= blockSize;
        ++m_nTot;
    }
    fb->m_next = nullptr;
    m_nFree.store(m_nTot, std::memory_order_relaxed);
    m_nLow.store(m_nTot, std::memory_order_relaxed);
    m_start = poolSto;
    m_end = fb;

    KEL_ASSERT(Kel::Kel_maxPool_ <= 2);
    Kel::Kel_pool_[Kel::Kel_maxPool_] = this;
    ++Kel::Kel_maxPool_;
}

void* KelPool::get(uint_fast16_t margin) {
    QMPoolCtr nFree = m_nFree.load(std::memory_order_relaxed);
    if (nFree > margin) {
        QFreeBlock* fb = static_cast<QFreeBlock*>(m_free_head);
        KEL_ASSERT(fb != nullptr);
        m_free_head = fb->m_next;
        m_nFree.store(nFree - 1, std::memory_order_relaxed);
        if (nFree - 1 < m_nLow.load(std::memory_order_relaxed))
            m_nLow.store(nFree - 1, std::memory_order_relaxed);
        return fb;
    }
    noteRefused();
    KEL_LOG(LOG_WARN, "Free Block is empty.");
    KEL_LOG(LOG_WARN, "m_blockSize: %d, m_nTot: %d, m_nFree: %d", static_cast<int>(m_blockSize),
            static_cast<int>(m_nTot), static_cast<int>(nFree));
    return nullptr;
}

void KelPool::put(void* b) {
    QMPoolCtr nFree = m_nFree.load(std::memory_order_relaxed);
    KEL_ASSERT(nFree < m_nTot);
    KEL_ASSERT(m_start <= b);
    KEL_ASSERT(b <= m_end);
    static_cast<QFreeBlock*>(b)->m_next = static_cast<QFreeBlock*>(m_free_head);
    m_free_head = b;
    m_nFree.store(nFree + 1, std::memory_order_relaxed);
}

void KelPool::showArgs() {
    KEL_LOG(LOG_WARN, "m_blockSize: %d, m_nTot: %d, m_nFree: %d", static_cast<int>(m_blockSize),
            static_cast<int>(m_nTot), static_cast<int>(m_nFree.load(std::memory_order_relaxed)));
}

// --------------------------------------------------------------- KelQueue

KelQueue::KelQueue()
    : m_frontEvt(nullptr),
      m_ring(nullptr),
      m_end(0),
      m_head(0),
      m_tail(0),
      m_nFree(0),
      m_nLow(0),
      m_closedIn(0) {}

void KelQueue::init(const QEvt** qSto, uint_fast16_t qLen) {
    m_frontEvt.store(nullptr, std::memory_order_relaxed);
    m_ring = qSto;
    m_end = qLen;
    if (qLen != 0) {
        m_head.store(0, std::memory_order_relaxed);
        m_tail.store(0, std::memory_order_relaxed);
    }
    m_nFree.store(qLen + 1, std::memory_order_relaxed);
    m_nLow.store(qLen + 1, std::memory_order_relaxed);
}

bool KelQueue::post(const QEvt* e, uint_fast16_t margin) {
    KEL_ASSERT(e != nullptr);
    // A queue without room refuses without taking the lock, so that a
    // poster retrying against a full queue does not hold up the taker.
    if (m_nFree.load(std::memory_order_relaxed) > margin) {
        Autolock lock(&mMtx);
        if (closedLocked()) return false;
        QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed);
        if (nFree > margin) {
            postLocked(e, nFree);
            return true;
        }
    }
    KEL_LOG(LOG_WARN, "event not posted");
    return false;
}

void KelQueue::close() {
    Autolock lock(&mMtx);
    m_closedIn = Kel::generation();
}

bool KelQueue::closedLocked() {
    if (m_closedIn == 0 || m_closedIn != Kel::generation()) return false;
    KEL_LOG(LOG_WARN, "event not posted, the loop has ended");
    return true;
}

void KelQueue::postLocked(const QEvt* e, QEQueueCtr nFree) {
    QEvt* ev = const_cast<QEvt*>(e);
    if (ev->poolId_ != 0) ++ev->refCtr_;
    setFreeLower(nFree - 1);
    if (m_frontEvt.load(std::memory_order_relaxed) == nullptr) {
        m_frontEvt.store(e, std::memory_order_release);
    } else {
        QEQueueCtr head = m_head.load(std::memory_order_relaxed);
        m_ring[head] = e;
        if (head == 0) head = m_end;
        m_head.store(head - 1, std::memory_order_relaxed);
    }
}

void KelQueue::putFront(const QEvt* e) {
    QEvt* ev = const_cast<QEvt*>(e);
    if (ev->poolId_ != 0) ++ev->refCtr_;
    const QEvt* front = m_frontEvt.load(std::memory_order_relaxed);
    setFreeLower(m_nFree.load(std::memory_order_relaxed) - 1);
    if (front != nullptr) {
        QEQueueCtr tail = m_tail.load(std::memory_order_relaxed) + 1;
        if (tail == m_end) tail = 0;
        m_tail.store(tail, std::memory_order_relaxed);
        m_ring[tail] = front;
    }
    m_frontEvt.store(e, std::memory_order_release);
}

void KelQueue::setFreeLower(QEQueueCtr nFree) {
    m_nFree.store(nFree, std::memory_order_relaxed);
    if (nFree < m_nLow.load(std::memory_order_relaxed)) m_nLow.store(nFree, std::memory_order_relaxed);
}

QEQueueCtr KelQueue::applicationEntries() {
    const QEvt* front = m_frontEvt.load(std::memory_order_relaxed);
    if (front == nullptr) return 0;
    QEQueueCtr n = front->sig > SIG_INNER_PROC ? 1 : 0;
    QEQueueCtr entries = m_end - m_nFree.load(std::memory_order_relaxed);
    QEQueueCtr tail = m_tail.load(std::memory_order_relaxed);
    for (QEQueueCtr k = 0; k < entries; ++k) {
        if (m_ring[(tail + m_end - k) % m_end]->sig > SIG_INNER_PROC) ++n;
    }
    return n;
}

const QEvt* KelQueue::dropNewestApplicationEvent() {
    QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed);
    QEQueueCtr entries = m_end - nFree;  // in the ring, behind the front slot
    QEQueueCtr tail = m_tail.load(std::memory_order_relaxed);
    // Ring position of the k-th entry behind the front slot, oldest first.
    auto at = [&](QEQueueCtr k) { return (tail + m_end - k) % m_end; };
    for (QEQueueCtr k = entries; k-- > 0;) {
        const QEvt* victim = m_ring[at(k)];
        if (victim->sig <= SIG_INNER_PROC) continue;
        // The newer entries close the gap; the newest position is free again.
        for (QEQueueCtr j = k; j + 1 < entries; ++j) m_ring[at(j)] = m_ring[at(j + 1)];
        m_head.store(at(entries - 1), std::memory_order_relaxed);
        m_nFree.store(nFree + 1, std::memory_order_relaxed);
        return victim;
    }
    // Only the front event is left to give way, if it may.
    const QEvt* front = m_frontEvt.load(std::memory_order_relaxed);
    return front != nullptr && front->sig > SIG_INNER_PROC ? takeFront() : nullptr;
}

bool KelQueue::postLIFO(const QEvt* e) {
    const QEvt* one[1] = {e};
    return postLIFO(one, 1);
}

bool KelQueue::postLIFO(const QEvt** evts, uint_fast16_t n) {
    for (uint_fast16_t i = 0; i < n; ++i) KEL_ASSERT(evts[i] != nullptr);
    {
        Autolock lock(&mMtx);
        if (closedLocked()) return false;
        QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed);
        // The loop's own commands never give way: without enough
        // application events to make room, the whole post is refused.
        if (nFree < n && applicationEntries() < n - nFree) {
            KEL_LOG(LOG_WARN, "event not posted");
            return false;
        }
        // Newest of the batch first, each at the very front, so evts[0] ends
        // up next. Application events queued before the batch are all newer
        // than it, so the search from the newest end never reaches the batch.
        // A placed event's slot in `evts` keeps the entry that gave way.
        for (uint_fast16_t i = n; i-- > 0;) {
            const QEvt* victim = nullptr;
            if (m_nFree.load(std::memory_order_relaxed) == 0) {
                victim = dropNewestApplicationEvent();
                KEL_ASSERT(victim != nullptr);  // counted above
            }
            putFront(evts[i]);
            evts[i] = victim;
        }
    }
    // The queue's references of the dropped events end outside mMtx: the
    // queue lock and the event mutex are never held together.
    for (uint_fast16_t i = 0; i < n; ++i) {
        const QEvt* victim = evts[i];
        if (victim == nullptr) continue;
        KEL_LOG(LOG_WARN, "queue full, event %d dropped for a LIFO post", static_cast<int>(victim->sig));
        if (victim->poolId_ != 0) Kel::gc(victim);
    }
    return true;
}

const QEvt* KelQueue::get() {
    Autolock lock(&mMtx);
    return takeFront();
}

const QEvt* KelQueue::takeFront() {
    const QEvt* e = m_frontEvt.load(std::memory_order_relaxed);
    if (e == nullptr) return nullptr;
    QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed) + 1;
    m_nFree.store(nFree, std::memory_order_relaxed);
    if (nFree <= m_end) {
        QEQueueCtr tail = m_tail.load(std::memory_order_relaxed);
        m_frontEvt.store(m_ring[tail], std::memory_order_release);
        if (tail == 0) tail = m_end;
        m_tail.store(tail - 1, std::memory_order_relaxed);
    } else {
        m_frontEvt.store(nullptr, std::memory_order_relaxed);
        KEL_ASSERT(m_end + 1 == nFree);
    }
    return e;
}

void KelQueue::showArgs() {
    KEL_LOG(LOG_DEBUG, "m_end: %d, m_head: %d, m_tail: %d, m_nFree: %d", static_cast<int>(m_end),
            static_cast<int>(m_head.load(std::memory_order_relaxed)),
            static_cast<int>(m_tail.load(std::memory_order_relaxed)),
            static_cast<int>(m_nFree.load(std::memory_order_relaxed)));
}
