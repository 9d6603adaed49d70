#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "kel_thread.h"
#include "support/log_capture.h"
#include "support/thread_probe.h"

namespace {

// Records the calls on its thread; run() optionally waits at a gate.
class Recorder : public SimpleThread {
public:
    probe::Gate* gate = nullptr;
    std::atomic<int> runs{0};
    std::vector<std::string> calls;
    std::string nameInRun;
    unsigned long selfInRun = 0;

protected:
    void startup() override { note("startup"); }
    void run() override {
        note("run");
        nameInRun = probe::threadName();
        selfInRun = selfId();
        if (gate) gate->wait();
        runs.fetch_add(1);
    }
    void cleanup() override { note("cleanup"); }

private:
    std::mutex mtx;
    void note(const char* what) {
        std::lock_guard<std::mutex> l(mtx);
        calls.push_back(what);
    }
};

class Spinner : public SimpleThread {
public:
    std::atomic<bool> inRun{false}, cleaned{false};

protected:
    void run() override {
        inRun = true;
        for (;;) {
            pthread_testcancel();
            usleep(1000);
        }
    }
    void cleanup() override { cleaned = true; }
};

}  // namespace

TEST(SimpleThread, RunsFramedByStartupAndCleanupOnANamedThreadAndJoins) {
    int base = baselineThreadCount();
    LogCapture cap;
    {
        Recorder t;
        EXPECT_TRUE(t.join());  // never started
        probe::Gate gate;
        t.gate = &gate;
        ASSERT_TRUE(t.start());
        EXPECT_TRUE(t.isRunning());
        int during = threadCount();
        EXPECT_TRUE(t.start());  // running: no second thread
        EXPECT_EQ(threadCount(), during);
        EXPECT_FALSE(t.setPriority(100000));  // outside every SCHED_FIFO range
        unsigned long id = t.id();
        gate.open();
        EXPECT_TRUE(t.join());
        EXPECT_FALSE(t.isRunning());
        EXPECT_EQ(t.runs.load(), 1);
        EXPECT_EQ(t.calls, (std::vector<std::string>{"startup", "run", "cleanup"}));
        EXPECT_EQ(t.nameInRun.rfind("kel-thr-", 0), 0u) << t.nameInRun;
        EXPECT_EQ(t.selfInRun, id);
        EXPECT_NE(id, SimpleThread::selfId());
    }
    EXPECT_EQ(cap.countContaining("went out of scope"), 0);
    EXPECT_TRUE(threadCountSettlesAt(base)) << threadCount();
}

// A thread that ends by itself detaches; a stopped object starts again
// whether joined or self-ended, and concurrent ends and joins never lose or
// double-join a thread.
TEST(SimpleThread, StoppedObjectsStartAgainAndNoThreadIsLeft) {
    int base = baselineThreadCount();
    Recorder t;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(t.start()) << i;
        if (i % 2 == 0) {
            EXPECT_TRUE(t.join());
        } else {
            ASSERT_TRUE(probe::waitFor([&] { return !t.isRunning(); }));
            EXPECT_TRUE(threadCountSettlesAt(base)) << "a self-ended thread detaches";
        }
    }
    EXPECT_TRUE(t.join());
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs.load(), 50);
    std::vector<Recorder> threads(16);
    for (int round = 0; round < 20; ++round) {
        for (auto& r : threads) ASSERT_TRUE(r.start());
        for (auto& r : threads) EXPECT_TRUE(r.join());
    }
    for (auto& r : threads) EXPECT_EQ(r.runs.load(), 20);
    EXPECT_TRUE(threadCountSettlesAt(base)) << threadCount();
}

TEST(SimpleThread, SetNameNamesTheCallingThreadAndIgnoresNull) {
    struct Renamer : SimpleThread {
        std::string before, after;
        bool unchanged = false;
        void run() override {
            before = probe::threadName();
            EXPECT_TRUE(setName(nullptr));
            unchanged = probe::threadName() == before;
            setName("worker-abc");
            after = probe::threadName();
        }
    } t;
    std::string mine = probe::threadName();
    EXPECT_TRUE(t.setName(nullptr));
    EXPECT_EQ(probe::threadName(), mine);
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(t.join());
    EXPECT_TRUE(t.unchanged) << t.before;
    EXPECT_EQ(t.after, "worker-abc");
    EXPECT_TRUE(t.setName("main-renamed"));  // renames the caller
    EXPECT_EQ(probe::threadName(), "main-renamed");
}

// A cancelled thread skips cleanup and counts as running until joined; an
// object destroyed in that state warns with its thread in hex.
TEST(SimpleThread, CancelledThreadRunsUntilJoinedAndWarnsWhenDropped) {
    LogCapture cap;
    Spinner t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.inRun.load(); }));
    t.cancel();
    usleep(20 * 1000);
    EXPECT_TRUE(t.isRunning());
    EXPECT_TRUE(t.join());
    EXPECT_FALSE(t.isRunning());
    EXPECT_FALSE(t.cleaned.load());

    pthread_t handle;
    char expected[64];
    {
        Spinner u;
        ASSERT_TRUE(u.start());
        ASSERT_TRUE(probe::waitFor([&] { return u.inRun.load(); }));
        handle = static_cast<pthread_t>(u.id());
        snprintf(expected, sizeof expected, "Thread %lx went out of scope while running!", u.id());
        u.cancel();  // it no longer touches the object
        usleep(20 * 1000);
    }
    EXPECT_EQ(cap.count(expected, LOG_WARN), 1);
    EXPECT_EQ(pthread_join(handle, nullptr), 0);
}

// Once isRunning() is false the thread is done with the object: deleting it
// then is clean under the thread sanitizer (vtable and mutex included).
TEST(SimpleThread, ObjectMayBeDeletedOnceItsThreadIsNotRunning) {
    for (int i = 0; i < 20; ++i) {
        Recorder* t = new Recorder;
        ASSERT_TRUE(t->start());
        ASSERT_TRUE(probe::waitFor([&] { return !t->isRunning(); }));
        delete t;
    }
}
