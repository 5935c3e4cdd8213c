// Tests of the row dispatch: thread counts, row shares, the pool's life, the
// host's runner, and failures on every kind of thread.
#include "mp/kqmp.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mp/qvmp_thread.h"

namespace {

struct ShareSeen {
    int32_t firstRow = -2, lastRow = -2;
    bool isFirstWorker = false;
    int calls = 0;
    std::thread::id thread;
};

// What one job saw: visits per row and the share of each thread index.
struct JobRecord {
    std::vector<int32_t> visits;
    std::vector<ShareSeen> shares;
    JobRecord(int32_t rows, int32_t threads)
        : visits(rows > 0 ? rows : 0), shares(threads > 0 ? threads : 1) {}
};

// Fetches its arguments in the driver's order: the record, an int32 marker and
// a float through a pointer.
void RecordingWorker(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                     kqmp_args* args) {
    auto* job = args->next<JobRecord*>();
    int32_t marker = args->next<int32_t>();
    const float* scale = args->next<const float*>();
    if (marker != 1234 || *scale != 0.75f) return;  // a wrong argument order leaves the record empty
    ShareSeen& s = job->shares[threadIndex];
    s.firstRow = firstRow;
    s.lastRow = lastRow;
    s.isFirstWorker = isFirstWorker;
    s.thread = std::this_thread::get_id();
    ++s.calls;
    for (int32_t y = firstRow; y <= lastRow; ++y) ++job->visits[y];
}

void RunRecorded(JobRecord& job, int32_t threads, int32_t rows) {
    const float scale = 0.75f;
    kqmp_dispatch(threads, rows, RecordingWorker, &job, 1234, &scale);
}

void ExpectEveryRowOnce(const JobRecord& job, const std::string& what) {
    for (size_t y = 0; y < job.visits.size(); ++y) ASSERT_EQ(job.visits[y], 1) << what << ": row " << y;
}

int CountTasks() {
    int n = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir))
        if (e->d_name[0] != '.') ++n;
    closedir(dir);
    return n;
}

TEST(Kqmp, ThreadsForRows) {
    setThreadCount(4);
    const int32_t rows[] = {0, -5, 1, 2, 31, 32, 47, 48, 63, 64, 1000};
    const int32_t onFour[] = {0, -5, 1, 1, 1, 2, 2, 3, 3, 4, 4};
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(kqmp_threadsfor(rows[i]), onFour[i]) << rows[i] << " rows, limit 4";
    setThreadCount(-3);  // a non-positive limit is read as 1
    EXPECT_EQ(kqmp_maxthreads(), 1);
    EXPECT_EQ(kqmp_threadsfor(1000), 1);
    setThreadCount(0);  // unknown: the processor count
    EXPECT_EQ(kqmp_maxthreads(), std::max<int32_t>(1, kqmp_numcpus()));
    setThreadCount(2000);  // more than the pool's 1024 slots: a job could never run
    EXPECT_EQ(kqmp_maxthreads(), 1024);
    EXPECT_EQ(kqmp_threadsfor(16 * 2000), 1024);
    setThreadCount(0);
}

TEST(Kqmp, EveryRowOnceInContiguousShares) {
    for (int32_t threads : {1, 2, 3, 4, 5, 7, 8, 16, 33}) {
        for (int32_t rows : {1, 2, 15, 16, 17, 31, 32, 100, 101, 1000, 1023}) {
            const std::string what = std::to_string(threads) + " threads, " + std::to_string(rows) + " rows";
            JobRecord job(rows, threads);
            RunRecorded(job, threads, rows);
            ExpectEveryRowOnce(job, what);
            if (threads == 1 || rows == 1) {
                EXPECT_EQ(job.shares[0].calls, 1) << what;
                EXPECT_EQ(job.shares[0].lastRow, rows - 1) << what;
                EXPECT_TRUE(job.shares[0].isFirstWorker) << what;
                EXPECT_EQ(job.shares[0].thread, std::this_thread::get_id()) << what;
                for (int32_t i = 1; i < threads; ++i) EXPECT_EQ(job.shares[i].calls, 0) << what;
                continue;
            }
            // Equal shares of rows / threads, the last to the end.
            const int32_t share = rows / threads;
            for (int32_t i = 0; i < threads; ++i) {
                const ShareSeen& s = job.shares[i];
                EXPECT_EQ(s.calls, 1) << what << ", thread " << i;
                EXPECT_EQ(s.firstRow, share * i) << what << ", thread " << i;
                EXPECT_EQ(s.lastRow, i + 1 < threads ? share * (i + 1) - 1 : rows - 1)
                    << what << ", thread " << i;
                EXPECT_EQ(s.isFirstWorker, i == 0) << what << ", thread " << i;
                EXPECT_EQ(s.thread == std::this_thread::get_id(), i == 0)
                    << what << ": share 0 and only it runs on the calling thread, thread " << i;
            }
        }
    }
}

TEST(Kqmp, NonPositiveThreadCountRunsNothing) {
    JobRecord earlier(100, 3);
    RunRecorded(earlier, 3, 100);  // leaves its job in the slots
    for (int32_t threads : {0, -1, -1024}) {
        for (int32_t rows : {1, 2, 100}) {
            JobRecord job(rows, 1);
            RunRecorded(job, threads, rows);
            EXPECT_EQ(job.shares[0].calls, 0) << threads << " threads, " << rows << " rows";
        }
    }
    for (int32_t y = 0; y < 100; ++y)
        ASSERT_EQ(earlier.visits[y], 1) << "the earlier job replayed, row " << y;
}

TEST(Kqmp, ThreadLimitOfTheSlots) {
    kqmp_shutdown();
    ASSERT_EQ(kqmp_threadcount, 0);

    JobRecord tooMany(2050, 1025);
    try {
        RunRecorded(tooMany, 1025, 2050);
        ADD_FAILURE() << "1025 threads must be refused";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrFailed);
    }
    for (const ShareSeen& s : tooMany.shares) ASSERT_EQ(s.calls, 0);
    EXPECT_EQ(kqmp_threadcount, 0) << "no thread may start for a job over the limit";

    JobRecord most(2048, 1024);
    RunRecorded(most, 1024, 2048);
    ExpectEveryRowOnce(most, "1024 threads");
    EXPECT_EQ(kqmp_threadcount, 1023) << "the calling thread works share 0";

    kqmp_shutdown();
    EXPECT_EQ(kqmp_threadcount, 0);
}

TEST(Kqmp, JobAfterShutdownStartsThreadsAnew) {
    kqmp_shutdown();
    JobRecord first(400, 4);
    RunRecorded(first, 4, 400);
    EXPECT_EQ(kqmp_threadcount, 3);
    JobRecord smaller(400, 2);
    RunRecorded(smaller, 2, 400);
    EXPECT_EQ(kqmp_threadcount, 3) << "a smaller job leaves the other threads asleep";

    kqmp_shutdown();
    EXPECT_EQ(kqmp_threadcount, 0);
    kqmp_shutdown();  // twice is harmless
    JobRecord again(400, 4);
    RunRecorded(again, 4, 400);
    ExpectEveryRowOnce(again, "after shutdown");
    EXPECT_EQ(kqmp_threadcount, 3);
    EXPECT_NE(again.shares[1].thread, first.shares[1].thread) << "the pool thread must be a new one";
    kqmp_shutdown();
}

// Every row y of job j gets the value j * 100000 + y; share 0 of some jobs runs
// a single-thread job of its own, which takes no lock.
void FillingWorker(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    auto* out = args->next<int32_t*>();
    int32_t job = args->next<int32_t>();
    for (int32_t y = firstRow; y <= lastRow; ++y) out[y] = job * 100000 + y;
}

TEST(Kqmp, ConcurrentDispatchersAllFinish) {
    constexpr int kDispatchers = 4, kJobs = 40, kRows = 300;
    std::atomic<int> wrong{0};
    std::vector<std::thread> dispatchers;
    for (int d = 0; d < kDispatchers; ++d)
        dispatchers.emplace_back([&, d] {
            std::vector<int32_t> rows(kRows);
            for (int32_t j = 0; j < kJobs; ++j) {
                int32_t tag = d * 1000 + j;
                int32_t threads = (j % 3 == 0) ? 1 : 2 + (j + d) % 4;
                kqmp_dispatch(threads, kRows, FillingWorker, rows.data(), tag);
                for (int32_t y = 0; y < kRows; ++y)
                    if (rows[y] != tag * 100000 + y) ++wrong;
            }
        });
    for (auto& t : dispatchers) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

// Throws on the share named by the first argument, of the kind named by the
// second; the other shares mark their rows, the pool shares after a pause so
// that a dispatcher that doesn't wait for them is caught.
struct FailingJob {
    int32_t failingShare;
    int kind;  // 0 PLErr, 1 std::runtime_error, 2 int, 3 PLErrNone
    std::vector<int32_t> done;
};

void FailingWorker(int32_t threadIndex, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    auto* job = args->next<FailingJob*>();
    if (threadIndex == job->failingShare) {
        switch (job->kind) {
            case 0:
                throw PLErrNoFrame;
            case 1:
                throw std::runtime_error("worker");
            case 2:
                throw 42;
            default:
                throw PLErrNone;
        }
    }
    if (threadIndex != 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int32_t y = firstRow; y <= lastRow; ++y) job->done[y] = 1;
}

// Returns the PLErr the dispatch threw, PLErrNone if it returned, or -1 for an
// exception of another type.
int32_t DispatchFailing(FailingJob& job, int32_t threads, int32_t rows) {
    job.done.assign(rows, 0);
    try {
        kqmp_dispatch(threads, rows, FailingWorker, &job);
    } catch (PLErr e) {
        return e;
    } catch (...) {
        return -1;
    }
    return PLErrNone;
}

void ExpectDoneExceptShare(const FailingJob& job, int32_t threads, int32_t rows, const std::string& what) {
    for (int32_t y = 0; y < rows; ++y) {
        int32_t share = std::min(y / (rows / threads), threads - 1);
        ASSERT_EQ(job.done[y], share == job.failingShare ? 0 : 1) << what << ", row " << y;
    }
}

TEST(Kqmp, FailuresReachTheCallerAfterTheWholeJob) {
    constexpr int32_t kThreads = 4, kRows = 400;
    struct Case {
        int32_t share;
        int kind;
        int32_t thrown;
    };
    const Case cases[] = {
        {2, 0, PLErrNoFrame}, {1, 1, PLErrFailed}, {3, 2, PLErrFailed},  // on pool threads
        {0, 0, PLErrNoFrame}, {0, 1, -1},                                // on the calling thread
        {2, 3, PLErrNone},    {0, 3, PLErrNone},  // a thrown PLErrNone counts as success
    };
    for (const Case& c : cases) {
        const std::string what = "share " + std::to_string(c.share) + ", kind " + std::to_string(c.kind);
        FailingJob job{c.share, c.kind, {}};
        EXPECT_EQ(DispatchFailing(job, kThreads, kRows), c.thrown) << what;
        ExpectDoneExceptShare(job, kThreads, kRows, what);

        // The lock is free and no doneSignal is left over: the next job waits
        // for its slow pool shares again.
        FailingJob next{-1, 0, {}};
        EXPECT_EQ(DispatchFailing(next, kThreads, kRows), PLErrNone) << what;
        ExpectDoneExceptShare(next, kThreads, kRows, what + ", next job");
    }
    FailingJob single{0, 0, {}};
    EXPECT_EQ(DispatchFailing(single, 1, kRows), PLErrNoFrame) << "single-thread share";
    FailingJob after{-1, 0, {}};
    EXPECT_EQ(DispatchFailing(after, kThreads, kRows), PLErrNone) << "after a single-thread failure";
}

// A host's thread suite as the shell presents it: the job runs on threads of
// the host's own, none of them the caller.
std::atomic<int> gRunnerCalls{0};
bool gRunnerTakesJobs = true;

bool TestHostRunner(kqmp_threadfunction* fn, unsigned int count, void* arg) {
    ++gRunnerCalls;
    if (!gRunnerTakesJobs) return false;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < count; ++i) threads.emplace_back([=] { fn(i, count, arg); });
    for (auto& t : threads) t.join();
    return true;
}

TEST(Kqmp, HostRunnerRunsTheJobOnItsThreads) {
    kqmp_sethostrunner(TestHostRunner);
    gRunnerTakesJobs = true;
    gRunnerCalls = 0;

    JobRecord job(100, 3);
    RunRecorded(job, 3, 100);
    EXPECT_EQ(gRunnerCalls, 1);
    ExpectEveryRowOnce(job, "host threads");
    for (int32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(job.shares[i].isFirstWorker, i == 0) << "thread " << i;
        EXPECT_NE(job.shares[i].thread, std::this_thread::get_id()) << "thread " << i;
    }
    EXPECT_EQ(job.shares[2].firstRow, 66);
    EXPECT_EQ(job.shares[2].lastRow, 99);

    JobRecord single(100, 1);
    RunRecorded(single, 1, 100);
    EXPECT_EQ(gRunnerCalls, 1) << "single-thread work stays on the caller";

    FailingJob failing{0, 1, {}};
    EXPECT_EQ(DispatchFailing(failing, 3, 100), PLErrFailed) << "an exception on host share 0";
    FailingJob failingLater{2, 0, {}};
    EXPECT_EQ(DispatchFailing(failingLater, 3, 100), PLErrNoFrame) << "a PLErr on host share 2";

    gRunnerTakesJobs = false;  // the host declines: the pool runs the job
    JobRecord pooled(100, 3);
    RunRecorded(pooled, 3, 100);
    ExpectEveryRowOnce(pooled, "declined by the host");
    EXPECT_EQ(pooled.shares[0].thread, std::this_thread::get_id());

    kqmp_sethostrunner(nullptr);
}

// A module of its own with the pool linked in and a static initialiser that
// registers kqmp_shutdown with atexit, as the shell does; one build has the
// registration before the pool's construction and one after.
TEST(Kqmp, UnloadJoinsThePoolThreads) {
    std::thread([] {}).join();  // a thread sanitizer starts a helper thread with the first thread
    for (const char* path : {KQMP_MODULE_EARLY, KQMP_MODULE_LATE}) {
        for (int round = 0; round < 2; ++round) {
            const std::string what = std::string(path) + ", load " + std::to_string(round + 1);
            const int baseline = CountTasks();
            void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
            ASSERT_NE(module, nullptr) << dlerror();
            auto run = reinterpret_cast<int32_t (*)(int32_t, int32_t)>(dlsym(module, "kqmp_module_run"));
            ASSERT_NE(run, nullptr) << what;
            EXPECT_EQ(run(4, 400), 400) << what;
            EXPECT_EQ(CountTasks(), baseline + 3) << what;
            ASSERT_EQ(dlclose(module), 0) << what;
            EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << what << ": the module stayed loaded";
            EXPECT_EQ(CountTasks(), baseline) << what << ": pool threads outlived the module";
        }
    }
}

}  // namespace
