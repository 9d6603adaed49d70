#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "common_log.h"
#include "kel_mutex.h"
#include "support/log_capture.h"

namespace {

void failingCheck() { KEL_ASSERT(1 + 1 == 3); }

}  // namespace

TEST(CommonLog, AssertThrowsWithBaseNameLineAndFunction) {
    try {
        failingCheck();
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        std::string text = e.what();
        // Base name only, the line of the check, the unqualified function.
        EXPECT_EQ(text.rfind("ASSERT: test_kel_mutex.cpp.", 0), 0u) << text;
        EXPECT_NE(text.find(": failingCheck"), std::string::npos) << text;
        EXPECT_EQ(text.find("1 + 1"), std::string::npos) << "condition must not be in the text";
    }
}

TEST(CommonLog, AssertFailWritesNoLogLine) {
    LogCapture cap;
    EXPECT_THROW(_gen_log_assert_fail("/a/b/c.cpp", 10, "f", 1, 7), std::runtime_error);
    EXPECT_TRUE(cap.lines().empty());
    try {
        _gen_log_assert_fail("/a/b/c.cpp", 10, "f", 1, 7);
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "ASSERT: c.cpp.7: f");
    }
}

TEST(CommonLog, LogLineCarriesLevelFunctionAndText) {
    LogCapture cap;
    KEL_LOG(LOG_WARN, "value %d", 42);
    auto l = cap.lines();
    ASSERT_EQ(l.size(), 1u);
    EXPECT_EQ(l[0].level, LOG_WARN);
    EXPECT_EQ(l[0].func, "TestBody");
    EXPECT_EQ(l[0].text, "value 42");
}

TEST(KelMutex, AutolockReleasesWhenExceptionPasses) {
    KelMutex m;
    try {
        Autolock guard(&m);
        throw std::runtime_error("x");
    } catch (const std::runtime_error&) {
    }
    // Another thread can take it: the guard released it during unwinding.
    std::thread t([&] { Autolock g(&m); });
    t.join();
}

TEST(KelMutex, SerialisesTwoThreads) {
    KelMutex m;
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 100000; ++i) {
            Autolock g(&m);
            ++counter;
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 200000);
}
