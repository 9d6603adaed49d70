#include "kel_mutex.h"

#include "common_log.h"

KelMutex::KelMutex() {
    // Not recursive. Adaptive: a contended lock spins briefly before it
    // sleeps, since every critical section behind a KelMutex is a few
    // dozen instructions and a sleep and wake-up costs far more.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    KEL_ASSERT(pthread_mutex_init(&mMutex, &attr) == 0);
    pthread_mutexattr_destroy(&attr);
}

KelMutex::~KelMutex() { pthread_mutex_destroy(&mMutex); }

void KelMutex::lock() { pthread_mutex_lock(&mMutex); }

void KelMutex::unlock() { pthread_mutex_unlock(&mMutex); }
