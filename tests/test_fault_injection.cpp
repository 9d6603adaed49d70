// Exhausted resources at every point that reports them: event pools run dry,
// the queue full, the heap failing under the dispatch node store. Each case
// checks the log line, that nothing leaks, and that the caller's retry works.
// The binary's allocation functions and pthread_create fail on demand.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "app_timer.h"
#include "dispatch_process.h"
#include "kel_dispatch.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "kel_state.h"
#include "kel_thread.h"
#include "state_mache.h"
#include "support/log_capture.h"
#include "support/loop_helpers.h"
#include "support/node_counts.h"

// ------------------------------------------------------------ failing heap

namespace {
std::atomic<bool> gFailNext{false};

void* allocOrThrow(size_t n) {
    if (gFailNext.exchange(false)) throw std::bad_alloc();
    void* p = malloc(n == 0 ? 1 : n);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
}  // namespace

void* operator new(size_t n) { return allocOrThrow(n); }
void* operator new[](size_t n) { return allocOrThrow(n); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }

// --------------------------------------------------- failing thread creation

namespace {
std::atomic<bool> gFailThreads{false};
}  // namespace

extern "C" int pthread_create(pthread_t* th, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    typedef int (*Create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (gFailThreads.load()) return EAGAIN;
    return real(th, attr, fn, arg);
}

namespace {

enum { SIG_APP = SIG_INNER_PROC + 1 };

class Loop : public KelLoop {
public:
    explicit Loop(unsigned msgs = 8) : KelLoop(msgs) {}
    void procSubMsg(const QEvt* e) override {
        seen.push_back(static_cast<const GeneralQEvt*>(e)->lParam);
        dispatched.fetch_add(1);
    }
    bool broadcast(int pid, int value) override {
        if (pid == getpid()) lastSignal.store(value);
        return true;
    }
    void poweroff() override { poweredOff.store(true); }
    std::vector<long> seen;
    std::atomic<int> dispatched{0};
    std::atomic<int> lastSignal{-1};
    std::atomic<bool> poweredOff{false};
};

// Takes every block that can hold a general event.
std::vector<QEvt*> takeAllBlocks() {
    std::vector<QEvt*> hog;
    LogCapture quiet;
    while (QEvt* e = KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt))) hog.push_back(e);
    return hog;
}

void giveBack(std::vector<QEvt*>& hog) {
    for (QEvt* e : hog) Kel::gc(e);
    hog.clear();
}

bool postApp(KelLoop* loop, long n) {
    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt)));
    if (e == nullptr) return false;
    e->lParam = n;
    if (loop->post(e)) return true;
    Kel::gc(e);
    return false;
}

struct MainLoopFaults : ::testing::Test {
    void SetUp() override {
        armWatchdog(60);
        startFramework();
    }
};

void noop(ATimer*, void*) {}

class RecState : public KelState {
public:
    int translate(const StateQEvt* e) override {
        msgs.push_back(e->stateMsg);
        return state::STATE_RETURN_NORMAL;
    }
    std::vector<long> msgs;
};

class Mache : public StateMache {
public:
    Mache() : StateMache(1, 0) { registStates(rec, "only", 0); }
    bool test_event(int) override { return true; }
    RecState* rec = new RecState;  // the machine's
};

void holdBack(Mache& m, long msg) {
    StateQEvt e;
    e.sig = SIG_STATE_DELAY_EVENT;
    e.stateMsg = msg;
    m.postEvent(&e);
}

}  // namespace

// With no block anywhere: newEvt, postCmd, exitLoop, ATimer::restart and
// the replay of held-back events each refuse with their log line, touch no
// pool and send no wake-up; the machine starts all the same, and with one
// block back each caller's retry works.
TEST_F(MainLoopFaults, ExhaustedPoolsRefuseEveryAllocationAndRecover) {
    Loop loop;
    const PoolCounts full = totalBlocks(&loop);
    Mache mache;
    for (long m : {5, 7, 9}) holdBack(mache, m);
    std::vector<QEvt*> hog = takeAllBlocks();
    ASSERT_EQ(freeBlocks(&loop), (PoolCounts{0, 0, 0}));
    ATimer timer;
    timer.setHandler(noop, nullptr);
    {
        LogCapture cap;
        uint32_t wakeups = Kel::wakeups();
        EXPECT_EQ(KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt)), nullptr);
        EXPECT_EQ(KelLoop::newEvt(SIG_APP, sizeof(StateQEvt)), nullptr);
        EXPECT_FALSE(loop.postCmd(SIG_APP));
        loop.exitLoop();
        timer.restart(10);
        mache.initialize();
        EXPECT_EQ(cap.count("not free blocks", LOG_ERROR), 8);
        EXPECT_EQ(cap.count("Timer Run failled, eventLoop node is full", LOG_ERROR), 1);
        EXPECT_EQ(Kel::wakeups(), wakeups) << "a refused allocation sends no wake-up";
        EXPECT_FALSE(timer.isRunning());
        EXPECT_TRUE(mache.isInitialized());
        EXPECT_EQ(mache.heldBack(), 0);
        EXPECT_TRUE(loop.eventQueue()->isEmpty());
        EXPECT_EQ(freeBlocks(&loop), (PoolCounts{0, 0, 0}));
    }
    Kel::gc(hog.back());
    hog.pop_back();
    timer.restart(0);
    EXPECT_TRUE(timer.isRunning());
    timer.stop();
    ASSERT_TRUE(postApp(&loop, 1));
    giveBack(hog);
    StateQEvt* e = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
    ASSERT_NE(e, nullptr);
    e->stateMsg = 11;
    ASSERT_TRUE(loop.post(e));
    loop.exitLoop();
    LoopRunner runner(&loop);
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(loop.seen, std::vector<long>{1});
    EXPECT_EQ(mache.rec->msgs, std::vector<long>{11});
    EXPECT_EQ(freeBlocks(&loop), full);
}

// A full queue: post and postCmd refuse with "event not posted" and still
// wake the loop; the refused event stays with its caller (count 0), the
// refused command's block goes home, exitLoop is lost. A replay of held-back
// events goes first all the same, the newest events giving way with their
// line. The rest arrives in order, and the caller's retry then works.
TEST_F(MainLoopFaults, FullQueueRefusesPostsAndKeepsWhatItHolds) {
    Loop loop(200);
    const PoolCounts full = totalBlocks(&loop);
    Mache mache;
    for (long m : {5, 7, 9}) holdBack(mache, m);
    long n = 0;
    while (loop.eventQueue()->getNFree() != 0) ASSERT_TRUE(postApp(&loop, n++));
    ASSERT_EQ(n, 129);
    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_APP, sizeof(GeneralQEvt)));
    ASSERT_NE(e, nullptr);
    e->lParam = 200;
    const PoolCounts before = freeBlocks(&loop);
    {
        LogCapture cap;
        uint32_t wakeups = Kel::wakeups();
        EXPECT_FALSE(loop.post(e));
        EXPECT_EQ(e->refCtr_, 0) << "a refused event keeps its count";
        EXPECT_FALSE(loop.postCmd(SIG_APP));
        loop.exitLoop();
        EXPECT_EQ(cap.count("event not posted", LOG_WARN), 3);
        EXPECT_EQ(Kel::wakeups(), wakeups + 3) << "a refused post wakes the loop all the same";
        EXPECT_EQ(freeBlocks(&loop), before) << "the refused commands' blocks went home";
        mache.initialize();
        EXPECT_EQ(cap.count("queue full, event 9 dropped for a LIFO post", LOG_WARN), 3);
    }
    LoopRunner runner(&loop);
    ASSERT_TRUE(waitUntil([&] { return loop.dispatched.load() == 126; }));
    ASSERT_TRUE(loop.post(e)) << "the caller's retry";
    loop.exitLoop();
    EXPECT_EQ(runner.join(), 0);
    EXPECT_EQ(mache.rec->msgs, (std::vector<long>{5, 7, 9}));
    ASSERT_EQ(loop.seen.size(), 127u);
    for (long i = 0; i < 126; ++i) EXPECT_EQ(loop.seen[i], i);
    EXPECT_EQ(loop.seen.back(), 200);
    EXPECT_EQ(freeBlocks(&loop), full);
}

// ------------------------------------------------------------------ signals

// The user and terminate branches with no block: the user signal is lost
// (only the allocation logs), SIGTERM logs "post cmd state, ret: 0" and the
// process goes on. With blocks back, both arrive.
TEST_F(MainLoopFaults, SignalsWithoutBlocksAreLostAndTheNextOnesArrive) {
    KelLoop::init_all(0, "kel-test", nullptr);
    struct sigaction act;
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &act), 0);
    ASSERT_EQ(sigaction(SIGUSR1, &act, nullptr), 0);
    Loop loop;
    const PoolCounts full = totalBlocks(&loop);
    LoopRunner runner(&loop);
    std::vector<QEvt*> hog = takeAllBlocks();
    {
        LogCapture cap;
        union sigval v;
        v.sival_int = 1;
        ASSERT_EQ(sigqueue(getpid(), SIGUSR1, v), 0);
        ASSERT_TRUE(waitUntil([&] { return cap.count("not free blocks", LOG_ERROR) == 1; }));
        ASSERT_EQ(kill(getpid(), SIGTERM), 0);
        ASSERT_TRUE(waitUntil([&] { return cap.contains("post cmd state, ret: 0", LOG_DEBUG); }));
        EXPECT_EQ(cap.count("not free blocks", LOG_ERROR), 2);
    }
    EXPECT_EQ(loop.lastSignal.load(), -1);
    EXPECT_FALSE(loop.poweredOff.load());
    giveBack(hog);

    union sigval v;
    v.sival_int = 2;
    ASSERT_EQ(sigqueue(getpid(), SIGUSR1, v), 0);
    ASSERT_TRUE(waitUntil([&] { return loop.lastSignal.load() == 2; }));
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);
    EXPECT_EQ(runner.join(), 0);
    EXPECT_TRUE(loop.poweredOff.load());
    EXPECT_EQ(freeBlocks(&loop), full);
}

// ------------------------------------------------------ dispatch node store

namespace {

using dispatch::FUNC;
using dispatch::Object;
using dispatch::Queue;

struct Tracker : public Object {
    explicit Tracker(std::vector<int>* log, int tag = 0) : log(log), tag(tag) {}
    ~Tracker() override {
        if (deleted) *deleted = true;
    }
    void call() { log->push_back(tag); }
    std::vector<int>* log;
    int tag;
    bool* deleted = nullptr;
};

class EvtLoop : public dispatch::Loop {
public:
    void procSubMsg(const Evt& e) override { log.push_back(e.sig); }
    std::vector<int> log;
};

}  // namespace

// Every way of queuing that must grow the node store, failing in the
// store's allocation: bad_alloc reaches the caller, the queue's mutex is
// free, the counters and pending work are unchanged, the target of a failed
// enqueueAutofree is still the caller's, and the next call succeeds.
TEST(DispatchFaults, HeapFailureWhileQueuingLeavesTheQueueUsable) {
    armWatchdog(60);
    Queue q;
    EvtLoop loop;
    loop.setQueue(&q);
    std::vector<int> log;
    Tracker a(&log, 1), b(&log, 2);
    dispatch::Loop::Evt ev(7);
    bool deleted = false;
    Tracker* owned = new Tracker(&log, 3);
    owned->deleted = &deleted;

    std::vector<std::pair<const char*, std::function<void()>>> ways = {
        {"enqueue", [&] { q.enqueue(FUNC(&Tracker::call), &a); }},
        {"enqueueNotify", [&] { q.enqueueNotify(FUNC(&Tracker::call), &b); }},
        {"enqueueAutofree", [&] { q.enqueueAutofree(FUNC(&Tracker::call), owned); }},
        {"Loop::post", [&] { loop.post(ev); }},
    };
    ASSERT_EQ(dispatchNodesUsed(q), 0);
    for (size_t i = 0; i < ways.size(); ++i) {
        SCOPED_TRACE(ways[i].first);
        int made = 0;
        int used = dispatchNodesUsed(q, &made);
        ASSERT_EQ(used, made) << "the store must be empty so that the call grows it";
        gFailNext = true;
        EXPECT_THROW(ways[i].second(), std::bad_alloc);
        EXPECT_EQ(dispatchNodesUsed(q), used);
        EXPECT_EQ(q.getNeedWait(), INT64_MAX) << "the queue's mutex is free";
        ways[i].second();  // the retry
        EXPECT_EQ(dispatchNodesUsed(q), used + 1);
    }
    EXPECT_FALSE(deleted) << "a failed enqueueAutofree leaves the target with its caller";
    // exit comes after everything queued, and pending events are delivered
    // before exec returns.
    std::thread t([&] { loop.exec(); });
    loop.exit();
    t.join();
    EXPECT_EQ(log, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(deleted);
    EXPECT_EQ(loop.log, std::vector<int>{7});
    EXPECT_EQ(dispatchNodesUsed(q), 0);
}

// ------------------------------------------------------- thread services

// No thread can be made: SimpleThread::start() fails with its line and may
// be retried; work queued meanwhile stays queued (and its queue is kept,
// after two attempts), while a fresh queue works once threads can be made.
TEST(ThreadFaults, FailedThreadCreationIsLoggedAndRetriesWork) {
    armWatchdog(60);
    const char* line = "pthread_create failed, 11, Resource temporarily unavailable";
    struct Once : SimpleThread {
        void run() override { ran.fetch_add(1); }
        std::atomic<int> ran{0};
    } t;
    std::atomic<int> ran{0};
    auto count = [](void* p) { static_cast<std::atomic<int>*>(p)->fetch_add(1); };
    DispathQueue* stuck = kel_dispatch_queue_create();
    {
        LogCapture cap;
        gFailThreads = true;
        EXPECT_FALSE(t.start());
        EXPECT_EQ(cap.count(line, LOG_WARN), 1);
        kel_dispatch_async_t(stuck, count, &ran);
        gFailThreads = false;
        EXPECT_EQ(cap.count(line, LOG_WARN), 3);
    }
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(t.join()) << "nothing to join";
    ASSERT_TRUE(t.start());
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.ran.load(), 1);
#ifdef __SANITIZE_ADDRESS__
    __lsan_ignore_object(stuck);  // a queue left without a thread is never freed
#endif
    kel_dispatch_queue_destory(stuck);
    DispathQueue* q = kel_dispatch_queue_create();
    for (int i = 0; i < 3; ++i) kel_dispatch_async_t(q, count, &ran);
    kel_dispatch_queue_destory(q);
    EXPECT_TRUE(waitUntil([&] { return ran.load() == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(ran.load(), 3) << "the work of the queue without a thread ran";
}
