// The logging stand-in: line layout, threshold, configuration, formatting,
// and writing to a reader that has gone away.
#include "support/loop_harness.h"

namespace {

// Runs `body` with stderr sent into a pipe; returns what it wrote. With
// `gone`, the reader has ended before.
template <typename F>
std::string captureStderr(F body, bool gone = false) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    if (gone) close(fds[0]);
    int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    char buf[4096];
    for (ssize_t n; !gone && (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
    if (!gone) close(fds[0]);
    return out;
}

int gPipes = 0;

}  // namespace

// One line: level letter, name, base name of the file, line, function and
// message; the threshold level itself is shown, lower ones are dropped.
TEST(MsgLogger, LineLayoutAndThreshold) {
    kellog::kel_log_init(nullptr, "logtest");
    kellog::kel_log_set_level(LOG_WARN);
    std::string out = captureStderr([] {
        __logprintf("/x/y/file.cpp", 13, "work", 4, 42, LOG_WARN, "v=%d", 7);
        __logprintf("f.cpp", 5, "f", 1, 1, LOG_INFO, "hidden");
    });
    EXPECT_NE(out.find(" W logtest["), std::string::npos) << out;
    EXPECT_NE(out.find("] file.cpp:42 work: v=7\n"), std::string::npos) << out;
    EXPECT_EQ(out.find('\n'), out.size() - 1) << "one line";
}

// The level comes from the file's `level = n`, or from KEL_LOG_LEVEL by
// name or number; a bad value keeps the threshold and says so in one line.
TEST(MsgLogger, InitTakesTheLevelFromFileOrEnvironment) {
    char path[] = "/tmp/kel-log-XXXXXX";
    int fd = mkstemp(path);
    const char text[] = "# kel\nlevel = 100\n";
    ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
    close(fd);
    unsetenv("KEL_LOG_LEVEL");
    kellog::kel_log_init(path, "logtest");
    unlink(path);
    EXPECT_EQ(kellog::kel_log_get_level(), LOG_ERROR);
    for (auto [text, level] :
         {std::pair<const char*, int>{"debug", LOG_DEBUG}, {"WARN", LOG_WARN}, {"30", 30}}) {
        setenv("KEL_LOG_LEVEL", text, 1);
        kellog::kel_log_init(nullptr, "logtest");
        EXPECT_EQ(kellog::kel_log_get_level(), level) << text;
    }
    setenv("KEL_LOG_LEVEL", "40x", 1);
    std::string out = captureStderr([] { kellog::kel_log_init(nullptr, "logtest"); });
    unsetenv("KEL_LOG_LEVEL");
    EXPECT_EQ(kellog::kel_log_get_level(), 30);
    EXPECT_NE(out.find("KEL_LOG_LEVEL=\"40x\" is not a log level"), std::string::npos) << out;
    EXPECT_EQ(out.find('\n'), out.size() - 1) << "one line";
}

// With stderr piped into a reader that has ended, logging must not raise
// SIGPIPE: a handler that logs would raise it again for ever.
TEST(MsgLogger, ClosedReaderRaisesNoSigpipe) {
    struct sigaction act = {}, old;
    act.sa_handler = [](int) { ++gPipes; };
    sigaction(SIGPIPE, &act, &old);
    captureStderr([] { __logprintf("f.cpp", 5, "f", 1, 1, LOG_ERROR, "into nowhere"); }, true);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(gPipes, 0);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigaction(SIGPIPE, &old, nullptr);
}

// The logger formats by itself (it must be safe in a signal handler): the
// conversions, flags and widths the framework uses come out as printf's.
template <typename... A>
void expectLikePrintf(const char* fmt, A... a) {
    char want[256];
    snprintf(want, sizeof want, fmt, a...);
    std::string out = captureStderr([&] { __logprintf("f.cpp", 5, "fn", 2, 1, LOG_ERROR, fmt, a...); });
    size_t at = out.find(" fn: ");
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_EQ(out.substr(at + 5), std::string(want) + "\n") << fmt;
}

TEST(MsgLogger, FormatsLikePrintf) {
    kellog::kel_log_set_level(LOG_DUMP);
    void* p = &gPipes;
    expectLikePrintf("%d|%i|%u|%d %ld %lu %lld %llu", -42, 7, 4000000000u, INT_MIN, LONG_MIN, ULONG_MAX,
                     LLONG_MIN, ULLONG_MAX);
    expectLikePrintf("%x %lx %X %#x %o|%p|%p|%12p", 0xbeefu, 0xdeadbeefUL, 0xabu, 0x1fu, 8u, p, nullptr, p);
    expectLikePrintf("[%s] [%c] 100%% [%.3s|%8s|%-4s]", "text", 'z', "abcdef", "r", "l");
    expectLikePrintf("%02ld:%03ld|%5d|%-5d|%05d|%+d|% d|%.4d|%*d", 7L, 42L, -3, 12, -12, 5, 5, 9, 4, 1);
    expectLikePrintf("%zu %hd %hhu|%08.3d", sizeof(long), static_cast<short>(-2),
                     static_cast<unsigned char>(250), 5);
}
