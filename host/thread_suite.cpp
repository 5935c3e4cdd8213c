// The multi-thread suite with real threads. multiThread runs fn(i, n, arg)
// for every i, share 0 on the calling thread unless the host is set to spawn
// them all, and returns when all are done. A call from inside a spawned
// thread runs its shares one after another on that thread instead of
// spawning again.
#include <mutex>
#include <thread>
#include <vector>

#include "handles.h"
#include "host.h"
#include "suites.h"

namespace ofxhost {
namespace {

thread_local bool tSpawned = false;
thread_local unsigned int tIndex = 0;

struct HostMutex {
    std::recursive_mutex mutex;
};

// Runs one share with the thread's index set for multiThreadIndex.
void runShare(OfxThreadFunctionV1* fn, unsigned int index, unsigned int count, void* arg) {
    unsigned int saved = tIndex;
    tIndex = index;
    fn(index, count, arg);
    tIndex = saved;
}

OfxStatus multiThread(OfxThreadFunctionV1 fn, unsigned int count, void* arg) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    if (!fn) return kOfxStatErrValue;
    if (count == 0) return kOfxStatOK;
    if (tSpawned) {
        for (unsigned int i = 0; i < count; ++i) runShare(fn, i, count, arg);
        return kOfxStatOK;
    }
    unsigned int first = host->config().callerRunsShareZero ? 1 : 0;
    std::vector<std::thread> threads;
    try {
        for (unsigned int i = first; i < count; ++i)
            threads.emplace_back([=] {
                tSpawned = true;
                runShare(fn, i, count, arg);
            });
    } catch (const std::system_error&) {
        for (std::thread& t : threads) t.join();
        return kOfxStatErrMemory;
    }
    if (first == 1) runShare(fn, 0, count, arg);
    for (std::thread& t : threads) t.join();
    return kOfxStatOK;
}

OfxStatus multiThreadNumCPUs(unsigned int* count) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    if (!count) return kOfxStatErrValue;
    *count = host->numCPUs();
    return kOfxStatOK;
}

OfxStatus multiThreadIndex(unsigned int* index) {
    if (!index) return kOfxStatErrValue;
    *index = tIndex;
    return kOfxStatOK;
}

int multiThreadIsSpawnedThread() {
    return tSpawned ? 1 : 0;
}

HostMutex* mutexOf(OfxMutexHandle handle) {
    return fromHandle<HostMutex>(handle, HandleKind::Mutex);
}

OfxStatus mutexCreate(OfxMutexHandle* handle, int lockCount) {
    if (!handle) return kOfxStatErrValue;
    auto* m = new HostMutex;
    for (int i = 0; i < lockCount; ++i) m->mutex.lock();
    *handle = static_cast<OfxMutexHandle>(registerHandle(m, HandleKind::Mutex));
    return kOfxStatOK;
}

OfxStatus mutexDestroy(const OfxMutexHandle handle) {
    HostMutex* m = mutexOf(handle);
    if (!m) return kOfxStatErrBadHandle;
    unregisterHandle(handle);
    delete m;
    return kOfxStatOK;
}

OfxStatus mutexLock(const OfxMutexHandle handle) {
    HostMutex* m = mutexOf(handle);
    if (!m) return kOfxStatErrBadHandle;
    m->mutex.lock();
    return kOfxStatOK;
}

OfxStatus mutexUnLock(const OfxMutexHandle handle) {
    HostMutex* m = mutexOf(handle);
    if (!m) return kOfxStatErrBadHandle;
    m->mutex.unlock();
    return kOfxStatOK;
}

OfxStatus mutexTryLock(const OfxMutexHandle handle) {
    HostMutex* m = mutexOf(handle);
    if (!m) return kOfxStatErrBadHandle;
    return m->mutex.try_lock() ? kOfxStatOK : kOfxStatFailed;
}

const OfxMultiThreadSuiteV1 kMultiThreadSuite = {
    multiThread, multiThreadNumCPUs, multiThreadIndex, multiThreadIsSpawnedThread, mutexCreate, mutexDestroy,
    mutexLock,   mutexUnLock,        mutexTryLock,
};

}  // namespace

const OfxMultiThreadSuiteV1* multiThreadSuite() {
    return &kMultiThreadSuite;
}

}  // namespace ofxhost
