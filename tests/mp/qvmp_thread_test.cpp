// Tests of the semaphore, the restartable thread and the spin mutex.
#include "mp/qvmp_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

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
    long total = 0;
    auto add = [&] {
        for (int i = 0; i < 20000; ++i) {
            m.Lock();
            ++total;
            m.Unlock();
        }
    };
    std::thread a(add), b(add);
    a.join();
    b.join();
    EXPECT_EQ(total, 40000);
}

}  // namespace
