#ifndef _ofxMessage_h_
#define _ofxMessage_h_

/* Message suite: errors, warnings and log lines shown by the host. */

#include "ofxCore.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kOfxMessageSuite "OfxMessageSuite"

/* Message types. */
#define kOfxMessageFatal "OfxMessageFatal"
#define kOfxMessageError "OfxMessageError"
#define kOfxMessageWarning "OfxMessageWarning"
#define kOfxMessageMessage "OfxMessageMessage"
#define kOfxMessageLog "OfxMessageLog"
#define kOfxMessageQuestion "OfxMessageQuestion"

typedef struct OfxMessageSuiteV1 {
  /* Variadic: format is printf-style. Dropping the "..." changes the call ABI. */
  OfxStatus (*message)(void *handle, const char *messageType, const char *messageId, const char *format, ...);
} OfxMessageSuiteV1;

#ifdef __cplusplus
}
#endif

#endif /* _ofxMessage_h_ */
