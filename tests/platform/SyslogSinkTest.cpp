// The default sink writes to syslog with the facility LOG_AUTHPRIV in every call's priority and
// leaves the host's ident, options and default facility alone: it never calls openlog or
// closelog. This program defines the three functions itself, so every call the library makes
// lands here instead of in the C library.
#include "platform/Log.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

struct SyslogCalls {
    std::mutex mutex;
    bool recording = false;
    int openlogs = 0;
    int closelogs = 0;
    std::vector<std::pair<int, std::string>> messages;
};

SyslogCalls &calls() {
    static SyslogCalls &recorded = *new SyslogCalls;
    return recorded;
}

void record(int priority, char const *format, va_list arguments) {
    char text[4096];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::lock_guard<std::mutex> lock(calls().mutex);
    if (calls().recording) {
        calls().messages.emplace_back(priority, text);
    }
}

void startRecording() {
    std::lock_guard<std::mutex> lock(calls().mutex);
    calls().recording = true;
    calls().openlogs = 0;
    calls().closelogs = 0;
    calls().messages.clear();
}

void stopRecording() {
    std::lock_guard<std::mutex> lock(calls().mutex);
    calls().recording = false;
}

}  // namespace

extern "C" void openlog(char const *, int, int) {
    std::lock_guard<std::mutex> lock(calls().mutex);
    ++calls().openlogs;
}

extern "C" void closelog() {
    std::lock_guard<std::mutex> lock(calls().mutex);
    ++calls().closelogs;
}

extern "C" void syslog(int priority, char const *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}

// What a fortified build calls instead of syslog.
extern "C" void __syslog_chk(int priority, int, char const *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}

namespace {

TEST(SyslogSinkTest, PriorityCarriesAuthprivAndTheLevelAndTheLineEndIsDropped) {
    SsoSetLogCallback(nullptr, nullptr);
    startRecording();
    Log() << "Layer: ERROR! Broken " << 1 << ".\n";
    Log() << "Layer: WARNING! Odd.\n";
    Log() << "Layer: Plain, with ERROR! later on.\n";
    Log() << "No layer prefix\n";
    stopRecording();
    std::vector<std::pair<int, std::string>> const expected = {
        {LOG_AUTHPRIV | LOG_ERR, "Layer: ERROR! Broken 1."},
        {LOG_AUTHPRIV | LOG_WARNING, "Layer: WARNING! Odd."},
        {LOG_AUTHPRIV | LOG_INFO, "Layer: Plain, with ERROR! later on."},
        {LOG_AUTHPRIV | LOG_INFO, "No layer prefix"},
    };
    EXPECT_EQ(calls().messages, expected);
    EXPECT_EQ(calls().openlogs, 0);
}

TEST(SyslogSinkTest, AWholeWorkerLifeNeverTouchesTheHostsSyslogSettings) {
    SsoSetLogCallback(nullptr, nullptr);
    startRecording();
    {
        WorkerHost host;
        ASSERT_EQ(host.start(), 0);
        host.send("SSO_LOAD_CONFIGS\n");
        EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
        host.stop();
    }
    stopRecording();
    EXPECT_EQ(calls().openlogs, 0);
    EXPECT_EQ(calls().closelogs, 0);
    ASSERT_FALSE(calls().messages.empty());
    for (auto const &message : calls().messages) {
        EXPECT_EQ(LOG_FAC(message.first) << 3, LOG_AUTHPRIV) << message.second;
    }
}

}  // namespace
