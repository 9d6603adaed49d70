// Figures to size the pools by: how close each fixed store came to running
// out, and how far the stores that grow on demand have grown. Usable from C.
//
// What is counted, since the store was made (the event pools and queue with
// the KelLoop, the dispatch nodes and pooled threads with the process):
// - per event pool: its blocks, the free ones now, the lowest free count
//   seen (0: it ran empty at least once), and the requests it refused: a
//   request its blocks could hold that found it empty. A refusal by the
//   timer or the general pool passes the request on to the next pool that
//   is large enough; a refusal by the state pool, the last one, is an
//   allocation that returned null ("not free blocks").
// - the event queue: its entries (128 + 1) and the lowest free count seen
//   (0: it was full, and posts may have been refused).
// - the timer list: the most timers armed at once. Each holds a block of the
//   timer pool or, once that is empty, of the state pool.
// - the dispatch node store: nodes in use now and nodes made. A node is made
//   only when all made ones are in use, so nodes made is also the most in
//   use at once; nodes are never freed.
// - the thread pool behind DaemonThread and the work queues: threads busy
//   now (bound to a task or finishing one), the most busy at once, and the
//   threads made; none is retired.
//
// Freshness: the counts are kept where the store writes its own counters
// anyway, under the lock it already holds, so counting costs the hot paths
// no lock. The snapshot reads the event pools, the queue and the timer list
// without their locks, each figure as it stands at the moment it is read;
// the dispatch node and thread figures are read under their stores' locks.
// So each figure was true at some moment during the call, but not all at
// the same moment. While other threads allocate, a snapshot can only lag:
// a low shown is at least the true low, a peak or a refusal count at most
// the true one. Taken while the producers are quiet (for example on the
// loop's thread after the loop has ended), the figures are exact.
//
// Thread rules: any thread, also from a timer handler, a state handler, a
// work or a dispatch callback. The event figures need the KelLoop: call
// these while it lives (its figures are 0 before it is built and after it
// is destroyed). Not from a signal handler: they take locks and log.
#ifndef KEL_EVENTS_KEL_STATS_H
#define KEL_EVENTS_KEL_STATS_H

#include "kel_export.h"

#ifdef __cplusplus
extern "C" {
#endif

struct KelPoolStats {
    unsigned blocks;    // blocks of the pool
    unsigned free_now;  // free blocks now
    unsigned low;       // lowest free count seen
    unsigned refused;   // requests that its blocks could hold and found it empty
};

struct KelStats {
    struct KelPoolStats timer_pool;    // the timer list's 20 blocks, tried first
    struct KelPoolStats general_pool;  // `msgs` blocks of a GeneralQEvt
    struct KelPoolStats state_pool;    // `msgs` blocks of a StateQEvt, tried last
    unsigned queue_entries;            // events the queue holds at most
    unsigned queue_low;                // lowest free count seen
    unsigned timers_peak;              // most timers armed at once
    unsigned nodes_used;               // dispatch nodes in use now
    unsigned nodes_made;               // dispatch nodes made: the most in use at once
    unsigned threads_busy;             // pooled threads busy now
    unsigned threads_peak;             // most pooled threads busy at once
    unsigned threads_made;             // pooled threads made
};

// The figures now.
KEL_API struct KelStats kel_stats_snapshot(void);
// Writes the figures of one snapshot as one LOG_INFO line, for example
// "stats: pools blocks/free/low/refused: timer 20/20/0/5, general 8/8/0/3,
// state 8/8/2/0; queue entries/low: 129/126; timers peak: 3; dispatch
// nodes used/made: 0/3; threads busy/peak/made: 0/2/2".
KEL_API void kel_stats_log(void);

#ifdef __cplusplus
}
#endif

#endif
