// The services between the image library and the host, linked statically:
// the five message functions on each kind of host and the memory hooks. (The
// error maps show through ShellEntry.NoExceptionCrossesTheEntryIntoTheHost and
// Render.OutOfMemoryReachesTheHostAsErrMemoryWithImagesBack.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host.h"
#include "shell/ofx_plugin.h"

using ofxhost::Host;
using ofxhost::HostConfig;
using ofxhost::Message;

namespace {

// A host whose message and memory suites the shell's globals point at.
class HostServices : public ::testing::Test {
  protected:
    void SetUp() override {
        gMessageSuite = const_cast<OfxMessageSuiteV1*>(
            static_cast<const OfxMessageSuiteV1*>(host_.fetchSuite(kOfxMessageSuite, 1)));
        gMemoryHost = const_cast<OfxMemorySuiteV1*>(
            static_cast<const OfxMemorySuiteV1*>(host_.fetchSuite(kOfxMemorySuite, 1)));
    }
    void TearDown() override {
        gMessageSuite = nullptr;
        gMemoryHost = nullptr;
    }
    std::vector<Message> take() {
        std::vector<Message> all = host_.messages().all();
        host_.messages().clear();
        return all;
    }

    Host host_;
    // Any distinct value will do: the functions only pass it on.
    OfxImageEffectHandle effect_ = reinterpret_cast<OfxImageEffectHandle>(0x5eed0);
};

}  // namespace

TEST_F(HostServices, MessagesByHostAndFunction) {
    using Send = void (*)(OfxImageEffectHandle, ofxHost*);
    const std::pair<const char*, Send> fns[] = {
        {"error", [](OfxImageEffectHandle e,
                     ofxHost* h) { qvofx_error(e, h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc"); }},
        {"fatal", [](OfxImageEffectHandle e,
                     ofxHost* h) { qvofx_fatal(e, h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc"); }},
        {"message",
         [](OfxImageEffectHandle e, ofxHost* h) { qvofx_message(e, h, 0, "Pfx", "n=%d s=%s", 42, "abc"); }},
        {"log",
         [](OfxImageEffectHandle e, ofxHost* h) { qvofx_log(e, h, 0, "Pfx", "n=%d s=%s", 42, "abc"); }},
        {"warning", [](OfxImageEffectHandle e,
                       ofxHost* h) { qvofx_warning(e, h, 0, false, "Pfx", "n=%d s=%s", 42, "abc"); }},
        {"important warning",
         [](OfxImageEffectHandle e, ofxHost* h) {
             qvofx_warning(e, h, 0, true, "Pfx", "n=%d s=%s", 42, "abc");
         }},
    };
    // Type per function; a capital letter sends the effect's handle, a small one null.
    const std::pair<const char*, const char*> rows[] = {
        {"uk.co.thefoundry.nuke", "lElllm"},
        {"Autodesk Toxik", "MEMLMe"},
        {"com.eyeonline.Fusion", "EEMLMm"},
        {"com.example.host", "EEMLMm"},
    };
    for (const auto& [name, codes] : rows) {
        ofxHost h{"label", name};
        for (int fn = 0; fn < 6; ++fn) {
            SCOPED_TRACE(std::string(name) + ", " + fns[fn].first);
            fns[fn].second(effect_, &h);
            std::vector<Message> sent = take();
            ASSERT_EQ(sent.size(), 1u);
            const char code = codes[fn];
            const char lower = static_cast<char>(code | 0x20);
            EXPECT_EQ(sent[0].type, lower == 'e'   ? kOfxMessageError
                                    : lower == 'm' ? kOfxMessageMessage
                                                   : kOfxMessageLog);
            EXPECT_EQ(sent[0].handle, code != lower ? static_cast<void*>(effect_) : nullptr);
            EXPECT_EQ(sent[0].id, "");
            EXPECT_EQ(sent[0].text, code == 'l' && fn == 3 ? "Pfx: n=42 s=abc\n" : "Pfx: n=42 s=abc")
                << "only Nuke's log ends in a line feed";
        }
    }
    ofxHost h{"label", "com.example.host"};
    EXPECT_EQ(qvofx_error(effect_, &h, kOfxStatFailed, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_EQ(qvofx_error(effect_, &h, qvStatAborted, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_TRUE(take().empty()) << "status 1 and 15 show nothing";
    ofxHost nuke{"label", "uk.co.thefoundry.nuke"};
    EXPECT_EQ(qvofx_error(effect_, &nuke, kOfxStatErrMemory, "Pfx", "never %s expanded", "this"), kOfxStatOK);
    qvofx_error(effect_, &h, kOfxStatErrMemory, "Pfx", "never %s expanded", "this");
    qvofx_fatal(effect_, &h, kOfxStatErrMemory, "Pfx", "never %s expanded", "this");
    std::vector<Message> sent = take();
    ASSERT_EQ(sent.size(), 3u);
    for (const Message& m : sent) EXPECT_EQ(m.text, "Pfx: Out of memory.");
}

TEST_F(HostServices, ComposedTextReachesTheHostLiterallyAndBounded) {
    ofxHost h{"label", "com.example.host"};
    qvofx_message(effect_, &h, 0, "Pfx", "%d%% done, %s", 50, "%s%n");
    // Two 256-byte buffers: the text is cut at 255 characters.
    const std::string longPart(1000, 'x');
    const std::string whole = "Pfx: " + longPart;
    qvofx_message(effect_, &h, 0, "Pfx", "%s", longPart.c_str());
    ofxHost nuke{"label", "uk.co.thefoundry.nuke"};
    qvofx_log(effect_, &nuke, 0, "Pfx", "%s", longPart.c_str());
    const std::string longPrefix(400, 'p');
    qvofx_warning(effect_, &h, 0, false, longPrefix.c_str(), "%s", "tail");
    std::vector<Message> sent = take();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0].text, "Pfx: 50% done, %s%n") << "percent signs of the composed text print as they are";
    EXPECT_EQ(sent[1].text, whole.substr(0, 255));
    EXPECT_EQ(sent[2].text, whole.substr(0, 255) + "\n");
    EXPECT_EQ(sent[3].text, longPrefix.substr(0, 255));
}

namespace {
void* gStubBlock = nullptr;
OfxStatus gStubStatus = kOfxStatOK;
OfxStatus stubAlloc(void*, size_t, void** block) {
    *block = gStubBlock;
    return gStubStatus;
}
}  // namespace

TEST_F(HostServices, MemoryHooksGoThroughTheHostAndTrustOnlyItsStatus) {
    void* block = QVUserMallocFunc(nullptr, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(host_.memory().counts().liveBytes, 100u);
    QVUserFreeFunc(nullptr, block);
    QVUserFreeFunc(nullptr, nullptr);
    EXPECT_EQ(host_.memory().counts().badFrees, 0u) << "a null block reached the host";
    EXPECT_EQ(host_.memory().counts().liveBytes, 0u);
    host_.memory().failAfter(1);
    EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr);

    // A host that fails yet hands back a pointer, and one that succeeds with null.
    static OfxMemorySuiteV1 stub = {stubAlloc, nullptr};
    gMemoryHost = &stub;
    char dummy = 0;
    for (auto [status, given] : {std::pair{kOfxStatFailed, static_cast<void*>(&dummy)},
                                 {kOfxStatErrMemory, &dummy},
                                 {kOfxStatReplyDefault, &dummy},
                                 {kOfxStatOK, nullptr}}) {
        gStubStatus = status;
        gStubBlock = given;
        EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr) << "status " << status;
    }
}
