// A row worker built once for each instruction-set path, from one body. The
// body is PL_INLINE_HOT, so each build compiles it (and what it inlines) for
// its path, and the compiler vectorises it as wide as the path allows; the
// arithmetic of each element is the same on every path.
//   kqmp_runrows(rows, kqmp_forisa<MyRows>(), ...);
#pragma once

#include "base/isa.h"
#include "mp/kqmp.h"

template <kqmp_worker* Body>
void kqmp_rowsbaseline(int32_t threadIndex, bool isFirst, int32_t firstRow, int32_t lastRow,
                       kqmp_args* args) {
    Body(threadIndex, isFirst, firstRow, lastRow, args);
}

template <kqmp_worker* Body>
PL_TARGET_AVX2 void kqmp_rowsavx2(int32_t threadIndex, bool isFirst, int32_t firstRow, int32_t lastRow,
                                  kqmp_args* args) {
    Body(threadIndex, isFirst, firstRow, lastRow, args);
}

template <kqmp_worker* Body>
PL_TARGET_AVX512 void kqmp_rowsavx512(int32_t threadIndex, bool isFirst, int32_t firstRow, int32_t lastRow,
                                      kqmp_args* args) {
    Body(threadIndex, isFirst, firstRow, lastRow, args);
}

// The build of Body for the path in use.
template <kqmp_worker* Body>
kqmp_worker* kqmp_forisa() {
    switch (PLActiveIsa()) {
        case PLIsaAvx512:
            return kqmp_rowsavx512<Body>;
        case PLIsaAvx2:
            return kqmp_rowsavx2<Body>;
        default:
            return kqmp_rowsbaseline<Body>;
    }
}
