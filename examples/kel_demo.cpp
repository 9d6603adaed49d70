// kel_demo: a small device daemon on the main loop.
//
// A sensor thread posts readings as events; a repeating heartbeat timer
// reports what arrived; a one-shot timer ends the run after two seconds
// (or SIGTERM ends it earlier). Everything the loop does runs on the main
// thread; the sensor thread only allocates and posts.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "app_timer.h"
#include "common_log.h"
#include "kel_loop.h"
#include "kel_port.h"

namespace {

enum { SIG_SENSOR_READING = SIG_INNER_PROC + 1 };

class DemoLoop : public KelLoop {
public:
    DemoLoop() : KelLoop(32) {}

    void procSubMsg(const QEvt* e) override {
        if (e->sig != SIG_SENSOR_READING) return;
        const GeneralQEvt* g = static_cast<const GeneralQEvt*>(e);
        ++readings;
        sum += g->wParam;
    }
    void poweroff() override { KEL_LOG(LOG_INFO, "SIGTERM: shutting down in order"); }

    long readings = 0;
    long sum = 0;
};

void heartbeat(ATimer*, void* p) {
    DemoLoop* loop = static_cast<DemoLoop*>(p);
    KEL_LOG(LOG_INFO, "%ld readings, mean %ld", loop->readings,
            loop->readings ? loop->sum / loop->readings : 0L);
}

void endOfRun(ATimer*, void* p) {
    KEL_LOG(LOG_INFO, "run complete, stopping the loop");
    static_cast<DemoLoop*>(p)->exitLoop();
}

}  // namespace

int main() {
    KelLoop::init_all(0, "kel_demo", nullptr);
    DemoLoop loop;

    ATimer beat, done;
    beat.setHandler(heartbeat, &loop);
    beat.setRepeat(true);
    beat.restart(250);
    done.setHandler(endOfRun, &loop);
    done.restart(2000);

    std::atomic<bool> running{true};
    std::thread sensor([&] {
        long value = 20;
        while (running.load()) {
            GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(SIG_SENSOR_READING, sizeof(GeneralQEvt)));
            if (e != nullptr) {
                value = 20 + static_cast<long>(KelLoop::rand() % 5);
                e->wParam = value;
                if (!loop.post(e)) Kel::gc(e);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });

    KEL_LOG(LOG_INFO, "loop starts");
    int ret = loop.execLoop();
    KEL_LOG(LOG_INFO, "loop ended with %d after %ld readings", ret, loop.readings);

    // Timers die before the loop; the sensor stops posting first.
    running.store(false);
    sensor.join();
    beat.stop();
    done.stop();
    return ret == 0 ? 0 : 1;
}
