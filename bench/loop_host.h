// The one main loop of a benchmark process, on its own thread for the whole
// run: made on first use, stopped and destroyed at exit.
#ifndef KEL_BENCH_LOOP_HOST_H
#define KEL_BENCH_LOOP_HOST_H

#include <thread>

#include "kel_loop.h"
#include "msg_logger.h"

namespace bench {

template <typename Loop>
struct LoopHost {
    LoopHost() {
        KelLoop::init_all(0x1000000, "bench", nullptr);
        // A producer that outruns the loop retries refused posts; the log
        // line of each refusal would be measured instead of the hand-off.
        kellog::kel_log_set_level(LOG_ERROR + 1);
        loop = new Loop;
        thread = std::thread([this] { loop->execLoop(); });
    }
    ~LoopHost() {
        loop->exitLoop();
        thread.join();
        delete loop;
    }
    Loop* loop;
    std::thread thread;
};

}  // namespace bench

#endif
