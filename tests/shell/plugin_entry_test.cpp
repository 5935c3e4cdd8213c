// The shell's entry linked statically, where its globals can be read: the host
// tests, the probes of Describe, what Load records of the host and passes to
// the thread layer, and Unload's clean-up.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "effect.h"
#include "host.h"
#include "kqmp.h"
#include "ofx_plugin.h"
#include "qvmem.h"

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

}  // namespace

TEST(HostTests, ComparePrefixesOfFixedLength) {
    struct Case {
        const char* name;
        bool nuke, fusion, toxik;
    } cases[] = {
        {"uk.co.thefoundry.nuke", true, false, false},
        {"uk.co.thefoundry.nuk", true, false, false},  // exactly the 20 compared bytes
        {"uk.co.thefoundry.nukeX", true, false, false},
        {"uk.co.thefoundry.nu", false, false, false},
        {"uk.co.thefoundry.nukE", true, false, false},  // byte 21 is not compared
        {"uk.co.thefoundry.nUke", false, false, false},
        {"com.eyeonline.Fusion", false, true, false},
        {"com.eyeonline.Fusi", false, true, false},  // 18 bytes
        {"com.eyeonline.Fus", false, false, false},
        {"Autodesk Toxik", false, false, true},
        {"Autodesk Toxik 2009", false, false, true},
        {"Autodesk Toxi", false, false, true},  // all 13 compared bytes agree
        {"Autodesk Tox", false, false, false},
        {"autodesk toxik", false, false, false},
        {"", false, false, false},
        {nullptr, false, false, false},
    };
    for (const Case& c : cases) {
        ofxHost h{"label", c.name};
        const char* shown = c.name ? c.name : "(null)";
        EXPECT_EQ(hostIsNuke(&h), c.nuke) << shown;
        EXPECT_EQ(hostIsFusion(&h), c.fusion) << shown;
        EXPECT_EQ(hostIsToxik(&h), c.toxik) << shown;
    }
}

TEST_F(ShellEntry, DescribeProbesTheHostAndKeepsStartValuesWhenUnanswered) {
    HostConfig silent;
    silent.omittedProperties = {kOfxImageEffectPropSupportsMultipleClipDepths,
                                kOfxImageEffectHostPropIsBackground};
    startHost(silent);
    ofxhost::ImageEffect descriptor;
    EXPECT_EQ(pluginMainEntry(kOfxActionDescribe, descriptor.handle(), nullptr, nullptr), kOfxStatOK);
    EXPECT_EQ(gHostSupportsMultipleBitDepths, 1);
    EXPECT_EQ(gHostIsBackground, 0);
    stopHost();

    Host& host = startHost();
    host.properties().assign(kOfxImageEffectPropSupportsMultipleClipDepths, {0});
    host.properties().assign(kOfxImageEffectHostPropIsBackground, {1});
    ofxhost::ImageEffect descriptor2;
    EXPECT_EQ(pluginMainEntry(kOfxActionDescribe, descriptor2.handle(), nullptr, nullptr), kOfxStatOK);
    EXPECT_EQ(gHostSupportsMultipleBitDepths, 0);
    EXPECT_EQ(gHostIsBackground, 1);
}

TEST_F(ShellEntry, LoadReadsNameAndLabelEvenWithoutMessageSuite) {
    HostConfig config = named("com.example.host");
    config.label = "Example Host";
    config.omittedSuites = {kOfxMessageSuite};
    Host& host = startHost(config);
    EXPECT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatErrMissingHostFeature);
    ASSERT_NE(QVOfxHost.name, nullptr);
    ASSERT_NE(QVOfxHost.label, nullptr);
    EXPECT_STREQ(QVOfxHost.name, "com.example.host");
    EXPECT_STREQ(QVOfxHost.label, "Example Host");
    // Kept, not copied: the pointers are the host's own.
    char* name = nullptr;
    host.fetchSuite(kOfxPropertySuite, 1);
    ofxhost::propertySuite()->propGetString(host.properties().handle(), kOfxPropName, 0, &name);
    EXPECT_EQ(QVOfxHost.name, name);
}

TEST_F(ShellEntry, NukeProcessorCountReachesTheThreadLayer) {
    struct Case {
        const char* name;
        int32_t expected;
    } cases[] = {
        {"uk.co.thefoundry.nuke", 3}, {"uk.co.thefoundry.nuk", 3}, {"com.eyeonline.Fusion", 7},
        {"Autodesk Toxik", 7},        {"com.example.host", 7},
    };
    for (const Case& c : cases) {
        HostConfig config = named(c.name);
        config.numCPUs = 3;
        startHost(config);
        setThreadCount(7);
        EXPECT_EQ(pluginMainEntry(kOfxActionLoad, nullptr, nullptr, nullptr), kOfxStatOK) << c.name;
        EXPECT_EQ(kqmp_maxthreads(), c.expected) << c.name;
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
