// Parameter values through the suite: defaults, keys, set, a parameter
// left unanswered, and a text read on several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

TEST(ParamValues, InstancesStartAtTheDefaultAndInterpolateKeys) {
    Host host;
    auto* suite = static_cast<const OfxParameterSuiteV1*>(host.fetchSuite(kOfxParameterSuite, 1));
    ImageEffect descriptor(kOfxImageEffectContextGeneral);
    Param* d = nullptr;
    ASSERT_EQ(descriptor.params().define(kOfxParamTypeDouble, "amount", &d), kOfxStatOK);
    d->properties().assign(kOfxParamPropDefault, {0.5});
    ASSERT_EQ(descriptor.params().define(kOfxParamTypeString, "text", &d), kOfxStatOK);
    d->properties().assign(kOfxParamPropDefault, {std::string("abc")});
    double v = -1.0;
    EXPECT_EQ(suite->paramGetValue(descriptor.param("amount")->handle(), &v), kOfxStatErrBadHandle)
        << "a descriptor has no value";

    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Param& amount = *instance.param("amount");
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 9.0, &v), kOfxStatOK);
    EXPECT_EQ(v, 0.5);
    const char* text = nullptr;
    EXPECT_EQ(suite->paramGetValue(instance.param("text")->handle(), &text), kOfxStatOK);
    EXPECT_STREQ(text, "abc");

    EXPECT_EQ(suite->paramSetValueAtTime(amount.handle(), 10.0, 2.0), kOfxStatOK);
    amount.setKey(20.0, 4.0);
    for (auto [t, expected] :
         {std::pair{0.0, 2.0}, {10.0, 2.0}, {15.0, 3.0}, {17.5, 3.5}, {20.0, 4.0}, {30.0, 4.0}}) {
        EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), t, &v), kOfxStatOK);
        EXPECT_EQ(v, expected) << "at " << t;
    }
    unsigned int keys = 0;
    EXPECT_EQ(suite->paramGetNumKeys(amount.handle(), &keys), kOfxStatOK);
    EXPECT_EQ(keys, 2u);

    EXPECT_EQ(suite->paramSetValue(amount.handle(), -0.0), kOfxStatOK);
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 15.0, &v), kOfxStatOK);
    EXPECT_TRUE(v == 0.0 && std::signbit(v)) << "a plain value drops the keys and keeps its sign";

    amount.setAnswer(kOfxStatFailed);
    v = 42.0;
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 1.0, &v), kOfxStatFailed);
    EXPECT_EQ(v, 42.0) << "unanswered: the variable keeps its value";
    EXPECT_EQ(amount.valueRequests(), 9u);
}

// At times where it holds different texts, as concurrent renders read it:
// the text each thread was handed stays whole while the others read.
TEST(ParamThreads, ATextReadAtOnceAtOtherTimesStaysWhole) {
    Host host;
    auto* suite = static_cast<const OfxParameterSuiteV1*>(host.fetchSuite(kOfxParameterSuite, 1));
    ImageEffect descriptor(kOfxImageEffectContextGeneral);
    Param* d = nullptr;
    ASSERT_EQ(descriptor.params().define(kOfxParamTypeString, "text", &d), kOfxStatOK);
    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Param& text = *instance.param("text");
    // Long enough to live on the heap, and each a different length.
    const std::vector<std::string> texts = {std::string(40, 'a'), std::string(90, 'b'), std::string(17, 'c'),
                                            std::string(200, 'd')};
    for (size_t t = 0; t < texts.size(); ++t) text.setKey(static_cast<double>(t), {texts[t]});

    std::vector<std::thread> threads;
    std::vector<int> wrong(texts.size(), 0);
    std::atomic<int> ready{0};
    for (size_t t = 0; t < texts.size(); ++t)
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < static_cast<int>(texts.size())) std::this_thread::yield();
            for (int i = 0; i < 20000; ++i) {
                const char* value = nullptr;
                suite->paramGetValueAtTime(text.handle(), static_cast<double>(t), &value);
                if (!value || texts[t] != value) ++wrong[t];
            }
        });
    for (std::thread& t : threads) t.join();
    for (size_t t = 0; t < texts.size(); ++t) EXPECT_EQ(wrong[t], 0) << "at time " << t;
}
