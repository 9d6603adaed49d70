// The thread pool behind DaemonThread, as the framework's own code and its
// tests see it; not installed.
#ifndef KEL_EVENTS_DAEMON_POOL_H
#define KEL_EVENTS_DAEMON_POOL_H

// Pool figures for tests and diagnostics. Any thread; takes the pool lock.
struct KelPoolCounts {
    int used;   // records bound to a task or on their way back
    int free;   // idle records
    int alive;  // operating-system threads of the pool that exist
};
KelPoolCounts kel_pool_counts();
// Makes the pool if it does not exist yet. Called before anything that must
// be destroyed ahead of the pool at exit is built (the work queues).
void kel_pool_init();

#endif
