// The row dispatch: rows, slot limit, pool life, host runner, failures, concurrency, abort.
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

#include "common/threads.h"
#include "mp/qvmp_thread.h"

namespace {

struct ShareSeen {
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
    bool everyRowOnce() const {
        for (int32_t v : visits)
            if (v != 1) return false;
        return true;
    }
};

// Fetches its arguments in the driver's order: the record, an int32 marker and
// a float through a pointer; a wrong order leaves the record empty.
void RecordingWorker(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                     kqmp_args* args) {
    auto* job = args->next<JobRecord*>();
    int32_t marker = args->next<int32_t>();
    const float* scale = args->next<const float*>();
    if (marker != 1234 || *scale != 0.75f) return;
    job->shares[threadIndex] = {isFirstWorker, job->shares[threadIndex].calls + 1,
                                std::this_thread::get_id()};
    for (int32_t y = firstRow; y <= lastRow; ++y) ++job->visits[y];
}

JobRecord RunRecorded(int32_t threads, int32_t rows) {
    JobRecord job(rows, threads);
    const float scale = 0.75f;
    kqmp_dispatch(threads, rows, RecordingWorker, &job, 1234, &scale);
    return job;
}

int CountTasks() {
    int n = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir))
        if (e->d_name[0] != '.') ++n;
    closedir(dir);
    return n;
}

TEST(Kqmp, ThreadLimitClamps) {
    setThreadCount(-3);  // a non-positive limit is read as 1
    EXPECT_EQ(kqmp_threadsfor(1000), 1);
    setThreadCount(0);  // unknown: the processor count
    EXPECT_EQ(kqmp_maxthreads(), std::max<int32_t>(1, kqmp_numcpus()));
    setThreadCount(2000);  // more than the pool's 1024 slots: a job could never run
    EXPECT_EQ(kqmp_maxthreads(), 1024);
    EXPECT_EQ(kqmp_threadsfor(16 * 2000), 1024);
    setThreadCount(0);
}

// No threads runs nothing, and doesn't replay the job left in the slots.
TEST(Kqmp, EveryRowOnceShareZeroOnTheCallerNothingWithoutThreads) {
    for (int32_t threads : {1, 2, 3, 4, 5, 7, 8, 16, 33})
        for (int32_t rows : {1, 2, 15, 16, 17, 31, 32, 100, 101, 1000, 1023}) {
            SCOPED_TRACE(std::to_string(threads) + " threads, " + std::to_string(rows) + " rows");
            const JobRecord job = RunRecorded(threads, rows);
            EXPECT_TRUE(job.everyRowOnce());
            for (int32_t i = 0; i < threads; ++i) {
                EXPECT_LE(job.shares[i].calls, 1) << "thread " << i;
                EXPECT_EQ(job.shares[i].isFirstWorker, i == 0) << "thread " << i;
                const bool onCaller = job.shares[i].thread == std::this_thread::get_id();
                EXPECT_TRUE(job.shares[i].calls == 0 || onCaller == (i == 0)) << "thread " << i;
            }
        }
    const JobRecord earlier = RunRecorded(3, 100);
    for (int32_t threads : {0, -1, -1024}) EXPECT_EQ(RunRecorded(threads, 100).shares[0].calls, 0) << threads;
    EXPECT_TRUE(earlier.everyRowOnce()) << "the earlier job replayed";
}

TEST(Kqmp, SlotLimitShutdownAndAJobAfterIt) {
    kqmp_shutdown();
    ASSERT_EQ(kqmp_threadcount, 0);
    JobRecord tooMany(2050, 1025);
    const float scale = 0.75f;
    try {
        kqmp_dispatch(1025, 2050, RecordingWorker, &tooMany, 1234, &scale);
        ADD_FAILURE() << "1025 threads must be refused";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrFailed);
    }
    for (const ShareSeen& s : tooMany.shares) ASSERT_EQ(s.calls, 0);
    EXPECT_EQ(kqmp_threadcount, 0) << "no thread may start for a job over the limit";
    EXPECT_TRUE(RunRecorded(1024, 2048).everyRowOnce());
    EXPECT_EQ(kqmp_threadcount, 1023) << "the calling thread works share 0";

    kqmp_shutdown();
    const JobRecord first = RunRecorded(4, 400);
    kqmp_shutdown();
    kqmp_shutdown();  // twice is harmless
    EXPECT_EQ(kqmp_threadcount, 0);
    const JobRecord again = RunRecorded(4, 400);
    EXPECT_TRUE(again.everyRowOnce());
    EXPECT_EQ(kqmp_threadcount, 3);
    EXPECT_NE(again.shares[1].thread, first.shares[1].thread) << "the pool thread must be a new one";
    kqmp_shutdown();
}

// A worker run with another job's arguments shows as a row visited twice or never.
TEST(Kqmp, ConcurrentDispatchersAllFinish) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> dispatchers;
    for (int32_t d = 0; d < 4; ++d)
        dispatchers.emplace_back([&, d] {
            for (int32_t j = 0; j < 40; ++j)  // some jobs single-threaded, which take no lock
                if (!RunRecorded(j % 3 == 0 ? 1 : 2 + (j + d) % 4, 300).everyRowOnce()) ++wrong;
        });
    for (auto& t : dispatchers) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

// Throws on one share, of the kind named; the other shares mark their rows, the
// pool shares after a pause so that a dispatcher that doesn't wait is caught.
struct FailingJob {
    int32_t failingShare;
    int kind;  // 0 PLErr, 1 std::runtime_error, 2 int, 3 PLErrNone
    std::vector<int32_t> done;
};

void FailingWorker(int32_t threadIndex, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    auto* job = args->next<FailingJob*>();
    if (threadIndex == job->failingShare) {
        if (job->kind == 0) throw PLErrNoFrame;
        if (job->kind == 1) throw std::runtime_error("worker");
        if (job->kind == 2) throw 42;
        throw PLErrNone;
    }
    if (threadIndex != 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int32_t y = firstRow; y <= lastRow; ++y) job->done[y] = 1;
}

// What the dispatch threw (PLErrNone: nothing, -1: no PLErr); all other shares' rows done.
int32_t DispatchFailing(int32_t share, int kind, int32_t threads, int32_t rows = 400) {
    FailingJob job{share, kind, std::vector<int32_t>(rows, 0)};
    int32_t thrown = PLErrNone;
    try {
        kqmp_dispatch(threads, rows, FailingWorker, &job);
    } catch (PLErr e) {
        thrown = e;
    } catch (...) {
        thrown = -1;
    }
    for (int32_t y = 0; y < rows; ++y)
        EXPECT_EQ(job.done[y], std::min(y / (rows / threads), threads - 1) == share ? 0 : 1) << "row " << y;
    return thrown;
}

TEST(Kqmp, FailuresReachTheCallerAfterTheWholeJob) {
    const struct {
        int32_t share;
        int kind;
        int32_t thrown;
    } cases[] = {
        {2, 0, PLErrNoFrame}, {1, 1, PLErrFailed}, {3, 2, PLErrFailed},  // on pool threads
        {0, 0, PLErrNoFrame}, {0, 1, -1},                                // on the calling thread
        {2, 3, PLErrNone},    {0, 3, PLErrNone},  // a thrown PLErrNone counts as success
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("share " + std::to_string(c.share) + ", kind " + std::to_string(c.kind));
        EXPECT_EQ(DispatchFailing(c.share, c.kind, 4), c.thrown);
        // The lock is free, no doneSignal left over: the next job waits for its pool shares.
        EXPECT_EQ(DispatchFailing(-1, 0, 4), PLErrNone) << "next job";
    }
    EXPECT_EQ(DispatchFailing(0, 0, 1), PLErrNoFrame) << "single-thread share";
    EXPECT_EQ(DispatchFailing(-1, 0, 4), PLErrNone) << "after a single-thread failure";
}

// A host's thread suite as the shell presents it: threads of its own, not the caller.
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
    const JobRecord job = RunRecorded(3, 100);
    EXPECT_EQ(gRunnerCalls, 1);
    EXPECT_TRUE(job.everyRowOnce());
    for (int32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(job.shares[i].isFirstWorker, i == 0) << "thread " << i;
        EXPECT_NE(job.shares[i].thread, std::this_thread::get_id()) << "thread " << i;
    }
    RunRecorded(1, 100);
    EXPECT_EQ(gRunnerCalls, 1) << "single-thread work stays on the caller";
    EXPECT_EQ(DispatchFailing(0, 1, 3, 100), PLErrFailed) << "an exception on host share 0";
    EXPECT_EQ(DispatchFailing(2, 0, 3, 100), PLErrNoFrame) << "a PLErr on host share 2";

    gRunnerTakesJobs = false;  // the host declines: the pool runs the job
    const JobRecord pooled = RunRecorded(3, 100);
    EXPECT_TRUE(pooled.everyRowOnce());
    EXPECT_EQ(pooled.shares[0].thread, std::this_thread::get_id());
    kqmp_sethostrunner(nullptr);
}

// Modules with their own pool, kqmp_shutdown registered before and after its construction.
TEST(Kqmp, UnloadJoinsThePoolThreads) {
    std::thread([] {}).join();  // a thread sanitizer starts a helper thread with the first thread
    for (const char* path : {KQMP_MODULE_EARLY, KQMP_MODULE_LATE})
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(std::string(path) + ", load " + std::to_string(round + 1));
            const int baseline = CountTasks();
            void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
            ASSERT_NE(module, nullptr) << dlerror();
            auto run = reinterpret_cast<int32_t (*)(int32_t, int32_t)>(dlsym(module, "kqmp_module_run"));
            ASSERT_NE(run, nullptr);
            EXPECT_EQ(run(4, 400), 400);
            EXPECT_EQ(CountTasks(), baseline + 3);
            ASSERT_EQ(dlclose(module), 0);
            EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the module stayed loaded";
            EXPECT_EQ(CountTasks(), baseline) << "pool threads outlived the module";
        }
}

// Pool shares keep reporting past their rows, so that they are still running
// when the abort comes and must stop at a report.
struct AbortJob {
    QVIdleAndProgressClass* top;
    int32_t interrupted = 0;
    std::vector<int32_t> stoppedBy = std::vector<int32_t>(4, PLErrNone);
    std::atomic<int> unstopped{0};
};

void AbortableWorker(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                     kqmp_args* args) {
    auto* job = args->next<AbortJob*>();
    QVIldeAndProgressMPInterruptible progress(job->top, isFirstWorker, &job->interrupted);
    try {
        if (isFirstWorker) {
            for (int32_t y = firstRow; y <= lastRow; ++y)
                progress.ProgressIdle(static_cast<float>(y - firstRow) /
                                      static_cast<float>(lastRow - firstRow));
        } else {
            // Bounded so that a missed abort fails the test instead of hanging it.
            for (long i = 0; i < 200000000L; ++i) progress.ProgressIdle(0.5f);
            ++job->unstopped;
        }
    } catch (PLErr e) {
        job->stoppedBy[threadIndex] = e;
    }
}

TEST(Progress, AbortStopsEveryWorkerOfAJob) {
    CountingProgress top(30, PLErrAborted);
    QVIdleAndProgressClass engine(&top);
    AbortJob job;
    job.top = &engine;
    kqmp_dispatch(4, 400, AbortableWorker, &job);
    EXPECT_EQ(top.reports, 30) << "only the first worker reports, and it stops at the abort";
    EXPECT_EQ(job.interrupted, 1);
    EXPECT_EQ(job.unstopped.load(), 0);
    for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(job.stoppedBy[i], PLErrAborted) << "worker " << i;
}

}  // namespace
