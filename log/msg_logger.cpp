// Stand-in logger: async-signal-safe formatting into a stack buffer, one
// write(2) a line.
#include "msg_logger.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<int> _g_level{LOG_INFO};

// Name shown in each line. Filled once by kel_log_init, then published.
// Memory ordering: release on publish, acquire on read, so a reader that sees
// the pointer sees the whole text.
char _g_name_buf[32];
std::atomic<const char*> _g_name{nullptr};
std::atomic<bool> _g_name_claimed{false};

char levelLetter(int level) {
    if (level >= LOG_ERROR) return 'E';
    if (level >= LOG_WARN) return 'W';
    if (level >= LOG_INFO) return 'I';
    if (level >= LOG_DEBUG) return 'D';
    return 'T';
}

const char* baseName(const char* path) {
    const char* b = path;
    for (const char* p = path; *p; ++p) {
        if (*p == '/') b = p + 1;
    }
    return b;
}

// One write(2) of a whole line. A closed reader (stderr piped into a program
// that has ended) must not raise SIGPIPE: the signal's own handler logs, and
// each of its lines would raise the signal again. So SIGPIPE is blocked for
// the write and a SIGPIPE caused by it is taken back before unblocking; one
// that was already pending stays pending. All of it is safe in a handler.
void writeLine(const char* buf, int n) {
    sigset_t pipeSet, old, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
    sigpending(&pending);
    bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    ssize_t w = write(STDERR_FILENO, buf, n);
    if (w < 0 && errno == EPIPE && !wasPending) {
        timespec zero = {0, 0};
        sigtimedwait(&pipeSet, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// A threshold given as a level's name (any case) or as a decimal number,
// up to the end of the line; blanks around it are allowed. False for
// anything else.
bool parseLevel(const char* text, int* level) {
    static const struct {
        const char* name;
        int level;
    } names[] = {{"dump", LOG_DUMP},
                 {"debug", LOG_DEBUG},
                 {"info", LOG_INFO},
                 {"warn", LOG_WARN},
                 {"error", LOG_ERROR}};
    const char* p = text + strspn(text, " \t");
    size_t n = strcspn(p, " \t\r\n");
    const char* rest = p + n + strspn(p + n, " \t\r");
    if (n == 0 || (*rest != '\0' && *rest != '\n')) return false;
    for (const auto& entry : names) {
        if (strlen(entry.name) == n && strncasecmp(p, entry.name, n) == 0) {
            *level = entry.level;
            return true;
        }
    }
    char* end = nullptr;
    errno = 0;
    long v = strtol(p, &end, 10);
    if (end != p + n || errno != 0 || v < INT_MIN || v > INT_MAX) return false;
    *level = static_cast<int>(v);
    return true;
}

// Sets the threshold from `text`, or says in one line why not.
void setLevelFrom(const char* source, const char* text) {
    int level = 0;
    if (parseLevel(text, &level)) {
        kellog::kel_log_set_level(level);
        return;
    }
    int shown = static_cast<int>(strcspn(text, "\r\n"));
    __logprintf(
        __FILE__, static_cast<int>(sizeof(__FILE__) - 1), __func__, static_cast<int>(sizeof(__func__) - 1),
        __LINE__, LOG_ERROR,
        "%s\"%.*s\" is not a log level (dump, debug, info, warn, error or a number); the level stays %d",
        source, shown < 40 ? shown : 40, text, kellog::kel_log_get_level());
}

void readLevelFile(const char* confpath) {
    // Plain read(2): the file is tiny, and stdio would allocate.
    int fd = open(confpath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    char buf[256];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return;
    buf[n] = '\0';
    const char* p = strstr(buf, "level");
    if (!p) return;
    p = strchr(p, '=');
    if (!p) return;
    setLevelFrom("level=", p + 1);
}

}  // namespace

extern "C" {
KelLogFunction __logprintf = kellog::kel_log_default;
}

namespace kellog {

void kel_log_set_level(int level) { _g_level.store(level, std::memory_order_relaxed); }

int kel_log_get_level() { return _g_level.load(std::memory_order_relaxed); }

void kel_log_init(const char* confpath, const char* name) {
    if (name && !_g_name_claimed.exchange(true)) {
        snprintf(_g_name_buf, sizeof _g_name_buf, "%s", name);
        _g_name.store(_g_name_buf, std::memory_order_release);
    }
    if (confpath) readLevelFile(confpath);
    const char* env = getenv("KEL_LOG_LEVEL");
    if (env && *env) setLevelFrom("KEL_LOG_LEVEL=", env);
}

void kel_log_default(const char* file, int, const char* func, int, int line, int level, const char* fmt,
                     ...) {
    if (level < _g_level.load(std::memory_order_relaxed)) return;
    int saved_errno = errno;

    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    long secOfDay = static_cast<long>(ts.tv_sec % 86400);
    char thread[17] = {0};
    prctl(PR_GET_NAME, thread, 0, 0, 0);
    const char* name = _g_name.load(std::memory_order_acquire);
    if (!name) name = program_invocation_short_name;

    char buf[1024];
    int n =
        snprintf(buf, sizeof buf, "%02ld:%02ld:%02ld.%03ld %c %s[%d/%s] %s:%d %s: ", secOfDay / 3600,
                 secOfDay / 60 % 60, secOfDay % 60, ts.tv_nsec / 1000000, levelLetter(level), name,
                 static_cast<int>(getpid()), thread, baseName(file ? file : "?"), line, func ? func : "?");
    if (n < 0) n = 0;
    if (n > static_cast<int>(sizeof buf) - 2) n = sizeof buf - 2;
    va_list ap;
    va_start(ap, fmt);
    int m = vsnprintf(buf + n, sizeof buf - n - 1, fmt, ap);
    va_end(ap);
    if (m > 0) n += m;
    if (n > static_cast<int>(sizeof buf) - 2) n = sizeof buf - 2;
    buf[n++] = '\n';
    writeLine(buf, n);
    errno = saved_errno;
}

}  // namespace kellog
