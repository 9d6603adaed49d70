// KelPool: a pool of fixed-size blocks over storage handed in by its owner.
//
// A pool registers itself in Kel::Kel_pool_ when it is initialised and stays
// registered for the life of the process; at most three pools can ever be
// registered (the loop's timer, general and state pools). Blocks are sized in
// whole units of one free-list link.
//
// Thread rules: a pool has no lock of its own. `init` runs before any other
// thread uses events; `get` and `put` are called by Kel::newX_ and Kel::gc
// with the event mutex held. `showArgs`, `empty` and the counters may be
// called anywhere (the counters are read as they stand).
//
// Sizing figures, counted since `init` where the counts are written anyway
// (under the event mutex): the lowest free count seen, and the refusals.
// Read from another thread they are approximate only in that blocks may be
// taken meanwhile: the true low is at most, and the true refusals at least,
// what was read, since the one only falls and the other only rises.
#ifndef KEL_EVENTS_KEL_POOL_H
#define KEL_EVENTS_KEL_POOL_H

#include <stdint.h>

#include <atomic>

#include "event_def.h"
#include "kel_export.h"

class KEL_API KelPool {
public:
    KelPool();

    // Cuts `poolSto` into blocks of at least `blockSize` bytes and registers
    // the pool. Asserts on a null storage, storage smaller than one block,
    // an overflowing block size, and a fourth pool in the process.
    void init(void* poolSto, uint_fast32_t poolSize, uint_fast16_t blockSize);

    // A block while more than `margin` are free; null (with two LOG_WARN
    // lines) otherwise. Caller holds the event mutex.
    void* get(uint_fast16_t margin);

    // Gives a block back. Asserts on an address outside the pool and when all
    // blocks are free already. Caller holds the event mutex.
    void put(void* b);

    QMPoolSize getBlockSize() const { return m_blockSize; }
    bool empty() const { return m_nFree.load(std::memory_order_relaxed) == 0; }
    void showArgs();

    // A request that its blocks could hold found the pool empty (Kel::newX_
    // then tries the next pool). Caller holds the event mutex.
    void noteRefused() {
        m_nRefused.store(m_nRefused.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    // Counters for diagnosis, tests and the statistics (kel_stats.h).
    QMPoolCtr getNTot() const { return m_nTot; }
    QMPoolCtr getNFree() const { return m_nFree.load(std::memory_order_relaxed); }
    // Lowest free count seen: 0 means the pool ran empty at least once.
    QMPoolCtr getNLow() const { return m_nLow.load(std::memory_order_relaxed); }
    // Requests refused: by `get` at its margin, or passed over while empty.
    uint32_t getNRefused() const { return m_nRefused.load(std::memory_order_relaxed); }
    void* getStart() const { return m_start; }
    void* getEnd() const { return m_end; }

    KelPool(const KelPool&) = delete;
    KelPool& operator=(const KelPool&) = delete;

private:
    void* m_start;      // first block
    void* m_end;        // start of the last block
    void* m_free_head;  // head of the free list; null when none is free
    QMPoolSize m_blockSize;
    QMPoolCtr m_nTot;
    // Written under the event mutex; read without it by `empty`/`showArgs`
    // and the statistics.
    // Memory ordering: relaxed; a reader only needs a value that was true once.
    std::atomic<QMPoolCtr> m_nFree;
    std::atomic<QMPoolCtr> m_nLow;
    std::atomic<uint32_t> m_nRefused;
};

#endif
