// The worker's first log line names the same thread as the host's "created" line, every start.
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The number after `prefix` in the first statement that starts with it, or "".
std::string idAfter(LogCapture const &log, std::string const &prefix) {
    for (auto const &line : log.lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            size_t end = line.find(' ', prefix.size());
            return line.substr(prefix.size(), end - prefix.size());
        }
    }
    return std::string();
}

TEST(WorkerIdTest, FirstLineShowsTheCreatedThreadsId) {
    TestMachine::node();
    for (int start = 0; start < 5; ++start) {
        LogCapture log;
        WorkerHost host;
        ASSERT_EQ(host.start(), 0);
        ASSERT_TRUE(log.waitForPiece(" started job with I/O FD: "));
        std::string created = idAfter(log, "Sso: Thread ");
        std::string first = idAfter(log, "Sso: Worker thread ");
        ASSERT_FALSE(created.empty());
        EXPECT_EQ(first, created);
        EXPECT_NE(created, "18446744073709551615");
        host.stop();
    }
    TestMachine::reset();
}

}  // namespace
