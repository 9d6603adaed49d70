// Logging interface of kel, and the stand-in logger that implements it.
//
// The framework writes every line through the global function pointer
// `__logprintf`. The pointer is valid from load time on (no init needed),
// may be called from any thread and from a signal handler, and may be
// replaced by an application that wants another logger.
//
// The default function formats into a stack buffer and emits each line with
// one write(2) on standard error: no lock, no heap. A line reads
//   hh:mm:ss.mmm L name[pid/thread] file:line func: message
// Lines below the threshold are dropped. The threshold starts at LOG_INFO;
// change it with kellog::kel_log_set_level(), with the environment variable
// KEL_LOG_LEVEL (read by kel_log_init), or with a line "level=<level>" in the
// file given as `confpath` to kel_log_init. Both take a level's name (dump,
// debug, info, warn, error, in any case) or a number (40); anything else
// leaves the threshold as it was and logs one line saying so.
#ifndef KEL_LOG_MSG_LOGGER_H
#define KEL_LOG_MSG_LOGGER_H

#define KELLOG_API __attribute__((visibility("default")))

// <syslog.h> defines LOG_DEBUG and LOG_INFO as macros of its own (7 and 6).
// Included ahead of this header, its macros are set aside here and come back
// after the enum; included after it, they hide kel's names. Either way
// KEL_LOG (common_log.h) refuses at compile time any level that is not one
// of these five, so a syslog priority never passes for a kel level. In a file
// that needs both, write kel's levels as KEL_LOG_DEBUG, KEL_LOG_INFO, ...
// and syslog's as LOG_DEBUG, LOG_INFO, ...
#pragma push_macro("LOG_DEBUG")
#pragma push_macro("LOG_INFO")
#undef LOG_DEBUG
#undef LOG_INFO
enum DebugLevel {
    LOG_DUMP = 20,
    LOG_DEBUG = 40,
    LOG_INFO = 60,
    LOG_WARN = 80,
    LOG_ERROR = 100,
    // The same levels under names that <syslog.h> leaves alone.
    KEL_LOG_DUMP = LOG_DUMP,
    KEL_LOG_DEBUG = LOG_DEBUG,
    KEL_LOG_INFO = LOG_INFO,
    KEL_LOG_WARN = LOG_WARN,
    KEL_LOG_ERROR = LOG_ERROR,
};
#pragma pop_macro("LOG_INFO")
#pragma pop_macro("LOG_DEBUG")

extern "C" {
typedef void (*KelLogFunction)(const char* file, int file_len, const char* func, int func_len, int line,
                               int level, const char* fmt, ...);

// The logger of the process. Never null; the framework calls it without a test.
// Replace it before any other thread runs, or accept that a thread may still
// use the old function for one more line.
extern KELLOG_API KelLogFunction __logprintf;
}

namespace kellog {

// Starts the logger: `name` becomes the program name in every line, and the
// threshold is taken from `confpath` ("level=<level>") and then KEL_LOG_LEVEL.
// Either argument may be null. Call it from one thread, outside signal context.
KELLOG_API void kel_log_init(const char* confpath, const char* name);

// Lines with a level below `level` are dropped. Safe from any thread.
KELLOG_API void kel_log_set_level(int level);
KELLOG_API int kel_log_get_level();

// The default function behind `__logprintf`.
KELLOG_API void kel_log_default(const char* file, int file_len, const char* func, int func_len, int line,
                                int level, const char* fmt, ...) __attribute__((format(printf, 7, 8)));

}  // namespace kellog

#endif
