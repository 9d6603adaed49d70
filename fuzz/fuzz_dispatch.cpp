// Random sequences of queuing, cancelling, processing and timer calls on one
// dispatch queue and one thread, checked against a model: the pending calls
// in order, the timers' entries by arming order, and the node count.
#include <chrono>

#include "dispatch_process.h"
#include "fuzz_common.h"

using namespace dispatch;

namespace {

constexpr int kTargets = 3, kTimers = 3;
constexpr int kFar = 100000;  // ms; never due within one input

std::vector<int> gRan;  // a tag per call
int gAlive = 0;

struct Target : public Object {
    Target() { ++gAlive; }
    ~Target() override { --gAlive; }
    void a() { gRan.push_back(tag); }
    void b() { gRan.push_back(tag + 1); }
    int tag = 0;
};

struct Pending {
    Object::Callback1 fn;
    Object* target;
    bool notify;
    int tag;
};

struct TimerModel {
    bool running = false, due = false;
    long armedAt = 0;  // 0: no entry; else the arming order, for equal deadlines
};

int nodesUsed(Queue& q) {
    q.profile();
    int used = -1;
    sscanf(fuzz::gLastLine, "node pools: used=%d", &used);
    return used;
}

int64_t nowUs() {  // the monotonic clock, as the queue's
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    __logprintf = fuzz::quietLog;
    fuzz::Input in(data, size);
    Queue q;
    Target targets[kTargets + kTimers];
    Timer* timers[kTimers];
    for (int i = 0; i < kTargets + kTimers; ++i) targets[i].tag = 2 * i;
    for (int i = 0; i < kTimers; ++i) {
        timers[i] = new Timer(&q);
        timers[i]->setHandler(FUNC(&Target::a), &targets[kTargets + i]);
    }
    const int base = gAlive;
    std::vector<Pending> pending;
    TimerModel tm[kTimers];
    long armings = 0;
    int64_t lastDueArm = 0;
    int nextTag = 1000;
    auto isOwned = [](const Pending& p) { return p.tag >= 1000; };  // queued with enqueueAutofree
    auto owned = [&] { return static_cast<int>(std::count_if(pending.begin(), pending.end(), isOwned)); };
    auto drop = [&](Object* target, const Object::Callback1* fn) {
        pending.erase(
            std::remove_if(pending.begin(), pending.end(),
                           [&](const Pending& p) { return p.target == target && (!fn || p.fn == *fn); }),
            pending.end());
    };

    while (in.more()) {
        int op = in.byte() % 9, arg = in.byte();
        Target* t = &targets[arg % kTargets];
        Object::Callback1 fn = (arg & 4) ? FUNC(&Target::b) : FUNC(&Target::a);
        int tag = t->tag + ((arg & 4) ? 1 : 0), ti = (arg >> 3) % kTimers;
        bool full = pending.size() >= 200;
        if (op == 0 && !full) {
            q.enqueue(fn, t);
            pending.push_back({fn, t, false, tag});
        } else if (op == 1 && !full) {
            q.enqueueNotify(fn, t);
            if (std::none_of(pending.begin(), pending.end(),
                             [&](const Pending& p) { return p.notify && p.fn == fn && p.target == t; }))
                pending.push_back({fn, t, true, tag});
        } else if (op == 2 && !full) {
            Target* o = new Target;
            o->tag = nextTag++;
            q.enqueueAutofree(FUNC(&Target::a), o);
            pending.push_back({FUNC(&Target::a), o, false, o->tag});
        } else if (op == 3) {
            q.cancelFn(fn, t);
            drop(t, &fn);
        } else if (op == 4 && owned() > 0) {  // a cancelled autofree target stays ours
            auto it = std::find_if(pending.begin() + arg % pending.size(), pending.end(), isOwned);
            Object* o = it == pending.end() ? std::find_if(pending.begin(), pending.end(), isOwned)->target
                                            : it->target;
            q.cancelFn(FUNC(&Target::a), o);
            drop(o, nullptr);
            delete o;
        } else if (op == 5) {  // pending calls in order, then due timers by arming order
            std::vector<int> want, due;
            for (const Pending& p : pending) want.push_back(p.tag);
            for (int i = 0; i < kTimers; ++i)
                if (tm[i].armedAt && tm[i].due) due.push_back(i);
            std::sort(due.begin(), due.end(), [&](int x, int y) { return tm[x].armedAt < tm[y].armedAt; });
            for (int i : due) want.push_back(targets[kTargets + i].tag), tm[i].armedAt = 0;  // still running
            while (nowUs() <= lastDueArm + 1) {
            }
            gRan.clear();
            q.queueProcess(0);
            FUZZ_CHECK(gRan == want);
            pending.clear();
        } else if (op >= 6) {
            if (op == 8)
                timers[ti]->stop();
            else
                timers[ti]->restart(op == 6 ? 0 : kFar);
            if (op == 6) lastDueArm = nowUs();
            tm[ti] = op == 8 ? TimerModel{} : TimerModel{true, op == 6, ++armings};
        }
        int entries = 0;
        bool anyDue = false;
        for (int i = 0; i < kTimers; ++i) {
            FUZZ_CHECK(timers[i]->isRunning() == tm[i].running);
            entries += tm[i].armedAt != 0;
            anyDue = anyDue || (tm[i].armedAt && tm[i].due);
        }
        FUZZ_CHECK(nodesUsed(q) == static_cast<int>(pending.size()) + entries);
        FUZZ_CHECK(gAlive == base + owned());
        int64_t wait = q.getNeedWait();
        FUZZ_CHECK(entries == 0 ? wait == INT64_MAX
                   : anyDue     ? wait < 2000
                                : wait > 0 && wait <= kFar * 1000LL);
    }
    // Timers go with their entries, the rest runs; no node is left.
    for (Timer* timer : timers) delete timer;
    q.queueProcess(0);
    FUZZ_CHECK(nodesUsed(q) == 0);
    return 0;
}
