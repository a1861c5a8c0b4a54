// Proxy host and port checks, and finding the distribution's CA bundle.
#include "platform/PlatformFakes.h"
#include "support/SsoValidation.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

class ValidationTest : public ::testing::Test {
protected:
    void TearDown() override { PlatformFakes::reset(); }

    void filesPresent(std::set<std::string> present) {
        PlatformFakes::fileExists() = [present](char const *path) {
            return present.count(path) ? 1 : 0;
        };
    }

    LogCapture log;
};

TEST_F(ValidationTest, ResolvableNameWithAPort) {
    EXPECT_EQ(validateProxy("localhost:3128"), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoUtils: Validating proxy hostname: 'localhost:3128'.\n",
                               "SsoUtils: Proxy host 'localhost', port '3128'.\n",
                               "SsoUtils: Received hostname string: 'localhost'Trying forward DNS "
                               "lookup for IPv4.\n",
                               "SsoUtils: Forward DNS lookup for hostname 'localhost' success.\n",
                               "SsoUtils: Received port string: '3128'.\n",
                               "SsoUtils: Proxy host 'localhost' port '3128' is valid.\n"}));
}

// A name with an empty label cannot be put into a DNS query, so the resolver refuses it without
// asking a name server: the test stays off the network and gets the same answer everywhere.
TEST_F(ValidationTest, UnresolvableNameSaysNothingOfThePort) {
    EXPECT_EQ(validateProxy("no..such.host:99999999"), -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoUtils: Validating proxy hostname: 'no..such.host:99999999'.\n",
                               "SsoUtils: Proxy host 'no..such.host', port '99999999'.\n",
                               "SsoUtils: Received hostname string: 'no..such.host'Trying forward "
                               "DNS lookup for IPv4.\n",
                               "SsoUtils: Trying forward DNS lookup for IPv6.\n",
                               "SsoUtils: ERROR! Forward DNS lookup for IPv4 and IPv6 failed.\n",
                               "SsoUtils: ERROR! Hostname is unresolvable.\n"}));
}

TEST_F(ValidationTest, AddressNeedsNoLookup) {
    EXPECT_EQ(validateProxy("127.0.0.1:8080"), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoUtils: Validating proxy hostname: '127.0.0.1:8080'.\n",
                               "SsoUtils: Proxy host '127.0.0.1', port '8080'.\n",
                               "SsoUtils: Received port string: '8080'.\n",
                               "SsoUtils: Proxy host '127.0.0.1' port '8080' is valid.\n"}));
}

struct Row {
    char const *text;
    std::vector<std::string> ending;
};

TEST_F(ValidationTest, RefusedTexts) {
    std::vector<Row> const rows = {
        {"", {"SsoUtils: ERROR! Proxy hostname is empty.\n"}},
        {"localhost", {"SsoUtils: ERROR! Invalid colons number in hostname.\n"}},
        {"a:b:1", {"SsoUtils: ERROR! Invalid colons number in hostname.\n"}},
        {"::1:80", {"SsoUtils: ERROR! Invalid colons number in hostname.\n"}},
        {"user:pw@host:80", {"SsoUtils: ERROR! Invalid colons number in hostname.\n"}},
        {":8080", {"SsoUtils: ERROR! Hostname portion is empty.\n"}},
        {"localhost:", {"SsoUtils: ERROR! Port portion is empty.\n"}},
        {" localhost:80", {"SsoUtils: ERROR! Hostname starts or ends with space.\n"}},
        {"localhost :80", {"SsoUtils: ERROR! Hostname starts or ends with space.\n"}},
        {"127.0.0.1:123456",
         {"SsoUtils: ERROR! Port string length is invalid.\n",
          "SsoUtils: ERROR! Port is invalid.\n"}},
        {"127.0.0.1:80a",
         {"SsoUtils: ERROR! Port string in not a number.\n",
          "SsoUtils: ERROR! Port is invalid.\n"}},
        {"127.0.0.1:3128/",
         {"SsoUtils: ERROR! Port string in not a number.\n",
          "SsoUtils: ERROR! Port is invalid.\n"}},
        {"127.0.0.1:99999",
         {"SsoUtils: Received port string: '99999'.\n", "SsoUtils: ERROR! Port is invalid.\n"}},
        {"127.0.0.1:0",
         {"SsoUtils: Received port string: '0'.\n", "SsoUtils: ERROR! Port is invalid.\n"}},
    };
    for (auto const &row : rows) {
        log.clear();
        EXPECT_EQ(validateProxy(row.text), -1) << row.text;
        auto lines = log.lines();
        ASSERT_GE(lines.size(), row.ending.size()) << row.text;
        for (size_t i = 0; i < row.ending.size(); ++i) {
            EXPECT_EQ(lines[lines.size() - row.ending.size() + i], row.ending[i]) << row.text;
        }
    }
    log.clear();
    EXPECT_EQ(validateProxy(nullptr), -1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoUtils: Validating proxy hostname: 'nil'.\n",
                                        "SsoUtils: ERROR! Proxy hostname is empty.\n"}));
}

// A blank is no character of a host name: the resolver refuses it without asking a name server.
TEST_F(ValidationTest, BlankInsideTheHostGoesOnToTheLookup) {
    EXPECT_EQ(validateProxy("local host:80"), -1);
    EXPECT_TRUE(
        log.hasInOrder({"SsoUtils: Received hostname string: 'local host'Trying forward "
                        "DNS lookup for IPv4.\n",
                        "SsoUtils: ERROR! Hostname is unresolvable.\n"}));
    EXPECT_EQ(log.lines().back(), "SsoUtils: ERROR! Hostname is unresolvable.\n");
}

TEST_F(ValidationTest, DebianBundle) {
    filesPresent({"/etc/debian_version", "/etc/ssl/certs/ca-certificates.crt"});
    EXPECT_EQ(validateCaFile(), 0);
    EXPECT_EQ(getCaFile(), "/etc/ssl/certs/ca-certificates.crt");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoUtils: Validating CA file.\n", "SsoUtils: Detected Ubuntu/Debian CA file.\n",
                  "SsoUtils: Searching for CA file path.\n",
                  "SsoUtils: CA file path: '/etc/ssl/certs/ca-certificates.crt'.\n"}));
}

TEST_F(ValidationTest, DebianMarkerWithoutBundleFallsToRedHat) {
    filesPresent(
        {"/etc/debian_version", "/etc/redhat-release", "/etc/pki/tls/certs/ca-bundle.crt"});
    EXPECT_EQ(validateCaFile(), 0);
    EXPECT_EQ(getCaFile(), "/etc/pki/tls/certs/ca-bundle.crt");
    EXPECT_TRUE(log.has("SsoUtils: Detected Redhat/CentOS CA file.\n"));
    EXPECT_TRUE(log.has("SsoUtils: CA file path: '/etc/pki/tls/certs/ca-bundle.crt'.\n"));
}

TEST_F(ValidationTest, NoMarkerNoBundle) {
    filesPresent({"/etc/ssl/certs/ca-certificates.crt"});
    EXPECT_EQ(validateCaFile(), -1);
    EXPECT_EQ(getCaFile(), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoUtils: Validating CA file.\n",
                                        "SsoUtils: ERROR! Can't detect CA file.\n",
                                        "SsoUtils: Searching for CA file path.\n",
                                        "SsoUtils: ERROR! Can't detect CA file path.\n"}));
}

}  // namespace
