// The command channel as a host sees it: framing, splitting and the no-reply road.
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string const kFence = "SSO_GET_NODE_CONFIG|qxss-fence";

class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(host.start(), 0);
        id = workerThreadId(log);
        ASSERT_FALSE(id.empty());
        noReply = "Sso: ERROR! Worker thread " + id + " got nullptr result. Writing abort.\n";
    }

    std::string readed(size_t count) const {
        return "Sso: Worker thread " + id + " readed " + std::to_string(count) + " bytes from FD#" +
               std::to_string(host.libraryFd) + ".\n";
    }

    // Sends one chunk and waits until the worker has read it, so that the next send is a
    // chunk of its own.
    void sendChunk(std::string const &chunk) {
        size_t before = reads();
        host.send(chunk);
        ASSERT_TRUE(
            log.waitForCount([this](std::string const &line) { return isRead(line); }, before + 1))
            << "chunk not read: " << chunk;
    }

    bool isRead(std::string const &line) const {
        std::string head = "Sso: Worker thread " + id + " readed ";
        return line.compare(0, head.size(), head) == 0;
    }

    size_t reads() const {
        size_t found = 0;
        for (auto const &line : log.lines()) {
            found += isRead(line) ? 1 : 0;
        }
        return found;
    }

    std::vector<std::string> messages() const {
        return log.startingWith("Sso: Extracted message: ");
    }

    static std::string message(std::string const &text) {
        return "Sso: Extracted message: '" + text + "'.\n";
    }

    LogCapture log;
    WorkerHost host;
    std::string id;
    std::string noReply;
};

TEST_F(ChannelTest, MessagesSplitOverTwoChunksAreJoined) {
    sendChunk("SSO_LOAD_");
    sendChunk("CONFIGS\nSSO_");
    sendChunk("GET_CONFIG|0|abc\n");
    // On a node both are answered: the load succeeds with nothing to load, and a client
    // configuration is refused. The replies come after the statements checked below.
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|abc\n");
    EXPECT_EQ(messages(), (std::vector<std::string>{message("SSO_LOAD_CONFIGS"),
                                                    message("SSO_GET_CONFIG|0|abc")}));
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: 'SSO_GET_CONFIG'.\n",
                                "Sso: Extracted command element: '0'.\n",
                                "Sso: Extracted command element: 'abc'.\n"}));
}

TEST_F(ChannelTest, AMessageOverThreeChunksKeepsOnlyItsLastTwoPieces) {
    sendChunk("SSO_");
    sendChunk("LOAD_");
    sendChunk("CONFIGS\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_EQ(messages(), (std::vector<std::string>{message("LOAD_CONFIGS"), message(kFence)}));
    // One element, so no argument line and no "incorrect" line: only the no-reply trace.
    EXPECT_TRUE(
        log.hasInOrder({"Sso: Extracted command element: 'LOAD_CONFIGS'.\n",
                        "Sso: Worker thread " + id + " is executing command..\n",
                        "Sso: Execute command: 'LOAD_CONFIGS'.\n", noReply, message(kFence)}));
    EXPECT_EQ(log.count(noReply), 1u);
    EXPECT_EQ(log.startingWith("Sso: Command "), std::vector<std::string>{});
}

TEST_F(ChannelTest, AFullChunkWithoutNewlineIsCarriedWhole) {
    std::string big(5680, 'x');
    sendChunk(big);
    EXPECT_TRUE(log.has(readed(5680)));
    sendChunk("y\n");
    ASSERT_TRUE(log.waitFor(message(big + "y")));
    // The first chunk alone made no message.
    EXPECT_EQ(messages(), std::vector<std::string>{message(big + "y")});
}

TEST_F(ChannelTest, SeveralMessagesInOneChunkRunInOrder) {
    sendChunk("A|1|2\nB|3|4\nC|5|6\n");
    ASSERT_TRUE(log.waitFor("Sso: Command 'C' is incorrect.\n"));
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Extracted message: 'A|1|2'.\n",
        "Sso: Extracted message: 'B|3|4'.\n",
        "Sso: Extracted message: 'C|5|6'.\n",
        // Every message is split before the first command runs.
        "Sso: Extracted command element: '6'.\n",
        "Sso: Execute command: 'A'.\n",
        "Sso: Command arguments: '1' ,'2'.\n",
        "Sso: Command 'A' is incorrect.\n",
        noReply,
        "Sso: Execute command: 'B'.\n",
        "Sso: Command arguments: '3' ,'4'.\n",
        "Sso: Command 'B' is incorrect.\n",
        noReply,
        "Sso: Execute command: 'C'.\n",
        "Sso: Command arguments: '5' ,'6'.\n",
        "Sso: Command 'C' is incorrect.\n",
    }));
    EXPECT_EQ(host.repliesBeforeFence(), "");
}

TEST_F(ChannelTest, UnknownNameIsIncorrectAndGetsNoReply) {
    sendChunk("SSO_FOO|a|b\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(
        log.hasInOrder({"Sso: Execute command: 'SSO_FOO'.\n", "Sso: Command arguments: 'a' ,'b'.\n",
                        "Sso: Command 'SSO_FOO' is incorrect.\n", noReply}));
}

TEST_F(ChannelTest, CarriageReturnStaysInTheLastElement) {
    sendChunk("SSO_LOAD_CONFIGS\r\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: 'SSO_LOAD_CONFIGS\r'.\n",
                                "Sso: Execute command: 'SSO_LOAD_CONFIGS\r'.\n", noReply}));
    EXPECT_FALSE(log.has("SsoActions: Start loading configuration.\n"));
}

TEST_F(ChannelTest, EmptyLineAndEmptyElementZeroGetNoReply) {
    sendChunk("\n|SSO_VERIFY|a|b\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_EQ(messages(),
              (std::vector<std::string>{message(""), message("|SSO_VERIFY|a|b"), message(kFence)}));
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: ''.\n",
                                "Sso: Extracted command element: ''.\n",
                                "Sso: Extracted command element: 'SSO_VERIFY'.\n",
                                "Sso: Extracted command element: 'a'.\n",
                                "Sso: Extracted command element: 'b'.\n", noReply, noReply}));
    EXPECT_EQ(log.count(noReply), 2u);
    // Only the fence was executed.
    EXPECT_EQ(log.startingWith("Sso: Execute command: "),
              std::vector<std::string>{"Sso: Execute command: 'SSO_GET_NODE_CONFIG'.\n"});
}

TEST_F(ChannelTest, EmptyOrMissingArgumentsGetNoReplyWithoutFurtherMessage) {
    sendChunk("SSO_VERIFY|code|\nSSO_REFRESH|x\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({"Sso: Execute command: 'SSO_VERIFY'.\n", noReply,
                                "Sso: Execute command: 'SSO_REFRESH'.\n", noReply}));
    EXPECT_EQ(log.count(noReply), 2u);
    EXPECT_EQ(log.startingWith("Sso: Command "), std::vector<std::string>{});
}

TEST_F(ChannelTest, ABarInsideJsonSplitsIt) {
    sendChunk("SSO_NODE_VERIFY|{\"k\":\"a|b\"}|session\n");
    // The piece of JSON cannot start a flow, and the blocking road answers for that "session".
    EXPECT_EQ(host.readLine(), "SSO_NODE_VERIFY_FAILURE|b\"}\n");
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: 'SSO_NODE_VERIFY'.\n",
                                "Sso: Extracted command element: '{\"k\":\"a'.\n",
                                "Sso: Extracted command element: 'b\"}'.\n",
                                "Sso: Extracted command element: 'session'.\n",
                                "Sso: Execute command: 'SSO_NODE_VERIFY'.\n",
                                // Element 2, the "session", is a piece of the JSON.
                                "Sso: Command arguments: '{\"k\":\"a' ,'b\"}'.\n"}));
}

TEST_F(ChannelTest, CarriedTextIsDroppedWhenTheWorkerEnds) {
    sendChunk("SSO_LOAD_CONFIGS");
    host.stop();
    // A new worker on the same channel starts with nothing carried: the line end alone makes
    // an empty message, not "SSO_LOAD_CONFIGS".
    ASSERT_EQ(host.start(), 0);
    host.send("\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_EQ(messages(), (std::vector<std::string>{message(""), message(kFence)}));
}

}  // namespace
