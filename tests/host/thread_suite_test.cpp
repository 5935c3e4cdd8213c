// The host's multi-thread suite: every share runs once on a thread of the
// promised kind, which the plug-in's jobs on a host's threads rely on.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host.h"
#include "ofxMultiThread.h"

namespace {

struct Seen {
    const OfxMultiThreadSuiteV1* suite;
    std::atomic<int> runs[8], spawned[8], indexAgrees[8];
    std::atomic<unsigned int> countSeen{0};
    std::thread::id thread[8];
};

void share(unsigned int index, unsigned int count, void* arg) {
    auto* seen = static_cast<Seen*>(arg);
    seen->runs[index]++;
    seen->thread[index] = std::this_thread::get_id();
    seen->spawned[index] += seen->suite->multiThreadIsSpawnedThread();
    unsigned int asked = 99;
    seen->suite->multiThreadIndex(&asked);
    seen->indexAgrees[index] += asked == index;
    seen->countSeen = count;
}

}  // namespace

TEST(MultiThreadSuite, RunsEveryShareOnceOnTheRightThreads) {
    // With a limit of 3 threads, thread t takes shares t, t + 3, ...
    for (unsigned int limit : {0u, 3u}) {
        for (bool callerRuns : {true, false}) {
            SCOPED_TRACE(testing::Message() << "limit " << limit << (callerRuns ? ", caller runs" : ""));
            ofxhost::HostConfig config;
            config.numCPUs = 5;
            config.callerRunsShareZero = callerRuns;
            config.threadLimit = limit;
            ofxhost::Host host(config);
            auto* t = static_cast<const OfxMultiThreadSuiteV1*>(host.fetchSuite(kOfxMultiThreadSuite, 1));
            unsigned int cpus = 0;
            EXPECT_EQ(t->multiThreadNumCPUs(&cpus), kOfxStatOK);
            EXPECT_EQ(cpus, 5u);

            Seen seen{t, {}, {}, {}, {}, {}};
            ASSERT_EQ(t->multiThread(share, 8, &seen), kOfxStatOK);
            const int threads = limit ? static_cast<int>(limit) : 8;
            for (int i = 0; i < 8; ++i) {
                SCOPED_TRACE(testing::Message() << "share " << i);
                EXPECT_EQ(seen.runs[i], 1);
                EXPECT_EQ(seen.indexAgrees[i], 1);
                EXPECT_EQ(seen.spawned[i], (i % threads == 0 && callerRuns) ? 0 : 1);
                EXPECT_TRUE(seen.thread[i] == seen.thread[i % threads]);
                EXPECT_TRUE(i >= threads || i == 0 || seen.thread[i] != seen.thread[0]);
            }
            EXPECT_EQ(seen.countSeen, 8u);
            EXPECT_EQ(t->multiThreadIsSpawnedThread(), 0);
        }
    }
}
