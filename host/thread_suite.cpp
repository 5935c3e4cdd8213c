// The multi-thread suite with real threads. multiThread runs fn(i, n, arg)
// for every i, share 0 on the calling thread unless the host is set to spawn
// them all, one thread per share unless the host has a thread limit, and
// returns when all are done. A call from inside a spawned
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
    // Thread t runs shares t, t + threads, ...: one each unless the host is
    // told to use fewer threads than shares.
    const unsigned int limit = host->config().threadLimit;
    const unsigned int threads = limit != 0 && limit < count ? limit : count;
    auto runShares = [=](unsigned int t) {
        for (unsigned int i = t; i < count; i += threads) runShare(fn, i, count, arg);
    };
    unsigned int first = host->config().callerRunsShareZero ? 1 : 0;
    std::vector<std::thread> spawned;
    try {
        for (unsigned int t = first; t < threads; ++t)
            spawned.emplace_back([=] {
                tSpawned = true;
                runShares(t);
            });
    } catch (const std::system_error&) {
        for (std::thread& t : spawned) t.join();
        return kOfxStatErrMemory;
    }
    if (first == 1) runShares(0);
    for (std::thread& t : spawned) t.join();
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
