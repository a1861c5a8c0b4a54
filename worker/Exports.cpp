// The exports that serve the host itself: freeing the library's strings and setting the log
// callback.
#include "platform/LogSink.h"
#include "worker/ExportGuard.h"
#include "worker/libqxss.h"

void SsoFreeString(char *text) {
    delete[] text;
}

void SsoSetLogCallback(void (*callback)(char const *text, void *context), void *context) {
    ExportGuard::run("SsoSetLogCallback",
                     [callback, context] { LogSink::setCallback(callback, context); });
}
