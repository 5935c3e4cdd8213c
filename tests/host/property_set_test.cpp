// The property suite as a plug-in uses it: types, indices, dimensions and the
// status of every kind of mistake, the write log, and concurrent reads.
#include "property_set.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "effect.h"

using ofxhost::PropertySet;
using ofxhost::PropertyValue;
using ofxhost::PropertyWrite;

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

TEST_F(Sets, TypedValuesRoundTrip) {
    int i[2] = {0, 0};
    EXPECT_EQ(P.propGetIntN(h, "i2", 2, i), kOfxStatOK);
    EXPECT_EQ(i[0], 4);
    EXPECT_EQ(i[1], 5);
    EXPECT_EQ(P.propSetInt(h, "i2", 1, -7), kOfxStatOK);
    EXPECT_EQ(P.propGetInt(h, "i2", 1, &i[1]), kOfxStatOK);
    EXPECT_EQ(i[1], -7);

    double d = 0;
    EXPECT_EQ(P.propSetDouble(h, "d", 0, 0.1), kOfxStatOK);
    EXPECT_EQ(P.propGetDouble(h, "d", 0, &d), kOfxStatOK);
    EXPECT_EQ(d, 0.1);

    int marker = 0;
    void* ptr = nullptr;
    EXPECT_EQ(P.propSetPointer(h, "p", 0, &marker), kOfxStatOK);
    EXPECT_EQ(P.propGetPointer(h, "p", 0, &ptr), kOfxStatOK);
    EXPECT_EQ(ptr, &marker);

    char* s = nullptr;
    EXPECT_EQ(P.propGetString(h, "sv", 0, &s), kOfxStatOK);
    EXPECT_STREQ(s, "a");
    char* again = nullptr;
    P.propGetString(h, "sv", 0, &again);
    EXPECT_EQ(again, s) << "a string stays where it is until it changes";
}

TEST_F(Sets, DimensionsGrowResetAndSetWhole) {
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

    EXPECT_EQ(P.propReset(h, "sv"), kOfxStatOK);
    EXPECT_EQ(set.values("sv"), std::vector<PropertyValue>{std::string("a")});
    P.propGetDimension(h, "i2", &n);
    EXPECT_EQ(n, 2);
}

TEST_F(Sets, MistakesGetTheirStatus) {
    int i = 0;
    double d = 0;
    char* s = nullptr;
    EXPECT_EQ(P.propGetInt(h, "nope", 0, &i), kOfxStatErrUnknown);
    EXPECT_EQ(P.propSetInt(h, "nope", 0, 1), kOfxStatErrUnknown);
    EXPECT_EQ(P.propReset(h, "nope"), kOfxStatErrUnknown);
    EXPECT_EQ(P.propGetDimension(h, "nope", &i), kOfxStatErrUnknown);
    EXPECT_EQ(P.propGetInt(h, nullptr, 0, &i), kOfxStatErrUnknown);

    EXPECT_EQ(P.propGetInt(h, "i2", 2, &i), kOfxStatErrBadIndex);
    EXPECT_EQ(P.propGetInt(h, "i2", -1, &i), kOfxStatErrBadIndex);
    EXPECT_EQ(P.propSetInt(h, "i2", 2, 1), kOfxStatErrBadIndex) << "a fixed dimension doesn't grow";
    EXPECT_EQ(P.propSetString(h, "sv", -1, "x"), kOfxStatErrBadIndex);
    int three[3] = {1, 2, 3};
    EXPECT_EQ(P.propGetIntN(h, "i2", 3, three), kOfxStatErrBadIndex);
    EXPECT_EQ(P.propSetIntN(h, "i2", 3, three), kOfxStatErrBadIndex);

    EXPECT_EQ(P.propGetDouble(h, "i2", 0, &d), kOfxStatErrValue);
    EXPECT_EQ(P.propSetDouble(h, "i2", 0, 1.0), kOfxStatErrValue);
    EXPECT_EQ(P.propGetString(h, "d", 0, &s), kOfxStatErrValue);
    EXPECT_EQ(P.propSetString(h, "sv", 0, nullptr), kOfxStatErrValue);

    EXPECT_EQ(P.propGetInt(nullptr, "i2", 0, &i), kOfxStatErrBadHandle);
    EXPECT_EQ(P.propSetInt(nullptr, "i2", 0, 1), kOfxStatErrBadHandle);
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

TEST_F(Sets, WriteLogKeepsOrderAndStatus) {
    P.propSetString(h, "sv", 0, "first");
    P.propSetInt(h, "i2", 2, 9);
    const double both[] = {1.5, 2.5};
    P.propSetDoubleN(h, "d", 2, both);
    P.propSetString(h, "sv", 0, "last");
    const std::vector<PropertyWrite> expected = {
        {"sv", 0, std::string("first"), kOfxStatOK}, {"i2", 2, 9, kOfxStatErrBadIndex},
        {"d", 0, 1.5, kOfxStatErrBadIndex},          {"d", 1, 2.5, kOfxStatErrBadIndex},
        {"sv", 0, std::string("last"), kOfxStatOK},
    };
    EXPECT_EQ(set.writes(), expected);
}

TEST_F(Sets, ConcurrentReadsAgree) {
    std::vector<std::thread> readers;
    std::vector<int> bad(4, 0);
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&, t] {
            for (int k = 0; k < 2000; ++k) {
                int i = 0;
                char* s = nullptr;
                if (P.propGetInt(h, "i2", 1, &i) != kOfxStatOK || i != 5) ++bad[t];
                if (P.propGetString(h, "sv", 0, &s) != kOfxStatOK || std::string(s) != "a") ++bad[t];
            }
        });
    for (std::thread& r : readers) r.join();
    EXPECT_EQ(bad, std::vector<int>(4, 0));
}
