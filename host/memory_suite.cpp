// The memory suite: plain heap blocks, counted per host so that tests can see
// what the plug-in allocated and gave back, and made to fail on request.
#include <cstdlib>

#include "host.h"
#include "suites.h"

namespace ofxhost {

MemoryLedger::~MemoryLedger() {
    for (auto& entry : live_) std::free(entry.first);
}

OfxStatus MemoryLedger::allocate(size_t bytes, void** block) {
    if (!block) return kOfxStatErrValue;
    *block = nullptr;
    std::lock_guard lock(mutex_);
    if (failAfter_ >= 0 && counts_.allocations >= static_cast<uint64_t>(failAfter_)) {
        ++counts_.failedAllocations;
        return kOfxStatErrMemory;
    }
    void* p = std::malloc(bytes ? bytes : 1);
    if (!p) {
        ++counts_.failedAllocations;
        return kOfxStatErrMemory;
    }
    live_[p] = bytes;
    ++counts_.allocations;
    counts_.liveBytes += bytes;
    if (counts_.liveBytes > counts_.peakBytes) counts_.peakBytes = counts_.liveBytes;
    *block = p;
    return kOfxStatOK;
}

OfxStatus MemoryLedger::release(void* block) {
    std::lock_guard lock(mutex_);
    auto it = live_.find(block);
    if (it == live_.end()) {
        ++counts_.badFrees;
        return kOfxStatErrBadHandle;
    }
    counts_.liveBytes -= it->second;
    ++counts_.frees;
    std::free(block);
    live_.erase(it);
    return kOfxStatOK;
}

MemoryLedger::Counts MemoryLedger::counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
}

void MemoryLedger::failAfter(int64_t n) {
    std::lock_guard lock(mutex_);
    failAfter_ = n;
}

namespace {

// The handle (an effect instance or null) only says whom the memory is for.
OfxStatus memoryAlloc(void*, size_t bytes, void** block) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    return host->memory().allocate(bytes, block);
}

OfxStatus memoryFree(void* block) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    return host->memory().release(block);
}

const OfxMemorySuiteV1 kMemorySuite = {memoryAlloc, memoryFree};

}  // namespace

const OfxMemorySuiteV1* memorySuite() {
    return &kMemorySuite;
}

}  // namespace ofxhost
