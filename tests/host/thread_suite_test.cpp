// The host's multi-thread suite as the plug-in uses it: every share runs once,
// on as many threads as the limit allows, and the processor count it reports.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "host.h"
#include "ofxMultiThread.h"

TEST(MultiThreadSuite, RunsEveryShareOnceOnTheRightThreads) {
    struct Seen {
        std::atomic<int> runs[8];
        std::atomic<unsigned int> count{0};
        std::thread::id thread[8];
    };
    auto share = [](unsigned int index, unsigned int count, void* arg) {
        auto* seen = static_cast<Seen*>(arg);
        seen->runs[index]++;
        seen->thread[index] = std::this_thread::get_id();
        seen->count = count;
    };
    // With a limit of 3 threads, thread t takes shares t, t + 3, ...; share 0 on the caller's if it runs one.
    for (unsigned int limit : {0u, 3u})
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
            Seen seen{};
            ASSERT_EQ(t->multiThread(share, 8, &seen), kOfxStatOK);
            const int threads = limit ? static_cast<int>(limit) : 8;
            EXPECT_EQ(seen.count, 8u);
            EXPECT_EQ(seen.thread[0] == std::this_thread::get_id(), callerRuns);
            for (int i = 0; i < 8; ++i) {
                EXPECT_EQ(seen.runs[i], 1) << "share " << i;
                EXPECT_TRUE(seen.thread[i] == seen.thread[i % threads]) << "share " << i;
                EXPECT_TRUE(i >= threads || i == 0 || seen.thread[i] != seen.thread[0]) << "share " << i;
            }
        }
}
