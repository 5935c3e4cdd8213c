// Tests of the semaphore, the restartable thread and the spin mutex.
#include "mp/qvmp_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

// True if a Wait on another thread stays blocked until we Signal. The pause can
// only let a faulty semaphore slip through unnoticed, never fail a good one.
bool WaitBlocksUntilSignal(QVMP_BinarySemaphore& sem) {
    std::atomic<bool> through{false};
    std::thread waiter([&] {
        sem.Wait();
        through = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bool blocked = !through;
    sem.Signal();
    waiter.join();
    return blocked && through;
}

TEST(QVMPBinarySemaphore, WaitAndSignalAreBinary) {
    QVMP_BinarySemaphore fresh(false);
    EXPECT_TRUE(fresh.created);
    EXPECT_TRUE(WaitBlocksUntilSignal(fresh)) << "a new semaphore must be unsignalled";

    QVMP_BinarySemaphore open(true);
    open.Wait();
    EXPECT_TRUE(WaitBlocksUntilSignal(open)) << "the first Wait must consume the initial signal";

    QVMP_BinarySemaphore twice(false);
    twice.Signal();
    twice.Signal();
    twice.Wait();
    EXPECT_TRUE(WaitBlocksUntilSignal(twice)) << "a second Signal must not be counted";

    twice.Destroy();
    twice.Destroy();  // a second destroy, and the destructor after it, do nothing
    EXPECT_FALSE(twice.created);
    twice.Create();
    EXPECT_TRUE(WaitBlocksUntilSignal(twice)) << "a semaphore created anew starts unsignalled";
}

// Ping-pong between two threads: each side signals a semaphore that the other
// waits on, and the plain counter they share is ordered by the semaphores alone.
TEST(QVMPBinarySemaphore, OrdersMemoryBetweenSignallerAndWaiter) {
    QVMP_BinarySemaphore ping(false), pong(false);
    int counter = 0;
    constexpr int kRounds = 20000;
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            ping.Wait();
            ++counter;
            pong.Signal();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ++counter;
        ping.Signal();
        pong.Wait();
    }
    other.join();
    EXPECT_EQ(counter, 2 * kRounds);
}

// A pool-style entry: counts its runs and its jobs, and notes stopRequested as
// seen when it starts.
struct Worker {
    QVMP_Thread thread;
    int runs = 0;
    int jobs = 0;
    bool stopSeenAtStart = true;
};

void* WorkerEntry(void* argument) {
    auto* w = static_cast<Worker*>(argument);
    ++w->runs;
    w->stopSeenAtStart = w->thread.stopRequested;
    for (;;) {
        w->thread.goSignal.Wait();
        if (w->thread.stopRequested) return nullptr;
        ++w->jobs;
        w->thread.doneSignal.Signal();
    }
}

TEST(QVMPThread, StartStopAndRestart) {
    Worker w;
    const int32_t baseline = kqmp_threadcount;

    w.thread.Stop();  // never started: nothing happens
    EXPECT_FALSE(w.thread.started);
    EXPECT_EQ(kqmp_threadcount, baseline);

    w.thread.Start(WorkerEntry, &w);
    w.thread.Start(WorkerEntry, &w);  // already started: nothing changes
    EXPECT_TRUE(w.thread.started);
    EXPECT_EQ(kqmp_threadcount, baseline + 1);
    w.thread.goSignal.Signal();
    w.thread.doneSignal.Wait();
    w.thread.Stop();
    EXPECT_FALSE(w.thread.started);
    EXPECT_EQ(kqmp_threadcount, baseline);
    EXPECT_EQ(w.runs, 1) << "a second Start on a started thread must not create another";
    EXPECT_EQ(w.jobs, 1);

    w.thread.Start(WorkerEntry, &w);
    EXPECT_TRUE(w.thread.started);
    w.thread.goSignal.Signal();
    w.thread.doneSignal.Wait();
    w.thread.Stop();
    EXPECT_EQ(w.runs, 2) << "a stopped thread starts its entry afresh";
    EXPECT_FALSE(w.stopSeenAtStart) << "Start clears stopRequested";
    EXPECT_EQ(w.jobs, 2);
    EXPECT_EQ(kqmp_threadcount, baseline);
}

TEST(KqmpMutex, SpinLockExcludes) {
    kqmp_mutex m;
    EXPECT_TRUE(m.created);
    long total = 0;
    constexpr int kThreads = 4, kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                m.Lock();
                ++total;
                m.Unlock();
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(total, long{kThreads} * kRounds);
}

}  // namespace
