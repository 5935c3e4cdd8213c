// Part of a test module: runs a job on the module's own pool.
#include <atomic>

#include "mp/kqmp.h"

namespace {
void CountRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    auto* rows = args->next<std::atomic<int32_t>*>();
    *rows += lastRow - firstRow + 1;
}
}  // namespace

extern "C" __attribute__((visibility("default"))) int32_t kqmp_module_run(int32_t threads, int32_t rows) {
    std::atomic<int32_t> visited{0};
    kqmp_dispatch(threads, rows, CountRows, &visited);
    return visited.load();
}
