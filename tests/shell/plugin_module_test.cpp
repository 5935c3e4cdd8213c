// The plug-in as a host sees it: the built module loaded with dlopen, driven
// through its two exported functions and its main entry by the embedded host.
// Every test loads the module afresh (fresh globals) and unloads it at the end.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "ofxOld.h"
#include "plugin_session.h"

using trelvotest::Bundle;
using trelvotest::HostConfig;
using trelvotest::PropertyWrite;
using trelvotest::Session;
using trelvotest::Values;

namespace {

HostConfig withoutSuite(const char* suite) {
    HostConfig config;
    config.omittedSuites = {suite};
    return config;
}

const std::vector<std::string> kDescribeFetchOrder = {
    "OfxImageEffectSuite/1", "OfxPropertySuite/1", "OfxParameterSuite/1", "OfxMemorySuite/1",
    "OfxMultiThreadSuite/1", "OfxMessageSuite/1",  "OfxInteractSuite/1",
};

}  // namespace

TEST(PluginModule, ExportsTheRecordAtIndexZeroOnly) {
    Session s;
    Bundle& b = s.bundle();
    EXPECT_EQ(b.numberOfPlugins(), 1);
    OfxPlugin* record = b.plugin(0);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(b.plugin(0), record) << "the record is one static object";
    EXPECT_STREQ(record->pluginApi, "OfxImageEffectPluginAPI");
    EXPECT_EQ(record->apiVersion, 1);
    EXPECT_STREQ(record->pluginIdentifier, "com.corvane.Trelvo3_Vectors");
    EXPECT_EQ(record->pluginVersionMajor, 3u);
    EXPECT_EQ(record->pluginVersionMinor, 31200u) << "not the 3.3.12 of the description";
    EXPECT_NE(record->setHost, nullptr);
    EXPECT_NE(record->mainEntry, nullptr);
    for (int nth : {1, -1, 2, INT_MAX, INT_MIN})
        EXPECT_EQ(b.plugin(nth), nullptr) << "OfxGetPlugin(" << nth << ")";
}

TEST(PluginModule, UnloadsForRealSoTheNextLoadStartsWithoutHost) {
    {
        Session s;
        s.plugin().setHost();
        EXPECT_EQ(s.plugin().describe(), kOfxStatOK);
    }
    void* still = dlopen(TRELVO_PLUGIN_BINARY, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still, nullptr) << "dlclose left the module in memory";
    if (still) dlclose(still);

    Session s;  // the previous session's setHost must be gone
    EXPECT_EQ(s.plugin().describe(), kOfxStatErrMissingHostFeature);
    EXPECT_EQ(s.plugin().action(kOfxActionDestroyInstance), kOfxStatOK) << "no instance";
    EXPECT_EQ(s.plugin().unload(), kOfxStatOK) << "Unload without Load";
}

TEST(PluginModule, DispatchMatchesWholeActionNamesOnly) {
    Session s;  // no setHost: nothing that is reached by mistake can use a host
    const char* actions[] = {kOfxActionDescribe,
                             kOfxImageEffectActionDescribeInContext,
                             kOfxActionLoad,
                             kOfxActionUnload,
                             kOfxActionCreateInstance,
                             kOfxActionDestroyInstance,
                             kOfxImageEffectActionIsIdentity,
                             kOfxImageEffectActionRender,
                             kOfxImageEffectActionGetRegionOfDefinition,
                             kOfxImageEffectActionGetRegionsOfInterest,
                             kOfxImageEffectActionGetClipPreferences,
                             kOfxActionInstanceChanged,
                             kOfxImageEffectActionGetTimeDomain,
                             kOfxImageEffectActionGetFramesNeeded,
                             kOfxActionSyncPrivateData};
    for (const char* action : actions) {
        std::string name = action;
        for (const std::string& variant :
             {name.substr(0, name.size() - 1), name + "X", name + " ", "x" + name})
            EXPECT_EQ(s.plugin().action(variant.c_str()), kOfxStatReplyDefault) << '"' << variant << '"';
    }
    for (const char* other : {"", "ofxactiondescribe", kOfxActionPurgeCaches, kOfxActionBeginInstanceChanged,
                              kOfxImageEffectActionBeginSequenceRender, kOfxInteractActionDraw})
        EXPECT_EQ(s.plugin().action(other), kOfxStatReplyDefault) << '"' << other << '"';
}

TEST(PluginModule, DescribeWritesItsTableInOrder) {
    Session s;
    s.plugin().setHost();
    ASSERT_EQ(s.plugin().describe(), kOfxStatOK);
    EXPECT_EQ(s.host().fetches(), kDescribeFetchOrder);

    auto str = [](const char* name, const char* value, int index = 0) {
        return PropertyWrite{name, index, std::string(value), kOfxStatOK};
    };
    auto num = [](const char* name, int value) { return PropertyWrite{name, 0, value, kOfxStatOK}; };
    const std::vector<PropertyWrite> expected = {
        str("OfxPropPluginDescription", "Trelvo3_Vectors 3.3.12"),
        num("OfxImageEffectPluginPropFieldRenderTwiceAlways", 1),
        num("OfxImageEffectPluginPropSingleInstance", 0),
        str("OfxImageEffectPluginRenderThreadSafety", "OfxImageEffectRenderFullySafe"),
        num("OfxImageEffectPropSupportsMultipleClipPARs", 0),
        num("OfxImageEffectPropMultipleClipDepths", 1),
        num("OfxImageEffectPropSupportsTiles", 0),
        str("OfxImageEffectPropSupportedPixelDepths", "OfxBitDepthByte", 0),
        str("OfxImageEffectPropSupportedPixelDepths", "OfxBitDepthShort", 1),
        str("OfxImageEffectPropSupportedPixelDepths", "OfxBitDepthFloat", 2),
        num("OfxImageEffectPropTemporalClipAccess", 0),
        num("OfxImageEffectPropSupportsMultiResolution", 0),
        num("OfxImageEffectPluginPropHostFrameThreading", 0),
        num("OfxImageEffectInstancePropSequentialRender", 0),
        str("OfxImageEffectPluginPropGrouping", "Trelvo"),
        num("OfxImageEffectPropInAnalysis", 0),
        str("OfxPropLabel", "Trelvo3_Vectors"),
        str("OfxImageEffectPluginPropGrouping", "Corvane Effects"),
        str("OfxImageEffectPropSupportedContexts", "OfxImageEffectContextGeneral"),
    };
    const ofxhost::PropertySet& props = s.plugin().descriptor()->properties();
    EXPECT_EQ(props.writes(), expected);

    EXPECT_EQ(props.values("OfxImageEffectPluginPropGrouping"), Values{std::string("Corvane Effects")})
        << "the last write is the one kept";
    EXPECT_TRUE(s.host().messages().all().empty());
}

TEST(PluginModule, DescribeNeedsAHostAndTheFiveRequiredSuites) {
    {
        Session s;  // setHost never called
        EXPECT_EQ(s.plugin().describe(), kOfxStatErrMissingHostFeature);
        EXPECT_TRUE(s.host().fetches().empty());
        EXPECT_TRUE(s.plugin().descriptor()->properties().writes().empty());
    }
    for (const char* suite : {kOfxImageEffectSuite, kOfxPropertySuite, kOfxParameterSuite, kOfxMemorySuite,
                              kOfxMultiThreadSuite, kOfxMessageSuite, kOfxInteractSuite}) {
        SCOPED_TRACE(std::string("without ") + suite);
        Session s(withoutSuite(suite));
        s.plugin().setHost();
        const bool optional =
            suite == std::string(kOfxMessageSuite) || suite == std::string(kOfxInteractSuite);
        EXPECT_EQ(s.plugin().describe(), optional ? kOfxStatOK : kOfxStatErrMissingHostFeature);
        EXPECT_EQ(s.host().fetches(), kDescribeFetchOrder) << "all are fetched before the check";
        EXPECT_EQ(s.plugin().descriptor()->properties().writes().size(), optional ? 19u : 0u);
    }
}

TEST(PluginModule, LoadNeedsSixSuitesButNotTheInteractSuite) {
    for (const char* suite : {kOfxImageEffectSuite, kOfxPropertySuite, kOfxParameterSuite,
                              kOfxMultiThreadSuite, kOfxMessageSuite, kOfxMemorySuite, kOfxInteractSuite}) {
        Session s(withoutSuite(suite));
        s.plugin().setHost();
        const bool required = suite != std::string(kOfxInteractSuite);
        EXPECT_EQ(s.plugin().load(), required ? kOfxStatErrMissingHostFeature : kOfxStatOK)
            << "without " << suite;
    }
}
