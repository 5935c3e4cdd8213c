// The shell's entry linked statically, where its globals can be read: the host
// tests, the probes of Describe, what Load records of the host and passes to
// the thread layer, and Unload's clean-up.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "base/qvmem.h"
#include "effect.h"
#include "host.h"
#include "mp/kqmp.h"
#include "shell/ofx_plugin.h"

using ofxhost::Host;
using ofxhost::HostConfig;

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
    void TearDown() override {
        onUnLoad();
        resetShellGlobals();
    }
    Host& startHost(HostConfig config = {}) {
        host_ = std::make_unique<Host>(std::move(config));
        pluginSetHost(host_->ofxHost());
        return *host_;
    }
    void stopHost() {
        onUnLoad();
        resetShellGlobals();
        host_.reset();
    }

    std::unique_ptr<Host> host_;
};

HostConfig named(const std::string& name) {
    HostConfig config;
    config.name = name;
    return config;
}

// What the property suite's string getter throws, as a host written in C++
// might let escape from its suites.
void (*gThrow)() = nullptr;

OfxStatus ThrowingGetString(OfxPropertySetHandle, const char*, int, char**) {
    gThrow();
    return kOfxStatOK;
}

}  // namespace

TEST(HostTests, ComparePrefixesOfFixedLength) {
    // Which of Nuke, Fusion and Toxik each name is taken for.
    const std::pair<const char*, const char*> cases[] = {
        {"uk.co.thefoundry.nuke", "N"},
        {"uk.co.thefoundry.nuk", "N"},  // exactly the 20 compared bytes
        {"uk.co.thefoundry.nukeX", "N"},
        {"uk.co.thefoundry.nu", ""},
        {"uk.co.thefoundry.nukE", "N"},  // byte 21 is not compared
        {"uk.co.thefoundry.nUke", ""},
        {"com.eyeonline.Fusion", "F"},
        {"com.eyeonline.Fusi", "F"},  // 18 bytes
        {"com.eyeonline.Fus", ""},
        {"Autodesk Toxik 2009", "T"},
        {"Autodesk Toxi", "T"},  // all 13 compared bytes agree
        {"Autodesk Tox", ""},
        {"autodesk toxik", ""},
        {"", ""},
        {nullptr, ""},
    };
    for (const auto& [name, is] : cases) {
        SCOPED_TRACE(name ? name : "(null)");
        ofxHost h{"label", name};
        EXPECT_EQ(hostIsNuke(&h), std::strchr(is, 'N') != nullptr);
        EXPECT_EQ(hostIsFusion(&h), std::strchr(is, 'F') != nullptr);
        EXPECT_EQ(hostIsToxik(&h), std::strchr(is, 'T') != nullptr);
    }
}

TEST_F(ShellEntry, DescribeProbesTheHostAndKeepsStartValuesWhenUnanswered) {
    for (bool answered : {false, true}) {
        SCOPED_TRACE(answered ? "answered" : "unanswered");
        HostConfig config;
        if (!answered)
            config.omittedProperties = {kOfxImageEffectPropSupportsMultipleClipDepths,
                                        kOfxImageEffectHostPropIsBackground};
        Host& host = startHost(config);
        if (answered) {
            host.properties().assign(kOfxImageEffectPropSupportsMultipleClipDepths, {0});
            host.properties().assign(kOfxImageEffectHostPropIsBackground, {1});
        }
        ofxhost::ImageEffect descriptor;
        EXPECT_EQ(pluginMainEntry(kOfxActionDescribe, descriptor.handle(), nullptr, nullptr), kOfxStatOK);
        EXPECT_EQ(gHostSupportsMultipleBitDepths, answered ? 0 : 1);
        EXPECT_EQ(gHostIsBackground, answered ? 1 : 0);
        stopHost();
    }
}

TEST_F(ShellEntry, LoadReadsNameAndLabelEvenWithoutMessageSuite) {
    HostConfig config = named("com.example.host");
    config.label = "Example Host";
    config.omittedSuites = {kOfxMessageSuite};
    startHost(config);
    EXPECT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatErrMissingHostFeature);
    ASSERT_NE(QVOfxHost.name, nullptr);
    ASSERT_NE(QVOfxHost.label, nullptr);
    EXPECT_STREQ(QVOfxHost.name, "com.example.host");
    EXPECT_STREQ(QVOfxHost.label, "Example Host");
}

// Nuke's processor count reaches the thread layer, clamped to the pool's 1024
// slots; other hosts leave the limit alone, and Unload forgets Nuke's.
TEST_F(ShellEntry, NukeProcessorCountReachesTheThreadLayer) {
    const struct {
        const char* name;
        unsigned int cpus;
        int32_t expected;
    } cases[] = {
        {"uk.co.thefoundry.nuke", 3, 3},       {"uk.co.thefoundry.nuk", 3, 3},
        {"uk.co.thefoundry.nuke", 2000, 1024}, {"uk.co.thefoundry.nuke", 4294967295u, 1024},
        {"com.eyeonline.Fusion", 3, 7},        {"com.example.host", 3, 7},
    };
    for (const auto& c : cases) {
        HostConfig config = named(c.name);
        config.numCPUs = c.cpus;
        startHost(config);
        setThreadCount(7);
        EXPECT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatOK) << c.name;
        EXPECT_EQ(kqmp_maxthreads(), c.expected) << c.name << ", " << c.cpus;
        EXPECT_EQ(pluginMainEntry(kOfxActionUnload, nullptr, nullptr, nullptr), kOfxStatOK);
        EXPECT_EQ(kqmp_maxthreads(), std::min<int32_t>(1024, std::max<int32_t>(1, kqmp_numcpus())))
            << "Unload gives the pool back its own count";
        stopHost();
    }
}

TEST_F(ShellEntry, OnlyUnloadAfterLoadGivesTheLibraryThePlainHeapBack) {
    Host& host = startHost();
    // Hooks into the host without a Load: Unload must leave them.
    gMemoryHost = const_cast<OfxMemorySuiteV1*>(
        static_cast<const OfxMemorySuiteV1*>(host.fetchSuite(kOfxMemorySuite, 1)));
    setMemoryHooks(nullptr, QVUserMallocFunc, QVUserFreeFunc);
    EXPECT_EQ(pluginMainEntry(kOfxActionUnload, nullptr, nullptr, nullptr), kOfxStatOK);
    void* block = QVMemMalloc(16);
    EXPECT_EQ(host.memory().counts().allocations, 1u) << "Unload without Load cleaned up";
    QVMemFree(block);
    EXPECT_EQ(host.memory().counts().frees, 1u);

    ASSERT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatOK);
    EXPECT_EQ(functracker, 1);
    block = QVMemMalloc(16);
    EXPECT_EQ(host.memory().counts().allocations, 2u) << "Load binds the library to the host's memory";
    QVMemFree(block);

    EXPECT_EQ(pluginMainEntry(kOfxActionUnload, nullptr, nullptr, nullptr), kOfxStatOK);
    EXPECT_EQ(functracker, 0);
    block = QVMemMalloc(16);
    EXPECT_EQ(host.memory().counts().allocations, 2u) << "after Unload the library uses the plain heap";
    QVMemFree(block);
    EXPECT_EQ(host.memory().counts().liveBytes, 0u);
}

TEST_F(ShellEntry, NoExceptionCrossesTheEntryIntoTheHost) {
    startHost();
    ofxhost::ImageEffect descriptor;
    ASSERT_EQ(pluginMainEntry(kOfxActionDescribe, descriptor.handle(), nullptr, nullptr), kOfxStatOK);
    ASSERT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatOK);
    OfxPropertySuiteV1 throwing = *gPropHost;
    throwing.propGetString = ThrowingGetString;
    OfxPropertySuiteV1* answering = gPropHost;
    gPropHost = &throwing;
    ofxhost::ImageEffect context(kOfxImageEffectContextGeneral);
    ofxhost::PropertySet inArgs;
    // A PLErr by its OFX status, std::bad_alloc as out of memory, anything else as a failure.
    const std::pair<void (*)(), OfxStatus> cases[] = {
        {[] { throw PLErrOutOfMemory; }, kOfxStatErrMemory},
        {[] { throw PLErrFailed; }, kOfxStatFailed},
        {[] { throw PLErrAborted; }, kOfxStatOK},
        {[] { throw std::bad_alloc(); }, kOfxStatErrMemory},
        {[] { throw std::runtime_error("host"); }, kOfxStatFailed},
        {[] { throw 7; }, kOfxStatFailed},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& [thrower, status] = cases[i];
        gThrow = thrower;
        OfxStatus answered = -1;
        EXPECT_NO_THROW(answered = pluginMainEntry(kOfxImageEffectActionDescribeInContext, context.handle(),
                                                   inArgs.handle(), nullptr))
            << "case " << i;
        EXPECT_EQ(answered, status) << "case " << i;
    }
    gPropHost = answering;
}
