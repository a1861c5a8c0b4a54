#include "platform/PlatformFakes.h"
#include "support/SsoUtils.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

class SsoUtilsTest : public ::testing::Test {
protected:
    void TearDown() override { PlatformFakes::reset(); }

    static void fillWith(unsigned char byte) {
        PlatformFakes::random() = [byte](char *buffer, int length) {
            std::memset(buffer, byte, static_cast<size_t>(length));
            return 1;
        };
    }
};

TEST_F(SsoUtilsTest, Rfc7636AppendixBChallenge) {
    LogCapture log;
    EXPECT_EQ(getHashBase64Url("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
    EXPECT_TRUE(log.hasInOrder({
        "SsoUtils: Received 'dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk' for Base64Url(SHA256) "
        "formatting.\n",
        "SsoUtils: Buffer: 'E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw+cM=' in Base64(SHA256) "
        "format.\n",
        "SsoUtils: Base64URL(SHA256) string is: 'E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM'.\n",
    }));
}

TEST_F(SsoUtilsTest, BytesOutsideTheAlphabetMapByTheSignExtendedRule) {
    struct Row {
        unsigned char byte;
        char expected;
    } const rows[] = {{0, 'A'}, {33, 'h'}, {127, '9'}, {128, 'U'}, {255, 'P'}, {'x', 'x'}};
    for (auto const &row : rows) {
        fillWith(row.byte);
        EXPECT_EQ(getRandomAsciiString(4), std::string(4, row.expected)) << int(row.byte);
    }
}

TEST_F(SsoUtilsTest, LengthLimits) {
    EXPECT_EQ(getRandomAsciiString(0), "");
    EXPECT_EQ(getRandomAsciiString(1).size(), 1u);
    EXPECT_EQ(getRandomAsciiString(192).size(), 192u);
    EXPECT_EQ(getRandomAsciiString(193), "");
}

TEST_F(SsoUtilsTest, FailingRandomSourceGivesEmpty) {
    PlatformFakes::random() = [](char *, int) { return 0; };
    EXPECT_EQ(getRandomAsciiString(32), "");
}

}  // namespace
