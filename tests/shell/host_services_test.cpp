// The services between the image library and the host, linked statically:
// the five message functions on each kind of host, the two error maps and
// the memory hooks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host.h"
#include "ofx_plugin.h"

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

TEST_F(HostServices, MessageTypeAndHandleDependOnHostAndFunction) {
    enum Fn { Error, Fatal, MessageFn, Log, Warning, ImportantWarning };
    const char* const fnNames[] = {"qvofx_error", "qvofx_fatal",   "qvofx_message",
                                   "qvofx_log",   "qvofx_warning", "qvofx_warning(important)"};
    const std::string E = kOfxMessageError, M = kOfxMessageMessage, L = kOfxMessageLog;
    struct Expect {
        std::string type;
        bool withEffect;
    };
    struct HostRow {
        const char* name;
        Expect byFn[6];
    } rows[] = {
        {"uk.co.thefoundry.nuke", {{L, false}, {E, true}, {L, false}, {L, false}, {L, false}, {M, false}}},
        {"Autodesk Toxik", {{M, true}, {E, true}, {M, true}, {L, true}, {M, true}, {E, false}}},
        {"com.eyeonline.Fusion", {{E, true}, {E, true}, {M, true}, {L, true}, {M, true}, {M, false}}},
        {"com.example.host", {{E, true}, {E, true}, {M, true}, {L, true}, {M, true}, {M, false}}},
    };
    for (const HostRow& row : rows) {
        ofxHost h{"label", row.name};
        for (int fn = Error; fn <= ImportantWarning; ++fn) {
            switch (fn) {
                case Error:
                    EXPECT_EQ(qvofx_error(effect_, &h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc"),
                              kOfxStatOK);
                    break;
                case Fatal:
                    qvofx_fatal(effect_, &h, kOfxStatErrValue, "Pfx", "n=%d s=%s", 42, "abc");
                    break;
                case MessageFn:
                    qvofx_message(effect_, &h, 0, "Pfx", "n=%d s=%s", 42, "abc");
                    break;
                case Log:
                    qvofx_log(effect_, &h, 0, "Pfx", "n=%d s=%s", 42, "abc");
                    break;
                case Warning:
                    qvofx_warning(effect_, &h, 0, false, "Pfx", "n=%d s=%s", 42, "abc");
                    break;
                case ImportantWarning:
                    qvofx_warning(effect_, &h, 0, true, "Pfx", "n=%d s=%s", 42, "abc");
                    break;
            }
            std::vector<Message> sent = take();
            std::string where = std::string(row.name) + ", " + fnNames[fn];
            ASSERT_EQ(sent.size(), 1u) << where;
            const Expect& want = row.byFn[fn];
            EXPECT_EQ(sent[0].type, want.type) << where;
            EXPECT_EQ(sent[0].handle, want.withEffect ? static_cast<void*>(effect_) : nullptr) << where;
            EXPECT_EQ(sent[0].id, "") << where;
            bool lineFeed = fn == Log && want.type == L && !want.withEffect;  // Nuke's log only
            EXPECT_EQ(sent[0].text, lineFeed ? "Pfx: n=42 s=abc\n" : "Pfx: n=42 s=abc") << where;
        }
    }
}

TEST_F(HostServices, ErrorIsSilentForFailureAndAbortAndFixedForMemory) {
    ofxHost h{"label", "com.example.host"};
    EXPECT_EQ(qvofx_error(effect_, &h, kOfxStatFailed, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_EQ(qvofx_error(effect_, &h, qvStatAborted, "Pfx", "n=%d", 1), kOfxStatOK);
    EXPECT_TRUE(take().empty()) << "status 1 and 15 show nothing";

    for (const char* name : {"com.example.host", "uk.co.thefoundry.nuke"}) {
        ofxHost hostRecord{"label", name};
        EXPECT_EQ(qvofx_error(effect_, &hostRecord, kOfxStatErrMemory, "Pfx", "never %s expanded", "this"),
                  kOfxStatOK);
        std::vector<Message> sent = take();
        ASSERT_EQ(sent.size(), 1u) << name;
        EXPECT_EQ(sent[0].text, "Pfx: Out of memory.") << name;
    }
    qvofx_fatal(effect_, &h, kOfxStatErrMemory, "Pfx", "never %s expanded", "this");
    std::vector<Message> sent = take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "Pfx: Out of memory.");
}

TEST_F(HostServices, ComposedTextReachesTheHostLiterallyAndBounded) {
    ofxHost h{"label", "com.example.host"};
    qvofx_message(effect_, &h, 0, "Pfx", "%d%% done, %s", 50, "%s%n");
    std::vector<Message> sent = take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "Pfx: 50% done, %s%n") << "percent signs of the composed text print as they are";

    // Two 256-byte buffers: the text is cut at 255 characters.
    const std::string longPart(1000, 'x');
    const std::string whole = "Pfx: " + longPart;
    qvofx_message(effect_, &h, 0, "Pfx", "%s", longPart.c_str());
    ofxHost nuke{"label", "uk.co.thefoundry.nuke"};
    qvofx_log(effect_, &nuke, 0, "Pfx", "%s", longPart.c_str());
    const std::string longPrefix(400, 'p');
    qvofx_warning(effect_, &h, 0, false, longPrefix.c_str(), "%s", "tail");
    sent = take();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].text, whole.substr(0, 255));
    EXPECT_EQ(sent[1].text, whole.substr(0, 255) + "\n");
    EXPECT_EQ(sent[2].text, longPrefix.substr(0, 255));
}

TEST(ErrorMaps, LibraryToOfx) {
    // Independent of the code: the table of the error codes.
    const OfxStatus expected[] = {0, 8, 9, 9, 10, 1, 0, 0};
    for (int code = 0; code < 8; ++code)
        EXPECT_EQ(ConvertPLErrToOFXErr(static_cast<PLErr>(code)), expected[code]) << "PLErr " << code;
    for (int code : {8, -1, 100})
        EXPECT_EQ(ConvertPLErrToOFXErr(static_cast<PLErr>(code)), kOfxStatOK) << "PLErr " << code;
}

TEST(ErrorMaps, OfxToLibrary) {
    for (int status = -2; status <= 1001; ++status) {
        PLErr expected = PLErrNone;
        if ((status >= 1 && status <= 7) || (status >= 9 && status <= 11)) expected = PLErrFailed;
        if (status == 8) expected = PLErrOutOfMemory;
        if (status == 15) expected = PLErrAborted;
        EXPECT_EQ(ConvertOFXErrToPLErr(status), expected) << "status " << status;
    }
    EXPECT_EQ(ConvertOFXErrToPLErr(9), PLErrFailed) << "not the inverse: 9 gives 5";
    EXPECT_EQ(ConvertOFXErrToPLErr(5), PLErrFailed);
}

namespace {
void* gStubBlock = nullptr;
OfxStatus gStubStatus = kOfxStatOK;
int gStubCalls = 0;
OfxStatus stubAlloc(void*, size_t, void** block) {
    ++gStubCalls;
    *block = gStubBlock;
    return gStubStatus;
}
OfxStatus stubFree(void*) {
    ++gStubCalls;
    return kOfxStatOK;
}
}  // namespace

TEST_F(HostServices, MemoryHooksGoThroughTheHostAndTrustOnlyItsStatus) {
    void* block = QVUserMallocFunc(nullptr, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(host_.memory().counts().allocations, 1u);
    EXPECT_EQ(host_.memory().counts().liveBytes, 100u);
    QVUserFreeFunc(nullptr, block);
    QVUserFreeFunc(nullptr, nullptr);
    EXPECT_EQ(host_.memory().counts().frees, 1u);
    EXPECT_EQ(host_.memory().counts().badFrees, 0u) << "a null block reached the host";
    EXPECT_EQ(host_.memory().counts().liveBytes, 0u);

    host_.memory().failAfter(1);
    EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr);
    EXPECT_EQ(host_.memory().counts().failedAllocations, 1u);

    // A host that fails yet hands back a pointer, and one that succeeds with null.
    OfxMemorySuiteV1 stub = {stubAlloc, stubFree};
    gMemoryHost = &stub;
    char dummy = 0;
    gStubBlock = &dummy;
    for (OfxStatus status : {kOfxStatFailed, kOfxStatErrMemory, kOfxStatReplyDefault}) {
        gStubStatus = status;
        EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr) << "status " << status;
    }
    gStubStatus = kOfxStatOK;
    gStubBlock = nullptr;
    EXPECT_EQ(QVUserMallocFunc(nullptr, 8), nullptr);
    gStubCalls = 0;
    QVUserFreeFunc(nullptr, nullptr);
    EXPECT_EQ(gStubCalls, 0);
}
