// The threads of the test process, as /proc/self/task lists them. Threads of
// a user-mode emulator (named "qemu-...", present when the suite runs under
// emulation) are left out, so counts mean the same on the host and the target.
#ifndef KEL_TESTS_SUPPORT_THREADS_H
#define KEL_TESTS_SUPPORT_THREADS_H

#include <string>
#include <vector>

struct ThreadEntry {
    std::string tid;
    std::string name;
};

// The main thread first.
std::vector<ThreadEntry> processThreads();
int threadCount();
int threadsNamed(const std::string& name);

// A thread that has been joined may still be listed for a moment while the
// kernel finishes it (long enough to see under an emulator): counts are
// compared once they have settled. True when the count is `n` within
// `seconds`.
bool threadCountSettlesAt(int n, double seconds = 10);

// Thread count before a test starts threads of its own. One short-lived
// thread runs first, so that helper threads a sanitizer starts with the
// first pthread_create are already counted (and that one is gone).
int baselineThreadCount();

// Death tests re-run the test binary in the child ("threadsafe"), as the
// process has threads; an emulator cannot exec that binary, so there the
// child forks without exec ("fast").
#ifdef KEL_TEST_UNDER_EMULATOR
#define KEL_DEATH_TEST_STYLE "fast"
#else
#define KEL_DEATH_TEST_STYLE "threadsafe"
#endif

#endif
