#include "kel_thread.h"

#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>

#include "common_log.h"

namespace {

// Numbers the threads in their default names.
// Memory ordering: relaxed; only uniqueness of the number matters.
std::atomic<unsigned> _g_thread_seq{0};

}  // namespace

SimpleThread::SimpleThread() : mThread(), mRunning(false), mJoin(false) {
    pthread_mutex_init(&mMutex, nullptr);
}

SimpleThread::~SimpleThread() {
    if (mRunning.load(std::memory_order_acquire)) {
        KEL_LOG(LOG_WARN, "Thread %lx went out of scope while running!", static_cast<unsigned long>(mThread));
    }
    // A thread that has just ended may still be inside its last unlock:
    // taking the mutex once waits for that, so it is destroyed unused.
    pthread_mutex_lock(&mMutex);
    pthread_mutex_unlock(&mMutex);
    pthread_mutex_destroy(&mMutex);
}

void SimpleThread::startup() {}

void SimpleThread::cleanup() {}

void* SimpleThread::callback(void* arg) {
    SimpleThread* self = static_cast<SimpleThread*>(arg);
    char name[16];
    snprintf(name, sizeof name, "kel-thr-%u",
             _g_thread_seq.fetch_add(1, std::memory_order_relaxed) % 10000000u);
    prctl(PR_SET_NAME, name, 0, 0, 0);

    // startup() and cleanup() frame run() on the thread itself, so a subclass
    // can set up and release per-thread resources there.
    self->startup();
    self->run();
    self->cleanup();

    pthread_mutex_lock(&self->mMutex);
    bool detach = !self->mJoin;
    // The thread's last use of the object but the unlock below, which the
    // destructor waits for: a caller that sees isRunning() false may delete.
    self->mRunning.store(false, std::memory_order_release);
    pthread_mutex_unlock(&self->mMutex);
    if (detach) pthread_detach(pthread_self());
    pthread_exit(nullptr);
}

bool SimpleThread::start() {
    // The result is taken under the lock: a thread that ends at once still
    // counts as started, so true always means "a thread was created or runs".
    bool started;
    pthread_mutex_lock(&mMutex);
    if (!mRunning.load(std::memory_order_relaxed)) {
        int ret = pthread_create(&mThread, nullptr, callback, this);
        if (ret != 0) KEL_LOG(LOG_WARN, "pthread_create failed, %d, %s", ret, strerror(ret));
        mJoin = false;
        mRunning.store(ret == 0, std::memory_order_relaxed);
        started = (ret == 0);
    } else {
        started = true;
    }
    pthread_mutex_unlock(&mMutex);
    return started;
}

bool SimpleThread::join() {
    int ret = 0;
    pthread_mutex_lock(&mMutex);
    if (mRunning.load(std::memory_order_relaxed)) {
        // With mJoin set the thread no longer detaches itself, so it is
        // joined exactly once here even if it ends before pthread_join.
        mJoin = true;
        pthread_mutex_unlock(&mMutex);
        ret = pthread_join(mThread, nullptr);
        pthread_mutex_lock(&mMutex);
        if (ret == 0) mRunning.store(false, std::memory_order_release);
    }
    pthread_mutex_unlock(&mMutex);
    return ret == 0;
}

bool SimpleThread::isRunning() const { return mRunning.load(std::memory_order_acquire); }

unsigned long SimpleThread::id() { return static_cast<unsigned long>(mThread); }

unsigned long SimpleThread::selfId() { return static_cast<unsigned long>(pthread_self()); }

void SimpleThread::yield() { sched_yield(); }

bool SimpleThread::setPriority(int priority) {
    sched_param param;
    memset(&param, 0, sizeof param);
    param.sched_priority = priority;
    return pthread_setschedparam(mThread, SCHED_FIFO, &param) == 0;
}

bool SimpleThread::setName(const char* name) {
    if (name != nullptr) prctl(PR_SET_NAME, name, 0, 0, 0);
    return true;
}

void SimpleThread::cancel() { pthread_cancel(mThread); }
