// A scoped thread limit and a progress top that counts and can abort.
#pragma once

#include <cstdint>
#include <vector>

#include "mp/kqmp.h"
#include "mp/progress.h"

// Sets the pool's thread limit for a scope, then back to the processor count.
struct ThreadLimit {
    explicit ThreadLimit(int32_t count) { setThreadCount(count); }
    ~ThreadLimit() { setThreadCount(0); }
};

// The top of a chain: counts the reports reaching it and throws `error` from
// the report numbered abortAt on (1-based; 0 never).
class CountingProgress : public QVIdleAndProgressClass {
  public:
    explicit CountingProgress(int abortAtReport = 0, PLErr thrown = PLErrAborted)
        : QVIdleAndProgressClass(nullptr), abortAt(abortAtReport), error(thrown) {}
    void ProgressIdle(float fraction) override {
        ++reports;
        fractions.push_back(fraction);
        if (abortAt != 0 && reports >= abortAt) throw error;
    }
    int abortAt;
    PLErr error;
    int reports = 0;
    std::vector<float> fractions;
};
