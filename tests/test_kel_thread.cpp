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

// Records what happened on its thread; run() optionally waits at a gate.
class Recorder : public SimpleThread {
public:
    probe::Gate* gate = nullptr;
    std::atomic<int> runs{0};
    std::mutex mtx;
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
    void note(const char* what) {
        std::lock_guard<std::mutex> l(mtx);
        calls.push_back(what);
    }
};

}  // namespace

TEST(SimpleThread, JoinOnNeverStartedObjectReturnsTrueAtOnce) {
    Recorder t;
    EXPECT_FALSE(t.isRunning());
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs.load(), 0);
}

TEST(SimpleThread, RunsFramedByStartupAndCleanupOnANamedThreadAndJoins) {
    int base = probe::baselineTaskCount();
    Recorder t;
    probe::Gate gate;
    t.gate = &gate;
    ASSERT_TRUE(t.start());
    EXPECT_TRUE(t.isRunning());
    unsigned long id = t.id();
    gate.open();
    EXPECT_TRUE(t.join());
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(t.runs.load(), 1);
    EXPECT_EQ(t.calls, (std::vector<std::string>{"startup", "run", "cleanup"}));
    EXPECT_EQ(t.nameInRun.rfind("kel-thr-", 0), 0u) << t.nameInRun;
    EXPECT_LE(t.nameInRun.size(), 15u);
    EXPECT_EQ(t.selfInRun, id);
    EXPECT_NE(id, SimpleThread::selfId());
    EXPECT_EQ(probe::taskCount(), base);
}

TEST(SimpleThread, ThreadThatEndsByItselfDetachesAndLaterJoinsSucceed) {
    int base = probe::baselineTaskCount();
    Recorder t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return !t.isRunning(); }));
    // Detached: the thread disappears without anybody joining it.
    EXPECT_TRUE(probe::waitFor([&] { return probe::taskCount() == base; }));
    EXPECT_TRUE(t.join());
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs.load(), 1);
}

TEST(SimpleThread, StartWhileRunningCreatesNoSecondThread) {
    Recorder t;
    probe::Gate gate;
    t.gate = &gate;
    ASSERT_TRUE(t.start());
    int during = probe::taskCount();
    EXPECT_TRUE(t.start());
    EXPECT_TRUE(t.start());
    EXPECT_EQ(probe::taskCount(), during);
    gate.open();
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs.load(), 1);
}

TEST(SimpleThread, StoppedObjectStartsAgainWhetherJoinedOrSelfEnded) {
    int base = probe::baselineTaskCount();
    Recorder t;
    for (int i = 0; i < 50; ++i) {
        // Even a thread that may have ended before start() returns counts
        // as started.
        ASSERT_TRUE(t.start()) << i;
        if (i % 2 == 0) {
            EXPECT_TRUE(t.join());
        } else {
            ASSERT_TRUE(probe::waitFor([&] { return !t.isRunning(); }));
        }
    }
    EXPECT_TRUE(t.join());
    EXPECT_EQ(t.runs.load(), 50);
    EXPECT_TRUE(probe::waitFor([&] { return probe::taskCount() == base; }));
}

TEST(SimpleThread, ConcurrentEndAndJoinNeverLoseOrDoubleJoinTheThread) {
    int base = probe::baselineTaskCount();
    std::vector<Recorder> threads(16);
    for (int round = 0; round < 20; ++round) {
        for (auto& t : threads) ASSERT_TRUE(t.start());
        for (auto& t : threads) EXPECT_TRUE(t.join());
    }
    for (auto& t : threads) EXPECT_EQ(t.runs.load(), 20);
    EXPECT_TRUE(probe::waitFor([&] { return probe::taskCount() == base; }));
}

namespace {

class Renamer : public SimpleThread {
public:
    std::string before, after;
    bool nullResult = false;
    bool unchanged = false;

protected:
    void run() override {
        before = probe::threadName();
        nullResult = setName(nullptr);
        unchanged = probe::threadName() == before;
        setName("worker-abc");
        after = probe::threadName();
    }
};

}  // namespace

TEST(SimpleThread, SetNameNamesTheCallingThreadAndIgnoresNull) {
    std::string mine = probe::threadName();
    Renamer t;
    EXPECT_TRUE(t.setName(nullptr));
    EXPECT_EQ(probe::threadName(), mine);
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(t.join());
    EXPECT_TRUE(t.nullResult);
    EXPECT_TRUE(t.unchanged) << t.before;
    EXPECT_EQ(t.after, "worker-abc");
    // Called by another thread, setName renames that other thread.
    EXPECT_TRUE(t.setName("main-renamed"));
    EXPECT_EQ(probe::threadName(), "main-renamed");
}

TEST(SimpleThread, SetPriorityReportsFailure) {
    Recorder t;
    probe::Gate gate;
    t.gate = &gate;
    ASSERT_TRUE(t.start());
    EXPECT_FALSE(t.setPriority(100000));  // outside every SCHED_FIFO range
    gate.open();
    EXPECT_TRUE(t.join());
}

namespace {

class Spinner : public SimpleThread {
public:
    std::atomic<bool> inRun{false};
    std::atomic<bool> cleaned{false};

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

TEST(SimpleThread, CancelledThreadStaysRunningUntilJoined) {
    Spinner t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(probe::waitFor([&] { return t.inRun.load(); }));
    t.cancel();
    // The body's end is skipped: the object still counts as running.
    usleep(20 * 1000);
    EXPECT_TRUE(t.isRunning());
    EXPECT_TRUE(t.join());
    EXPECT_FALSE(t.isRunning());
    EXPECT_FALSE(t.cleaned.load());
}

TEST(SimpleThread, DestroyingARunningObjectWarnsWithTheThreadInHex) {
    LogCapture cap;
    pthread_t handle;
    char expected[64];
    {
        Spinner t;
        ASSERT_TRUE(t.start());
        ASSERT_TRUE(probe::waitFor([&] { return t.inRun.load(); }));
        handle = static_cast<pthread_t>(t.id());
        snprintf(expected, sizeof expected, "Thread %lx went out of scope while running!", t.id());
        // A cancelled thread no longer touches its object, so the warning
        // can be provoked without a use after free.
        t.cancel();
        usleep(20 * 1000);
    }
    EXPECT_EQ(cap.count(expected, LOG_WARN), 1);
    EXPECT_EQ(pthread_join(handle, nullptr), 0);
}

TEST(SimpleThread, ObjectThatEndedWarnsNothingOnDestruction) {
    LogCapture cap;
    {
        Recorder t;
        ASSERT_TRUE(t.start());
        ASSERT_TRUE(t.join());
    }
    EXPECT_EQ(cap.countContaining("went out of scope"), 0);
}
