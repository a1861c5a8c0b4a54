// Log: one statement built in a LogStream and emitted whole, to the host's callback or to
// syslog.

#include "platform/LogSink.h"
#include "platform/LogStream.h"

#include <syslog.h>

#include <cstring>
#include <mutex>

namespace {

std::recursive_mutex &sinkMutex() {
    // Never destroyed: a worker still running at the process's exit may still log.
    static std::recursive_mutex &mutex = *new std::recursive_mutex;
    return mutex;
}

LogSink::Callback sinkCallback = nullptr;
void *sinkContext = nullptr;

// ERROR! and WARNING! stand right after the layer prefix ("Layer: ").
int priorityOf(std::string const &text) {
    size_t colon = text.find(": ");
    if (colon == std::string::npos) {
        return LOG_INFO;
    }
    char const *rest = text.c_str() + colon + 2;
    if (std::strncmp(rest, "ERROR! ", 7) == 0) {
        return LOG_ERR;
    }
    if (std::strncmp(rest, "WARNING! ", 9) == 0) {
        return LOG_WARNING;
    }
    return LOG_INFO;
}

// The host's ident, options and default facility stay as the host set them: no openlog here,
// the facility travels in each call's priority instead.
void toSyslog(std::string const &text) {
    size_t length = text.size();
    if (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    syslog(LOG_AUTHPRIV | priorityOf(text), "%.*s", static_cast<int>(length), text.c_str());
}

}  // namespace

void LogSink::setCallback(Callback callback, void *context) {
    std::lock_guard<std::recursive_mutex> lock(sinkMutex());
    sinkCallback = callback;
    sinkContext = context;
}

void LogSink::emit(std::string const &text) {
    std::lock_guard<std::recursive_mutex> lock(sinkMutex());
    if (sinkCallback != nullptr) {
        // A throw from the host's callback is dropped: logging it would call the callback again,
        // and it must not end the statement's writer, which may be a destructor.
        try {
            sinkCallback(text.c_str(), sinkContext);
        } catch (...) {
        }
    } else {
        toSyslog(text);
    }
}

LogStream::~LogStream() {
    if (!moved) {
        LogSink::emit(text);
    }
}
