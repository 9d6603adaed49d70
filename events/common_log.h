// Logging and assertion helpers shared by every module of kel.
//
// KEL_LOG(level, fmt, ...) writes one line through `__logprintf` with the
// source file, the unqualified function name and the line. `level` must be a
// constant, one of the five DebugLevel values; anything else does not
// compile, so that <syslog.h>'s LOG_DEBUG and LOG_INFO (7 and 6) cannot pass
// for kel's. With <syslog.h> in the same file, in either order, write kel's
// levels as KEL_LOG_DEBUG, KEL_LOG_INFO, ... (see msg_logger.h).
//
// KEL_ASSERT(cond) is always compiled in. On failure it calls
// `_gen_log_assert_fail`, which throws std::runtime_error with the text
// "ASSERT: <file>.<line>: <function>". The condition is not part of the text.
//
// KEL_DEBUG_ASSERT(cond) is the same check for debug builds only; it guards
// the thread and lock rules that are too costly to check in release builds.
#ifndef KEL_EVENTS_COMMON_LOG_H
#define KEL_EVENTS_COMMON_LOG_H

#include "kel_export.h"
#include "msg_logger.h"

extern "C" {
// Failure call of every run-time check. `file_len` and `func_len` are
// ignored. Does not return: throws std::runtime_error. Writes no log line.
[[noreturn]] KEL_API void _gen_log_assert_fail(const char* file, int file_len, const char* func, int func_len,
                                               int line);
}

namespace kellog {
// The level of a KEL_LOG line, checked at compile time (by the names that
// <syslog.h> cannot hide).
template <int L>
struct CheckedLevel {
    static_assert(L == KEL_LOG_DUMP || L == KEL_LOG_DEBUG || L == KEL_LOG_INFO || L == KEL_LOG_WARN ||
                      L == KEL_LOG_ERROR,
                  "KEL_LOG: not a kel log level; with <syslog.h> in the same file, LOG_DEBUG and LOG_INFO "
                  "are syslog's: write KEL_LOG_DEBUG, KEL_LOG_INFO (msg_logger.h)");
    static constexpr int value = L;
};
}  // namespace kellog

#define KEL_LOG(level, ...)                                                                               \
    __logprintf(__FILE__, static_cast<int>(sizeof(__FILE__) - 1), __func__,                               \
                static_cast<int>(sizeof(__func__) - 1), __LINE__, ::kellog::CheckedLevel<(level)>::value, \
                __VA_ARGS__)

#define KEL_ASSERT_FAIL()                                                            \
    _gen_log_assert_fail(__FILE__, static_cast<int>(sizeof(__FILE__) - 1), __func__, \
                         static_cast<int>(sizeof(__func__) - 1), __LINE__)

#define KEL_ASSERT(cond)                                     \
    do {                                                     \
        if (__builtin_expect(!(cond), 0)) KEL_ASSERT_FAIL(); \
    } while (0)

#ifdef NDEBUG
#define KEL_DEBUG_ASSERT(cond) ((void)0)
#else
#define KEL_DEBUG_ASSERT(cond) KEL_ASSERT(cond)
#endif

#endif
