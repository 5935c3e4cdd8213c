// A text parameter read through the suite on several threads at once, at
// times where it holds different texts, as concurrent renders read it: the
// text each thread was handed stays whole while the others read.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

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
