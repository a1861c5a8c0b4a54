#pragma once

#include "platform/LogStream.h"

// Starts a log statement: Log() << "Layer: text" << value << ".\n";
// The statement is emitted whole when the returned stream goes out of scope.
inline LogStream Log() {
    return LogStream();
}
