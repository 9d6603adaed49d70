#include "loop_harness.h"

#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_timer.h"
#include "threads.h"

namespace {

void onAlarm(int) {
    static const char msg[] = "\n*** watchdog: test did not finish in time (hang?) ***\n";
    ssize_t w = write(STDERR_FILENO, msg, sizeof msg - 1);
    (void)w;
    _exit(2);
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

std::vector<std::string> strayThreads() {
    std::vector<std::string> out;
    std::vector<ThreadEntry> threads = processThreads();
    int helpers = 0;
    for (size_t i = 1; i < threads.size(); ++i) {
        if (threads[i].name == "kel-signal") continue;
#if defined(__SANITIZE_THREAD__)
        // The thread sanitizer runs one helper thread of its own.
        if (threads[i].name == threads[0].name && helpers++ == 0) continue;
#endif
        out.push_back(threads[i].name + "/" + threads[i].tid);
    }
    (void)helpers;
    return out;
}

bool waitForNoStrayThreads() {
    for (int i = 0; i < 10000; ++i) {
        if (strayThreads().empty()) return true;
        usleep(1000);
    }
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
