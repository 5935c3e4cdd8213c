#ifndef _ofxInteract_h_
#define _ofxInteract_h_

/* Interact suite: custom overlays drawn in the host's viewers. */

#include "ofxCore.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kOfxInteractSuite "OfxInteractSuite"

typedef struct OfxInteract *OfxInteractHandle;

/* Interact actions. */
#define kOfxInteractActionDraw "OfxInteractActionDraw"
#define kOfxInteractActionPenMotion "OfxInteractActionPenMotion"
#define kOfxInteractActionPenDown "OfxInteractActionPenDown"
#define kOfxInteractActionPenUp "OfxInteractActionPenUp"
#define kOfxInteractActionKeyDown "OfxInteractActionKeyDown"
#define kOfxInteractActionKeyUp "OfxInteractActionKeyUp"
#define kOfxInteractActionKeyRepeat "OfxInteractActionKeyRepeat"
#define kOfxInteractActionGainFocus "OfxInteractActionGainFocus"
#define kOfxInteractActionLoseFocus "OfxInteractActionLoseFocus"

typedef struct OfxInteractSuiteV1 {
  OfxStatus (*interactSwapBuffers)(OfxInteractHandle interactInstance);
  OfxStatus (*interactRedraw)(OfxInteractHandle interactInstance);
  OfxStatus (*interactGetPropertySet)(OfxInteractHandle interactInstance, OfxPropertySetHandle *property);
} OfxInteractSuiteV1;

#ifdef __cplusplus
}
#endif

#endif /* _ofxInteract_h_ */
