// A device-driver-like component on a dispatch loop.
//
// The driver owns a queue and runs its loop on a thread of its own. A
// repeating timer polls the "device" every 10 ms, and the sample updates a
// few fields that must stay consistent with each other. Commands reach the driver as
// loop events. A monitor thread takes the queue's explicit lock to read the
// fields while no driver code runs, without any lock of the driver's own.
// The demo stops by itself after about a second and exits with status 0.
#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "dispatch_process.h"

namespace {

enum Command { CMD_RESET = 1, CMD_GAIN = 2 };

class SensorDriver : public dispatch::Object, public dispatch::Loop {
public:
    SensorDriver() : mPoll(&mQueue) {
        setQueue(&mQueue);
        mPoll.setHandler(dispatch::FUNC(&SensorDriver::poll), this);
        mPoll.setRepeat(true);
    }

    void start() {
        mThread = std::thread([this] {
            pthread_setname_np(pthread_self(), "drv-loop");
            mPoll.restart(10);
            exec();
        });
    }

    void stop() {
        mPoll.stop();
        exit();  // returns once the loop's thread has taken the request
        mThread.join();
    }

    // Any thread.
    void command(Command c, long arg) {
        Evt e(c);
        e.wParam = arg;
        post(e);
    }

    // A consistent snapshot, taken while the driver is held between two
    // callbacks. Not from the driver's own thread.
    bool snapshot(long* samples, long* total) {
        mQueue.lock();
        *samples = mSamples;
        *total = mTotal;
        bool consistent = mTotal == mSamples * mGain - mOffset;
        mQueue.unlock();
        return consistent;
    }

private:
    // Timer callback. The explicit lock does not wait for a timer callback
    // that is already running, so the timer touches no state itself: it
    // queues the sampling, which the lock does exclude.
    void poll() { mQueue.enqueueNotify(dispatch::FUNC(&SensorDriver::sample), this); }

    // Queued callback, on the driver's thread. The two fields are briefly
    // out of step in the middle: a reader without the lock could see that.
    void sample() {
        ++mSamples;
        std::this_thread::yield();
        mTotal += mGain;
    }

    void procSubMsg(const Evt& e) override {
        switch (e.sig) {
            case CMD_RESET:
                mOffset = 0;
                mSamples = 0;
                mTotal = 0;
                break;
            case CMD_GAIN:
                // Keep total == samples * gain - offset across the change.
                mOffset += mSamples * (e.wParam - mGain);
                mGain = e.wParam;
                break;
        }
    }

    dispatch::Queue mQueue;
    dispatch::Timer mPoll;
    std::thread mThread;
    long mSamples = 0;
    long mTotal = 0;
    long mGain = 1;
    long mOffset = 0;
};

}  // namespace

int main() {
    SensorDriver driver;
    driver.start();

    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, broken{0};
    long lastSamples = 0;
    std::thread monitor([&] {
        pthread_setname_np(pthread_self(), "drv-monitor");
        while (!done) {
            long samples = 0, total = 0;
            if (!driver.snapshot(&samples, &total)) ++broken;
            lastSamples = samples;
            ++reads;
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });

    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        driver.command(CMD_GAIN, 1 + i % 3);
        if (i == 5) driver.command(CMD_RESET, 0);
    }
    done = true;
    monitor.join();
    driver.stop();

    printf("driver demo: %d consistent reads of %d, last sample count %ld\n", reads.load() - broken.load(),
           reads.load(), lastSamples);
    return broken == 0 && reads > 0 ? 0 : 1;
}
