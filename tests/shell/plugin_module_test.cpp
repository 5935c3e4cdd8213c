// The plug-in as a host sees it: the built module loaded with dlopen, driven
// through its two exported functions and its main entry by the embedded host.
// Every test loads the module afresh (fresh globals) and unloads it at the end.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "common/plugin_session.h"
#include "ofxOld.h"

using trelvotest::Bundle;
using trelvotest::HostConfig;
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
    for (const std::string name : {kOfxActionDescribe, kOfxImageEffectActionDescribeInContext, kOfxActionLoad,
                                   kOfxActionCreateInstance, kOfxImageEffectActionRender,
                                   kOfxImageEffectActionGetClipPreferences, kOfxActionSyncPrivateData})
        for (const std::string& variant :
             {name.substr(0, name.size() - 1), name + "X", name + " ", "x" + name})
            EXPECT_EQ(s.plugin().action(variant.c_str()), kOfxStatReplyDefault) << '"' << variant << '"';
    for (const char* other : {"", "ofxactiondescribe", kOfxActionPurgeCaches, kOfxActionBeginInstanceChanged,
                              kOfxImageEffectActionBeginSequenceRender, kOfxInteractActionDraw})
        EXPECT_EQ(s.plugin().action(other), kOfxStatReplyDefault) << '"' << other << '"';
}

// What a host acts on after Describe: the suites fetched, thread safety, the
// depths and the context, no tiles, and the grouping's last write.
TEST(PluginModule, DescribeFetchesItsSuitesAndStatesWhatHostsActOn) {
    Session s;
    s.plugin().setHost();
    ASSERT_EQ(s.plugin().describe(), kOfxStatOK);
    EXPECT_EQ(s.host().fetches(), kDescribeFetchOrder);
    const ofxhost::PropertySet& props = s.plugin().descriptor()->properties();
    const std::pair<const char*, Values> facts[] = {
        {kOfxImageEffectPluginRenderThreadSafety, {std::string(kOfxImageEffectRenderFullySafe)}},
        {kOfxImageEffectPropSupportedPixelDepths,
         {std::string(kOfxBitDepthByte), std::string(kOfxBitDepthShort), std::string(kOfxBitDepthFloat)}},
        {kOfxImageEffectPropSupportedContexts, {std::string(kOfxImageEffectContextGeneral)}},
        {kOfxImageEffectPropSupportsTiles, {0}},
        {kOfxImageEffectPropSupportsMultipleClipDepths, {1}},
        {kOfxImageEffectPluginPropGrouping, {std::string("Corvane Effects")}},  // the last of two writes
        {kOfxPropLabel, {std::string("Trelvo3_Vectors")}},
    };
    for (const auto& [name, values] : facts) EXPECT_EQ(props.values(name), values) << name;
    EXPECT_TRUE(s.host().messages().all().empty());
}

// Describe needs five suites and Load six (not the interact suite); Describe
// fetches them all before it checks.
TEST(PluginModule, DescribeAndLoadNeedAHostAndTheirSuites) {
    {
        Session s;  // setHost never called
        EXPECT_EQ(s.plugin().describe(), kOfxStatErrMissingHostFeature);
        EXPECT_TRUE(s.host().fetches().empty());
        EXPECT_TRUE(s.plugin().descriptor()->properties().writes().empty());
    }
    const struct {
        const char* suite;
        bool describes, loads;
    } cases[] = {{kOfxImageEffectSuite, false, false}, {kOfxPropertySuite, false, false},
                 {kOfxParameterSuite, false, false},   {kOfxMemorySuite, false, false},
                 {kOfxMultiThreadSuite, false, false}, {kOfxMessageSuite, true, false},
                 {kOfxInteractSuite, true, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("without ") + c.suite);
        Session s(withoutSuite(c.suite));
        s.plugin().setHost();
        EXPECT_EQ(s.plugin().describe(), c.describes ? kOfxStatOK : kOfxStatErrMissingHostFeature);
        EXPECT_EQ(s.host().fetches(), kDescribeFetchOrder);
        EXPECT_EQ(s.plugin().descriptor()->properties().writes().empty(), !c.describes);
        EXPECT_EQ(s.plugin().load(), c.loads ? kOfxStatOK : kOfxStatErrMissingHostFeature);
    }
}
