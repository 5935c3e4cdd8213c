// What stands between the image library and the host: error mapping, the
// five message functions (hosts differ in what they show), the memory hooks
// into the host's memory suite, and the clean-up at unload.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/qvmem.h"
#include "mp/kqmp.h"
#include "shell/ofx_plugin.h"

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

// The composed text goes to the host as its format argument with no further
// arguments. Percent signs are doubled so that the host's formatter prints
// them instead of reading directives; any other text reaches it unchanged.
OfxStatus Send(void* handle, const char* type, const char* text) {
    if (!gMessageSuite || !gMessageSuite->message) return kOfxStatErrMissingHostFeature;
    char escaped[2 * kTextBytes + 2];
    size_t o = 0;
    for (const char* c = text; *c && o + 2 < sizeof escaped; ++c) {
        if (*c == '%') escaped[o++] = '%';
        escaped[o++] = *c;
    }
    escaped[o] = '\0';
    return gMessageSuite->message(handle, type, "", escaped);
}

// Where each kind of message goes, by host.
struct Route {
    void* handle;
    const char* type;
    bool lineFeed;
};

enum class Kind { Error, Fatal, Message, Log, Warning, ImportantWarning };

Route RouteFor(Kind kind, OfxImageEffectHandle effect, const ofxHost* host) {
    switch (kind) {
        case Kind::Error:
            if (hostIsNuke(host)) return {nullptr, kOfxMessageLog, false};
            if (hostIsToxik(host)) return {effect, kOfxMessageMessage, false};
            return {effect, kOfxMessageError, false};
        case Kind::Fatal:
            return {effect, kOfxMessageError, false};
        case Kind::Message:
        case Kind::Warning:
            if (hostIsNuke(host)) return {nullptr, kOfxMessageLog, false};
            return {effect, kOfxMessageMessage, false};
        case Kind::Log:
            if (hostIsNuke(host)) return {nullptr, kOfxMessageLog, true};
            return {effect, kOfxMessageLog, false};
        case Kind::ImportantWarning:
            if (hostIsToxik(host)) return {nullptr, kOfxMessageError, false};
            return {nullptr, kOfxMessageMessage, false};
    }
    return {effect, kOfxMessageMessage, false};
}

// Composes "prefix: text" (the fixed text "Out of memory." for status 8 where
// the kind says so) and sends it by the route of its kind.
OfxStatus Deliver(Kind kind, OfxImageEffectHandle effect, const ofxHost* host, bool outOfMemory,
                  const char* prefix, const char* format, va_list args) {
    char formatted[kTextBytes];
    if (outOfMemory)
        std::snprintf(formatted, sizeof formatted, "%s", "Out of memory.");
    else
        std::vsnprintf(formatted, sizeof formatted, format ? format : "", args);
    char text[kTextBytes];
    ComposeFixed(text, prefix, formatted);
    const Route route = RouteFor(kind, effect, host);
    if (route.lineFeed) {
        char line[kTextBytes + 1];
        const size_t length = std::strlen(text);
        std::memcpy(line, text, length);
        line[length] = '\n';
        line[length + 1] = '\0';
        return Send(route.handle, route.type, line);
    }
    return Send(route.handle, route.type, text);
}

}  // namespace

int qvofx_error(OfxImageEffectHandle effect, ofxHost* host, int status, const char* prefix,
                const char* format, ...) {
    if (status == qvStatAborted || status == kOfxStatFailed) return kOfxStatOK;
    va_list args;
    va_start(args, format);
    const OfxStatus sent =
        Deliver(Kind::Error, effect, host, status == kOfxStatErrMemory, prefix, format, args);
    va_end(args);
    return sent;
}

void qvofx_fatal(OfxImageEffectHandle effect, ofxHost* host, int status, const char* prefix,
                 const char* format, ...) {
    va_list args;
    va_start(args, format);
    Deliver(Kind::Fatal, effect, host, status == kOfxStatErrMemory, prefix, format, args);
    va_end(args);
}

void qvofx_message(OfxImageEffectHandle effect, ofxHost* host, int, const char* prefix, const char* format,
                   ...) {
    va_list args;
    va_start(args, format);
    Deliver(Kind::Message, effect, host, false, prefix, format, args);
    va_end(args);
}

void qvofx_log(OfxImageEffectHandle effect, ofxHost* host, int, const char* prefix, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Deliver(Kind::Log, effect, host, false, prefix, format, args);
    va_end(args);
}

void qvofx_warning(OfxImageEffectHandle effect, ofxHost* host, int, bool important, const char* prefix,
                   const char* format, ...) {
    va_list args;
    va_start(args, format);
    Deliver(important ? Kind::ImportantWarning : Kind::Warning, effect, host, false, prefix, format, args);
    va_end(args);
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
    // A thread count the host gave at Load belongs to that load only.
    setThreadCount(0);
    setMemoryHooks(nullptr, nullptr, nullptr);
}

void doNothing() {}
void doNothing(const char*, ...) {}
