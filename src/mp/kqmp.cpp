#include "kqmp.h"

#include <unistd.h>

namespace {
int32_t gThreadLimit = 0;  // 0 until known
kqmp_hostrunner* gHostRunner = nullptr;
}  // namespace

int32_t kqmp_numcpus() { return static_cast<int32_t>(sysconf(_SC_NPROCESSORS_ONLN)); }

int32_t kqmp_maxthreads() {
    if (gThreadLimit == 0) gThreadLimit = kqmp_numcpus();
    if (gThreadLimit < 1) gThreadLimit = 1;
    return gThreadLimit;
}

void setThreadCount(int32_t count) { gThreadLimit = count; }

int32_t kqmp_threadsfor(int32_t rows) {
    int32_t limit = kqmp_maxthreads();
    int32_t m = limit < rows ? limit : rows;
    // Every thread gets at least 16 rows.
    while (m > 1) {
        if (rows / m >= 16) return m;
        --m;
    }
    return m;
}

void kqmp_splitrows(int32_t threadCount, int32_t index, int32_t rows, int32_t* first, int32_t* last) {
    int32_t share = rows / threadCount;
    *first = index * share;
    *last = index == threadCount - 1 ? rows - 1 : index * share + share - 1;
}

void kqmp_sethostrunner(kqmp_hostrunner* runner) { gHostRunner = runner; }

// Placeholder until the pool lands: runs every share in order on the calling thread.
void kqmp_dispatchlist(int32_t threadCount, int32_t rows, kqmp_worker* worker, const kqmp_arglist& list) {
    if (threadCount == 1 || rows == 1) {
        kqmp_args args(&list);
        worker(0, true, 0, rows - 1, &args);
        return;
    }
    if (threadCount > 1024) throw PLErrFailed;
    for (int32_t i = 0; i < threadCount; ++i) {
        int32_t first, last;
        kqmp_splitrows(threadCount, i, rows, &first, &last);
        kqmp_args args(&list);
        worker(i, i == 0, first, last, &args);
    }
}

void kqmp_shutdown() {}
