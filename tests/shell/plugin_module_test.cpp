// The plug-in as a host sees it: the built module loaded with dlopen, driven
// through its two exported functions and its main entry by the embedded host.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "common/plugin_session.h"
#include "ofxOld.h"

using namespace trelvotest;

TEST(PluginModule, ExportsTheRecordAtIndexZeroOnly) {
    Session s;
    Bundle& b = s.bundle();
    EXPECT_EQ(b.numberOfPlugins(), 1);
    OfxPlugin* record = b.plugin(0);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->pluginApi, "OfxImageEffectPluginAPI");
    EXPECT_EQ(record->apiVersion, 1);
    EXPECT_STREQ(record->pluginIdentifier, "com.corvane.Trelvo3_Vectors");
    EXPECT_EQ(record->pluginVersionMajor, 3u);
    EXPECT_EQ(record->pluginVersionMinor, 31200u) << "not the 3.3.12 of the description";
    for (int nth : {1, -1, INT_MAX, INT_MIN})
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
    EXPECT_TRUE(s.host().fetches().empty());
    EXPECT_TRUE(s.plugin().descriptor()->properties().writes().empty());
    EXPECT_EQ(s.plugin().unload(), kOfxStatOK) << "Unload without Load";
    // Only whole action names are dispatched; no host is needed to say so.
    for (const char* other : {"", "OfxActionDescrib", "OfxActionLoadX", "xOfxImageEffectActionRender"})
        EXPECT_EQ(s.plugin().action(other), kOfxStatReplyDefault) << '"' << other << '"';
}

// Describe needs five suites and Load six (not the interact suite); after
// Describe a host acts on thread safety, the depths and the context, no
// tiles, and the grouping's last write.
TEST(PluginModule, DescribeAndLoadNeedTheirSuitesAndDescribeStatesWhatHostsActOn) {
    const std::pair<const char*, Values> facts[] = {
        {kOfxImageEffectPluginRenderThreadSafety, {std::string(kOfxImageEffectRenderFullySafe)}},
        {kOfxImageEffectPropSupportedPixelDepths,
         {std::string(kOfxBitDepthByte), std::string(kOfxBitDepthShort), std::string(kOfxBitDepthFloat)}},
        {kOfxImageEffectPropSupportedContexts, {std::string(kOfxImageEffectContextGeneral)}},
        {kOfxImageEffectPropSupportsTiles, {0}},
        {kOfxImageEffectPropSupportsMultipleClipDepths, {1}},
        {kOfxImageEffectPluginPropGrouping, {std::string("Corvane Effects")}},
    };
    const struct {
        const char* omitted;
        bool describes, loads;
    } cases[] = {{"", true, true},
                 {kOfxImageEffectSuite, false, false},
                 {kOfxMultiThreadSuite, false, false},
                 {kOfxMessageSuite, true, false},
                 {kOfxInteractSuite, true, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("without ") + c.omitted);
        HostConfig config;
        config.omittedSuites = {c.omitted};
        Session s(config);
        s.plugin().setHost();
        EXPECT_EQ(s.plugin().describe(), c.describes ? kOfxStatOK : kOfxStatErrMissingHostFeature);
        const PropertySet& props = s.plugin().descriptor()->properties();
        EXPECT_EQ(props.writes().empty(), !c.describes);
        EXPECT_EQ(s.plugin().load(), c.loads ? kOfxStatOK : kOfxStatErrMissingHostFeature);
        if (!c.describes) continue;
        for (const auto& [name, values] : facts) EXPECT_EQ(props.values(name), values) << name;
    }
}
