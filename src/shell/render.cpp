// The render action. Until the engine is wired in, the host is told to use its
// default behaviour.
#include "ofx_plugin.h"

OfxStatus render(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) { return kOfxStatReplyDefault; }
