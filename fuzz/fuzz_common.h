// Pieces shared by the fuzz targets: a quiet logger that remembers the last
// line, a failure that stops the fuzzer, and a reader of the input.
#ifndef KEL_FUZZ_FUZZ_COMMON_H
#define KEL_FUZZ_FUZZ_COMMON_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "kel_loop.h"
#include "kel_port.h"
#include "kel_queue.h"
#include "msg_logger.h"

namespace fuzz {

// Text of the last line logged, formatted.
inline char gLastLine[256];

inline void quietLog(const char*, int, const char*, int, int, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(gLastLine, sizeof gLastLine, fmt, ap);
    va_end(ap);
}

inline bool lastLineIs(const char* text) { return strcmp(gLastLine, text) == 0; }

#define FUZZ_CHECK(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) {                                                                   \
            fprintf(stderr, "model mismatch at %s:%d: %s\n", __FILE__, __LINE__, #cond); \
            __builtin_trap();                                                            \
        }                                                                                \
    } while (0)

// The xorshift step of the replay's inputs and the models' answers.
inline uint32_t xorshift(uint32_t& s) {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
}

// Reads the input a byte at a time; zeros once it is used up.
class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size), mPos(0) {}
    bool more() const { return mPos < mSize; }
    uint8_t byte() { return mPos < mSize ? mData[mPos++] : 0; }
    // Little-endian: the bytes are read one statement after the other, as
    // the operands of one expression have no fixed order of evaluation.
    uint32_t word() {
        uint32_t w = 0;
        for (int i = 0; i < 4; ++i) w |= static_cast<uint32_t>(byte()) << (8 * i);
        return w;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos;
};

}  // namespace fuzz

#endif
