#ifndef _ofxMemory_h_
#define _ofxMemory_h_

/* Memory suite. Like the standard header this one includes no OFX header:
 * include ofxCore.h first. <stddef.h> is only here for size_t. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define kOfxMemorySuite "OfxMemorySuite"

typedef struct OfxMemorySuiteV1 {
  /* handle: an effect instance or null, so the host may account the memory to it. */
  OfxStatus (*memoryAlloc)(void *handle, size_t nBytes, void **allocatedData);
  OfxStatus (*memoryFree)(void *allocatedData);
} OfxMemorySuiteV1;

#ifdef __cplusplus
}
#endif

#endif /* _ofxMemory_h_ */
