// Random sequences of allocation, post, postLIFO, get, newRef_ and gc on the
// event pools and a small queue, checked against a reference model: a deque
// of queued events, a count of references per event and free blocks per pool.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <deque>
#include <map>
#include <vector>

#include "fuzz_common.h"
#include "kel_loop.h"
#include "kel_pool.h"
#include "kel_port.h"
#include "kel_queue.h"

namespace {

constexpr int kRing = 3;  // the queue holds kRing + 1 events

struct PoolModel {
    KelPool* pool;
    unsigned blockSize;
    unsigned nFree;
};

struct Model {
    std::vector<PoolModel> pools;
    std::deque<const QEvt*> queue;
    std::map<const QEvt*, int> refs;    // live pool events
    std::map<const QEvt*, int> poolOf;  // their pool's index (a freed block's header is gone)
    std::vector<QEvt*> holds;           // references held by the fuzzer

    unsigned queueFree() const { return kRing + 1 - static_cast<unsigned>(queue.size()); }

    // A LIFO post of `e`; a full queue drops its newest entry.
    void lifo(const QEvt* e) {
        bool full = queueFree() == 0;
        queue.push_front(e);
        if (!full) return;
        const QEvt* victim = queue.back();
        queue.pop_back();
        if (refs.count(victim)) release(victim);
    }
    void forget(QEvt* e) { holds.erase(std::find(holds.begin(), holds.end(), e)); }

    void release(const QEvt* e) {
        int& r = refs[e];
        if (r > 1) {
            --r;
            return;
        }
        pools[poolOf[e]].nFree++;
        refs.erase(e);
        poolOf.erase(e);
    }
};

KelLoop* gLoop = nullptr;
QEvt gStatic[2];  // records from no pool

void setUp() {
    __logprintf = fuzz::quietLog;
    KelLoop::init_all(0x3000000, "fuzz", nullptr);
    gLoop = new KelLoop(4);
    for (QEvt& e : gStatic) e.sig = 100;
}

void checkPools(const Model& m) {
    for (const PoolModel& p : m.pools) FUZZ_CHECK(p.pool->getNFree() == p.nFree);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (gLoop == nullptr) setUp();
    fuzz::Input in(data, size);
    Model m;
    for (unsigned i = 0; i < Kel::Kel_maxPool_; ++i) {
        KelPool* p = Kel::Kel_pool_[i];
        m.pools.push_back({p, p->getBlockSize(), p->getNFree()});
        FUZZ_CHECK(p->getNFree() == p->getNTot());
    }
    const QEvt* ring[kRing];
    KelQueue q;
    q.init(ring, kRing);

    while (in.more()) {
        uint8_t op = in.byte();
        uint8_t arg = in.byte();
        QEvt* held = m.holds.empty() ? nullptr : m.holds[arg % m.holds.size()];
        bool fresh = held != nullptr && m.refs.count(held) && m.refs[held] == 0;
        switch (op % 8) {
            case 0: {  // allocate
                if (m.holds.size() >= 64) break;
                unsigned sz = (arg & 1) ? sizeof(StateQEvt) : sizeof(GeneralQEvt);
                if (arg & 2) sz = sizeof(StateQEvt) + 8;  // larger than any block
                int idx = -1;
                for (size_t i = 0; i < m.pools.size(); ++i) {
                    if (m.pools[i].blockSize >= sz && m.pools[i].nFree > 0) {
                        idx = static_cast<int>(i);
                        break;
                    }
                }
                QEvt* e = Kel::newX_(200 + arg, sz);
                if (idx < 0) {
                    FUZZ_CHECK(e == nullptr);
                    FUZZ_CHECK(fuzz::lastLineIs("not free blocks"));
                    break;
                }
                FUZZ_CHECK(e != nullptr);
                FUZZ_CHECK(e->poolId_ == idx + 1 && e->refCtr_ == 0 && e->sig == 200 + arg);
                m.pools[idx].nFree--;
                m.refs[e] = 0;
                m.poolOf[e] = idx;
                m.holds.push_back(e);
                break;
            }
            case 1: {  // post at a margin
                if (held == nullptr || m.refs[held] > 200) break;
                unsigned margin = (arg >> 4) % 3;
                bool want = m.queueFree() > margin;
                bool got = q.post(held, margin);
                FUZZ_CHECK(got == want);
                if (!got) {
                    FUZZ_CHECK(fuzz::lastLineIs("event not posted"));
                    break;
                }
                m.refs[held]++;
                m.queue.push_back(held);
                if (fresh) m.forget(held);
                break;
            }
            case 2:  // post ahead of everything
                if (held == nullptr || m.refs[held] > 200) break;
                q.postLIFO(held);
                m.refs[held]++;
                m.lifo(held);
                if (fresh) m.forget(held);
                break;
            case 3: {  // take the front event
                const QEvt* e = q.get();
                if (m.queue.empty()) {
                    FUZZ_CHECK(e == nullptr);
                    break;
                }
                FUZZ_CHECK(e == m.queue.front());
                m.queue.pop_front();
                if (e->poolId_ != 0) m.holds.push_back(const_cast<QEvt*>(e));
                break;
            }
            case 4: {  // one more reference
                if (held == nullptr || fresh || m.refs[held] > 200) break;
                FUZZ_CHECK(Kel::newRef_(held) == held);
                m.refs[held]++;
                m.holds.push_back(held);
                break;
            }
            case 5: {  // release one reference
                if (held == nullptr) break;
                m.forget(held);
                m.release(held);
                Kel::gc(held);
                break;
            }
            case 6: {  // a record from no pool keeps its count
                QEvt* e = &gStatic[arg & 1];
                if (arg & 2) {
                    q.postLIFO(e);
                    m.lifo(e);
                } else {
                    bool want = m.queueFree() > 0;
                    FUZZ_CHECK(q.post(e, 0) == want);
                    if (want) m.queue.push_back(e);
                }
                FUZZ_CHECK(e->refCtr_ == 0);
                break;
            }
            case 7:  // every live count as the model has it
                for (const auto& r : m.refs) FUZZ_CHECK(r.first->refCtr_ == r.second);
                break;
        }
        checkPools(m);
        FUZZ_CHECK(q.getNFree() == m.queueFree());
        FUZZ_CHECK(q.isEmpty() == m.queue.empty());
    }

    // Drain and release everything: every pool is full again.
    while (const QEvt* e = q.get()) {
        FUZZ_CHECK(!m.queue.empty() && e == m.queue.front());
        m.queue.pop_front();
        if (e->poolId_ != 0) m.holds.push_back(const_cast<QEvt*>(e));
    }
    FUZZ_CHECK(m.queue.empty());
    for (QEvt* e : m.holds) {
        m.release(e);
        Kel::gc(e);
    }
    checkPools(m);
    FUZZ_CHECK(m.refs.empty());
    for (const PoolModel& p : m.pools) FUZZ_CHECK(p.pool->getNFree() == p.pool->getNTot());
    return 0;
}
