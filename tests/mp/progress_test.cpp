// The progress chain under a job: an abort from the top stops every worker
// through the per-worker objects. (The range mapping and the abort flag are
// off the plug-in's path; the engine's and the fill's reports are counted in
// their own tests.)
#include "mp/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "common/threads.h"

namespace {

// The blur workers' pattern: each worker reports once per row through its own
// object and stores any PLErr in the job's error word. Pool shares keep
// reporting past their rows, so that they are still running when the abort
// comes and must stop at a report.
struct AbortJob {
    QVIdleAndProgressClass* top;
    int32_t interrupted = 0;
    int32_t error = 0;
    std::vector<int32_t> stoppedBy;
    std::atomic<int> unstopped{0};
};

void AbortableWorker(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                     kqmp_args* args) {
    auto* job = args->next<AbortJob*>();
    int32_t* errorWord = args->next<int32_t*>();
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
        __atomic_store_n(errorWord, static_cast<int32_t>(e), __ATOMIC_RELAXED);
    }
}

TEST(Progress, AbortStopsEveryWorkerOfAJob) {
    constexpr int32_t kThreads = 4, kRows = 4 * 100;
    constexpr int kAbortAt = 30;
    CountingProgress top(kAbortAt, PLErrAborted);
    QVIdleAndProgressClass engine(&top);
    AbortJob job;
    job.top = &engine;
    job.stoppedBy.assign(kThreads, PLErrNone);

    try {
        kqmp_dispatch(kThreads, kRows, AbortableWorker, &job, &job.error);
        if (job.error != 0) throw static_cast<PLErr>(job.error);
        ADD_FAILURE() << "the abort must reach the caller";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrAborted);
    }
    EXPECT_EQ(top.reports, kAbortAt) << "only the first worker reports, and it stops at the abort";
    EXPECT_EQ(job.interrupted, 1);
    EXPECT_EQ(job.unstopped.load(), 0);
    for (int32_t i = 0; i < kThreads; ++i) EXPECT_EQ(job.stoppedBy[i], PLErrAborted) << "worker " << i;
}

}  // namespace
