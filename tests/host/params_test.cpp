// Parameter values through the suite: defaults, keys, set, a parameter left
// unanswered, and a text read on several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

namespace {

struct Params : ::testing::Test {
    Params() {
        Param* d = nullptr;
        descriptor.params().define(kOfxParamTypeDouble, "amount", &d);
        d->properties().assign(kOfxParamPropDefault, {0.5});
        descriptor.params().define(kOfxParamTypeString, "text", &d);
    }
    Host host;
    const OfxParameterSuiteV1* suite =
        static_cast<const OfxParameterSuiteV1*>(host.fetchSuite(kOfxParameterSuite, 1));
    ImageEffect descriptor{kOfxImageEffectContextGeneral};
};

}  // namespace

TEST_F(Params, InstancesStartAtTheDefaultAndInterpolateKeys) {
    double v = -1.0;
    EXPECT_EQ(suite->paramGetValue(descriptor.param("amount")->handle(), &v), kOfxStatErrBadHandle)
        << "a descriptor has no value";
    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Param& amount = *instance.param("amount");
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 9.0, &v), kOfxStatOK);
    EXPECT_EQ(v, 0.5);

    EXPECT_EQ(suite->paramSetValueAtTime(amount.handle(), 10.0, 2.0), kOfxStatOK);
    amount.setKey(20.0, 4.0);
    for (auto [t, expected] :
         {std::pair{0.0, 2.0}, {10.0, 2.0}, {15.0, 3.0}, {17.5, 3.5}, {20.0, 4.0}, {30.0, 4.0}}) {
        EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), t, &v), kOfxStatOK);
        EXPECT_EQ(v, expected) << "at " << t;
    }
    EXPECT_EQ(suite->paramSetValue(amount.handle(), -0.0), kOfxStatOK);
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 15.0, &v), kOfxStatOK);
    EXPECT_TRUE(v == 0.0 && std::signbit(v)) << "a plain value drops the keys and keeps its sign";

    amount.setAnswer(kOfxStatFailed);
    v = 42.0;
    EXPECT_EQ(suite->paramGetValueAtTime(amount.handle(), 1.0, &v), kOfxStatFailed);
    EXPECT_EQ(v, 42.0) << "unanswered: the variable keeps its value";
    EXPECT_EQ(amount.valueRequests(), 9u);
}

// As concurrent renders read it at times where it holds different texts
// (heap-sized, of different lengths): each stays whole while others read.
TEST_F(Params, ATextReadAtOnceAtOtherTimesStaysWhole) {
    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Param& text = *instance.param("text");
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
    EXPECT_EQ(wrong, std::vector<int>(texts.size(), 0));
}
