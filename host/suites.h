// The suite tables of the host, one per OFX suite, for fetchSuite.
#pragma once

#include "ofxImageEffect.h"
#include "ofxInteract.h"
#include "ofxMemory.h"
#include "ofxMessage.h"
#include "ofxMultiThread.h"
#include "ofxParam.h"

namespace ofxhost {

const OfxImageEffectSuiteV1* imageEffectSuite();
const OfxParameterSuiteV1* parameterSuite();
const OfxMemorySuiteV1* memorySuite();
const OfxMultiThreadSuiteV1* multiThreadSuite();
const OfxMessageSuiteV1* messageSuite();
const OfxInteractSuiteV1* interactSuite();

// The render scale that images handed out on this thread carry: that of the
// render the thread is sending, 1 elsewhere.
void setImageRenderScale(OfxPointD scale);
OfxPointD imageRenderScale();

}  // namespace ofxhost
