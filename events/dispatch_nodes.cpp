#include "dispatch_nodes.h"

#include <string.h>

#include <mutex>

#include "common_log.h"
#include "kel_mutex.h"
#include "list_table.h"

namespace dispatch {
namespace {

constexpr size_t maxOf(size_t a, size_t b, size_t c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }

// The mutex, the list's root and the counters share one cache line.
class alignas(64) NodePool {
public:
    struct Node {
        static constexpr size_t kSize = maxOf(sizeof(DispatchItem), sizeof(ItemTimer), sizeof(LoopEvtItem));
        static constexpr size_t kAlign =
            maxOf(alignof(DispatchItem), alignof(ItemTimer), alignof(LoopEvtItem));

        alignas(kAlign) char a[kSize];
    };

    NodePool() : mCount(0), mUsed(0) {}

    void* take() {
        Autolock guard(&mMtx);
        if (mPools.empty()) {
            Node blank;
            memset(&blank, 0, sizeof blank);
            mPools.push_back(blank);
            ++mCount;
        }
        ListTable<Node>::iterator it = mPools.pop_back();
        ++mUsed;
        return it->a;
    }

    void recycle(void* item) {
        ListTable<Node>::iterator it(ListTable<Node>::ListItem::fromData(static_cast<Node*>(item)));
        Autolock guard(&mMtx);
        mPools.push_back(it);
        --mUsed;
    }

    nodes::Counts counts() {
        Autolock guard(&mMtx);
        return nodes::Counts{mUsed, mCount};
    }

private:
    // Written and read only under mMtx.
    int mCount;
    int mUsed;
    KelMutex mMtx;
    ListTable<Node> mPools;
};

// The node is sized for the largest record and aligned for the strictest;
// on a 32-bit target that is an ItemTimer of exactly 32 bytes with an
// int64_t inside.
static_assert(sizeof(NodePool::Node) >= sizeof(DispatchItem), "node too small for DispatchItem");
static_assert(sizeof(NodePool::Node) >= sizeof(ItemTimer), "node too small for ItemTimer");
static_assert(sizeof(NodePool::Node) >= sizeof(LoopEvtItem), "node too small for LoopEvtItem");
static_assert(alignof(NodePool::Node) >= alignof(ItemTimer), "node not aligned for ItemTimer");
static_assert(alignof(NodePool::Node) >= alignof(int64_t), "node not aligned for int64_t");
static_assert(alignof(NodePool::Node) >= alignof(LoopEvtItem), "node not aligned for LoopEvtItem");
static_assert(sizeof(void*) != 4 || sizeof(NodePool::Node) == 32, "32-bit node must be 32 bytes");

// Memory ordering: call_once in init() publishes gPool to every thread that
// passes it; every user of the store holds a queue made after that. counts()
// may come first, on any thread: it loads with acquire, paired with the
// release store in init().
NodePool* gPool = nullptr;

}  // namespace

void nodes::init() {
    static std::once_flag made;
    std::call_once(made, [] { __atomic_store_n(&gPool, new NodePool, __ATOMIC_RELEASE); });
}

void* nodes::take() { return gPool->take(); }

void nodes::recycle(void* node) { gPool->recycle(node); }

void nodes::profile() {
    Counts c = gPool->counts();
    KEL_LOG(LOG_INFO, "node pools: used=%d, counts=%d", c.used, c.made);
}

nodes::Counts nodes::counts() {
    NodePool* pool = __atomic_load_n(&gPool, __ATOMIC_ACQUIRE);
    return pool != nullptr ? pool->counts() : Counts{0, 0};
}

}  // namespace dispatch
