// kel_demo: a small device daemon that uses every part of kel.
//
//   main loop      DeviceDaemon: events from every other part end up here.
//   state machine  Idle -> Connecting -> Running, with Error going back
//                  through the history to Connecting; a power-on event sent
//                  before the machine starts is held back and replayed.
//   timers         the connect retry, a heartbeat, the end of the run.
//   signals        SIGTERM shuts down in order; SIGUSR1 (sent by the daemon
//                  to itself once it runs) asks for a status report.
//   work queues    the blocking "connect" runs on a pooled thread.
//   dispatch loop  a sensor driver polls its device on a thread of its own;
//                  the main loop reads it consistently with the queue lock.
//
// It ends by itself after about three seconds with status 0 (or on SIGTERM).
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "app_timer.h"
#include "common_log.h"
#include "dispatch_process.h"
#include "kel_dispatch.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "state_mache.h"

namespace {

// ------------------------------------------------------------- messages

enum AppSignal { SIG_STATUS = SIG_INNER_MAX, SIG_START_MACHINE };
enum StateMsg { EV_POWER_ON = 1, EV_CONNECTED, EV_CONNECT_FAILED, EV_RETRY, EV_SHUTDOWN };
enum StateIndex { IDLE, CONNECTING, RUNNING, ERROR, STATE_COUNT };

// Sends a message to the state machine through the loop. Any thread.
void sendState(long msg) {
    StateQEvt* e = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
    if (e == nullptr) return;  // the pools have said so in the log
    e->stateMsg = msg;
    e->msgId = e->wParam = e->lParam = 0;
    e->pHander = nullptr;
    if (!_loop->post(e)) Kel::gc(e);
}

// ---------------------------------------------------- the sensor driver

// Runs a dispatch loop on its own thread and polls its "device" every 20 ms.
// Two fields change together; other threads read them under the queue's
// explicit lock, so they never see one without the other.
class SensorDriver : public dispatch::Object, public dispatch::Loop {
public:
    SensorDriver() : mPoll(&mQueue) {
        setQueue(&mQueue);
        mPoll.setHandler(dispatch::FUNC(&SensorDriver::poll), this);
        mPoll.setRepeat(true);
    }
    void start() {
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "sensor-driver");
            mPoll.restart(20);
            exec();
        });
    }
    void stop() {
        mPoll.stop();
        exit();
        mThread.join();
    }
    // Not from the driver's thread.
    void snapshot(long* samples, long* sum) {
        mQueue.lock();
        *samples = mSamples;
        *sum = mSum;
        mQueue.unlock();
    }
    void procSubMsg(const Evt&) override {}

private:
    // The timer queues the sampling: the explicit lock holds queued
    // callbacks back, not a timer callback already running.
    void poll() { mQueue.enqueueNotify(dispatch::FUNC(&SensorDriver::sample), this); }
    void sample() {
        ++mSamples;
        mSum += 20 + mSamples % 5;
    }

    dispatch::Queue mQueue;
    dispatch::Timer mPoll;
    std::thread mThread;
    long mSamples = 0;
    long mSum = 0;
};

// ------------------------------------------------------------ the daemon

class DeviceDaemon : public KelLoop {
public:
    DeviceDaemon() : KelLoop(64) {}

    // Loop thread: the start of the machine, or a heartbeat's report.
    void procSubMsg(const QEvt* e) override {
        if (e->sig == SIG_START_MACHINE) {
            // Replays what the machine held back. Not from a timer handler:
            // the machine's lock comes before the timer list's.
            machine->initialize();
            return;
        }
        if (e->sig != SIG_STATUS) return;
        long samples = 0, sum = 0;
        driver.snapshot(&samples, &sum);
        KEL_LOG(LOG_INFO, "sensor: %ld samples, mean %ld", samples, samples ? sum / samples : 0L);
        if (++reports == 3) {
            // Ask for a status report the way an operator would: SIGUSR1.
            union sigval v;
            v.sival_ptr = nullptr;  // all of it set: the kernel copies the whole union
            v.sival_int = reports;
            sigqueue(getpid(), SIGUSR1, v);
        }
    }
    // Loop thread, for SIGUSR1/SIGUSR2: who asked, and with what value.
    bool broadcast(int pid, int value) override {
        KEL_LOG(LOG_INFO, "status report for pid %d (value %d): %d heartbeats", pid, value, reports);
        sendState(EV_SHUTDOWN);
        return true;
    }
    void poweroff() override { KEL_LOG(LOG_INFO, "SIGTERM: shutting down in order"); }

    SensorDriver driver;
    StateMache* machine = nullptr;
    int reports = 0;
};

// --------------------------------------------------------- blocking work

// On a pooled thread: a blocking connect (simulated). The first attempt
// fails, the retry succeeds. The result goes back as a state message.
void connectJob(void* ctx) {
    std::atomic<int>* attempts = static_cast<std::atomic<int>*>(ctx);
    usleep(100 * 1000);
    sendState(attempts->fetch_add(1) == 0 ? EV_CONNECT_FAILED : EV_CONNECTED);
}

// -------------------------------------------------------------- states

struct Context {
    DeviceDaemon* daemon;
    DispathQueue* io;
    std::atomic<int> attempts{0};
    ATimer* retry;
    ATimer* heartbeat;
};

class Idle : public KelState {
public:
    explicit Idle(Context* ctx) : c(ctx) {}
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == EV_POWER_ON) return CONNECTING;
        return state::STATE_RETURN_NORMAL;
    }
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_INFO, "idle: stopping the loop");
        c->daemon->exitLoop();
        return 0;
    }
    Context* c;
};

class Connecting : public KelState {
public:
    explicit Connecting(Context* ctx) : c(ctx) {}
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_INFO, "connecting (attempt %d)", c->attempts.load() + 1);
        kel_dispatch_async_t(c->io, connectJob, &c->attempts);
        return 0;
    }
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == EV_CONNECTED) return RUNNING;
        if (e->stateMsg == EV_CONNECT_FAILED) return ERROR;
        return state::STATE_RETURN_NORMAL;
    }
    Context* c;
};

class Running : public KelState {
public:
    explicit Running(Context* ctx) : c(ctx) {}
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_INFO, "running");
        c->daemon->driver.start();
        c->heartbeat->restart(300);
        return 0;
    }
    int exit(const StateQEvt*) override {
        c->heartbeat->stop();
        c->daemon->driver.stop();
        return 0;
    }
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == EV_SHUTDOWN) return IDLE;
        return state::STATE_RETURN_NORMAL;
    }
    Context* c;
};

class Error : public KelState {
public:
    explicit Error(Context* ctx) : c(ctx) {}
    int entry(const StateQEvt*) override {
        KEL_LOG(LOG_WARN, "connect failed, retrying in 200 ms");
        c->retry->restart(200);
        return 0;
    }
    // Back through the history: to the state that failed.
    int translate(const StateQEvt* e) override {
        if (e->stateMsg == EV_RETRY) return state::STATE_RETURN_BACK;
        return state::STATE_RETURN_NORMAL;
    }
    Context* c;
};

class DeviceMachine : public StateMache {
public:
    DeviceMachine() : StateMache(STATE_COUNT, IDLE) {}
    // Connecting and Running can be returned to; Error cannot.
    bool test_state(int st) override { return st == CONNECTING || st == RUNNING; }
    // Power-on sent before start-up is still wanted.
    bool test_event(int msg) override { return msg == EV_POWER_ON; }
};

void retryTimer(ATimer*, void*) { sendState(EV_RETRY); }

void heartbeatTimer(ATimer* t, void*) {
    // Handlers may not touch timers or the driver's lock: post instead.
    _loop->postCmd(SIG_STATUS);
    t->setReStart(true);
}

void startMachine(ATimer*, void*) { _loop->postCmd(SIG_START_MACHINE); }

void endOfRun(ATimer*, void*) {
    KEL_LOG(LOG_WARN, "run took too long, stopping");
    _loop->exitLoop();
}

}  // namespace

int main() {
    KelLoop::init_all(0, "kel_demo", nullptr);
    // The handler taken for SIGTERM also turns SIGUSR1 into an event.
    struct sigaction act;
    sigaction(SIGTERM, nullptr, &act);
    sigaction(SIGUSR1, &act, nullptr);

    DeviceDaemon daemon;
    DeviceMachine machine;
    daemon.machine = &machine;
    ATimer retry, heartbeat, start, deadline;
    Context ctx;
    ctx.daemon = &daemon;
    ctx.io = kel_dispatch_queue_create();
    ctx.retry = &retry;
    ctx.heartbeat = &heartbeat;
    machine.registStates(new Idle(&ctx), "Idle", 0);
    machine.registStates(new Connecting(&ctx), "Connecting", 0);
    machine.registStates(new Running(&ctx), "Running", 0);
    machine.registStates(new Error(&ctx), "Error", 0);

    retry.setHandler(retryTimer, nullptr);
    heartbeat.setHandler(heartbeatTimer, nullptr);
    // Sent before the machine runs: held back, then replayed by initialize.
    sendState(EV_POWER_ON);
    start.setHandler(startMachine, nullptr);
    start.restart(100);
    deadline.setHandler(endOfRun, nullptr);
    deadline.restart(10000);

    KEL_LOG(LOG_INFO, "daemon starts");
    int ret = daemon.execLoop();
    KEL_LOG(LOG_INFO, "daemon stopped (%d), final state %d", ret, machine.currentState());

    // Orderly end: timers, then the driver if SIGTERM came while running,
    // then the work queue; the machine and the loop go last.
    retry.stop();
    heartbeat.stop();
    start.stop();
    deadline.stop();
    if (machine.currentState() == RUNNING) daemon.driver.stop();
    kel_dispatch_queue_destory(ctx.io);
    return ret == 0 ? 0 : 1;
}
