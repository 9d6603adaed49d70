// The main loop's signal handling (kel_signal.cpp); not installed.
#ifndef KEL_EVENTS_KEL_SIGNAL_H
#define KEL_EVENTS_KEL_SIGNAL_H

// Starts the signal thread "kel-signal" of this process (once per process)
// and installs the handler for SIGTERM, SIGPIPE and the signals asked for
// with kel_signal_enable. Called by KelLoop::init_all.
void kel_signal_install();

// Adds the KEL_SIGNAL_* signals of `mask` (kel_loop.h) to those that the
// handler takes; unknown bits are ignored. Once kel_signal_install has run
// it installs them at once. Any thread.
void kel_signal_enable(unsigned mask);

// Waits until no signal branch is using the loop. The loop's destructor
// clears `_loop` first, so no branch starts using it afterwards.
void kel_signal_wait_branches();

#endif
