#include "mp/progress.h"

#include "base/plerr.h"

namespace {
// The shared word is a plain int32 that one worker writes and all read; access
// it atomically (relaxed) so that the late read it tolerates is also well defined.
int32_t LoadWord(int32_t* w) {
    return __atomic_load_n(w, __ATOMIC_RELAXED);
}
void StoreWord(int32_t* w, int32_t v) {
    __atomic_store_n(w, v, __ATOMIC_RELAXED);
}
}  // namespace

void QVIdleAndProgressClass::ProgressIdle(float fraction) {
    current = fraction;
    if (abortRequested) throw PLErrAborted;
    if (parent) parent->ProgressIdle((parent->rangeEnd - parent->rangeStart) * fraction + parent->rangeStart);
}

void QVIldeAndProgressMPInterruptible::ProgressIdle(float fraction) {
    if (reporter) {
        if (LoadWord(interrupted) != 0) return;
        try {
            QVIdleAndProgressClass::ProgressIdle(fraction);
        } catch (PLErr e) {
            StoreWord(interrupted, 1);
            throw e;
        }
        return;
    }
    if (LoadWord(interrupted) != 0) throw PLErrAborted;
}
