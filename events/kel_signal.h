// The main loop's signal handling (kel_signal.cpp); not installed.
#ifndef KEL_EVENTS_KEL_SIGNAL_H
#define KEL_EVENTS_KEL_SIGNAL_H

// Starts the signal thread "kel-signal" of this process (once per process)
// and installs the handler for SIGTERM and SIGPIPE. Called by
// KelLoop::init_all.
void kel_signal_install();

// Waits until no signal branch is using the loop. The loop's destructor
// clears `_loop` first, so no branch starts using it afterwards.
void kel_signal_wait_branches();

#endif
