// Progress objects. A long operation reports a fraction of its work now and
// then; each object maps the fraction into its parent's range and passes it up.
// At the top of the chain the host is asked whether to stop, and an abort comes
// back down as the exception PLErrAborted: it is the only way a running render
// learns of one.
#pragma once

#include <cstdint>

#include "base/qvmem.h"

class QVIdleAndProgressClass : public QVMem {
  public:
    explicit QVIdleAndProgressClass(QVIdleAndProgressClass* parentObject) : parent(parentObject) {}
    virtual ~QVIdleAndProgressClass() = default;

    virtual void ProgressIdle(float fraction);

    QVIdleAndProgressClass* setRange(float start, float end) {
        rangeStart = start;
        rangeEnd = end;
        return this;
    }
    QVIdleAndProgressClass* collapseRange() {
        rangeStart = current;
        rangeEnd = current;
        return this;
    }
    // An idle tick: repeats the last fraction, so its only effect is an abort check.
    void reportCurrent() { ProgressIdle(current); }
    void reportRangeEnd() { ProgressIdle(rangeEnd); }
    void setAbort(bool flag) { abortRequested = flag; }
    bool getAbort() const { return abortRequested; }

    bool abortRequested = false;
    float current = 0.0f;
    float rangeStart = 0.0f;
    float rangeEnd = 1.0f;
    QVIdleAndProgressClass* parent;
};

// One per worker of a job. Only the reporter (the first worker) goes up the
// chain, so the host is asked from one thread alone; the others learn of an
// abort through the shared word at their next report.
class QVIldeAndProgressMPInterruptible : public QVIdleAndProgressClass {
  public:
    QVIldeAndProgressMPInterruptible(QVIdleAndProgressClass* parentObject, bool isReporter,
                                     int32_t* sharedWord)
        : QVIdleAndProgressClass(parentObject), reporter(isReporter), interrupted(sharedWord) {}

    void ProgressIdle(float fraction) override;

    bool reporter;
    int32_t* interrupted;
};
