// Random sequences of enqueue, enqueueNotify, enqueueAutofree, cancelFn,
// queueProcess and timer operations on one dispatch queue and one thread,
// checked against a model: a list of pending calls, the timers' pending
// entries in deadline order, and the node counters.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <deque>
#include <vector>

#include "dispatch_process.h"
#include "fuzz_common.h"

using dispatch::FUNC;
using dispatch::Object;
using dispatch::Queue;
using dispatch::Timer;

namespace {

constexpr int kTargets = 3;
constexpr int kTimers = 3;
constexpr int kFar = 100000;  // ms; never due within one input

// What ran, as a tag per call.
std::vector<int> gRan;

struct Target : public Object {
    int id = 0;
    void a() { gRan.push_back(id * 2); }
    void b() { gRan.push_back(id * 2 + 1); }
};

// Freed by the queue after its call; counted while alive.
int gOwnedAlive = 0;
struct Owned : public Object {
    explicit Owned(int tag) : tag(tag) { ++gOwnedAlive; }
    ~Owned() override { --gOwnedAlive; }
    void a() { gRan.push_back(tag); }
    int tag;
};

struct Pending {
    Object::Callback1 fn;
    Object* target;
    bool notify;
    int tag;
};

struct TimerModel {
    bool running = false;
    bool due = false;  // pending entry with delay 0 (otherwise far)
    bool pending = false;
    long armedAt = 0;  // order of arming, for equal deadlines
};

int nodesUsed(Queue& q) {
    q.profile();
    int used = -1, made = -1;
    sscanf(fuzz::gLastLine, "node pools: used=%d, counts=%d", &used, &made);
    return used;
}

int64_t nowUs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    __logprintf = fuzz::quietLog;
    fuzz::Input in(data, size);
    Queue q;
    FUZZ_CHECK(nodesUsed(q) == 0);
    Target targets[kTargets];
    for (int i = 0; i < kTargets; ++i) targets[i].id = i;
    Target timerTargets[kTimers];
    std::vector<Timer*> timers;
    for (int i = 0; i < kTimers; ++i) {
        timerTargets[i].id = 50 + i;
        timers.push_back(new Timer(&q));
        timers[i]->setHandler(FUNC(&Target::a), &timerTargets[i]);
    }
    std::deque<Pending> pending;
    TimerModel tm[kTimers];
    std::vector<Owned*> owned;  // queued with enqueueAutofree, not yet run
    long armings = 0;
    int64_t lastDueArm = 0;
    int nextTag = 1000;
    gRan.clear();

    while (in.more()) {
        uint8_t op = in.byte();
        uint8_t arg = in.byte();
        Target* t = &targets[arg % kTargets];
        bool useB = (arg >> 2) & 1;
        Object::Callback1 fn = useB ? FUNC(&Target::b) : FUNC(&Target::a);
        int tag = t->id * 2 + (useB ? 1 : 0);
        TimerModel& m = tm[(arg >> 3) % kTimers];
        Timer* timer = timers[(arg >> 3) % kTimers];
        switch (op % 9) {
            case 0:
                if (pending.size() >= 200) break;
                q.enqueue(fn, t);
                pending.push_back({fn, t, false, tag});
                break;
            case 1: {
                if (pending.size() >= 200) break;
                q.enqueueNotify(fn, t);
                bool merged = std::any_of(pending.begin(), pending.end(), [&](const Pending& p) {
                    return p.notify && p.fn == fn && p.target == t;
                });
                if (!merged) pending.push_back({fn, t, true, tag});
                break;
            }
            case 2: {
                if (pending.size() >= 200) break;
                Owned* o = new Owned(nextTag++);
                q.enqueueAutofree(FUNC(&Owned::a), o);
                owned.push_back(o);
                pending.push_back({FUNC(&Owned::a), o, false, o->tag});
                break;
            }
            case 3:
                q.cancelFn(fn, t);
                pending.erase(std::remove_if(pending.begin(), pending.end(),
                                             [&](const Pending& p) { return p.fn == fn && p.target == t; }),
                              pending.end());
                break;
            case 4: {  // cancel a freed-after-call item: the target stays ours
                if (owned.empty()) break;
                Owned* o = owned[arg % owned.size()];
                q.cancelFn(FUNC(&Owned::a), o);
                pending.erase(std::remove_if(pending.begin(), pending.end(),
                                             [&](const Pending& p) { return p.target == o; }),
                              pending.end());
                owned.erase(std::find(owned.begin(), owned.end(), o));
                delete o;
                break;
            }
            case 5: {  // process: pending calls in order, then due timers by deadline
                std::vector<int> want;
                for (const Pending& p : pending) want.push_back(p.tag);
                std::vector<int> order;
                for (int i = 0; i < kTimers; ++i) {
                    if (tm[i].pending && tm[i].due) order.push_back(i);
                }
                std::sort(order.begin(), order.end(),
                          [&](int x, int y) { return tm[x].armedAt < tm[y].armedAt; });
                for (int i : order) {
                    want.push_back(timerTargets[i].id * 2);
                    tm[i].pending = false;  // one-shot: the entry goes, the flag stays
                }
                while (nowUs() <= lastDueArm + 1) {
                }
                gRan.clear();
                q.queueProcess(0);
                FUZZ_CHECK(gRan == want);
                for (const Pending& p : pending) {
                    auto it = std::find(owned.begin(), owned.end(), p.target);
                    if (it != owned.end()) owned.erase(it);
                }
                pending.clear();
                break;
            }
            case 6:
                timer->restart(0);
                lastDueArm = nowUs();
                m = {true, true, true, ++armings};
                break;
            case 7:
                timer->restart(kFar);
                m = {true, false, true, ++armings};
                break;
            case 8:
                timer->stop();
                m.running = false;
                m.pending = false;
                break;
        }
        int timersPending = 0;
        bool anyDue = false;
        for (int i = 0; i < kTimers; ++i) {
            FUZZ_CHECK(timers[i]->isRunning() == tm[i].running);
            if (tm[i].pending) ++timersPending;
            anyDue = anyDue || (tm[i].pending && tm[i].due);
        }
        FUZZ_CHECK(nodesUsed(q) == static_cast<int>(pending.size()) + timersPending);
        FUZZ_CHECK(gOwnedAlive == static_cast<int>(owned.size()));
        int64_t wait = q.getNeedWait();
        if (timersPending == 0)
            FUZZ_CHECK(wait == INT64_MAX);
        else if (!anyDue)
            FUZZ_CHECK(wait > 0 && wait <= static_cast<int64_t>(kFar) * 1000);
        else
            FUZZ_CHECK(wait < 2000);
    }

    // Wind down: timers go with their entries, the rest runs; no node is left.
    for (Timer* timer : timers) delete timer;
    q.queueProcess(0);
    FUZZ_CHECK(nodesUsed(q) == 0);
    return 0;
}
