// qxss-check's command line: which file it reads, usage errors, help, the verbose log.
#include "tests/tools/ToolRun.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

TEST_F(CheckToolTest, ADirectoryStandsForItsSsoCfg) {
    write("sso.cfg", {entry("Corp", "keycloak", "https://idp.example")});
    ToolRun run = runCheck({"--offline", dir});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Configuration file: " + dir + "/sso.cfg\n"), std::string::npos);
}

TEST_F(CheckToolTest, MissingFile) {
    ToolRun run = runCheck({dir + "/absent.cfg"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("  qxss-check: " + dir + "/absent.cfg: No such file or directory\n"),
              std::string::npos)
        << run.out;
    ToolRun json = runCheck({"--json", dir + "/absent.cfg"});
    EXPECT_EQ(json.status, 1);
    EXPECT_FALSE(parsed(json.out)["loads"].asBool());
}

TEST_F(CheckToolTest, NoArgumentsChecksTheProductionFile) {
    ToolRun run = runCheck({"--offline"});
    EXPECT_NE(run.out.find("Configuration file: /usr/QX/etc/sso.cfg\n"), std::string::npos)
        << run.out;
    struct stat info;
    if (stat("/usr/QX/etc/sso.cfg", &info) != 0) {
        EXPECT_EQ(run.status, 1);
    } else {
        EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status;
    }
}

TEST_F(CheckToolTest, UsageErrorsAndHelp) {
    ToolRun unknown = runCheck({"--frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "qxss-check: unknown option '--frobnicate'\nTry 'qxss-check --help'.\n");
    EXPECT_EQ(runCheck({"a.cfg", "b.cfg"}).status, 2);
    ToolRun help = runCheck({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: qxss-check [--offline] [--json] [--verbose] [FILE]\n", 0), 0u);
    EXPECT_NE(help.out.find("Exit status:"), std::string::npos);
    ToolRun version = runCheck({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("qxss-check ", 0), 0u);
}

TEST_F(CheckToolTest, VerboseShowsTheWholeLogOnStandardError) {
    std::string file = write("v.cfg", {entry("Corp", "keycloak", "https://idp.example")});
    ToolRun run = runCheck({"--offline", "--verbose", file});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.err.find("SsoServer: Loading configuration file.\n"), std::string::npos);
    EXPECT_NE(run.err.find("SsoServer: Added config with ID: 0\n"), std::string::npos);
    ToolRun quiet = runCheck({"--offline", file});
    EXPECT_EQ(quiet.err, "");
}

TEST_F(CheckToolTest, UsageErrorsOfTheWholeLine) {
    struct Row {
        std::vector<std::string> arguments;
        std::string error;
    };
    std::string file = write("u.cfg", {entry("Corp", "keycloak", "https://idp.example")});
    std::vector<Row> const rows = {
        {{file, file}, "one configuration file at a time"},
        {{""}, "the file name is empty"},
        {{"--login", "0", "--offline", file}, "--offline does not go with --login"},
        {{"--login", "0", "--json", file}, "--json does not go with --login"},
        {{"--show-secrets", file}, "--show-secrets goes with --login only"},
        {{"--timeout", "5", file}, "--timeout goes with --login only"},
        {{"--road", "x", file}, "--road takes 'flow' or 'blocking', not 'x'"},
    };
    for (Row const &row : rows) {
        ToolRun run = runCheck(row.arguments);
        EXPECT_EQ(run.status, 2) << row.error;
        EXPECT_EQ(run.out, "") << row.error;
        EXPECT_EQ(run.err, "qxss-check: " + row.error + "\nTry 'qxss-check --help'.\n");
    }
}

TEST_F(CheckToolTest, OfflineVerdictCountsTheProvidersAndSaysDiscoveryWasNotTried) {
    std::string file = write("o.cfg", {entry("Corp", "keycloak", "https://idp.example"),
                                       entry("Other", "okta", "https://okta.example")});
    ToolRun run = runCheck({"--offline", file});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("\nResult: The file passes validation (2 OAuth provider(s)); discovery "
                           "was not tried (--offline).\n"),
              std::string::npos)
        << run.out;
}

}  // namespace
