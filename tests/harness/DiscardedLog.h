#pragma once

#include "worker/libqxss.h"

// Sends the log nowhere while it lives, for tests that make far too many statements to keep
// (a capture would hold them all, and the memory they measure with them).
class DiscardedLog {
public:
    DiscardedLog() { SsoSetLogCallback(discard, nullptr); }
    ~DiscardedLog() { SsoSetLogCallback(nullptr, nullptr); }
    DiscardedLog(DiscardedLog const &) = delete;
    DiscardedLog &operator=(DiscardedLog const &) = delete;

private:
    static void discard(char const *, void *) {}
};
