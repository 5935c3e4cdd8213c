// The property suite as a plug-in meets it: dimensions that grow and are set
// whole, and the status of every kind of mistake. Plain reads and writes
// serve every test through the built module.
#include "property_set.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "effect.h"

using ofxhost::PropertySet;
using ofxhost::PropertyValue;

namespace {

const OfxPropertySuiteV1& P = *ofxhost::propertySuite();

struct Sets : ::testing::Test {
    Sets() {
        set.defineInt("i2", 2, {4, 5});
        set.defineDouble("d", 1, {0.5});
        set.defineString("sv", 0, {"a"});
        set.definePointer("p", 1);
    }
    PropertySet set;
    OfxPropertySetHandle h = set.handle();
};

}  // namespace

TEST_F(Sets, DimensionsGrowAndSetWhole) {
    int n = -1;
    EXPECT_EQ(P.propSetString(h, "sv", 2, "c"), kOfxStatOK) << "a variable property grows";
    EXPECT_EQ(P.propGetDimension(h, "sv", &n), kOfxStatOK);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(set.values("sv"),
              (std::vector<PropertyValue>{std::string("a"), std::string(""), std::string("c")}));

    const char* two[] = {"x", "y"};
    EXPECT_EQ(P.propSetStringN(h, "sv", 2, two), kOfxStatOK);
    P.propGetDimension(h, "sv", &n);
    EXPECT_EQ(n, 2) << "the N form sets the whole property";
}

TEST_F(Sets, MistakesGetTheirStatus) {
    int i = 0;
    double d = 0;
    char* s = nullptr;
    EXPECT_EQ(P.propGetInt(h, "nope", 0, &i), kOfxStatErrUnknown);
    EXPECT_EQ(P.propGetInt(h, nullptr, 0, &i), kOfxStatErrUnknown);

    EXPECT_EQ(P.propGetInt(h, "i2", 2, &i), kOfxStatErrBadIndex);
    EXPECT_EQ(P.propGetInt(h, "i2", -1, &i), kOfxStatErrBadIndex);
    EXPECT_EQ(P.propSetInt(h, "i2", 2, 1), kOfxStatErrBadIndex) << "a fixed dimension doesn't grow";
    int three[3] = {1, 2, 3};
    EXPECT_EQ(P.propSetIntN(h, "i2", 3, three), kOfxStatErrBadIndex);

    EXPECT_EQ(P.propGetDouble(h, "i2", 0, &d), kOfxStatErrValue);
    EXPECT_EQ(P.propSetDouble(h, "i2", 0, 1.0), kOfxStatErrValue);
    EXPECT_EQ(P.propGetString(h, "d", 0, &s), kOfxStatErrValue);
    EXPECT_EQ(P.propSetString(h, "sv", 0, nullptr), kOfxStatErrValue);

    EXPECT_EQ(P.propGetInt(nullptr, "i2", 0, &i), kOfxStatErrBadHandle);
    OfxPropertySetHandle stale;
    {
        PropertySet gone;
        gone.defineInt("i2", 1, {0});
        stale = gone.handle();
    }
    EXPECT_EQ(P.propGetInt(stale, "i2", 0, &i), kOfxStatErrBadHandle) << "a destroyed set";
    ofxhost::ImageEffect effect;
    EXPECT_EQ(P.propGetString(reinterpret_cast<OfxPropertySetHandle>(effect.handle()), kOfxPropType, 0, &s),
              kOfxStatErrBadHandle)
        << "an effect handle is no property set";

    EXPECT_EQ(set.values("i2"), (std::vector<PropertyValue>{4, 5})) << "failed writes change nothing";
}
