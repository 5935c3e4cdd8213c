// The interact suite: a command-line host draws nothing, so the entries are
// there for plug-ins that fetch the suite and do nothing.
#include "suites.h"

namespace ofxhost {
namespace {

OfxStatus interactSwapBuffers(OfxInteractHandle) {
    return kOfxStatOK;
}
OfxStatus interactRedraw(OfxInteractHandle) {
    return kOfxStatOK;
}
OfxStatus interactGetPropertySet(OfxInteractHandle, OfxPropertySetHandle*) {
    return kOfxStatErrUnsupported;
}

const OfxInteractSuiteV1 kInteractSuite = {interactSwapBuffers, interactRedraw, interactGetPropertySet};

}  // namespace

const OfxInteractSuiteV1* interactSuite() {
    return &kInteractSuite;
}

}  // namespace ofxhost
