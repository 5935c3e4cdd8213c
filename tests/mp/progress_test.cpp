// Tests of the progress chain: range mapping, abort, and an abort that stops
// every worker of a running job through the per-worker objects.
#include "mp/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "common/threads.h"

namespace {

TEST(Progress, RangeMappingAndAbort) {
    CountingProgress top(1000, PLErrAborted);
    QVIdleAndProgressClass stage(&top);
    QVIdleAndProgressClass leaf(&stage);
    stage.setRange(0.2f, 0.6f);
    leaf.ProgressIdle(0.5f);
    // The parent's range, in single precision and this order; the top's default
    // range 0..1 passes it unchanged.
    EXPECT_EQ(stage.current, (0.6f - 0.2f) * 0.5f + 0.2f);
    EXPECT_EQ(top.fractions.back(), stage.current);
    stage.ProgressIdle(0.3f);
    stage.collapseRange();
    for (float f : {0.0f, 1.0f}) {
        leaf.ProgressIdle(f);
        EXPECT_EQ(stage.current, 0.3f) << "a collapsed range maps " << f << " to the last report";
    }

    QVIdleAndProgressClass parent(nullptr);
    QVIdleAndProgressClass child(&parent);
    child.setAbort(true);
    EXPECT_TRUE(child.getAbort());
    int32_t code = 0;
    try {
        child.ProgressIdle(0.8f);
    } catch (PLErr e) {
        code = e;
    }
    EXPECT_EQ(code, PLErrAborted) << "setAbort(true) makes the next report throw";
    EXPECT_EQ(child.current, 0.8f) << "the fraction is stored before the abort";
    EXPECT_EQ(parent.current, 0.0f) << "an aborting object doesn't reach its parent";
    child.setAbort(false);
    child.ProgressIdle(0.5f);
    EXPECT_EQ(parent.current, 0.5f);
}

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
