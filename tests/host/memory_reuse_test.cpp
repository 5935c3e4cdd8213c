// The memory suite's kept blocks: a frame's large blocks come back for the
// next frame, kept bytes stay within the peak, and counting and failure
// injection see every request as before.
#include <gtest/gtest.h>

#include <cstring>

#include "host.h"

namespace {
constexpr size_t kMiB = size_t{1} << 20;
}

TEST(MemoryReuse, LargeBlocksReturnToRequestsTheyFitAndKeptBytesStayWithinThePeak) {
    ofxhost::MemoryLedger ledger;
    void* frame[3] = {};
    const size_t sizes[3] = {8 * kMiB, 2 * kMiB, 1000};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ledger.allocate(sizes[i], &frame[i]), kOfxStatOK);
    std::memset(frame[0], 1, sizes[0]);
    for (void* block : frame) ASSERT_EQ(ledger.release(block), kOfxStatOK);

    void* again = nullptr;
    ASSERT_EQ(ledger.allocate(7 * kMiB, &again), kOfxStatOK);
    EXPECT_EQ(again, frame[0]) << "8 MiB holds 7 with less than a quarter spare";
    void* small = nullptr;
    ASSERT_EQ(ledger.allocate(1000, &small), kOfxStatOK);
    void* loose = nullptr;
    ASSERT_EQ(ledger.allocate(kMiB, &loose), kOfxStatOK);
    EXPECT_NE(loose, frame[1]) << "2 MiB for 1 would waste half";
    std::memset(again, 2, 7 * kMiB);  // the whole of what was asked is usable

    // Needs a fresh block; the kept 2 MiB goes back to stay within the peak.
    void* larger = nullptr;
    ASSERT_EQ(ledger.allocate(9 * kMiB, &larger), kOfxStatOK);
    for (void* block : {again, small, loose, larger}) ASSERT_EQ(ledger.release(block), kOfxStatOK);

    const ofxhost::MemoryLedger::Counts c = ledger.counts();
    EXPECT_EQ(c.allocations, 7u);
    EXPECT_EQ(c.frees, 7u);
    EXPECT_EQ(c.liveBytes, 0u);
    EXPECT_EQ(c.peakBytes, 7 * kMiB + 1000 + kMiB + 9 * kMiB);
    EXPECT_EQ(ledger.release(again), kOfxStatErrBadHandle) << "a kept block is not live";

    ledger.failAfter(7);
    void* refused = nullptr;
    EXPECT_EQ(ledger.allocate(8 * kMiB, &refused), kOfxStatErrMemory) << "even with a kept block that fits";
    EXPECT_EQ(refused, nullptr);
}
