// Blocking work on serial work queues. Three "devices" each get a queue of
// their own; every read is a blocking call (simulated with a sleep) that
// runs on a pooled thread, in order per device, while the devices proceed in
// parallel. Results travel back to main() through a mutex and a condition
// variable; main() prints them and exits once every read has reported.
#include <stdio.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "kel_dispatch.h"

namespace {

struct Result {
    int device;
    int block;
    int value;
};

// The mailbox of main(): works post results, main() takes them.
struct Mailbox {
    std::mutex mutex;
    std::condition_variable ready;
    std::vector<Result> results;

    void post(const Result& r) {
        std::lock_guard<std::mutex> lock(mutex);
        results.push_back(r);
        ready.notify_one();
    }
};

struct Read {
    Mailbox* box;
    int device;
    int block;
};

// A blocking read of one block: 20 ms of "I/O", then a checksum.
void readBlock(void* ctx) {
    Read* read = static_cast<Read*>(ctx);
    usleep(20 * 1000);
    read->box->post({read->device, read->block, read->device * 1000 + read->block * 7});
    delete read;
}

}  // namespace

int main() {
    constexpr int kDevices = 3, kBlocks = 5;
    Mailbox box;
    std::vector<DispathQueue*> queues;
    for (int d = 0; d < kDevices; ++d) queues.push_back(kel_dispatch_queue_create());

    for (int b = 0; b < kBlocks; ++b) {
        for (int d = 0; d < kDevices; ++d) {
            kel_dispatch_async_t(queues[d], readBlock, new Read{&box, d, b});
        }
    }
    // Handles may go now: each queue lives until its last read is done.
    for (DispathQueue* q : queues) kel_dispatch_queue_destory(q);

    int expected = kDevices * kBlocks;
    std::vector<int> nextBlock(kDevices, 0);
    bool inOrder = true;
    std::unique_lock<std::mutex> lock(box.mutex);
    for (int seen = 0; seen < expected;) {
        if (!box.ready.wait_for(lock, std::chrono::seconds(10),
                                [&] { return box.results.size() > static_cast<size_t>(seen); })) {
            fprintf(stderr, "timed out after %d of %d results\n", seen, expected);
            return 1;
        }
        for (; seen < static_cast<int>(box.results.size()); ++seen) {
            const Result& r = box.results[seen];
            if (r.block != nextBlock[r.device]++) inOrder = false;
            printf("device %d block %d -> %d\n", r.device, r.block, r.value);
        }
    }
    lock.unlock();
    printf("%d reads done, %s per device\n", expected, inOrder ? "in order" : "OUT OF ORDER");
    return inOrder ? 0 : 1;
}
