// The top of a render's chain of progress objects. It tells the host no
// progress figure; each report is a chance for the host to stop the work.
#pragma once

#include "base/plerr.h"
#include "mp/progress.h"
#include "ofxImageEffect.h"

class OFXIdleProgress : public QVIdleAndProgressClass {
  public:
    OFXIdleProgress(QVIdleAndProgressClass* parentObject, OfxImageEffectSuiteV1* suite,
                    OfxImageEffectHandle effectInstance)
        : QVIdleAndProgressClass(parentObject), effectSuite(suite), instance(effectInstance) {}

    void ProgressIdle(float) override {
        if (Aborted()) throw PLErrAborted;
    }

    // The host's answer to "stop?"; no suite means no.
    bool Aborted() const { return effectSuite && effectSuite->abort && effectSuite->abort(instance) != 0; }

    OfxImageEffectSuiteV1* effectSuite;
    OfxImageEffectHandle instance;
};
