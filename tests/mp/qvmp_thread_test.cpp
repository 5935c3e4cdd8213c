// Tests of the semaphore and the spin mutex. The restartable thread is the
// pool's, tested through the dispatch (Kqmp.JobAfterShutdownStartsThreadsAnew).
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
