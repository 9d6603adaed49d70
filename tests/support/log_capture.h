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
    // Number of lines whose text equals `text` (and whose level is `level`,
    // unless it is -1).
    int count(const std::string& text, int level = -1) const;
    bool contains(const std::string& text, int level = -1) const { return count(text, level) > 0; }
    // Number of lines whose text contains `part`.
    int countContaining(const std::string& part) const;
    void clear();

private:
    KelLogFunction mOld;
};

#endif
