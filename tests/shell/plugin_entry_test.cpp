// The shell linked statically, where its globals can be read.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/qvmem.h"
#include "effect.h"
#include "host.h"
#include "mp/kqmp.h"
#include "shell/ofx_plugin.h"

using namespace ofxhost;

namespace {

void resetShellGlobals() {
    gHost = nullptr;
    gEffectHost = nullptr;
    gPropHost = nullptr;
    gParamHost = nullptr;
    gMemoryHost = nullptr;
    gThreadHost = nullptr;
    gMessageSuite = nullptr;
    gInteractHost = nullptr;
    gHostSupportsMultipleBitDepths = 1;
    gHostIsBackground = 0;
    functracker = 0;
    QVOfxHost = {nullptr, nullptr};
    setMemoryHooks(nullptr, nullptr, nullptr);
    setThreadCount(0);
}

// A host handed to the statically linked shell, as a fresh module would see it.
class ShellEntry : public ::testing::Test {
  protected:
    void SetUp() override { resetShellGlobals(); }
    void TearDown() override { stopHost(); }
    Host& startHost(HostConfig config = {}) {
        host_ = std::make_unique<Host>(std::move(config));
        pluginSetHost(host_->ofxHost());
        return *host_;
    }
    OfxStatus action(const char* name) { return pluginMainEntry(name, nullptr, nullptr, nullptr); }
    std::vector<Message> take() {
        std::vector<Message> all = host_->messages().all();
        host_->messages().clear();
        return all;
    }
    void stopHost() {
        onUnLoad();
        resetShellGlobals();
        host_.reset();
    }

    std::unique_ptr<Host> host_;
    // Any distinct value will do: the message functions only pass it on.
    OfxImageEffectHandle effect_ = reinterpret_cast<OfxImageEffectHandle>(0x5eed0);
};

// What the property suite's string getter throws, as a C++ host might.
void (*gThrow)() = nullptr;

OfxStatus ThrowingGetString(OfxPropertySetHandle, const char*, int, char**) {
    gThrow();
    return kOfxStatOK;
}

// A memory suite that answers with these, whatever it is asked.
void* gStubBlock = nullptr;
OfxStatus gStubStatus = kOfxStatOK;
OfxStatus stubAlloc(void*, size_t, void** block) {
    *block = gStubBlock;
    return gStubStatus;
}

}  // namespace

// Nuke's processor count reaches the pool, clamped to its slots, until
// Unload; Load records the host even when it fails for a missing suite.
TEST_F(ShellEntry, LoadRecordsTheHostAndNukesProcessorCount) {
    const struct {
        const char* name;
        unsigned int cpus;
        int32_t expected;
        bool messages = true;
    } cases[] = {{"uk.co.thefoundry.nuk", 3, 3},
                 {"uk.co.thefoundry.nuke", 2000, 1024},
                 {"uk.co.thefoundry.nuke", 4294967295u, 1024},
                 {"com.eyeonline.Fusion", 3, 7},
                 {"uk.co.thefoundry.nuke", 5, 5, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.name << ", " << c.cpus << (c.messages ? "" : ", no message suite"));
        HostConfig config;
        config.name = c.name;
        config.label = "Some Host";
        config.numCPUs = c.cpus;
        if (!c.messages) config.omittedSuites = {kOfxMessageSuite};
        startHost(config);
        setThreadCount(7);
        EXPECT_EQ(action(kOfxActionLoad), c.messages ? kOfxStatOK : kOfxStatErrMissingHostFeature);
        EXPECT_EQ(kqmp_maxthreads(), c.expected);
        ASSERT_TRUE(QVOfxHost.name && QVOfxHost.label);
        EXPECT_STREQ(QVOfxHost.name, c.name);
        EXPECT_STREQ(QVOfxHost.label, "Some Host");
        EXPECT_EQ(action(kOfxActionUnload), kOfxStatOK);
        EXPECT_EQ(kqmp_maxthreads(), std::min<int32_t>(1024, std::max<int32_t>(1, kqmp_numcpus())))
            << "Unload gives the pool back its own count";
        stopHost();
    }
}

TEST_F(ShellEntry, NoExceptionCrossesTheEntryIntoTheHost) {
    startHost();
    ImageEffect descriptor;
    ASSERT_EQ(pluginMainEntry(kOfxActionDescribe, descriptor.handle(), nullptr, nullptr), kOfxStatOK);
    ASSERT_EQ(action(kOfxActionLoad), kOfxStatOK);
    OfxPropertySuiteV1 throwing = *gPropHost;
    throwing.propGetString = ThrowingGetString;
    OfxPropertySuiteV1* answering = gPropHost;
    gPropHost = &throwing;
    ImageEffect context(kOfxImageEffectContextGeneral);
    PropertySet inArgs;
    // A PLErr by its OFX status, std::bad_alloc as out of memory, anything else as a failure.
    const std::pair<void (*)(), OfxStatus> cases[] = {{[] { throw PLErrOutOfMemory; }, kOfxStatErrMemory},
                                                      {[] { throw PLErrAborted; }, kOfxStatOK},
                                                      {[] { throw std::bad_alloc(); }, kOfxStatErrMemory},
                                                      {[] { throw 7; }, kOfxStatFailed}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        gThrow = cases[i].first;
        OfxStatus answered = -1;
        EXPECT_NO_THROW(answered = pluginMainEntry(kOfxImageEffectActionDescribeInContext, context.handle(),
                                                   inArgs.handle(), nullptr));
        EXPECT_EQ(answered, cases[i].second);
    }
    gPropHost = answering;
}

TEST_F(ShellEntry, MessagesByHostAndFunctionLiteralAndBounded) {
    startHost();
    ASSERT_EQ(action(kOfxActionLoad), kOfxStatOK);
    // Per function its type (error, message, log), capital when it sends the
    // effect's handle; hosts are told by 20 bytes of Nuke's name, 13 of Toxik's.
    const std::pair<const char*, const char*> rows[] = {
        {"uk.co.thefoundry.nukE", "lElllm"}, {"uk.co.thefoundry.nu", "EEMLMm"},
        {"uk.co.thefoundry.nUke", "EEMLMm"}, {"Autodesk Toxi", "MEMLMe"},
        {"Autodesk Tox", "EEMLMm"},          {nullptr, "EEMLMm"}};
    for (const auto& [name, codes] : rows) {
        ofxHost h{"label", name};
        qvofx_error(effect_, &h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc");
        qvofx_fatal(effect_, &h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc");
        qvofx_message(effect_, &h, 0, "Pfx", "n=%d s=%s", 42, "abc");
        qvofx_log(effect_, &h, 0, "Pfx", "n=%d s=%s", 42, "abc");
        qvofx_warning(effect_, &h, 0, false, "Pfx", "n=%d s=%s", 42, "abc");
        qvofx_warning(effect_, &h, 0, true, "Pfx", "n=%d s=%s", 42, "abc");
        std::string sent;
        for (const Message& m : take()) {
            const char type = m.type == kOfxMessageError ? 'e' : m.type == kOfxMessageMessage ? 'm' : 'l';
            sent += m.handle == effect_ ? static_cast<char>(type - 32) : m.handle ? '?' : type;
            EXPECT_EQ(m.id, "");
            // Only Nuke's log ends in a line feed.
            EXPECT_EQ(m.text, sent == "lEll" ? "Pfx: n=42 s=abc\n" : "Pfx: n=42 s=abc") << sent;
        }
        EXPECT_EQ(sent, codes) << (name ? name : "(null)");
    }
    // Status 1 and 15 show nothing, out of memory a fixed text; the composed
    // text goes literally, cut at 255 characters by two 256-byte buffers.
    ofxHost h{"label", "com.example.host"}, nuke{"label", "uk.co.thefoundry.nuke"};
    const std::string xs(1000, 'x'), prefix(400, 'p'), cut = ("Pfx: " + xs).substr(0, 255);
    EXPECT_EQ(qvofx_error(effect_, &h, kOfxStatFailed, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_EQ(qvofx_error(effect_, &h, qvStatAborted, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_EQ(qvofx_error(effect_, &nuke, kOfxStatErrMemory, "Pfx", "never %s expanded", "this"), kOfxStatOK);
    qvofx_error(effect_, &h, kOfxStatErrMemory, "Pfx", "never %s expanded", "this");
    qvofx_fatal(effect_, &h, kOfxStatErrMemory, "Pfx", "never %s expanded", "this");
    qvofx_message(effect_, &h, 0, "Pfx", "%d%% done, %s", 50, "%s%n");
    qvofx_message(effect_, &h, 0, "Pfx", "%s", xs.c_str());
    qvofx_log(effect_, &nuke, 0, "Pfx", "%s", xs.c_str());
    qvofx_warning(effect_, &h, 0, false, prefix.c_str(), "%s", "tail");
    std::vector<std::string> texts;
    for (const Message& m : take()) texts.push_back(m.text);
    EXPECT_EQ(texts,
              (std::vector<std::string>{"Pfx: Out of memory.", "Pfx: Out of memory.", "Pfx: Out of memory.",
                                        "Pfx: 50% done, %s%n", cut, cut + "\n", prefix.substr(0, 255)}));
}

// Load binds the library's heap to the host's memory suite, trusting only its
// status; Unload, and only after a Load, gives it the plain heap back.
TEST_F(ShellEntry, MemoryGoesThroughTheHostFromLoadToUnload) {
    Host& host = startHost();
    // Hooks into the host without a Load: Unload must leave them.
    gMemoryHost = const_cast<OfxMemorySuiteV1*>(
        static_cast<const OfxMemorySuiteV1*>(host.fetchSuite(kOfxMemorySuite, 1)));
    setMemoryHooks(nullptr, QVUserMallocFunc, QVUserFreeFunc);
    const auto reachesHost = [&host] {
        const uint64_t before = host.memory().counts().allocations;
        QVMemFree(QVMemMalloc(16));
        return host.memory().counts().allocations > before;
    };
    EXPECT_EQ(action(kOfxActionUnload), kOfxStatOK);
    EXPECT_TRUE(reachesHost()) << "Unload without Load cleaned up";
    ASSERT_EQ(action(kOfxActionLoad), kOfxStatOK);
    EXPECT_TRUE(reachesHost()) << "Load binds the library to the host's memory";
    QVUserFreeFunc(nullptr, nullptr);
    EXPECT_EQ(host.memory().counts().badFrees, 0u) << "a null block reached the host";
    host.memory().failAfter(0);
    EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr);
    host.memory().failAfter(-1);

    // A host that fails yet hands back a pointer, and one that succeeds with null.
    static OfxMemorySuiteV1 stub = {stubAlloc, nullptr};
    OfxMemorySuiteV1* answering = gMemoryHost;
    gMemoryHost = &stub;
    char dummy = 0;
    for (auto [status, given] :
         {std::pair{kOfxStatFailed, static_cast<void*>(&dummy)}, {kOfxStatOK, nullptr}}) {
        gStubStatus = status;
        gStubBlock = given;
        EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr) << "status " << status;
    }
    gMemoryHost = answering;
    EXPECT_EQ(action(kOfxActionUnload), kOfxStatOK);
    EXPECT_FALSE(reachesHost()) << "after Unload the library uses the plain heap";
    EXPECT_EQ(host.memory().counts().liveBytes, 0u);
}
