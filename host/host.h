// The embedded OFX host: its identity and property set, the suites it hands
// out through fetchSuite, and what it records of a plug-in's calls (suite
// fetches, memory, messages). A host can impersonate another by name and
// label, and leave out chosen suites and host properties, so that tests can
// see how a plug-in behaves on hosts other than ours.
//
// The suites are plain C function tables without a user pointer, so their
// entries reach the host through Host::current(): one Host exists at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "image.h"
#include "ofxCore.h"
#include "property_set.h"

namespace ofxhost {

struct Message {
    void* handle;
    std::string type;
    std::string id;
    std::string text;    // the format expanded with its arguments
    std::string format;  // as the plug-in passed it
};

struct HostConfig {
    std::string name = "com.corvane.trelvo-render";
    std::string label = "trelvo-render";
    std::set<std::string> omittedSuites;      // fetchSuite answers null for these
    std::set<std::string> omittedProperties;  // unknown to the host's property set
    unsigned int numCPUs = 0;                 // multiThreadNumCPUs; 0 asks the machine
    // multiThread runs share 0 on the calling thread; false spawns all n.
    bool callerRunsShareZero = true;
    // multiThread runs its shares on at most this many threads, each taking
    // them in turn; 0: a thread for every share.
    unsigned int threadLimit = 0;
    bool background = true;          // kOfxImageEffectHostPropIsBackground
    bool multipleClipDepths = true;  // kOfxImageEffectPropSupportsMultipleClipDepths
    // Called for every message on the plug-in's thread once it is logged: a
    // host that waits for its user to answer a message holds the thread here.
    std::function<void(const Message&)> onMessage;
};

// The answer of the image-effect suite's abort: never, always, from the
// (k+1)-th call on, or while a flag is raised (from any thread). Every call
// is counted, whatever the rule.
class AbortControl {
  public:
    void never();
    void always();
    void afterCalls(uint64_t k);  // the next k calls answer 0, later ones 1
    void whileRaised();           // answers the flag; starts lowered
    void raise();
    void lower();
    int answer();  // what the suite returns; counts the call
    uint64_t calls() const;
    void resetCalls();

  private:
    enum class Rule { Never, Always, AfterCalls, Flag };
    std::atomic<Rule> rule_{Rule::Never};
    std::atomic<uint64_t> limit_{0};
    std::atomic<bool> flag_{false};
    std::atomic<uint64_t> calls_{0};
};

// Host memory handed to the plug-in, counted; can be told to fail. Large
// blocks given back are kept, up to the peak of live bytes, and handed out
// again to requests they fit closely, so that a sequence of frames reuses
// pages already faulted in instead of fetching fresh ones every frame.
class MemoryLedger {
  public:
    struct Counts {
        uint64_t allocations = 0;  // successful ones
        uint64_t frees = 0;
        uint64_t failedAllocations = 0;
        uint64_t badFrees = 0;  // pointers the ledger never handed out (or already took back)
        size_t liveBytes = 0;
        size_t peakBytes = 0;
    };

    ~MemoryLedger();
    OfxStatus allocate(size_t bytes, void** block);
    OfxStatus release(void* block);
    Counts counts() const;
    // Allocations after the first n successful ones fail; negative: never.
    void failAfter(int64_t n);

  private:
    struct Block {
        size_t bytes;     // asked for
        size_t capacity;  // what the block holds
    };
    mutable std::mutex mutex_;
    std::unordered_map<void*, Block> live_;
    std::multimap<size_t, void*> spare_;  // kept blocks by capacity
    size_t spareBytes_ = 0;
    Counts counts_;
    int64_t failAfter_ = -1;
};

class MessageLog {
  public:
    void add(Message message);
    std::vector<Message> all() const;
    void clear();

  private:
    mutable std::mutex mutex_;
    std::vector<Message> messages_;
};

class Host {
  public:
    explicit Host(HostConfig config = {});
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // The running host, or null.
    static Host* current();

    const HostConfig& config() const { return config_; }
    // Another identity and configuration over the same suites, as if a new
    // host had come (no fetches or messages recorded yet): for a driver that
    // loads and unloads a plug-in many times and need not describe it in its
    // context afresh each time. Only between actions.
    void reconfigure(HostConfig config);
    OfxHost* ofxHost() { return &ofxHost_; }
    PropertySet& properties() { return properties_; }
    MemoryLedger& memory() { return memory_; }
    MessageLog& messages() { return messages_; }
    ImageLedger& images() { return images_; }
    AbortControl& abort() { return abort_; }

    // What the plug-in gets for a suite name and version; null if unknown or omitted.
    const void* fetchSuite(const char* name, int version);
    // "Name/version" of every fetch, in order.
    std::vector<std::string> fetches() const;

    unsigned int numCPUs() const;

  private:
    HostConfig config_;
    PropertySet properties_;
    OfxHost ofxHost_;
    MemoryLedger memory_;
    MessageLog messages_;
    ImageLedger images_;
    AbortControl abort_;
    mutable std::mutex fetchMutex_;
    std::vector<std::string> fetches_;
};

}  // namespace ofxhost
