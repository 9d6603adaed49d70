// The timers of a dispatch queue: a list of entries sorted by deadline,
// served by the processing thread between callbacks.
#include <exception>

#include "common_log.h"
#include "dispatch_private.h"

namespace dispatch {

int64_t timeUs() {
    timespec ts;
    KEL_ASSERT(clock_gettime(CLOCK_MONOTONIC, &ts) == 0);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

timespec internal::timespecAfter(const timespec& now, int64_t time_us) {
    int64_t diff_secs = time_us / 1000000;
    int64_t diff_nsecs = (time_us - diff_secs * 1000000) * 1000;
    if (diff_nsecs < 0) {
        diff_secs -= 1;
        diff_nsecs += 1000000000;
    }
    if (now.tv_nsec + diff_nsecs > 999999999) {
        diff_secs += 1;
        diff_nsecs -= 1000000000;
    }
    if (diff_secs > 10000000) diff_secs = 10000000;
    timespec ts = now;
    ts.tv_sec += static_cast<time_t>(diff_secs);
    ts.tv_nsec += static_cast<long>(diff_nsecs);
    return ts;
}

// ---------------------------------------------------------------------------
// The timer list of the body

// Caller holds `mtx`. May throw std::bad_alloc, with nothing changed.
void QueuePrivate::appendTimer(Timer* that) {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* item = getNode<ItemTimer>(that->fn, that->ctx, true, false);
    item->tiggerTime = timeUs() + periodUs(that->mMSec);
    item->that = that;
    _appendTimer(item);
}

// Caller holds `mtx`.
void QueuePrivate::_appendTimer(ItemTimer* item) {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* prev = nullptr;
    ItemTimer* p = timerhead;
    // The entry whose callback runs stays first, whatever the new deadline
    // (a negative delay): procTimer takes it off the head afterwards.
    if (timerProc && p != nullptr) {
        prev = p;
        p = nextTimer(p);
    }
    while (p != nullptr && firesBefore(*p, *item)) {
        prev = p;
        p = nextTimer(p);
    }
    item->next = p;
    if (prev != nullptr) {
        prev->next = item;
    } else {
        timerhead = item;
    }
}

// Caller holds `mtx`. While a timer callback runs, the item at the head
// belongs to procTimer and stays.
void QueuePrivate::removeTimer(Timer* timer) {
    KEL_DEBUG_ASSERT(mutexHeld());
    if (timer->isRunning()) return;
    ItemTimer* prev = nullptr;
    ItemTimer* p = timerhead;
    if (timerProc && p != nullptr) {
        prev = p;
        p = nextTimer(p);
    }
    while (p != nullptr) {
        ItemTimer* next = nextTimer(p);
        if (p->that == timer) {
            if (prev != nullptr) {
                prev->next = next;
            } else {
                timerhead = next;
            }
            recycle(p);
        } else {
            prev = p;
        }
        p = next;
    }
}

// Caller holds `mtx`. While a timer callback runs, the answer is for the
// entries behind the one firing, and that one is never pruned here: only
// procTimer takes it off.
int64_t QueuePrivate::getWait() {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* held = (timerProc && timerhead != nullptr) ? timerhead : nullptr;
    ItemTimer* first = held != nullptr ? nextTimer(held) : timerhead;
    while (first != nullptr && !first->that->isRunning()) {
        ItemTimer* next = nextTimer(first);
        recycle(first);
        first = next;
    }
    if (held != nullptr) {
        held->next = first;
    } else {
        timerhead = first;
    }
    if (first == nullptr) return INT64_MAX;
    return first->tiggerTime - timeUs();
}

// Caller holds `mtx`.
bool QueuePrivate::haveTigger() {
    KEL_DEBUG_ASSERT(mutexHeld());
    return timerhead != nullptr && timerhead->tiggerTime < timeUs();
}

// Caller holds `mtx`; it is released around the callback.
void QueuePrivate::procTimer() {
    KEL_DEBUG_ASSERT(mutexHeld());
    ItemTimer* cur;
    for (;;) {
        cur = timerhead;
        if (cur == nullptr) return;
        if (cur->that->isRunning()) break;
        timerhead = nextTimer(cur);
        recycle(cur);
    }
    if (timeUs() < cur->tiggerTime) return;

    KEL_ASSERT(!timerProc);
    timerProc = true;
    // A callback that throws: its entry goes home, not re-armed, then the
    // exception leaves queueProcess.
    std::exception_ptr thrown;
    {
        OwnedMutex::Unlock unlocked(mtx);
        try {
            (cur->fn_data->*cur->fn)();
        } catch (...) {
            thrown = std::current_exception();
        }
    }
    KEL_ASSERT(timerProc);
    timerProc = false;
    wakeLockers();
    timerhead = nextTimer(cur);

    // `that` is null when the timer was destroyed during its callback.
    Timer* t = cur->that;
    bool rearm = !thrown && t != nullptr && t->isRunning() && t->repeat();
    // A repeating timer restarted from its own callback already has its new
    // entry on the list; that one counts and the running entry goes, so the
    // timer never has two entries pending.
    for (ItemTimer* p = timerhead; rearm && p != nullptr; p = nextTimer(p)) {
        if (p->that == t) rearm = false;
    }
    if (rearm) {
        cur->tiggerTime = timeUs() + periodUs(t->mMSec);
        _appendTimer(cur);
    } else {
        recycle(cur);
    }
    if (thrown) std::rethrow_exception(thrown);
}

// ---------------------------------------------------------------------------
// Timer

Timer::Timer(Queue* q)
    : d(q->d->ref()), mIsRunning(false), mRepeat(false), mMSec(0), fn(nullptr), ctx(nullptr) {}

// Entries left on the list are removed here, so an armed timer may be
// destroyed without stopping it first. If its callback runs (this is that
// callback, or it runs on another thread), the firing entry forgets the
// timer and goes home when the callback returns.
Timer::~Timer() {
    {
        OwnedMutex::Lock guard(d->mtx);
        mIsRunning.store(false, std::memory_order_relaxed);
        d->removeTimer(this);
        if (d->timerProc && d->timerhead != nullptr && d->timerhead->that == this)
            d->timerhead->that = nullptr;
    }
    d->unref();
}

void Timer::setHandler(Object::Callback1 f, Object* c) {
    fn = f;
    ctx = c;
}

// The new entry is made before the timer counts as running again, so a heap
// failure leaves the timer stopped and the queue's mutex released.
void Timer::restart(int msec) {
    KEL_ASSERT(fn != nullptr);
    OwnedMutex::Lock guard(d->mtx);
    mMSec = msec;
    mIsRunning.store(false, std::memory_order_relaxed);
    d->removeTimer(this);
    d->appendTimer(this);
    mIsRunning.store(true, std::memory_order_relaxed);
    d->wakeProcessor();
}

void Timer::stop() {
    OwnedMutex::Lock guard(d->mtx);
    mIsRunning.store(false, std::memory_order_relaxed);
    if (!d->timerProc) d->removeTimer(this);
}

bool Timer::isRunning() const { return mIsRunning.load(std::memory_order_relaxed); }

// The flag alone: true makes a stopped entry still on the list fire again,
// false makes pending entries inert until they are pruned.
void Timer::setIsRunning(bool running) { mIsRunning.store(running, std::memory_order_relaxed); }

bool Timer::repeat() const { return mRepeat.load(std::memory_order_relaxed); }

void Timer::setRepeat(bool rep) { mRepeat.store(rep, std::memory_order_relaxed); }

}  // namespace dispatch
