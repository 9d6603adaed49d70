#include "kel_mutex.h"

#include "common_log.h"

KelMutex::KelMutex() { KEL_ASSERT(pthread_mutex_init(&mMutex, nullptr) == 0); }

KelMutex::~KelMutex() { pthread_mutex_destroy(&mMutex); }

void KelMutex::lock() { pthread_mutex_lock(&mMutex); }

void KelMutex::unlock() { pthread_mutex_unlock(&mMutex); }
