// The message suite: every message is recorded with its raw format and the
// text the format gives with its arguments; the host's user sees the log.
#include <cstdarg>
#include <cstdio>

#include "host.h"
#include "suites.h"

namespace ofxhost {

void MessageLog::add(Message message) {
    std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
}

std::vector<Message> MessageLog::all() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

void MessageLog::clear() {
    std::lock_guard lock(mutex_);
    messages_.clear();
}

namespace {

std::string formatText(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) return std::string();
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

OfxStatus message(void* handle, const char* type, const char* id, const char* format, ...) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    if (!type) return kOfxStatErrValue;
    Message m{handle, type, id ? id : "", "", format ? format : ""};
    if (format) {
        va_list args;
        va_start(args, format);
        m.text = formatText(format, args);
        va_end(args);
    }
    host->messages().add(m);
    if (host->config().onMessage) host->config().onMessage(m);
    return kOfxStatOK;
}

const OfxMessageSuiteV1 kMessageSuite = {message};

}  // namespace

const OfxMessageSuiteV1* messageSuite() {
    return &kMessageSuite;
}

}  // namespace ofxhost
