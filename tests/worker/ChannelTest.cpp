// The command channel as a host sees it: framing, splitting and the no-reply road.
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

std::string readed(size_t count) {
    return " readed " + std::to_string(count) + " bytes from FD#";
}

class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(host.start(), 0); }

    // Sends one chunk and waits until the worker has read it, so that the next send is a
    // chunk of its own.
    void sendChunk(std::string const &chunk) {
        size_t before = reads();
        host.send(chunk);
        ASSERT_TRUE(waitReads(before + 1)) << "chunk not read: " << chunk;
    }

    size_t reads() const {
        size_t found = 0;
        for (auto const &line : log.lines()) {
            found += line.find(" readed ") != std::string::npos ? 1 : 0;
        }
        return found;
    }

    bool waitReads(size_t wanted) const {
        for (int i = 0; i < 2500 && reads() < wanted; ++i) {
            usleep(2000);
        }
        return reads() >= wanted;
    }

    std::string noReply = "got nullptr result. Writing abort.\n";

    size_t noReplies() const {
        size_t found = 0;
        for (auto const &line : log.lines()) {
            found += line.find(noReply) != std::string::npos ? 1 : 0;
        }
        return found;
    }

    LogCapture log;
    WorkerHost host;
};

TEST_F(ChannelTest, MessagesSplitOverTwoChunksAreJoined) {
    sendChunk("SSO_LOAD_");
    sendChunk("CONFIGS\nSSO_");
    sendChunk("GET_CONFIG|0|abc\n");
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted message: 'SSO_LOAD_CONFIGS'.\n",
                                "Sso: Extracted message: 'SSO_GET_CONFIG|0|abc'.\n"}));
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: 'SSO_GET_CONFIG'.\n",
                                "Sso: Extracted command element: '0'.\n",
                                "Sso: Extracted command element: 'abc'.\n"}));
    // On a node both are answered: the load succeeds with nothing to load, and a client
    // configuration is refused.
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|abc\n");
}

TEST_F(ChannelTest, AMessageOverThreeChunksKeepsOnlyItsLastTwoPieces) {
    sendChunk("SSO_");
    sendChunk("LOAD_");
    sendChunk("CONFIGS\n");
    EXPECT_TRUE(log.has("Sso: Extracted message: 'LOAD_CONFIGS'.\n"));
    EXPECT_FALSE(log.contains("Extracted message: 'SSO_LOAD_CONFIGS'"));
    // One element, so no argument line and no "incorrect" line: only the no-reply trace.
    EXPECT_TRUE(log.waitForPiece(noReply));
    EXPECT_FALSE(log.contains("is incorrect."));
    EXPECT_EQ(host.readFor(100), "");
}

TEST_F(ChannelTest, AFullChunkWithoutNewlineIsCarriedWhole) {
    std::string big(5680, 'x');
    sendChunk(big);
    EXPECT_TRUE(log.contains(readed(5680)));
    EXPECT_FALSE(log.contains("Extracted message"));
    sendChunk("y\n");
    EXPECT_TRUE(log.has("Sso: Extracted message: '" + big + "y'.\n"));
}

TEST_F(ChannelTest, SeveralMessagesInOneChunkRunInOrder) {
    sendChunk("A|1|2\nB|3|4\nC|5|6\n");
    EXPECT_TRUE(log.waitForPiece("Command 'C' is incorrect."));
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Extracted message: 'A|1|2'.\n",
        "Sso: Extracted message: 'B|3|4'.\n",
        "Sso: Extracted message: 'C|5|6'.\n",
        // Every message is split before the first command runs.
        "Sso: Extracted command element: '6'.\n",
        "Sso: Execute command: 'A'.\n",
        "Sso: Command arguments: '1' ,'2'.\n",
        "Sso: Command 'A' is incorrect.\n",
        "Sso: Execute command: 'B'.\n",
        "Sso: Command 'B' is incorrect.\n",
        "Sso: Execute command: 'C'.\n",
        "Sso: Command 'C' is incorrect.\n",
    }));
}

TEST_F(ChannelTest, UnknownNameIsIncorrectWithABareLineEnd) {
    sendChunk("SSO_FOO|a|b\n");
    ASSERT_TRUE(log.waitForPiece(noReply));
    EXPECT_TRUE(log.has("Sso: Command 'SSO_FOO' is incorrect.\n"));
    EXPECT_EQ(host.readFor(100), "");
}

TEST_F(ChannelTest, CarriageReturnStaysInTheLastElement) {
    sendChunk("SSO_LOAD_CONFIGS\r\n");
    ASSERT_TRUE(log.waitForPiece(noReply));
    EXPECT_TRUE(log.has("Sso: Extracted command element: 'SSO_LOAD_CONFIGS\r'.\n"));
    EXPECT_TRUE(log.has("Sso: Execute command: 'SSO_LOAD_CONFIGS\r'.\n"));
    EXPECT_EQ(host.readFor(100), "");
}

TEST_F(ChannelTest, EmptyLineAndEmptyElementZeroGetNoReply) {
    sendChunk("\n|SSO_VERIFY|a|b\n");
    ASSERT_TRUE(log.waitFor("Sso: Extracted command element: 'b'.\n"));
    ASSERT_TRUE(log.waitForPiece(noReply));
    for (int i = 0; i < 500 && noReplies() < 2; ++i) {
        usleep(2000);
    }
    EXPECT_EQ(noReplies(), 2u);
    EXPECT_TRUE(log.has("Sso: Extracted message: ''.\n"));
    EXPECT_TRUE(log.has("Sso: Extracted command element: ''.\n"));
    EXPECT_FALSE(log.contains("Sso: Execute command:"));
    EXPECT_EQ(host.readFor(100), "");
}

TEST_F(ChannelTest, EmptyOrMissingArgumentsGetNoReplyWithoutFurtherMessage) {
    sendChunk("SSO_VERIFY|code|\nSSO_REFRESH|x\n");
    for (int i = 0; i < 500 && noReplies() < 2; ++i) {
        usleep(2000);
    }
    EXPECT_EQ(noReplies(), 2u);
    EXPECT_FALSE(log.contains("Command arguments"));
    EXPECT_FALSE(log.contains("is incorrect"));
    EXPECT_EQ(host.readFor(100), "");
}

TEST_F(ChannelTest, ABarInsideJsonSplitsIt) {
    sendChunk("SSO_NODE_VERIFY|{\"k\":\"a|b\"}|session\n");
    // The piece of JSON cannot start a flow, and the blocking road answers for that "session".
    EXPECT_EQ(host.readLine(), "SSO_NODE_VERIFY_FAILURE|b\"}\n");
    EXPECT_TRUE(log.hasInOrder({"Sso: Extracted command element: 'SSO_NODE_VERIFY'.\n",
                                "Sso: Extracted command element: '{\"k\":\"a'.\n",
                                "Sso: Extracted command element: 'b\"}'.\n",
                                "Sso: Extracted command element: 'session'.\n"}));
    // Element 2, the "session", is a piece of the JSON.
    EXPECT_TRUE(log.has("Sso: Command arguments: '{\"k\":\"a' ,'b\"}'.\n"));
}

TEST_F(ChannelTest, CarriedTextIsDroppedWhenTheWorkerEnds) {
    sendChunk("SSO_LOAD_CONFIGS");
    host.stop();
    EXPECT_FALSE(log.contains("Extracted message"));
    EXPECT_EQ(host.readFor(50), "");
}

}  // namespace
