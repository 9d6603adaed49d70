#include "kel_stats.h"

#include "common_log.h"
#include "daemon_pool.h"
#include "dispatch_nodes.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_queue.h"
#include "kel_timer.h"

namespace {

KelPoolStats poolStats(const KelPool* p) {
    return KelPoolStats{p->getNTot(), p->getNFree(), p->getNLow(), p->getNRefused()};
}

}  // namespace

KelStats kel_stats_snapshot(void) {
    KelStats s = {};
    // Published with release by the loop's constructor (kel_loop.cpp).
    KelLoop* loop = __atomic_load_n(&_loop, __ATOMIC_ACQUIRE);
    if (loop != nullptr) {
        s.timer_pool = poolStats(loop->timerList()->nodePool());
        s.general_pool = poolStats(loop->generalPool());
        s.state_pool = poolStats(loop->statePool());
        s.queue_entries = static_cast<unsigned>(loop->eventQueue()->capacity());
        s.queue_low = static_cast<unsigned>(loop->eventQueue()->getNLow());
        s.timers_peak = static_cast<unsigned>(loop->timerList()->armedPeak());
    }
    dispatch::nodes::Counts nodes = dispatch::nodes::counts();
    s.nodes_used = static_cast<unsigned>(nodes.used);
    s.nodes_made = static_cast<unsigned>(nodes.made);
    KelPoolCounts threads = kel_pool_counts();
    s.threads_busy = static_cast<unsigned>(threads.used);
    s.threads_peak = static_cast<unsigned>(threads.peak);
    s.threads_made = static_cast<unsigned>(threads.made);
    return s;
}

void kel_stats_log(void) {
    KelStats s = kel_stats_snapshot();
    const KelPoolStats& t = s.timer_pool;
    const KelPoolStats& g = s.general_pool;
    const KelPoolStats& st = s.state_pool;
    KEL_LOG(
        LOG_INFO,
        "stats: pools blocks/free/low/refused: timer %u/%u/%u/%u, general %u/%u/%u/%u, state %u/%u/%u/%u; "
        "queue entries/low: %u/%u; timers peak: %u; dispatch nodes used/made: %u/%u; "
        "threads busy/peak/made: %u/%u/%u",
        t.blocks, t.free_now, t.low, t.refused, g.blocks, g.free_now, g.low, g.refused, st.blocks,
        st.free_now, st.low, st.refused, s.queue_entries, s.queue_low, s.timers_peak, s.nodes_used,
        s.nodes_made, s.threads_busy, s.threads_peak, s.threads_made);
}
