#include "common_log.h"

#include <libgen.h>
#include <stdio.h>
#include <string.h>

#include <stdexcept>

extern "C" void _gen_log_assert_fail(const char* file, int, const char* func, int, int line) {
    // basename() may modify its argument, so work on a copy.
    char path[512];
    snprintf(path, sizeof path, "%s", file ? file : "");
    char text[1024];
    snprintf(text, sizeof text, "ASSERT: %s.%d: %s", basename(path), line, func ? func : "");
    throw std::runtime_error(text);
}
