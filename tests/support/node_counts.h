// The dispatch node store's counters, read through its own log line
// ("node pools: used=%d, counts=%d").
#ifndef KEL_TESTS_SUPPORT_NODE_COUNTS_H
#define KEL_TESTS_SUPPORT_NODE_COUNTS_H

#include "dispatch_process.h"

// Nodes in use, process-wide; `made` (if given) receives the nodes made.
int dispatchNodesUsed(dispatch::Queue& q, int* made = nullptr);

#endif
