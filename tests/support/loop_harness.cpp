#include "loop_harness.h"

#include "daemon_pool.h"

#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

#include "daemon_thread.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_timer.h"
#include "log_capture.h"

namespace {

void onAlarm(int) {
    static const char msg[] = "\n*** watchdog: test did not finish in time (hang?) ***\n";
    ssize_t w = write(STDERR_FILENO, msg, sizeof msg - 1);
    (void)w;
    _exit(2);
}

std::string readThreadName(const std::string& tid) {
    std::string path = "/proc/self/task/" + tid + "/comm";
    char buf[64] = {0};
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return "";
    if (fgets(buf, sizeof buf, f) == nullptr) buf[0] = '\0';
    fclose(f);
    std::string s(buf);
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

void expectFull(KelPool* p, const char* which) {
    EXPECT_EQ(p->getNFree(), p->getNTot()) << which << " pool has blocks out";
}

}  // namespace

Watchdog::Watchdog(unsigned seconds) {
    struct sigaction act;
    memset(&act, 0, sizeof act);
    act.sa_handler = onAlarm;
    sigemptyset(&act.sa_mask);
    sigaction(SIGALRM, &act, nullptr);
    alarm(seconds);
}

Watchdog::~Watchdog() { alarm(0); }

bool waitUntil(const std::function<bool()>& pred, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int polls = 0; std::chrono::steady_clock::now() < end; ++polls) {
        if (pred()) return true;
        // Short waits are polled closely, long ones gently.
        if (polls < 2000) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return pred();
}

void Gate::open() {
    std::lock_guard<std::mutex> l(mMutex);
    mOpen = true;
    mCond.notify_all();
}

bool Gate::wait(int seconds) {
    std::unique_lock<std::mutex> l(mMutex);
    return mCond.wait_for(l, std::chrono::seconds(seconds), [this] { return mOpen; });
}

std::string threadName() {
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

int currentTid() { return static_cast<int>(syscall(SYS_gettid)); }

std::vector<std::string> threadNames() {
    std::string self = std::to_string(getpid());
    std::vector<std::string> out{readThreadName(self)};
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return out;
    while (dirent* ent = readdir(d)) {
        std::string tid = ent->d_name;
        if (tid == "." || tid == ".." || tid == self) continue;
        std::string name = readThreadName(tid);
        if (name.rfind("qemu", 0) != 0) out.push_back(name);
    }
    closedir(d);
    return out;
}

int threadsNamed(const std::string& name) {
    int n = 0;
    for (const std::string& t : threadNames()) n += t == name ? 1 : 0;
    return n;
}

std::vector<std::string> strayThreads() {
    std::vector<std::string> all = threadNames(), out;
    int helpers = 0;
    for (size_t i = 1; i < all.size(); ++i) {
        // Idle pooled threads belong to the pool; the pool's own count says
        // whether one is still busy.
        if (all[i] == "kel-signal" || all[i].rfind("kel-pool-", 0) == 0) continue;
#if defined(__SANITIZE_THREAD__)
        // The thread sanitizer runs one helper thread of its own.
        if (all[i] == all[0] && helpers++ == 0) continue;
#endif
        out.push_back(all[i]);
    }
    (void)helpers;
    return out;
}

bool waitForNoStrayThreads() {
    return waitUntil([] { return strayThreads().empty() && kel_pool_counts().used == 0; }, 10);
}

double stressSeconds(double dflt) {
    if (getenv("KEL_SOAK") == nullptr) return dflt;
    const char* s = getenv("KEL_SOAK_SECONDS");
    double v = s ? atof(s) : 0.0;
    return v > 0 ? v : 10.0;
}

void expectPoolsFull(KelLoop* loop) {
    expectFull(loop->timerList()->nodePool(), "timer");
    expectFull(loop->generalPool(), "general");
    expectFull(loop->statePool(), "state");
}

GeneralQEvt* newGeneral(int sig, long w, long l) {
    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(sig, sizeof(GeneralQEvt)));
    if (e == nullptr) return nullptr;
    e->wParam = w;
    e->lParam = l;
    return e;
}

bool postGeneral(KelLoop* loop, int sig, long w, long l) {
    GeneralQEvt* e = newGeneral(sig, w, l);
    if (e == nullptr) return false;
    if (loop->post(e)) return true;
    Kel::gc(e);
    return false;
}

StateQEvt* newStateEvt(long stateMsg, long msgId, long wParam, long lParam, void* pHander) {
    StateQEvt* e = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
    if (e == nullptr) return nullptr;
    e->stateMsg = stateMsg;
    e->msgId = msgId;
    e->wParam = wParam;
    e->lParam = lParam;
    e->pHander = pHander;
    return e;
}

bool postStateEvt(long stateMsg, long msgId) {
    StateQEvt* e = newStateEvt(stateMsg, msgId);
    if (e == nullptr) return false;
    if (_loop->post(e)) return true;
    Kel::gc(e);
    return false;
}

void installKelHandlerFor(int sig) {
    struct sigaction act;
    sigaction(SIGTERM, nullptr, &act);
    sigaction(sig, &act, nullptr);
}

int dispatchNodesUsed(dispatch::Queue& q, int* made) {
    LogCapture cap;
    q.profile();
    int used = -1, count = -1;
    for (const auto& l : cap.lines())
        if (sscanf(l.text.c_str(), "node pools: used=%d, counts=%d", &used, &count) == 2) break;
    if (made != nullptr) *made = count;
    return used;
}

LoopRunner::LoopRunner(KelLoop* loop) : mLoop(loop), mResult(-2), mJoined(false) {
    mThread = std::thread([this] { mResult = mLoop->execLoop(); });
}

LoopRunner::~LoopRunner() {
    if (!mJoined && mThread.joinable()) {
        mLoop->exitLoop();
        mThread.join();
    }
}

int LoopRunner::join() {
    mThread.join();
    mJoined = true;
    return mResult;
}

void KelTest::SetUp() { KelLoop::init_all(0x3000000, "kel-test", nullptr); }

void KelTest::TearDown() {
    if (loop != nullptr) {
        expectPoolsFull(loop);
        delete loop;
    }
    KelLoop::uninit_all();
    EXPECT_TRUE(waitForNoStrayThreads()) << ::testing::PrintToString(strayThreads());
}
