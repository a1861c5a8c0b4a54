#pragma once

#include <string>

// Where finished log statements go. By default syslog with the facility LOG_AUTHPRIV in each
// call's priority (the log carries secrets in the clear); the host's ident, options and default
// facility are left as the host set them. A host may install a callback instead.
class LogSink {
public:
    using Callback = void (*)(char const *text, void *context);

    // Sends every later statement to `callback` (null restores syslog). Any thread.
    static void setCallback(Callback callback, void *context);

    // Delivers one complete statement, one at a time across all threads.
    static void emit(std::string const &text);
};
