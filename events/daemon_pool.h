// The thread pool behind DaemonThread, as the framework's own code and its
// tests see it; not installed.
#ifndef KEL_EVENTS_DAEMON_POOL_H
#define KEL_EVENTS_DAEMON_POOL_H

// Pool figures for tests, diagnostics and the statistics (kel_stats.h).
// Any thread; takes the pool lock, so all are exact as of one moment during
// the call. All zero once the pool is torn down at exit.
struct KelPoolCounts {
    int used;   // records bound to a task or on their way back: busy threads
    int free;   // idle records
    int alive;  // operating-system threads of the pool that exist
    int peak;   // most records used at once since the process started
    int made;   // records made since the process started (none is retired)
};
KelPoolCounts kel_pool_counts();
// Makes the pool if it does not exist yet. Called before anything that must
// be destroyed ahead of the pool at exit is built (the work queues).
void kel_pool_init();

#endif
