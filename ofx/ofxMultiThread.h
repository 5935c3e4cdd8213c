#ifndef _ofxMultiThread_h_
#define _ofxMultiThread_h_

/* Multi-thread suite: the host's thread pool and mutexes. */

#include "ofxCore.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kOfxMultiThreadSuite "OfxMultiThreadSuite"

typedef struct OfxMutex *OfxMutexHandle;

/* A function type: multiThread's first parameter adjusts to a pointer. */
typedef void(OfxThreadFunctionV1)(unsigned int threadIndex, unsigned int threadMax, void *customArg);

typedef struct OfxMultiThreadSuiteV1 {
  OfxStatus (*multiThread)(OfxThreadFunctionV1 func, unsigned int nThreads, void *customArg);
  OfxStatus (*multiThreadNumCPUs)(unsigned int *nCPUs);
  OfxStatus (*multiThreadIndex)(unsigned int *threadIndex);
  /* Plain int, not a status: non-zero on a thread spawned by multiThread. */
  int (*multiThreadIsSpawnedThread)(void);
  OfxStatus (*mutexCreate)(OfxMutexHandle *mutex, int lockCount);
  OfxStatus (*mutexDestroy)(const OfxMutexHandle mutex);
  OfxStatus (*mutexLock)(const OfxMutexHandle mutex);
  OfxStatus (*mutexUnLock)(const OfxMutexHandle mutex);
  OfxStatus (*mutexTryLock)(const OfxMutexHandle mutex);
} OfxMultiThreadSuiteV1;

#ifdef __cplusplus
}
#endif

#endif /* _ofxMultiThread_h_ */
