// SimpleThread: the frame of a pass, restarts, joins, names, cancellation
// and a failure to make the thread.

#include "kel_thread.h"
#include "support/fault_hooks.h"
#include "support/loop_harness.h"

namespace {

// Records the calls on its thread; run() optionally waits at a gate.
struct Recorder : public SimpleThread {
    Gate* gate = nullptr;
    std::atomic<int> runs{0};
    std::vector<std::string> calls;
    std::string nameInRun;
    unsigned long selfInRun = 0;
    void startup() override { calls.push_back("startup"); }
    void run() override {
        calls.push_back("run");
        nameInRun = threadName();
        selfInRun = selfId();
        if (gate) gate->wait();
        ++runs;
    }
    void cleanup() override { calls.push_back("cleanup"); }
};

}  // namespace

// startup, run and cleanup on one named thread; a start while running makes
// no second thread; a failed pthread_create is logged and may be retried.
TEST(SimpleThread, RunsFramedByStartupAndCleanupOnANamedThreadAndJoins) {
    LogCapture cap;
    Recorder t;
    hooks::failCreates = 1;
    EXPECT_FALSE(t.start());
    EXPECT_EQ(cap.count("pthread_create failed, 11, Resource temporarily unavailable", LOG_WARN), 1);
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(t.join()) << "nothing to join";
    Gate gate;
    t.gate = &gate;
    ASSERT_TRUE(t.start());
    EXPECT_TRUE(t.start());  // running: no second thread
    EXPECT_EQ(strayThreads().size(), 1u);
    EXPECT_FALSE(t.setPriority(100000));  // outside every SCHED_FIFO range
    gate.open();
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.calls, (std::vector<std::string>{"startup", "run", "cleanup"}));
    EXPECT_EQ(t.nameInRun.rfind("kel-thr-", 0), 0u) << t.nameInRun;
    EXPECT_EQ(t.selfInRun, t.id());
    EXPECT_EQ(cap.count("went out of scope", -1, true), 0);
    EXPECT_TRUE(waitForNoStrayThreads());
}

// A thread that ends by itself detaches, and once isRunning() is false it
// is done with the object (deleting it then is clean under the thread
// sanitizer); a stopped object starts again whether joined or self-ended;
// concurrent ends and joins never lose or double-join a thread (a hundred
// rounds, so that a thread ending just before its join is seen).
TEST(SimpleThread, StoppedObjectsStartAgainAndNoThreadIsLeft) {
    Recorder t;
    for (int i = 0; i < 40; ++i) {
        Recorder* r = i % 4 == 3 ? new Recorder : &t;
        ASSERT_TRUE(r->start()) << i;
        if (i % 4 == 0) {
            EXPECT_TRUE(t.join());
            continue;
        }
        ASSERT_TRUE(waitUntil([&] { return !r->isRunning(); }));
        EXPECT_TRUE(waitForNoStrayThreads()) << "a self-ended thread detaches";
        if (r != &t) delete r;
    }
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs, 30);
    std::vector<Recorder> threads(16);
    for (int round = 0; round < 100; ++round) {
        for (auto& r : threads) ASSERT_TRUE(r.start());
        for (auto& r : threads) EXPECT_TRUE(r.join());
    }
    for (auto& r : threads) EXPECT_EQ(r.runs, 100);
    EXPECT_TRUE(waitForNoStrayThreads());
}
