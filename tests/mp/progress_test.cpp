// The progress chain under a job: an abort from the top stops every worker
// through the per-worker objects, as in the blur's workers.
#include "mp/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "common/threads.h"

namespace {

// Pool shares keep reporting past their rows, so that they are still running
// when the abort comes and must stop at a report.
struct AbortJob {
    QVIdleAndProgressClass* top;
    int32_t interrupted = 0;
    int32_t error = 0;
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
        __atomic_store_n(&job->error, static_cast<int32_t>(e), __ATOMIC_RELAXED);
    }
}

TEST(Progress, AbortStopsEveryWorkerOfAJob) {
    CountingProgress top(30, PLErrAborted);
    QVIdleAndProgressClass engine(&top);
    AbortJob job;
    job.top = &engine;
    kqmp_dispatch(4, 400, AbortableWorker, &job);
    EXPECT_EQ(job.error, PLErrAborted);
    EXPECT_EQ(top.reports, 30) << "only the first worker reports, and it stops at the abort";
    EXPECT_EQ(job.interrupted, 1);
    EXPECT_EQ(job.unstopped.load(), 0);
    for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(job.stoppedBy[i], PLErrAborted) << "worker " << i;
}

}  // namespace
