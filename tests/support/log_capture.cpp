#include "log_capture.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <atomic>

namespace {

constexpr int kMaxLines = 4096;

struct Slot {
    std::atomic<bool> ready{false};
    int level;
    char text[256];
};

Slot _g_slots[kMaxLines];
std::atomic<int> _g_next{0};

void capture(const char*, int, const char*, int, int, int level, const char* fmt, ...) {
    int i = _g_next.fetch_add(1, std::memory_order_relaxed);
    if (i >= kMaxLines) return;
    Slot& s = _g_slots[i];
    s.level = level;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(s.text, sizeof s.text, fmt, ap);
    va_end(ap);
    s.ready.store(true, std::memory_order_release);
}

}  // namespace

LogCapture::LogCapture() : mOld(__logprintf) {
    clear();
    __logprintf = capture;
}

LogCapture::~LogCapture() { __logprintf = mOld; }

void LogCapture::clear() {
    for (auto& s : _g_slots) s.ready.store(false, std::memory_order_relaxed);
    _g_next.store(0, std::memory_order_relaxed);
}

std::vector<CapturedLine> LogCapture::lines() const {
    std::vector<CapturedLine> out;
    int n = std::min(_g_next.load(std::memory_order_relaxed), kMaxLines);
    for (int i = 0; i < n; ++i)  // a line still being written is skipped
        if (_g_slots[i].ready.load(std::memory_order_acquire))
            out.push_back({_g_slots[i].level, _g_slots[i].text});
    return out;
}

int LogCapture::count(const std::string& text, int level, bool part) const {
    int n = 0;
    for (const auto& l : lines())
        n += (part ? l.text.find(text) != std::string::npos : l.text == text) &&
             (level < 0 || l.level == level);
    return n;
}
