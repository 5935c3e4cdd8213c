// What a typo in our OFX declarations would break and no test through our own
// host (it shares the headers) could see: the sizes of the records that cross
// to a host and the x86-64 offsets of the members either side calls or fills
// in. ofx_headers_standalone compiles each header alone.
#include <gtest/gtest.h>

#include <cstddef>

#include "ofxImageEffect.h"
#include "ofxOld.h"

TEST(OfxAbi, RecordSizesAndMemberOffsets) {
    EXPECT_EQ(sizeof(OfxHost), 16u);
    EXPECT_EQ(offsetof(OfxHost, fetchSuite), 8u);
    EXPECT_EQ(sizeof(OfxPlugin), 48u);
    EXPECT_EQ(offsetof(OfxPlugin, pluginIdentifier), 16u);
    EXPECT_EQ(offsetof(OfxPlugin, pluginVersionMinor), 28u);
    EXPECT_EQ(offsetof(OfxPlugin, setHost), 32u);
    EXPECT_EQ(offsetof(OfxPlugin, mainEntry), 40u);
    EXPECT_EQ(sizeof(OfxRectI), 16u);
    EXPECT_EQ(sizeof(OfxRectD), 32u);
    EXPECT_EQ(sizeof(OfxPointD), 16u);
    EXPECT_EQ(sizeof(OfxPropertySuiteV1), 144u);
    EXPECT_EQ(offsetof(OfxPropertySuiteV1, propSetInt), 24u);
    EXPECT_EQ(offsetof(OfxPropertySuiteV1, propGetString), 72u);
    EXPECT_EQ(offsetof(OfxPropertySuiteV1, propGetDimension), 136u);
    EXPECT_EQ(sizeof(OfxParameterSuiteV1), 144u);
    EXPECT_EQ(offsetof(OfxParameterSuiteV1, paramGetValueAtTime), 40u);
    EXPECT_EQ(sizeof(OfxImageEffectSuiteV1), 104u);
    EXPECT_EQ(offsetof(OfxImageEffectSuiteV1, clipGetImage), 40u);
    EXPECT_EQ(offsetof(OfxImageEffectSuiteV1, abort), 64u);
    EXPECT_EQ(sizeof(OfxMemorySuiteV1), 16u);
    EXPECT_EQ(sizeof(OfxMultiThreadSuiteV1), 72u);
    EXPECT_EQ(offsetof(OfxMultiThreadSuiteV1, multiThreadNumCPUs), 8u);
    EXPECT_EQ(sizeof(OfxMessageSuiteV1), 8u);
    EXPECT_EQ(sizeof(OfxInteractSuiteV1), 24u);
}
