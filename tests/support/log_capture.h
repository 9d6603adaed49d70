// Captures the lines that kel writes, for tests that check texts and levels.
// Recording is lock-free and allocation-free, so lines written from a signal
// handler or from many threads at once are captured too.
#ifndef KEL_TESTS_SUPPORT_LOG_CAPTURE_H
#define KEL_TESTS_SUPPORT_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "msg_logger.h"

struct CapturedLine {
    int level;
    std::string text;
};

// While an object lives, `__logprintf` records into a fixed table (the first
// 4096 lines) and forwards nothing. Only one object at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    std::vector<CapturedLine> lines() const;
    // Number of lines whose text equals `text` (with `part`: contains it), and
    // whose level is `level`, unless it is -1.
    int count(const std::string& text, int level = -1, bool part = false) const;
    void clear();

private:
    KelLogFunction mOld;
};

#endif
