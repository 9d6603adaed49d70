// Helpers for tests that build a KelLoop: a hang guard, checks that the event
// pools are full again and that no thread outlives its test, state events,
// and the framework's signal handler for further signals.
//
// A process has one loop for its life, so every test case that builds one
// runs in a process of its own (ctest runs each case separately).
#ifndef KEL_TESTS_SUPPORT_LOOP_HARNESS_H
#define KEL_TESTS_SUPPORT_LOOP_HARNESS_H

#include <signal.h>

#include <string>
#include <vector>

#include "event_def.h"

class KelLoop;

// Ends the process with status 2 and a message when the test has not
// finished after `seconds`, so that a hang fails instead of blocking CI.
// Uses SIGALRM; no thread.
class Watchdog {
public:
    explicit Watchdog(unsigned seconds = 60);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
};

// gtest expectations: every block of the timer, general and state pools is
// free.
void expectPoolsFull(KelLoop* loop);

// Names of the threads of this process besides the main thread and the
// framework's "kel-signal" thread (and a sanitizer's own helper thread).
std::vector<std::string> strayThreads();

// Number of threads of this process with this name.
int threadsNamed(const std::string& name);

// Linux thread id of the calling thread.
int currentTid();

// A state event from the pools with the given payload; null when no block
// is free.
StateQEvt* newStateEvt(long stateMsg, long msgId = 0, long wParam = 0, long lParam = 0,
                       void* pHander = nullptr);
// newStateEvt, then post to the loop; false when either step failed (the
// block then went home).
bool postStateEvt(long stateMsg, long msgId = 0);

// The handler that KelLoop::init_all installed for SIGTERM, installed the
// same way for `sig`.
void installKelHandlerFor(int sig);

#endif
