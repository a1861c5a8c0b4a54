// The last check before a reply line leaves: a reply that holds a line break anywhere but at
// its end would read as two replies, the second one forged. It is neither written nor logged
// as a response; its command's failure line goes out instead. The command step and the drain
// write through the same function. And a drain whose write throws keeps what it has not
// answered, in order, for the next one.
#include "platform/Io.h"
#include "platform/PlatformFakes.h"
#include "tests/harness/LogCapture.h"
#include "transport/CurlRequest.h"
#include "worker/SsoChannel.h"
#include "worker/SsoCommands.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

char *copy(std::string const &text) {
    char *array = new char[text.size() + 1];
    std::memcpy(array, text.c_str(), text.size() + 1);
    return array;
}

// A socket pair whose first end the library writes to; what arrived at the second.
class Channel {
public:
    Channel() {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        Io::adopt(fds[0]);
    }
    ~Channel() {
        Io::close(fds[0]);
        ::close(fds[1]);
    }
    // Everything written so far (the library end is closed for reading first).
    std::string received() {
        ::shutdown(fds[0], SHUT_WR);
        std::string all;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(fds[1], buffer, sizeof buffer)) > 0) {
            all.append(buffer, static_cast<size_t>(count));
        }
        return all;
    }
    int fds[2] = {-1, -1};
};

std::string const breakLine = "Sso: ERROR! Reply for session 's-1' holds a line break.\n";

TEST(ReplyBackstopTest, AReplyWithALineBreakInsideIsReplacedByTheFailureLine) {
    for (std::string const reply :
         {"SSO_VERIFY_OK|evil|v|1|s-1\nSSO_VERIFY_OK|admin|x|1|other\n",
          "SSO_VERIFY_OK|evil\n|v|1|s-1\n", "SSO_VERIFY_OK|\n\n", "SSO_VERIFY_OK|a\nb"}) {
        LogCapture log;
        Channel channel;
        int announced = 0;
        SsoChannel::writeReply(
            channel.fds[0], copy(reply), "s-1", [] { return copy("SSO_VERIFY_FAILURE|s-1\n"); },
            [&announced](char const *line) {
                ++announced;
                EXPECT_STREQ(line, "SSO_VERIFY_FAILURE|s-1\n");
            });
        EXPECT_EQ(channel.received(), "SSO_VERIFY_FAILURE|s-1\n") << reply;
        EXPECT_EQ(announced, 1);
        EXPECT_EQ(log.lines(), std::vector<std::string>{breakLine}) << reply;
    }
}

TEST(ReplyBackstopTest, AReplyEndingInItsOnlyLineBreakIsWrittenAsItIs) {
    LogCapture log;
    Channel channel;
    bool failureAsked = false;
    SsoChannel::writeReply(
        channel.fds[0], copy("SSO_VERIFY_OK|ann|v|1|s-1\n"), "s-1",
        [&failureAsked] {
            failureAsked = true;
            return copy("SSO_VERIFY_FAILURE|s-1\n");
        },
        [](char const *) {});
    EXPECT_EQ(channel.received(), "SSO_VERIFY_OK|ann|v|1|s-1\n");
    EXPECT_FALSE(failureAsked);
    EXPECT_FALSE(log.has(breakLine));
}

TEST(ReplyBackstopTest, ACommandWithoutAFailureLineWritesNothing) {
    LogCapture log;
    Channel channel;
    SsoChannel::writeReply(
        channel.fds[0], copy("A|b\nc\n"), "s-1", [] { return static_cast<char *>(nullptr); },
        [](char const *) { ADD_FAILURE() << "announced"; });
    EXPECT_EQ(channel.received(), "");
    EXPECT_EQ(log.lines(), std::vector<std::string>{breakLine});
}

TEST(ReplyBackstopTest, TheDrainAnswersAFlowWhoseTokenBreaksTheLineWithItsFailureLine) {
    struct Row {
        int32_t flowType;
        std::string reply;
    };
    Row const rows[] = {
        {FlowVerify, "SSO_VERIFY_FAILURE|s-1\n"},
        {FlowRefresh, "SSO_REFRESH_FAILURE|s-1\n"},
        {FlowNodeVerify, "SSO_NODE_VERIFY_FAILURE|s-1\n"},
    };
    CurlRequest &network = CurlRequest::getNetwork();
    for (auto const &row : rows) {
        LogCapture log;
        Channel channel;
        AsyncFlowResult result;
        result.sessionId = "s-1";
        result.flowType = row.flowType;
        result.success = true;
        result.data = "evil|v|1|s-1\nSSO_VERIFY_OK|admin|x|1";
        network.completedFlows.push_back(result);
        SsoCommands::drainCompletedFlows(channel.fds[0]);
        EXPECT_TRUE(network.completedFlows.empty());
        EXPECT_EQ(channel.received(), row.reply);
        EXPECT_TRUE(log.hasInOrder({
            "Sso: Processing completed async flow for session: 's-1'.\n",
            breakLine,
            "Sso: Writing async response to FD: " + std::to_string(channel.fds[0]) + ".\n",
            "Sso: Response is: " + row.reply + ".\n",
        })) << log.text();
        EXPECT_FALSE(log.contains("admin"));
    }
}

TEST(ReplyBackstopTest, ADrainThatThrowsMidwayKeepsWhatItHasNotAnsweredInOrder) {
    CurlRequest &network = CurlRequest::getNetwork();
    LogCapture log;
    Channel channel;
    for (char const *session : {"s-1", "s-2", "s-3"}) {
        AsyncFlowResult result;
        result.sessionId = session;
        result.flowType = FlowVerify;
        result.success = false;
        network.completedFlows.push_back(result);
    }
    int replies = 0;
    PlatformFakes::workerStep() = [&replies](char const *step) {
        if (std::string(step) == "Reply of a finished flow" && ++replies == 2) {
            throw std::runtime_error("injected fault");
        }
    };
    EXPECT_THROW(SsoCommands::drainCompletedFlows(channel.fds[0]), std::runtime_error);
    PlatformFakes::reset();
    ASSERT_EQ(network.completedFlows.size(), 2u);
    EXPECT_EQ(network.completedFlows[0].sessionId, "s-2");
    EXPECT_EQ(network.completedFlows[1].sessionId, "s-3");
    SsoCommands::drainCompletedFlows(channel.fds[0]);
    EXPECT_TRUE(network.completedFlows.empty());
    EXPECT_EQ(channel.received(),
              "SSO_VERIFY_FAILURE|s-1\nSSO_VERIFY_FAILURE|s-2\nSSO_VERIFY_FAILURE|s-3\n");
}

}  // namespace
