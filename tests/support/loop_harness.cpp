#include "loop_harness.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_timer.h"

namespace {

void onAlarm(int) {
    static const char msg[] = "\n*** watchdog: test did not finish in time (hang?) ***\n";
    ssize_t w = write(STDERR_FILENO, msg, sizeof msg - 1);
    (void)w;
    _exit(2);
}

std::string readThreadName(const std::string& tid) {
    std::string path = "/proc/self/task/" + tid + "/comm";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return "";
    char buf[64] = {0};
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

void expectPoolsFull(KelLoop* loop) {
    expectFull(loop->timerList()->nodePool(), "timer");
    expectFull(loop->generalPool(), "general");
    expectFull(loop->statePool(), "state");
}

int currentTid() { return static_cast<int>(syscall(SYS_gettid)); }

// Thread ids of this process, the main thread's first.
std::vector<std::string> threadIds() {
    std::string self = std::to_string(getpid());
    std::vector<std::string> out{self};
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return out;
    while (dirent* ent = readdir(d)) {
        std::string tid = ent->d_name;
        if (tid != "." && tid != ".." && tid != self) out.push_back(tid);
    }
    closedir(d);
    return out;
}

std::vector<std::string> strayThreads() {
    std::vector<std::string> out;
    std::vector<std::string> tids = threadIds();
    std::string mainName = readThreadName(tids[0]);
    int helpers = 0;
    for (size_t i = 1; i < tids.size(); ++i) {
        std::string name = readThreadName(tids[i]);
        if (name == "kel-signal") continue;
#if defined(__SANITIZE_THREAD__)
        // The thread sanitizer runs one helper thread of its own.
        if (name == mainName && helpers++ == 0) continue;
#endif
        out.push_back(name + "/" + tids[i]);
    }
    (void)helpers;
    return out;
}

int threadsNamed(const std::string& name) {
    int n = 0;
    for (const std::string& tid : threadIds()) n += readThreadName(tid) == name ? 1 : 0;
    return n;
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
