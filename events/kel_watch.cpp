#include "kel_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "common_log.h"
#include "kel_lock.h"

namespace {

// The epoll data of the eventfd; a descriptor's is its slot and serial.
const uint64_t kWakeTag = ~uint64_t(0);

uint64_t tag(int slot, uint32_t serial) { return (uint64_t(serial) << 32) | uint32_t(slot); }

uint32_t toEpoll(unsigned interest) {
    uint32_t ev = 0;
    if (interest & KEL_FD_IN) ev |= EPOLLIN | EPOLLRDHUP;
    if (interest & KEL_FD_OUT) ev |= EPOLLOUT;
    return ev;
}

unsigned toReady(uint32_t ev) {
    unsigned r = 0;
    if (ev & EPOLLIN) r |= KEL_FD_IN;
    if (ev & EPOLLOUT) r |= KEL_FD_OUT;
    if (ev & EPOLLERR) r |= KEL_FD_ERR;
    if (ev & (EPOLLHUP | EPOLLRDHUP)) r |= KEL_FD_HUP;
    return r;
}

}  // namespace

KelWatch::KelWatch() {
    pthread_mutex_init(&mMutex, nullptr);
    pthread_cond_init(&mDone, nullptr);
}

KelWatch::~KelWatch() {
    if (mEpfd.load(std::memory_order_acquire) >= 0) close(mEpfd.load(std::memory_order_acquire));
    if (mEvfd.load(std::memory_order_acquire) >= 0) close(mEvfd.load(std::memory_order_acquire));
    pthread_cond_destroy(&mDone);
    pthread_mutex_destroy(&mMutex);
}

// Caller holds `mMutex`.
int KelWatch::find(int fd) const {
    for (size_t i = 0; i < mSlots.size(); ++i)
        if (mSlots[i].used && mSlots[i].fd == fd) return static_cast<int>(i);
    return -1;
}

int KelWatch::findWatched(int fd, const char* op) const {
    int slot = find(fd);
    if (slot < 0) KEL_LOG(LOG_WARN, "%s: descriptor %d is not watched", op, fd);
    return slot;
}

// Caller holds `mMutex`. Opens the epoll instance with the eventfd in it.
bool KelWatch::open() {
    if (mEpfd.load(std::memory_order_relaxed) >= 0) return true;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    int ev = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = kWakeTag;
    if (ep < 0 || ev < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, ev, &e) != 0) {
        KEL_LOG(LOG_ERROR, "watchFd: no epoll instance: %s", strerror(errno));
        if (ep >= 0) close(ep);
        if (ev >= 0) close(ev);
        return false;
    }
    mEvfd.store(ev, std::memory_order_release);
    mEpfd.store(ep, std::memory_order_release);
    return true;
}

bool KelWatch::add(int fd, unsigned interest, KelFdHandler fn, void* arg) {
    if (fd < 0 || fn == nullptr || fcntl(fd, F_GETFD) < 0) {
        KEL_LOG(LOG_WARN, "watchFd: bad descriptor %d or no handler", fd);
        return false;
    }
    PthreadAutolock lock(&mMutex);
    if (find(fd) >= 0) {
        KEL_LOG(LOG_WARN, "watchFd: descriptor %d is watched already", fd);
        return false;
    }
    if (!open()) return false;
    int slot = 0;
    while (slot < static_cast<int>(mSlots.size()) && mSlots[slot].used) ++slot;
    if (slot == static_cast<int>(mSlots.size())) mSlots.push_back(Slot());
    Slot& s = mSlots[slot];
    s = Slot{fd, interest, ++mSerial, false, fn, arg};
    epoll_event e{};
    e.events = toEpoll(interest);
    e.data.u64 = tag(slot, s.serial);
    if (epoll_ctl(mEpfd.load(std::memory_order_relaxed), EPOLL_CTL_ADD, fd, &e) != 0) {
        KEL_LOG(LOG_WARN, "watchFd: descriptor %d refused: %s", fd, strerror(errno));
        return false;
    }
    s.used = true;
    mActive.fetch_add(1, std::memory_order_release);
    return true;
}

bool KelWatch::modify(int fd, unsigned interest) {
    PthreadAutolock lock(&mMutex);
    int slot = findWatched(fd, "modifyFd");
    if (slot < 0) return false;
    Slot& s = mSlots[slot];
    s.interest = interest;
    epoll_event e{};
    e.events = toEpoll(interest);
    e.data.u64 = tag(slot, s.serial);
    // A closed descriptor has left epoll already; its registration changes
    // all the same.
    epoll_ctl(mEpfd.load(std::memory_order_relaxed), EPOLL_CTL_MOD, fd, &e);
    return true;
}

bool KelWatch::remove(int fd, void** arg) {
    PthreadAutolock lock(&mMutex);
    int slot = findWatched(fd, "unwatchFd");
    if (slot < 0) return false;
    Slot& s = mSlots[slot];
    s.used = false;
    if (arg != nullptr) *arg = s.arg;
    epoll_ctl(mEpfd.load(std::memory_order_relaxed), EPOLL_CTL_DEL, fd, nullptr);
    mActive.fetch_sub(1, std::memory_order_release);
    // The collector removing the descriptor whose handler runs is that
    // handler: it must not wait for itself.
    const uint32_t serial = s.serial;
    if (mRunning == slot && mRunningSerial == serial && !pthread_equal(mCollector, pthread_self())) {
        ++mRemovers;
        while (mRunning == slot && mRunningSerial == serial) pthread_cond_wait(&mDone, &mMutex);
        --mRemovers;
    }
    return true;
}

void KelWatch::drop(void (*release)(void* arg)) {
    PthreadAutolock lock(&mMutex);
    for (Slot& s : mSlots) {
        if (!s.used) continue;
        s.used = false;
        release(s.arg);
    }
    mActive.store(0, std::memory_order_release);
}

void KelWatch::kick() {
    int fd = mEvfd.load(std::memory_order_acquire);
    uint64_t one = 1;
    if (fd >= 0 && write(fd, &one, sizeof one) < 0) {
        // Only a full counter refuses, and then a wake-up is pending anyway.
    }
}

int KelWatch::collect(int timeoutMs) {
    mNext = mCount = 0;
    int n = epoll_wait(mEpfd.load(std::memory_order_acquire), mReady, kBatch, timeoutMs);
    if (n < 0) return errno == EINTR ? 0 : -1;
    for (int i = 0; i < n; ++i) {
        if (mReady[i].data.u64 == kWakeTag) {
            uint64_t v;
            if (read(mEvfd.load(std::memory_order_relaxed), &v, sizeof v) < 0) {
                // Drained by an earlier read: nothing to do.
            }
            continue;
        }
        mReady[mCount++] = mReady[i];
    }
    return n;
}

// Called with `mMutex` released: marks the running handler finished.
void KelWatch::finish() {
    PthreadAutolock lock(&mMutex);
    mRunning = -1;
    if (mRemovers != 0) pthread_cond_broadcast(&mDone);
}

bool KelWatch::deliverOne() {
    while (mNext < mCount) {
        const epoll_event& e = mReady[mNext++];
        const int slot = static_cast<int>(e.data.u64 & 0xffffffffu);
        const uint32_t serial = static_cast<uint32_t>(e.data.u64 >> 32);
        KelFdHandler fn;
        void* arg;
        int fd;
        unsigned ready;
        {
            PthreadAutolock lock(&mMutex);
            if (slot >= static_cast<int>(mSlots.size())) continue;
            const Slot& s = mSlots[slot];
            // Removed (or removed and the slot reused) since it was collected.
            if (!s.used || s.serial != serial) continue;
            // An interest changed since then counts as it is now.
            ready = toReady(e.events) & (s.interest | KEL_FD_ERR | KEL_FD_HUP);
            if (ready == 0) continue;
            fn = s.fn;
            arg = s.arg;
            fd = s.fd;
            mRunning = slot;
            mRunningSerial = serial;
            mCollector = pthread_self();
        }
        struct Finish {
            KelWatch* w;
            ~Finish() { w->finish(); }
        } finish{this};
        fn(fd, ready, arg);
        return true;
    }
    return false;
}
