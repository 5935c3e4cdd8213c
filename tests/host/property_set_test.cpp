// The property suite's status for every kind of mistake. Reads and writes,
// dimensions that grow and the N forms serve every test through the built
// module (its descriptions and actions' answers are checked there).
#include "property_set.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "effect.h"

using ofxhost::PropertySet;
using ofxhost::PropertyValue;

TEST(PropertySuite, MistakesGetTheirStatus) {
    const OfxPropertySuiteV1& P = *ofxhost::propertySuite();
    PropertySet set;
    set.defineInt("i2", 2, {4, 5});
    set.defineDouble("d", 1, {0.5});
    set.defineString("sv", 0, {"a"});
    OfxPropertySetHandle h = set.handle();
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
