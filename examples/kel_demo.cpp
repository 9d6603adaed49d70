// kel_demo: a small device daemon that uses every part of kel.
//
//   main loop      DeviceDaemon: events from every other part end up here;
//                  it also serves status requests on a UDP socket on the
//                  loopback address (descriptors watched by the loop).
//   state machine  Idle -> Connecting -> Running, with Error going back
//                  through the history to Connecting; a power-on event sent
//                  before the machine starts is held back and replayed.
//   timers         the connect retry, a heartbeat, the end of the run.
//   signals        SIGTERM shuts down in order, SIGINT (Ctrl-C) interrupts;
//                  SIGHUP and SIGUSR1 are asked for as well: the daemon sends
//                  itself both once it runs, SIGUSR1 asking for a report.
//   work queues    the blocking "connect" runs on a pooled thread.
//   dispatch loop  a sensor driver reads its UART (a pseudo-terminal whose
//                  other end a thread plays as the device) on a thread of
//                  its own; the main loop reads it consistently with the
//                  queue lock. A dispatch timer notices a silent device.
//
// It ends by itself after about three seconds with status 0 (or on SIGTERM
// or SIGINT), and logs the pools' statistics when it stops.
#include <netinet/in.h>
#include <pthread.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "app_timer.h"
#include "common_log.h"
#include "dispatch_process.h"
#include "kel_dispatch.h"
#include "kel_loop.h"
#include "kel_port.h"
#include "kel_stats.h"
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

// ----------------------------------------------------- the UART device

// Plays the device at the far end of a pseudo-terminal: a temperature line
// every 20 ms until the daemon closes the line.
class UartDevice {
public:
    // The daemon's end of the line; -1 when no pseudo-terminal is free.
    int open() {
        struct termios raw;
        memset(&raw, 0, sizeof raw);
        cfmakeraw(&raw);
        if (openpty(&mMaster, &mSlave, nullptr, &raw, nullptr) != 0) return -1;
        mThread = std::thread([this] { play(); });
        return mSlave;
    }
    // After the daemon stopped reading.
    void close() {
        if (mSlave < 0) return;
        mStop = true;
        mThread.join();
        ::close(mSlave);
        ::close(mMaster);
        mSlave = -1;
    }

private:
    void play() {
        pthread_setname_np(pthread_self(), "uart-device");
        char buf[64];
        for (int n = 0; !mStop; ++n) {
            int len = snprintf(buf, sizeof buf, "T=%d\n", 20 + n % 5);
            if (write(mMaster, buf, len) != len) break;
            usleep(20 * 1000);
        }
    }

    int mMaster = -1;
    int mSlave = -1;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

// ---------------------------------------------------- the sensor driver

// Runs a dispatch loop on its own thread and reads temperature lines from
// its UART whenever the descriptor is readable. Two fields change together;
// other threads read them under the queue's explicit lock, so they never
// see one without the other. A timer re-armed by every line warns when the
// device falls silent.
class SensorDriver : public dispatch::Object, public dispatch::Loop {
public:
    SensorDriver() : mSilence(&mQueue) {
        setQueue(&mQueue);
        mSilence.setHandler(dispatch::FUNC(&SensorDriver::silent), this);
    }
    bool start() {
        mFd = mDevice.open();
        if (mFd < 0) return false;
        watchFd(mFd, KEL_FD_IN, dispatch::FDFUNC(&SensorDriver::readable), this);
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "sensor-driver");
            mSilence.restart(500);
            exec();
        });
        return true;
    }
    void stop() {
        if (mFd < 0) return;
        unwatchFd(mFd);  // the handler is not running after this returns
        mSilence.stop();
        exit();
        mThread.join();
        mDevice.close();
        mFd = -1;
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
    // Driver thread, no lock held: whole lines only, the rest waits.
    void readable(int fd, unsigned) {
        ssize_t n = read(fd, mLine + mLen, sizeof mLine - 1 - mLen);
        if (n <= 0) return;
        mLen += n;
        mLine[mLen] = '\0';
        char* start = mLine;
        for (char* nl; (nl = strchr(start, '\n')) != nullptr; start = nl + 1) {
            *nl = '\0';
            if (strncmp(start, "T=", 2) != 0) continue;
            // The processing thread: a reader holding the explicit lock
            // holds this callback back, so no lock is needed here.
            ++mSamples;
            mSum += atol(start + 2);
            mSilence.restart(500);
        }
        mLen = static_cast<int>(strlen(start));
        memmove(mLine, start, mLen);
    }
    void silent() { KEL_LOG(LOG_WARN, "sensor: the device is silent"); }

    UartDevice mDevice;
    dispatch::Queue mQueue;
    dispatch::Timer mSilence;
    std::thread mThread;
    int mFd = -1;
    char mLine[128];
    int mLen = 0;
    long mSamples = 0;
    long mSum = 0;
};

// ----------------------------------------------------- the status socket

// A UDP socket on the loopback address, watched by the main loop: a
// datagram "status" gets the sensor's figures as its answer. The heartbeat
// asks through a second socket, watched as well, which logs the answer.
struct StatusPort {
    int server = -1;
    int client = -1;
    sockaddr_in addr;

    bool open() {
        memset(&addr, 0, sizeof addr);
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        server = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        client = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        return server >= 0 && client >= 0 && bind(server, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
               getsockname(server, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    }
    void ask() { sendto(client, "status", 6, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr); }
    void close() {
        if (server >= 0) ::close(server);
        if (client >= 0) ::close(client);
        server = client = -1;
    }
};

// ------------------------------------------------------------ the daemon

class DeviceDaemon : public KelLoop {
public:
    DeviceDaemon() : KelLoop(64) {}

    bool openPort() {
        return port.open() && watchFd(port.server, KEL_FD_IN, serveStatus, this) &&
               watchFd(port.client, KEL_FD_IN, readAnswer, this);
    }
    void closePort() {
        if (port.server >= 0) unwatchFd(port.server);
        if (port.client >= 0) unwatchFd(port.client);
        port.close();
    }

    // Loop thread: the start of the machine, or a heartbeat's request.
    void procSubMsg(const QEvt* e) override {
        if (e->sig == SIG_START_MACHINE) {
            // Replays what the machine held back. Not from a timer handler:
            // the machine's lock comes before the timer list's.
            machine->initialize();
            return;
        }
        if (e->sig == SIG_STATUS) port.ask();
    }
    // Loop thread, for SIGUSR1/SIGUSR2: who asked, and with what value.
    bool broadcast(int pid, int value) override {
        KEL_LOG(LOG_INFO, "status report for pid %d (value %d): %d answers", pid, value, reports);
        sendState(EV_SHUTDOWN);
        return true;
    }
    void poweroff() override { KEL_LOG(LOG_INFO, "SIGTERM: shutting down in order"); }
    void interrupt() override { KEL_LOG(LOG_INFO, "SIGINT: stopping"); }

    SensorDriver driver;
    StateMache* machine = nullptr;
    StatusPort port;
    int reports = 0;

private:
    // Loop thread: one request, one answer to its sender.
    static void serveStatus(int fd, unsigned, void* arg) {
        DeviceDaemon* d = static_cast<DeviceDaemon*>(arg);
        char req[16];
        sockaddr_in from;
        socklen_t len = sizeof from;
        if (recvfrom(fd, req, sizeof req, 0, reinterpret_cast<sockaddr*>(&from), &len) <= 0) return;
        long samples = 0, sum = 0;
        d->driver.snapshot(&samples, &sum);
        char ans[64];
        int n = snprintf(ans, sizeof ans, "%ld samples, mean %ld", samples, samples ? sum / samples : 0L);
        sendto(fd, ans, n, 0, reinterpret_cast<sockaddr*>(&from), len);
    }
    // Loop thread: the answer to the heartbeat's request.
    static void readAnswer(int fd, unsigned, void* arg) {
        DeviceDaemon* d = static_cast<DeviceDaemon*>(arg);
        char ans[64];
        ssize_t n = recv(fd, ans, sizeof ans - 1, 0);
        if (n <= 0) return;
        ans[n] = '\0';
        KEL_LOG(LOG_INFO, "sensor: %s", ans);
        if (++d->reports == 3) {
            // What an operator would do: SIGHUP (logged by the framework,
            // the daemon runs on), then SIGUSR1 asking for a report.
            kill(getpid(), SIGHUP);
            union sigval v;
            v.sival_ptr = nullptr;  // all of it set: the kernel copies the whole union
            v.sival_int = d->reports;
            sigqueue(getpid(), SIGUSR1, v);
        }
    }
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
        if (!c->daemon->driver.start()) KEL_LOG(LOG_WARN, "no pseudo-terminal: running without the sensor");
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
    // Besides SIGTERM and SIGPIPE: Ctrl-C, SIGHUP and the status request.
    KelLoop::enableSignals(KEL_SIGNAL_INT | KEL_SIGNAL_HUP | KEL_SIGNAL_USR1);
    KelLoop::init_all(0, "kel_demo", nullptr);

    DeviceDaemon daemon;
    if (!daemon.openPort()) KEL_LOG(LOG_WARN, "no status socket: running without it");
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

    // Orderly end: timers, then the driver if a signal came while running,
    // then the socket and the work queue; the machine and the loop go last.
    retry.stop();
    heartbeat.stop();
    start.stop();
    deadline.stop();
    if (machine.currentState() == RUNNING) daemon.driver.stop();
    daemon.closePort();
    kel_dispatch_queue_destory(ctx.io);
    // What the pools went through: the figures to size them by.
    kel_stats_log();
    return ret == 0 ? 0 : 1;
}
