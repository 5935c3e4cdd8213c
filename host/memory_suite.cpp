// The memory suite: plain heap blocks, counted per host so that tests can see
// what the plug-in allocated and gave back, and made to fail on request.
#include <cstdlib>
#include <iterator>

#include "host.h"
#include "suites.h"

namespace ofxhost {

namespace {
// Blocks from this size on are kept when given back; smaller ones come cheaply
// from the heap anyway.
constexpr size_t kKeptFrom = size_t{1} << 20;
}  // namespace

MemoryLedger::~MemoryLedger() {
    for (auto& entry : live_) std::free(entry.first);
    for (auto& entry : spare_) std::free(entry.second);
}

OfxStatus MemoryLedger::allocate(size_t bytes, void** block) {
    if (!block) return kOfxStatErrValue;
    *block = nullptr;
    std::lock_guard lock(mutex_);
    if (failAfter_ >= 0 && counts_.allocations >= static_cast<uint64_t>(failAfter_)) {
        ++counts_.failedAllocations;
        return kOfxStatErrMemory;
    }
    void* p = nullptr;
    size_t capacity = bytes ? bytes : 1;
    if (bytes >= kKeptFrom) {
        // The smallest kept block that holds it, if it wastes at most a quarter.
        auto fit = spare_.lower_bound(bytes);
        if (fit != spare_.end() && fit->first - bytes <= bytes / 4) {
            p = fit->second;
            capacity = fit->first;
            spareBytes_ -= capacity;
            spare_.erase(fit);
        }
    }
    // A fresh block first gives back kept ones that no longer fit what is asked
    // for, so live and kept bytes together stay within the peak.
    while (!p && bytes >= kKeptFrom && !spare_.empty() &&
           counts_.liveBytes + spareBytes_ + capacity > counts_.peakBytes) {
        auto largest = std::prev(spare_.end());
        spareBytes_ -= largest->first;
        std::free(largest->second);
        spare_.erase(largest);
    }
    if (!p) p = std::malloc(capacity);
    if (!p) {
        ++counts_.failedAllocations;
        return kOfxStatErrMemory;
    }
    live_[p] = Block{bytes, capacity};
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
    const Block freed = it->second;
    counts_.liveBytes -= freed.bytes;
    ++counts_.frees;
    live_.erase(it);
    if (freed.capacity >= kKeptFrom && spareBytes_ + freed.capacity <= counts_.peakBytes) {
        spare_.emplace(freed.capacity, block);
        spareBytes_ += freed.capacity;
    } else {
        std::free(block);
    }
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
