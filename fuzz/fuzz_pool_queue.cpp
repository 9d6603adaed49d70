// Random sequences of allocation, post, postLIFO, get, newRef_ and gc on the
// event pools and a small queue (a front slot and no ring or a ring of up to
// three), checked against a reference model: a deque of queued events, a
// count of references per event and free blocks per pool.
#include <map>

#include "fuzz_common.h"
#include "kel_pool.h"

namespace {

struct Model {
    unsigned ring = 0;            // the queue holds ring + 1 events
    std::vector<unsigned> nFree;  // per pool
    std::deque<const QEvt*> queue;
    std::map<const QEvt*, int> refs, poolOf;  // live pool events: count, pool (a freed header is gone)
    std::vector<QEvt*> holds;                 // references held by the fuzzer

    unsigned queueFree() const { return ring + 1 - static_cast<unsigned>(queue.size()); }
    // A full queue drops its newest application event; the loop's commands
    // never give way, so a queue full of them refuses.
    bool lifo(const QEvt* e) {
        auto victim =
            std::find_if(queue.rbegin(), queue.rend(), [](const QEvt* v) { return v->sig > SIG_INNER_PROC; });
        if (queueFree() == 0 && victim == queue.rend()) return false;
        if (queueFree() == 0 && refs.count(*victim)) release(*victim);
        if (queueFree() == 0) queue.erase(std::next(victim).base());
        queue.push_front(e);
        return true;
    }
    void forget(QEvt* e) { holds.erase(std::find(holds.begin(), holds.end(), e)); }
    void release(const QEvt* e) {
        if (--refs[e] > 0) return;
        nFree[poolOf[e]]++;
        refs.erase(e);
        poolOf.erase(e);
    }
    void take(const QEvt* e) {  // the front event, as get handed it out
        FUZZ_CHECK(!queue.empty() && e == queue.front());
        queue.pop_front();
        if (e->poolId_ != 0) holds.push_back(const_cast<QEvt*>(e));
    }
};

KelLoop* gLoop = nullptr;
QEvt gStatic[2];  // records from no pool

void checkPools(const Model& m) {
    for (unsigned i = 0; i < Kel::Kel_maxPool_; ++i) FUZZ_CHECK(Kel::Kel_pool_[i]->getNFree() == m.nFree[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (gLoop == nullptr) {
        __logprintf = fuzz::quietLog;
        KelLoop::init_all(0x3000000, "fuzz", nullptr);
        gLoop = new KelLoop(4);
        gStatic[0].sig = 100, gStatic[1].sig = SIG_EVENT_LOOP_EXIT;
    }
    fuzz::Input in(data, size);
    Model m;
    m.ring = static_cast<unsigned>(size % 4);
    for (unsigned i = 0; i < Kel::Kel_maxPool_; ++i) m.nFree.push_back(Kel::Kel_pool_[i]->getNTot());
    checkPools(m);
    const QEvt* ring[3];
    KelQueue q;
    q.init(m.ring ? ring : nullptr, m.ring);

    while (in.more()) {
        uint8_t op = in.byte(), arg = in.byte();
        QEvt* held = m.holds.empty() ? nullptr : m.holds[arg % m.holds.size()];
        bool fresh = held != nullptr && m.refs.count(held) && m.refs[held] == 0;
        bool postable = held != nullptr && m.refs[held] <= 200;
        switch (op % 8) {
            case 0: {  // allocate from the first pool with blocks big enough
                if (m.holds.size() >= 64) break;
                unsigned sz = (arg & 2)   ? sizeof(StateQEvt) + 8
                              : (arg & 1) ? sizeof(StateQEvt)
                                          : sizeof(GeneralQEvt);
                int idx = -1;
                for (unsigned i = 0; i < m.nFree.size() && idx < 0; ++i)
                    if (Kel::Kel_pool_[i]->getBlockSize() >= sz && m.nFree[i] > 0) idx = static_cast<int>(i);
                int sig = (arg & 0x18) == 0x18 ? int(SIG_SYSTEM_POWEROFF) : 200 + arg;  // a command or not
                QEvt* e = Kel::newX_(sig, sz);
                if (idx < 0) {
                    FUZZ_CHECK(e == nullptr && fuzz::lastLineIs("not free blocks"));
                    break;
                }
                FUZZ_CHECK(e != nullptr && e->poolId_ == idx + 1 && e->refCtr_ == 0 && e->sig == sig);
                m.nFree[idx]--, m.refs[e] = 0, m.poolOf[e] = idx;
                m.holds.push_back(e);
                break;
            }
            case 1: {  // post at a margin
                if (!postable) break;
                unsigned margin = (arg >> 4) % 3;
                bool got = q.post(held, margin);
                FUZZ_CHECK(got == (m.queueFree() > margin) && (got || fuzz::lastLineIs("event not posted")));
                if (!got) break;
                m.refs[held]++;
                m.queue.push_back(held);
                if (fresh) m.forget(held);
                break;
            }
            case 2: {  // post ahead of everything
                if (!postable) break;
                m.refs[held]++;
                bool ok = m.lifo(held);
                FUZZ_CHECK(q.postLIFO(held) == ok);
                if (!ok) m.refs[held]--;
                if (ok && fresh) m.forget(held);
                break;
            }
            case 3:
                if (const QEvt* e = q.get())
                    m.take(e);
                else
                    FUZZ_CHECK(m.queue.empty());
                break;
            case 4:  // one more reference
                if (!postable || fresh) break;
                FUZZ_CHECK(Kel::newRef_(held) == held);
                m.refs[held]++;
                m.holds.push_back(held);
                break;
            case 5:  // release one reference
                if (held == nullptr) break;
                m.forget(held);
                m.release(held);
                Kel::gc(held);
                break;
            case 6: {  // a record from no pool keeps its count
                QEvt* e = &gStatic[arg & 1];
                bool want = (arg & 2) ? m.lifo(e) : m.queueFree() > 0;
                FUZZ_CHECK(((arg & 2) ? q.postLIFO(e) : q.post(e, 0)) == want);
                if (!(arg & 2) && want) m.queue.push_back(e);
                FUZZ_CHECK(e->refCtr_ == 0);
                break;
            }
            case 7:  // every live count as the model has it
                for (const auto& r : m.refs) FUZZ_CHECK(r.first->refCtr_ == r.second);
                break;
        }
        checkPools(m);
        FUZZ_CHECK(q.getNFree() == m.queueFree() && q.isEmpty() == m.queue.empty());
    }

    // Drain and release everything: every pool is full again.
    while (const QEvt* e = q.get()) m.take(e);
    FUZZ_CHECK(m.queue.empty());
    for (QEvt* e : m.holds) {
        m.release(e);
        Kel::gc(e);
    }
    checkPools(m);
    FUZZ_CHECK(m.refs.empty());
    for (unsigned i = 0; i < Kel::Kel_maxPool_; ++i) FUZZ_CHECK(m.nFree[i] == Kel::Kel_pool_[i]->getNTot());
    return 0;
}
