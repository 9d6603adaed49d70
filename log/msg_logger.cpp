// Stand-in logger: async-signal-safe formatting into a stack buffer, one
// write(2) a line.
#include "msg_logger.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
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

// ---------------------------------------------------------------- format
//
// Lines are formatted here and not by the C library: the framework logs
// from signal handlers, and only calls that are async-signal-safe may run
// there. Conversions: d i u x X o c s p %, flags - 0 + space #, width and
// precision (digits or *), lengths hh h l ll z j t. Anything else is copied
// as it stands. Output beyond the buffer is cut.

struct Out {
    char* p;
    char* end;
    void put(char c) {
        if (p < end) *p++ = c;
    }
    void pad(char c, int n) {
        while (n-- > 0) put(c);
    }
};

struct Conversion {
    bool left = false, zero = false, plus = false, space = false, alt = false;
    int width = 0;
    int prec = -1;
};

void putText(Out& o, const char* t, const Conversion& sp) {
    int n = 0;
    while (t[n] != '\0' && (sp.prec < 0 || n < sp.prec)) ++n;
    if (!sp.left) o.pad(' ', sp.width - n);
    for (int i = 0; i < n; ++i) o.put(t[i]);
    if (sp.left) o.pad(' ', sp.width - n);
}

void putNumber(Out& o, unsigned long long v, bool neg, unsigned base, bool upper, const char* prefix,
               const Conversion& sp) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char tmp[24];
    int n = 0;
    // Precision 0 with the value 0 writes no digit.
    if (v != 0 || sp.prec != 0) {
        do {
            tmp[n++] = digits[v % base];
            v /= base;
        } while (v != 0);
    }
    int zeros = sp.prec > n ? sp.prec - n : 0;
    char sign = neg ? '-' : sp.plus ? '+' : sp.space ? ' ' : '\0';
    int plen = 0;
    while (prefix[plen] != '\0') ++plen;
    int len = n + zeros + plen + (sign ? 1 : 0);
    if (sp.zero && !sp.left && sp.prec < 0 && sp.width > len) {
        zeros += sp.width - len;
        len = sp.width;
    }
    if (!sp.left) o.pad(' ', sp.width - len);
    if (sign) o.put(sign);
    for (int i = 0; i < plen; ++i) o.put(prefix[i]);
    o.pad('0', zeros);
    while (n > 0) o.put(tmp[--n]);
    if (sp.left) o.pad(' ', sp.width - len);
}

// Formats into `buf` of `size` bytes, without a terminating NUL; returns the
// number of bytes written.
int formatInto(char* buf, int size, const char* fmt, va_list ap) {
    Out o = {buf, buf + size};
    for (const char* f = fmt; *f != '\0'; ++f) {
        if (*f != '%') {
            o.put(*f);
            continue;
        }
        const char* start = f++;
        Conversion sp;
        for (;; ++f) {
            if (*f == '-')
                sp.left = true;
            else if (*f == '0')
                sp.zero = true;
            else if (*f == '+')
                sp.plus = true;
            else if (*f == ' ')
                sp.space = true;
            else if (*f == '#')
                sp.alt = true;
            else
                break;
        }
        if (*f == '*') {
            sp.width = va_arg(ap, int);
            if (sp.width < 0) {
                sp.left = true;
                sp.width = -sp.width;
            }
            ++f;
        } else {
            while (*f >= '0' && *f <= '9') sp.width = sp.width * 10 + (*f++ - '0');
        }
        if (*f == '.') {
            ++f;
            sp.prec = 0;
            if (*f == '*') {
                sp.prec = va_arg(ap, int);
                ++f;
            } else {
                while (*f >= '0' && *f <= '9') sp.prec = sp.prec * 10 + (*f++ - '0');
            }
        }
        int longs = 0;   // 0 int, 1 long, 2 long long; z j t as their widths
        int halves = 0;  // h short, hh char
        for (;; ++f) {
            if (*f == 'l')
                ++longs;
            else if (*f == 'h')
                ++halves;
            else if (*f == 'z' || *f == 't')
                longs = sizeof(long) == sizeof(size_t) ? 1 : 2;
            else if (*f == 'j')
                longs = 2;
            else
                break;
        }
        switch (*f) {
            case 'd':
            case 'i': {
                long long v = longs >= 2   ? va_arg(ap, long long)
                              : longs == 1 ? va_arg(ap, long)
                                           : va_arg(ap, int);
                if (halves != 0) v = halves == 1 ? static_cast<short>(v) : static_cast<signed char>(v);
                unsigned long long m = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : v;
                putNumber(o, m, v < 0, 10, false, "", sp);
                break;
            }
            case 'u':
            case 'x':
            case 'X':
            case 'o': {
                unsigned long long v = longs >= 2   ? va_arg(ap, unsigned long long)
                                       : longs == 1 ? va_arg(ap, unsigned long)
                                                    : va_arg(ap, unsigned int);
                if (halves != 0)
                    v = halves == 1 ? static_cast<unsigned short>(v) : static_cast<unsigned char>(v);
                unsigned base = *f == 'u' ? 10 : *f == 'o' ? 8 : 16;
                const char* prefix = sp.alt && v != 0 && base == 16 ? (*f == 'X' ? "0X" : "0x") : "";
                if (sp.alt && base == 8) prefix = "0";
                sp.plus = sp.space = false;
                putNumber(o, v, false, base, *f == 'X', prefix, sp);
                break;
            }
            case 'p': {
                void* v = va_arg(ap, void*);
                if (v == nullptr) {
                    putText(o, "(nil)", Conversion{sp.left, false, false, false, false, sp.width, -1});
                } else {
                    putNumber(o, reinterpret_cast<uintptr_t>(v), false, 16, false, "0x", sp);
                }
                break;
            }
            case 's': {
                const char* v = va_arg(ap, const char*);
                putText(o, v != nullptr ? v : "(null)", sp);
                break;
            }
            case 'c': {
                char c[2] = {static_cast<char>(va_arg(ap, int)), '\0'};
                Conversion one = sp;
                one.prec = -1;
                if (c[0] == '\0') {  // a NUL character is still one character
                    if (!sp.left) o.pad(' ', sp.width - 1);
                    o.put('\0');
                    if (sp.left) o.pad(' ', sp.width - 1);
                } else {
                    putText(o, c, one);
                }
                break;
            }
            case '%':
                o.put('%');
                break;
            default:  // not understood: copied as it stands
                for (const char* c = start; c <= f && *c != '\0'; ++c) o.put(*c);
                if (*f == '\0') --f;
                break;
        }
    }
    return static_cast<int>(o.p - buf);
}

int formatf(char* buf, int size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int formatf(char* buf, int size, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = formatInto(buf, size, fmt, ap);
    va_end(ap);
    return n;
}

// The calling thread's name, as the kernel keeps it; empty if unknown.
void threadName(char* name, int size) {
    name[0] = '\0';
    int fd = open("/proc/thread-self/comm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t n = read(fd, name, size - 1);
    close(fd);
    if (n < 0) n = 0;
    if (n > 0 && name[n - 1] == '\n') --n;
    name[n] = '\0';
}

// One write(2) of a whole line. A closed reader (stderr piped into a program
// that has ended) must not raise SIGPIPE: the signal's own handler logs, and
// each of its lines would raise the signal again. So nothing is written to a
// pipe that has no reader left, and should the reader go between that look
// and the write, the SIGPIPE it caused (blocked meanwhile) is discarded by a
// moment of SIG_IGN; one that was already pending stays pending. Only calls
// that are safe in a signal handler.
void writeLine(const char* buf, int n) {
    pollfd pfd = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&pfd, 1, 0) == 1 && (pfd.revents & (POLLERR | POLLNVAL)) != 0) return;
    sigset_t pipeSet, old, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
    sigpending(&pending);
    bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    ssize_t w = write(STDERR_FILENO, buf, n);
    if (w < 0 && errno == EPIPE && !wasPending) {
        static std::atomic<bool> discarding{false};
        if (!discarding.exchange(true, std::memory_order_acquire)) {
            struct sigaction ign, prev;
            memset(&ign, 0, sizeof ign);
            ign.sa_handler = SIG_IGN;
            sigemptyset(&ign.sa_mask);
            sigaction(SIGPIPE, &ign, &prev);
            sigaction(SIGPIPE, &prev, nullptr);
            discarding.store(false, std::memory_order_release);
        }
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
    char thread[17];
    threadName(thread, sizeof thread);
    const char* name = _g_name.load(std::memory_order_acquire);
    if (!name) name = program_invocation_short_name;

    char buf[1024];
    const int room = static_cast<int>(sizeof buf) - 1;  // one byte kept for the newline
    int n = formatf(buf, room, "%02ld:%02ld:%02ld.%03ld %c %s[%d/%s] %s:%d %s: ", secOfDay / 3600,
                    secOfDay / 60 % 60, secOfDay % 60, static_cast<long>(ts.tv_nsec / 1000000),
                    levelLetter(level), name, static_cast<int>(getpid()), thread, baseName(file ? file : "?"),
                    line, func ? func : "?");
    va_list ap;
    va_start(ap, fmt);
    n += formatInto(buf + n, room - n, fmt, ap);
    va_end(ap);
    buf[n++] = '\n';
    writeLine(buf, n);
    errno = saved_errno;
}

}  // namespace kellog
