// state_demo: a link to a device, run by a state machine on the main loop.
//
//   Idle --start--> Connecting --connected--> Running --fault--> Error
//                        ^                                         |
//                        +------- retry: back through history -----+
//
// A worker thread plays the device: it initialises the machine (events sent
// before that are held back and replayed), reports the link coming up,
// streams data and, once, a fault. Timers guard the connection attempt, pace
// the retry after an error and end the run after about 2.5 s. SIGTERM ends
// it earlier. Either way the worker is stopped on the loop's thread, the
// loop returns, timers and machine go before the loop, and the exit status
// is 0.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "app_timer.h"
#include "common_log.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_state.h"
#include "state_mache.h"

namespace {

enum Msg { MSG_START = 1, MSG_CONNECTED, MSG_CONNECT_TIMEOUT, MSG_DATA, MSG_FAULT, MSG_RETRY, MSG_STALE };
enum Index { IDLE, CONNECTING, RUNNING, FAILED, STATE_COUNT };
enum { EV_SHUTDOWN = SIG_INNER_MAX };

// Sends a state event through the loop (from any thread, timer handlers
// included: they must not call the machine directly).
void sendState(long msg, long arg = 0) {
    StateQEvt* e = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
    if (e == nullptr) return;  // the pool has logged
    e->stateMsg = msg;
    e->msgId = arg;
    e->wParam = 0;
    e->lParam = 0;
    e->pHander = nullptr;
    if (!_loop->post(e)) Kel::gc(e);
}

// Arms `t` to send `msg` to the machine after `ms`.
void armSender(ATimer* t, long msg, int ms) {
    t->setHandler([](ATimer*, void* m) { sendState(reinterpret_cast<long>(m)); },
                  reinterpret_cast<void*>(msg));
    t->restart(ms);
}

// ------------------------------------------------------------------ device

class Device {
public:
    explicit Device(StateMache* m) : mMache(m) {}

    void start() {
        mThread = std::thread([this] { run(); });
    }
    // Loop thread. Returns once the thread has ended.
    void stop() {
        {
            std::lock_guard<std::mutex> g(mMtx);
            mStop = true;
        }
        mCv.notify_all();
        if (mThread.joinable()) mThread.join();
    }

    std::atomic<bool> linkUp{false};
    std::atomic<bool> connectWanted{false};

private:
    // Sleeps `ms` unless stopped; false once stopped.
    bool pause(int ms) {
        std::unique_lock<std::mutex> g(mMtx);
        return !mCv.wait_for(g, std::chrono::milliseconds(ms), [this] { return mStop; });
    }

    void run() {
        if (!pause(100)) return;
        KEL_LOG(LOG_INFO, "device: powered up, starting the state machine");
        mMache->initialize();
        long seq = 0;
        bool faulted = false;
        while (pause(50)) {
            if (!linkUp && connectWanted) {
                if (!pause(200)) return;
                linkUp = true;
                sendState(MSG_CONNECTED);
            } else if (linkUp) {
                sendState(MSG_DATA, ++seq);
                if (seq == 6 && !faulted) {
                    faulted = true;
                    linkUp = false;
                    sendState(MSG_FAULT);
                }
                if (!pause(100)) return;
            }
        }
    }

    StateMache* mMache;
    std::thread mThread;
    std::mutex mMtx;
    std::condition_variable mCv;
    bool mStop = false;
};

// ------------------------------------------------------------------ states

class Idle : public KelState {
public:
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_INFO, "Idle");
        return 0;
    }
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == MSG_START) {
            KEL_LOG(LOG_INFO, "start request #%ld", e->msgId);
            return CONNECTING;
        }
        return state::STATE_RETURN_NORMAL;
    }
};

class Connecting : public KelState {
public:
    Connecting(Device* d, ATimer* t) : mDev(d), mGuard(t) {}
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_INFO, "Connecting (gives up after 800 ms)");
        mDev->connectWanted = true;
        armSender(mGuard, MSG_CONNECT_TIMEOUT, 800);
        return 0;
    }
    int exit(const StateQEvt*) override {
        mGuard->stop();
        return 0;
    }
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == MSG_CONNECTED) return RUNNING;
        if (e->stateMsg == MSG_CONNECT_TIMEOUT) return FAILED;
        return state::STATE_RETURN_NORMAL;
    }

private:
    Device* mDev;
    ATimer* mGuard;
};

class Running : public KelState {
public:
    explicit Running(Device* d) : mDev(d) {}
    int entry(const StateQEvt*) override {
        // Coming back through the history with the link down: refuse, and
        // the walk goes on to an older state.
        if (!mDev->linkUp) {
            KEL_LOG(LOG_INFO, "Running refused: link is down");
            return 1;
        }
        KEL_LOG(LOG_INFO, "Running");
        return 0;
    }
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == MSG_DATA) {
            KEL_LOG(LOG_INFO, "data #%ld", e->msgId);
            return state::STATE_RETURN_NORMAL;
        }
        if (e->stateMsg == MSG_FAULT) {
            KEL_LOG(LOG_WARN, "link fault");
            return FAILED;
        }
        return state::STATE_RETURN_NORMAL;
    }

private:
    Device* mDev;
};

class Failed : public KelState {
public:
    explicit Failed(ATimer* t) : mRetry(t) {}
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_WARN, "Error: retrying in 300 ms");
        armSender(mRetry, MSG_RETRY, 300);
        return 0;
    }
    int translate(const StateQEvt* e) override {
        return e->stateMsg == MSG_RETRY ? int(state::STATE_RETURN_BACK) : int(state::STATE_RETURN_NORMAL);
    }

private:
    ATimer* mRetry;
};

class LinkMache : public StateMache {
public:
    LinkMache() : StateMache(STATE_COUNT, IDLE) {}
    // Going back may return to Connecting and Running, never to Error.
    bool test_state(int st) override { return st == CONNECTING || st == RUNNING; }
    // Of what came in before start-up, only start requests still matter.
    bool test_event(int msg) override {
        KEL_LOG(LOG_INFO, "held-back %s: %s", msg == MSG_START ? "start request" : "stale message",
                msg == MSG_START ? "replayed" : "dropped");
        return msg == MSG_START;
    }
};

// ------------------------------------------------------------------- loop

class DemoLoop : public KelLoop {
public:
    DemoLoop() : KelLoop(32) {}
    void setParts(Device* d, StateMache* m) {
        mDev = d;
        mMache = m;
    }
    void poweroff() override {
        KEL_LOG(LOG_WARN, "SIGTERM: shutting down");
        finish();
    }
    void procSubMsg(const QEvt* e) override {
        if (e->sig != EV_SHUTDOWN) return;
        KEL_LOG(LOG_INFO, "run time is over: shutting down");
        finish();
        exitLoop();
    }

private:
    void finish() {
        static const char* const kNames[STATE_COUNT] = {"Idle", "Connecting", "Running", "Error"};
        mDev->stop();
        KEL_LOG(LOG_INFO, "device stopped; state at the end: %s", kNames[mMache->currentState()]);
        mMache->profile();
    }

    Device* mDev = nullptr;
    StateMache* mMache = nullptr;
};

}  // namespace

int main() {
    KelLoop::init_all(0, "state_demo", nullptr);
    DemoLoop loop;
    int ret;
    {
        ATimer connectGuard, retry, lifetime;
        LinkMache mache;
        Device device(&mache);
        mache.registStates(new Idle, "Idle", 0);
        mache.registStates(new Connecting(&device, &connectGuard), "Connecting", 0);
        mache.registStates(new Running(&device), "Running", 0);
        mache.registStates(new Failed(&retry), "Error", 0);
        loop.setParts(&device, &mache);

        // Sent before the machine runs: held back until the device starts it.
        sendState(MSG_STALE);
        sendState(MSG_START, 1);
        sendState(MSG_START, 2);

        lifetime.setHandler([](ATimer*, void*) { _loop->postCmd(EV_SHUTDOWN); }, nullptr);
        lifetime.restart(2500);
        device.start();

        ret = loop.execLoop();
        KEL_LOG(LOG_INFO, "loop returned %d", ret);
        device.stop();  // already stopped on the loop's thread; harmless
        // Timers stop and the machine goes before the loop.
    }
    return ret;
}
