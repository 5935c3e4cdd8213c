// A text parameter read on several threads at once, as concurrent renders read
// it at times where it holds different texts (heap-sized, of different
// lengths): each stays whole while others read. (Values, keys and unanswered
// parameters serve every render test through the host.)
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

TEST(Params, ATextReadAtOnceAtOtherTimesStaysWhole) {
    Host host;
    auto* suite = static_cast<const OfxParameterSuiteV1*>(host.fetchSuite(kOfxParameterSuite, 1));
    ImageEffect descriptor(kOfxImageEffectContextGeneral);
    Param* d = nullptr;
    descriptor.params().define(kOfxParamTypeString, "text", &d);
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
