// qxss-check on files the library refuses: it reports exactly the statements the library logs.
#include "tests/tools/ToolRun.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

TEST_F(CheckToolTest, EveryRefusedFileWithTheLibrarysOwnStatements) {
    Json::Value good = entry("Corp", "keycloak", "https://idp.example/realms/corp");
    auto changed = [&](std::function<void(Json::Value &)> const &change) {
        Json::Value value = good;
        change(value);
        Json::Value root(Json::arrayValue);
        root.append(value);
        return compact(root);
    };
    struct Row {
        std::string file;
        std::string expected;  // one statement that must be among the problems
    };
    std::vector<Row> rows = {
        {"{not json",
         "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed."},
        {"", "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed."},
        {"[]", "SsoServer: ERROR! Can't load configure. JSON object is empty."},
        {"null", "SsoServer: ERROR! Can't load configure. JSON object is empty."},
        {"5", "SsoServer: ERROR! Can't load configure. JSON object type is. invalid."},
        {"[1]", "SsoServer: ERROR! Can't load configure. Config with ID: 0 is invalid."},
        {changed([](Json::Value &v) { v.removeMember("name"); }),
         "SsoServer: ERROR! Field 'name' not set in config."},
        {changed([](Json::Value &v) { v["desc"] = Json::Value(); }),
         "SsoServer: ERROR! Field 'desc' has not string value in config."},
        {changed([](Json::Value &v) { v.removeMember("config"); }),
         "SsoServer: ERROR! Field 'config' not set in config."},
        {changed([](Json::Value &v) { v["config"].removeMember("client_secret"); }),
         "SsoServer: ERROR! Field 'client_secret' not set in config."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"] = "https://a/cb"; }),
         "SsoServer: ERROR! Field 'redirect_uris' is not an array type."},
        {changed([](Json::Value &v) { v["type"] = "oauth"; }),
         "SsoServer: ERROR! Field 'type' has wrong value."},
        {changed([](Json::Value &v) { v["provider"] = "Google"; }),
         "SsoServer: ERROR! Field 'provider' has wrong value."},
        {changed([](Json::Value &v) { v["config"]["idp_domain"] = "HTTPS://idp.example"; }),
         "SsoServer: ERROR! Field 'idp_domain' has wrong value. It has to start with 'http://' "
         "or 'https://'."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"] = Json::arrayValue; }),
         "SsoServer: ERROR! Field 'redirect_uris' is empty."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"][0] = 7; }),
         "SsoServer: ERROR! Element type is not a string."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"][0] = "ftp://a/cb"; }),
         "SsoServer: ERROR! Element has wrong value. It has to start with 'http://' or "
         "'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_user_type"] = "Local"; }),
         "SsoServer: ERROR! Field 'qx_user_type' has wrong value. It has to be 'local' or "
         "'domain'."},
        {changed([](Json::Value &v) { v["config"]["userinfo_uri"] = 1; }),
         "SsoServer: ERROR! Field 'userinfo_uri' value is not string."},
        {changed([](Json::Value &v) { v["config"]["userinfo_uri"] = "idp.example/me"; }),
         "SsoServer: ERROR! Field 'userinfo_uri' has wrong value. It has to start with "
         "'http://' or 'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_user_name"] = true; }),
         "SsoServer: ERROR! Field 'qx_user_name' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_prompt_type"] = 0; }),
         "SsoServer: ERROR! Field 'qx_prompt_type' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh"] = "yes"; }),
         "SsoServer: ERROR! Field 'qx_refresh' value is not bool."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh_lifetime"] = 1.5; }),
         "SsoServer: ERROR! Field 'qx_refresh_lifetime' type is not integer."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh_lifetime"] = -1; }),
         "SsoServer: ERROR! Field 'qx_refresh_lifetime' value is negative or too big."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = 3128; }),
         "SsoServer: ERROR! Field 'qx_proxy' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = "socks5://10.0.0.1:1080"; }),
         "SsoServer: ERROR! Field 'qx_proxy' has wrong value. It has to start with 'http://' or "
         "'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = "http://10.0.0.1:3128/"; }),
         "SsoServer: ERROR! Proxy validation failed."},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(row.file);
        std::vector<std::string> expected = libraryProblems(row.file);
        ASSERT_FALSE(expected.empty());
        EXPECT_NE(std::find(expected.begin(), expected.end(), row.expected), expected.end());

        std::string file = write("refused.cfg", row.file);
        ToolRun json = runCheck({"--offline", "--json", file});
        EXPECT_EQ(json.status, 1) << json.out << json.err;
        Json::Value report = parsed(json.out);
        EXPECT_FALSE(report["loads"].asBool());
        EXPECT_EQ(problemLines(report["problems"]), expected);
        EXPECT_EQ(report["providers"].size(), 0u);

        ToolRun text = runCheck({file});
        EXPECT_EQ(text.status, 1);
        for (std::string const &line : expected) {
            if (line.find('\n') == std::string::npos) {
                EXPECT_NE(text.out.find("  " + line + "\n"), std::string::npos) << text.out;
            }
        }
        EXPECT_NE(text.out.find("Result: The library would refuse this file"), std::string::npos);
    }
}

}  // namespace
