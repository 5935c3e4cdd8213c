// The host's memory suite: what it counts, when it fails, bad frees, and the
// large blocks it keeps for the next frame.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "host.h"
#include "ofxMemory.h"

TEST(MemorySuite, CountsBytesRefusesBadFreesAndFailsWhenTold) {
    ofxhost::Host host;
    auto* m = static_cast<const OfxMemorySuiteV1*>(host.fetchSuite(kOfxMemorySuite, 1));
    ASSERT_NE(m, nullptr);
    host.memory().failAfter(2);
    void* blocks[3] = {nullptr, nullptr, &host};
    ASSERT_EQ(m->memoryAlloc(nullptr, 100, &blocks[0]), kOfxStatOK);
    ASSERT_EQ(m->memoryAlloc(nullptr, 28, &blocks[1]), kOfxStatOK);
    EXPECT_EQ(m->memoryAlloc(nullptr, 8, &blocks[2]), kOfxStatErrMemory) << "the third allocation";
    EXPECT_EQ(blocks[2], nullptr);
    EXPECT_EQ(host.memory().counts().liveBytes, 128u);
    EXPECT_EQ(m->memoryFree(blocks[0]), kOfxStatOK);
    EXPECT_EQ(m->memoryFree(blocks[0]), kOfxStatErrBadHandle) << "a double free";
    EXPECT_EQ(m->memoryFree(&blocks), kOfxStatErrBadHandle) << "never allocated";
    EXPECT_EQ(m->memoryFree(blocks[1]), kOfxStatOK);
    const ofxhost::MemoryLedger::Counts c = host.memory().counts();
    EXPECT_EQ(std::vector<uint64_t>(
                  {c.allocations, c.failedAllocations, c.frees, c.badFrees, c.liveBytes, c.peakBytes}),
              std::vector<uint64_t>({2, 1, 2, 2, 0, 128}));
}

// A frame's large blocks come back for the next frame's requests they fit
// closely; kept bytes stay within the peak; counting and failure injection
// see every request as before.
TEST(MemorySuite, KeepsLargeBlocksForRequestsTheyFitWithinThePeak) {
    constexpr size_t kMiB = size_t{1} << 20;
    ofxhost::MemoryLedger ledger;
    void* frame[3] = {};
    const size_t sizes[3] = {8 * kMiB, 2 * kMiB, 1000};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ledger.allocate(sizes[i], &frame[i]), kOfxStatOK);
    for (void* block : frame) ASSERT_EQ(ledger.release(block), kOfxStatOK);

    void *again = nullptr, *small = nullptr, *loose = nullptr, *larger = nullptr;
    ASSERT_EQ(ledger.allocate(7 * kMiB, &again), kOfxStatOK);
    EXPECT_EQ(again, frame[0]) << "8 MiB holds 7 with less than a quarter spare";
    std::memset(again, 2, 7 * kMiB);  // the whole of what was asked is usable
    ASSERT_EQ(ledger.allocate(1000, &small), kOfxStatOK);
    ASSERT_EQ(ledger.allocate(kMiB, &loose), kOfxStatOK);
    EXPECT_NE(loose, frame[1]) << "2 MiB for 1 would waste half";
    // Needs a fresh block; the kept 2 MiB goes back to stay within the peak.
    ASSERT_EQ(ledger.allocate(9 * kMiB, &larger), kOfxStatOK);
    for (void* block : {again, small, loose, larger}) ASSERT_EQ(ledger.release(block), kOfxStatOK);

    const ofxhost::MemoryLedger::Counts c = ledger.counts();
    EXPECT_EQ(std::vector<uint64_t>({c.allocations, c.frees, c.liveBytes, c.peakBytes}),
              std::vector<uint64_t>({7, 7, 0, 7 * kMiB + 1000 + kMiB + 9 * kMiB}));
    EXPECT_EQ(ledger.release(again), kOfxStatErrBadHandle) << "a kept block is not live";
    ledger.failAfter(7);
    void* refused = nullptr;
    EXPECT_EQ(ledger.allocate(8 * kMiB, &refused), kOfxStatErrMemory) << "even with a kept block that fits";
    EXPECT_EQ(refused, nullptr);
}
