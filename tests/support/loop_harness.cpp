#include "loop_harness.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <fstream>

namespace {

void onAlarm(int) {
    static const char msg[] = "\n*** watchdog: test did not finish in time (hang?) ***\n";
    (void)!write(STDERR_FILENO, msg, sizeof msg - 1);
    _exit(2);
}

std::string readThreadName(const std::string& tid) {
    std::ifstream f("/proc/self/task/" + tid + "/comm");
    std::string s;
    std::getline(f, s);
    return s;
}

}  // namespace

Watchdog::Watchdog(unsigned seconds) {
    struct sigaction act = {};
    act.sa_handler = onAlarm;
    sigaction(SIGALRM, &act, nullptr);
    alarm(seconds);
}

bool waitUntil(const std::function<bool()>& pred, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int polls = 0; std::chrono::steady_clock::now() < end; ++polls) {
        if (pred()) return true;
        // Short waits are polled closely, long ones gently.
        polls < 2000 ? std::this_thread::yield() : std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
    while (dirent* ent = d ? readdir(d) : nullptr) {
        std::string tid = ent->d_name, name = readThreadName(tid);
        if (tid != "." && tid != ".." && tid != self && name.rfind("qemu", 0) != 0) out.push_back(name);
    }
    if (d) closedir(d);
    return out;
}

int threadsNamed(const std::string& name) {
    std::vector<std::string> all = threadNames();
    return static_cast<int>(std::count(all.begin(), all.end(), name));
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
    return waitUntil([] { return strayThreads().empty() && poolIdle(); }, 10);
}

double stressSeconds(double dflt) {
    const char* s = getenv("KEL_SOAK_SECONDS");
    double v = s ? atof(s) : 0.0;
    return getenv("KEL_SOAK") == nullptr ? dflt : v > 0 ? v : 10.0;
}

GeneralQEvt* newGeneral(int sig, long w, long l) {
    GeneralQEvt* e = static_cast<GeneralQEvt*>(KelLoop::newEvt(sig, sizeof(GeneralQEvt)));
    if (e != nullptr) e->wParam = w, e->lParam = l;
    return e;
}

bool postGeneral(KelLoop* loop, int sig, long w, long l) {
    GeneralQEvt* e = newGeneral(sig, w, l);
    if (e != nullptr && !loop->post(e)) Kel::gc(e), e = nullptr;  // a refused event goes home
    return e != nullptr;
}

StateQEvt* newStateEvt(long stateMsg, long msgId) {
    StateQEvt* e = static_cast<StateQEvt*>(KelLoop::newEvt(SIG_STATE_DELAY_EVENT, sizeof(StateQEvt)));
    if (e != nullptr) e->stateMsg = stateMsg, e->msgId = msgId;
    return e;
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

void KelTest::TearDown() {
    if (loop != nullptr) {
        for (KelPool* p : {loop->timerList()->nodePool(), loop->generalPool(), loop->statePool()})
            EXPECT_EQ(p->getNFree(), p->getNTot()) << "a pool has blocks out";
        delete loop;
    }
    KelLoop::uninit_all();
    EXPECT_TRUE(waitForNoStrayThreads()) << ::testing::PrintToString(strayThreads());
}
