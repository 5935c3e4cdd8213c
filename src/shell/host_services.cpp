// What stands between the image library and the host: error mapping, the
// five message functions (hosts differ in what they show), the memory hooks
// into the host's memory suite, and the clean-up at unload.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kqmp.h"
#include "ofx_plugin.h"
#include "qvmem.h"

OfxStatus ConvertPLErrToOFXErr(PLErr err) {
    switch (err) {
        case PLErrNone:
            return kOfxStatOK;
        case PLErrOutOfMemory:
            return kOfxStatErrMemory;
        case PLErrBadHandle:
        case PLErrBadHandleAlt:
            return kOfxStatErrBadHandle;
        case PLErrBadIndex:
            return kOfxStatErrBadIndex;
        case PLErrFailed:
            return kOfxStatFailed;
        // An abort and a missing frame are no errors in the host's eyes.
        case PLErrAborted:
        case PLErrNoFrame:
            return kOfxStatOK;
    }
    return kOfxStatOK;
}

PLErr ConvertOFXErrToPLErr(int status) {
    if (status >= kOfxStatFailed && status <= kOfxStatErrFormat) return PLErrFailed;
    if (status == kOfxStatErrMemory) return PLErrOutOfMemory;
    if (status >= kOfxStatErrBadHandle && status <= kOfxStatErrValue) return PLErrFailed;
    if (status == qvStatAborted) return PLErrAborted;
    return PLErrNone;
}

namespace {

constexpr size_t kTextBytes = 256;

// Appends src to the text, cutting it at the buffer's end.
void Append(char (&text)[kTextBytes], size_t& used, const char* src) {
    while (*src && used + 1 < kTextBytes) text[used++] = *src++;
    text[used] = '\0';
}

// prefix + ": " + the formatted part, bounded to the buffer.
void ComposeFixed(char (&text)[kTextBytes], const char* prefix, const char* fixed) {
    size_t used = 0;
    text[0] = '\0';
    Append(text, used, prefix ? prefix : "");
    Append(text, used, ": ");
    Append(text, used, fixed);
}

void Compose(char (&text)[kTextBytes], const char* prefix, const char* format, va_list args) {
    char formatted[kTextBytes];
    std::vsnprintf(formatted, sizeof formatted, format ? format : "", args);
    ComposeFixed(text, prefix, formatted);
}

// The composed text goes to the host as its format argument with no further
// arguments. Percent signs are doubled so that the host's formatter prints
// them instead of reading directives; any other text reaches it unchanged.
OfxStatus Send(void* handle, const char* type, const char* text) {
    if (!gMessageSuite || !gMessageSuite->message) return kOfxStatErrMissingHostFeature;
    char escaped[2 * kTextBytes];
    size_t o = 0;
    for (const char* c = text; *c && o + 2 < sizeof escaped; ++c) {
        if (*c == '%') escaped[o++] = '%';
        escaped[o++] = *c;
    }
    escaped[o] = '\0';
    return gMessageSuite->message(handle, type, "", escaped);
}

}  // namespace

int qvofx_error(OfxImageEffectHandle effect, ofxHost* host, int status, const char* prefix, const char* format,
                ...) {
    if (status == qvStatAborted || status == kOfxStatFailed) return kOfxStatOK;
    char text[kTextBytes];
    if (status == kOfxStatErrMemory) {
        ComposeFixed(text, prefix, "Out of memory.");
    } else {
        va_list args;
        va_start(args, format);
        Compose(text, prefix, format, args);
        va_end(args);
    }
    if (hostIsNuke(host)) return Send(nullptr, kOfxMessageLog, text);
    if (hostIsToxik(host)) return Send(effect, kOfxMessageMessage, text);
    return Send(effect, kOfxMessageError, text);
}

void qvofx_fatal(OfxImageEffectHandle effect, ofxHost*, int status, const char* prefix, const char* format, ...) {
    char text[kTextBytes];
    if (status == kOfxStatErrMemory) {
        ComposeFixed(text, prefix, "Out of memory.");
    } else {
        va_list args;
        va_start(args, format);
        Compose(text, prefix, format, args);
        va_end(args);
    }
    Send(effect, kOfxMessageError, text);
}

void qvofx_message(OfxImageEffectHandle effect, ofxHost* host, int, const char* prefix, const char* format, ...) {
    char text[kTextBytes];
    va_list args;
    va_start(args, format);
    Compose(text, prefix, format, args);
    va_end(args);
    if (hostIsNuke(host))
        Send(nullptr, kOfxMessageLog, text);
    else
        Send(effect, kOfxMessageMessage, text);
}

void qvofx_log(OfxImageEffectHandle effect, ofxHost* host, int, const char* prefix, const char* format, ...) {
    char text[kTextBytes];
    va_list args;
    va_start(args, format);
    Compose(text, prefix, format, args);
    va_end(args);
    if (hostIsNuke(host)) {
        char line[kTextBytes + 1];
        size_t length = std::strlen(text);
        std::memcpy(line, text, length);
        line[length] = '\n';
        line[length + 1] = '\0';
        Send(nullptr, kOfxMessageLog, line);
    } else {
        Send(effect, kOfxMessageLog, text);
    }
}

void qvofx_warning(OfxImageEffectHandle effect, ofxHost* host, int, bool important, const char* prefix,
                   const char* format, ...) {
    char text[kTextBytes];
    va_list args;
    va_start(args, format);
    Compose(text, prefix, format, args);
    va_end(args);
    if (!important) {
        if (hostIsNuke(host))
            Send(nullptr, kOfxMessageLog, text);
        else
            Send(effect, kOfxMessageMessage, text);
    } else if (hostIsToxik(host)) {
        Send(nullptr, kOfxMessageError, text);
    } else {
        Send(nullptr, kOfxMessageMessage, text);
    }
}

void* QVUserMallocFunc(void*, unsigned long size) {
    if (!gMemoryHost) return nullptr;
    void* block = nullptr;
    if (gMemoryHost->memoryAlloc(nullptr, size, &block) != kOfxStatOK) return nullptr;
    return block;
}

void QVUserFreeFunc(void*, void* block) {
    if (!block || !gMemoryHost) return;
    gMemoryHost->memoryFree(block);
}

void common_CleanUpQV() {
    kqmp_shutdown();
    setMemoryHooks(nullptr, nullptr, nullptr);
}

void doNothing() {}
void doNothing(const char*, ...) {}
