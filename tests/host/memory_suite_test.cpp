// The host's memory suite: what it counts, when it fails, and bad frees.
#include <gtest/gtest.h>

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
