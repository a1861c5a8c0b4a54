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

namespace {

TEST(SsoUtilsMoreTest, AlphabetBytesStayAndEveryCharacterIsFromTheAlphabet) {
    std::string const alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    PlatformFakes::random() = [&](char *buffer, int length) {
        for (int i = 0; i < length; ++i) {
            buffer[i] = alphabet[static_cast<size_t>(i) % alphabet.size()];
        }
        return 1;
    };
    EXPECT_EQ(getRandomAsciiString(66), alphabet);
    PlatformFakes::random() = [](char *buffer, int length) {
        for (int i = 0; i < length; ++i) {
            buffer[i] = static_cast<char>(i);
        }
        return 1;
    };
    std::string mapped = getRandomAsciiString(192);
    EXPECT_EQ(mapped.find_first_not_of(alphabet), std::string::npos);
    PlatformFakes::reset();
    std::string real = getRandomAsciiString(192);
    EXPECT_EQ(real.size(), 192u);
    EXPECT_EQ(real.find_first_not_of(alphabet), std::string::npos);
}

TEST(SsoUtilsMoreTest, Base64OfClientCredentials) {
    LogCapture log;
    EXPECT_EQ(getBase64("qxss-client:qxss-secret"), "cXhzcy1jbGllbnQ6cXhzcy1zZWNyZXQ=");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoUtils: Received string for Base64 formatting: "
                  "'qxss-client:qxss-secret' with length: 23.\n",
                  "SsoUtils: Buffer size for Base64 formatting: 33.\n",
                  "SsoUtils: Base64 string is: 'cXhzcy1jbGllbnQ6cXhzcy1zZWNyZXQ=' with "
                  "length: 32.\n"}));
    EXPECT_EQ(getBase64(""), "");
}

TEST(SsoUtilsMoreTest, HashForms) {
    LogCapture log;
    EXPECT_EQ(getHash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoUtils: Received 'abc' for SHA256 hashing.\n",
                  "SsoUtils: SHA256 string is: "
                  "'ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad'.\n"}));
    log.clear();
    EXPECT_EQ(getHash(nullptr), "");
    EXPECT_EQ(getHashBase64Url(nullptr), "");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoUtils: Received 'nil' for SHA256 hashing.\n",
                               "SsoUtils: Received 'nil' for Base64Url(SHA256) formatting.\n"}));
}

TEST(SsoUtilsMoreTest, Base64UrlReplacesPlusAndSlashAndDropsThePadding) {
    // SHA-256 of "d" in standard Base64 holds "+", "/" and "=".
    LogCapture log;
    EXPECT_EQ(getHashBase64Url("d"), "GKw-c0PwFokMUQ6T-TUmEWnZ4_VlQ2Qpgw-vCTT0-OQ");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoUtils: Received 'd' for Base64Url(SHA256) formatting.\n",
                  "SsoUtils: Buffer: 'GKw+c0PwFokMUQ6T+TUmEWnZ4/VlQ2Qpgw+vCTT0+OQ=' in "
                  "Base64(SHA256) format.\n",
                  "SsoUtils: Base64URL(SHA256) string is: "
                  "'GKw-c0PwFokMUQ6T-TUmEWnZ4_VlQ2Qpgw-vCTT0-OQ'.\n"}));
    // And "a", whose digest has "/" twice.
    EXPECT_EQ(getHashBase64Url("a"), "ypeBEsobvcr6wjGzmiPcTaeG7_gUfE5yuYB3ha_uSLs");
    // Every result is URL-safe: nothing but letters, digits, "-" and "_".
    for (char const *text : {"a", "b", "d", "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"}) {
        std::string result = getHashBase64Url(text);
        EXPECT_EQ(result.size(), 43u) << text;
        EXPECT_EQ(result.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                           "0123456789-_"),
                  std::string::npos)
            << text;
    }
}

}  // namespace
