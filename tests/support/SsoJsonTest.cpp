// Reading and writing JSON in the system's exact forms.
#include "platform/PlatformFakes.h"
#include "support/SsoJson.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TempDir.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>

namespace {

TEST(ReadStringTest, ParsesLenientlyAndLogsTheText) {
    LogCapture log;
    Json::Value value;
    EXPECT_TRUE(readString("// providers\n{\"a\":1}", value));
    EXPECT_EQ(value["a"].asInt(), 1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoJson: Received '// providers\n{\"a\":1}' for string to JSON "
                               "parsing.\n"}));
    EXPECT_TRUE(readString(std::string("5"), value));
    EXPECT_TRUE(value.isInt());
}

TEST(ReadStringTest, EmptyAndNullTexts) {
    LogCapture log;
    Json::Value value;
    EXPECT_FALSE(readString(static_cast<char const *>(nullptr), value));
    EXPECT_FALSE(readString(std::string(), value));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoJson: Received 'nil' for string to JSON parsing.\n",
                                        "SsoJson: ERROR! Source string is empty.\n",
                                        "SsoJson: Received '' for string to JSON parsing.\n",
                                        "SsoJson: ERROR! Source string is empty.\n"}));
}

TEST(ReadStringTest, BrokenTextLogsTheReadersMessage) {
    LogCapture log;
    Json::Value value;
    EXPECT_FALSE(readString("{\"a\":", value));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "SsoJson: Received '{\"a\":' for string to JSON parsing.\n",
            "SsoJson: ERROR! Parsing string to JSON object failed.\n",
            "SsoJson: ERROR! Internal JSON error message: * Line 1, Column 6\n  Syntax error: "
            "value, object or array expected.\n.\n"}));
}

TEST(ReadFileTest, EmptyFile) {
    TempDir dir("json");
    std::string path = dir.file("empty.json", "");
    LogCapture log;
    Json::Value value;
    EXPECT_FALSE(readFile(path.c_str(), value));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoJson: Received path: '" + path + "' for file to JSON parsing.\n",
                               "SsoJson: Read 0 bytes from '" + path + "'.\n",
                               "SsoJson: File: '" + path + "' was read successful.\n",
                               "SsoJson: Received '' for string to JSON parsing.\n",
                               "SsoJson: ERROR! Source string is empty.\n",
                               "SsoJson: ERROR! Parsing file data to JSON failed.\n"}));
}

TEST(ReadFileTest, ExactlyOneBlock) {
    TempDir dir("json");
    std::string text = "[\"" + std::string(4096 - 4, 'x') + "\"]";
    ASSERT_EQ(text.size(), 4096u);
    std::string path = dir.file("block.json", text);
    LogCapture log;
    Json::Value value;
    EXPECT_TRUE(readFile(path.c_str(), value));
    EXPECT_EQ(value[0].asString().size(), 4092u);
    EXPECT_TRUE(log.hasInOrder({"SsoJson: Read 4096 bytes from '" + path + "'.\n",
                                "SsoJson: Read 0 bytes from '" + path + "'.\n"}));
}

TEST(ReadFileTest, MissingPathsAndFiles) {
    LogCapture log;
    Json::Value value;
    EXPECT_FALSE(readFile(nullptr, value));
    EXPECT_FALSE(readFile("", value));
    EXPECT_FALSE(readFile("/no/such/file.json", value));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoJson: Received path: 'nil' for file to JSON parsing.\n",
                               "SsoJson: ERROR! Source file path is empty.\n",
                               "SsoJson: Received path: '' for file to JSON parsing.\n",
                               "SsoJson: ERROR! Source file path is empty.\n",
                               "SsoJson: Received path: '/no/such/file.json' for file to JSON "
                               "parsing.\n",
                               "SsoJson: ERROR! File is unreachable.\n"}));
}

TEST(ReadFileTest, UnopenableFile) {
    // A directory exists but cannot be read as a file.
    TempDir dir("json");
    LogCapture log;
    Json::Value value;
    EXPECT_FALSE(readFile(dir.path.c_str(), value));
    // Opening a directory for reading works on Linux; the first read fails (EISDIR).
    EXPECT_EQ(log.lines().back(), "SsoJson: ERROR! Error occurence during reading the file.\n");
}

TEST(WriteStringTest, CompactSortedForm) {
    Json::Value value;
    value["key"] = "value";
    std::string text;
    EXPECT_TRUE(writeString(value, text));
    EXPECT_EQ(text, "{\"key\":\"value\"}");
    Json::Value sorted;
    sorted["b"] = 1;
    sorted["a"][0] = true;
    EXPECT_TRUE(writeString(sorted, text));
    EXPECT_EQ(text, "{\"a\":[true],\"b\":1}");
}

TEST(WriteStringTest, EmptyAndScalarValuesFail) {
    LogCapture log;
    std::string text = "unchanged";
    EXPECT_FALSE(writeString(Json::Value(), text));
    EXPECT_FALSE(writeString(Json::Value(Json::objectValue), text));
    EXPECT_FALSE(writeString(Json::Value(5), text));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoJson: ERROR! Source JSON object is empty.\n",
                  "SsoJson: ERROR! Source JSON object is empty.\n",
                  "SsoJson: ERROR! Source JSON object type is not object or array.\n"}));
}

TEST(WriteFileTest, WritesAndReadsBack) {
    TempDir dir("json");
    std::string path = dir.path + "/out.json";
    Json::Value value;
    value["a"] = 1;
    EXPECT_TRUE(writeFile(value, path.c_str()));
    Json::Value back;
    EXPECT_TRUE(readFile(path.c_str(), back));
    EXPECT_EQ(back, value);
    EXPECT_TRUE(
        writeFile(std::vector<Json::Value>{Json::Value(1), Json::Value("x")}, path.c_str()));
    EXPECT_TRUE(readFile(path.c_str(), back));
    Json::Value array(Json::arrayValue);
    array.append(1);
    array.append("x");
    EXPECT_EQ(back, array);
}

TEST(WriteFileTest, MissingDirectoryFailsAtTheOpen) {
    LogCapture log;
    Json::Value value;
    value["a"] = 1;
    EXPECT_FALSE(writeFile(value, "/no/such/dir/out.json"));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoJson: Destination path for JSON serializing: "
                                        "'/no/such/dir/out.json'.\n",
                                        "SsoJson: ERROR! Can't open the file.\n"}));
}

TEST(WriteFileTest, RefusedPathsAndValues) {
    LogCapture log;
    Json::Value value;
    value["a"] = 1;
    EXPECT_FALSE(writeFile(value, ""));
    EXPECT_FALSE(writeFile(Json::Value(), "/tmp/x.json"));
    PlatformFakes::fileExists() = [](char const *) { return -1; };
    EXPECT_FALSE(writeFile(value, "/tmp/denied.json"));
    PlatformFakes::reset();
    EXPECT_FALSE(writeFile(std::vector<Json::Value>{}, "/tmp/x.json"));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "SsoJson: Destination path for JSON serializing: ''.\n",
            "SsoJson: ERROR! Destination path for JSON serializing is empty.\n",
            "SsoJson: Destination path for JSON serializing: '/tmp/x.json'.\n",
            "SsoJson: ERROR! Source JSON object is empty.\n",
            "SsoJson: ERROR! Serializing JSON object to file failed.\n",
            "SsoJson: Destination path for JSON serializing: '/tmp/denied.json'.\n",
            "SsoJson: ERROR! Access denied for given file path: /tmp/denied.json.\n",
            "SsoJson: ERROR! Source array of JSON objects is empty.\n",
            "SsoJson: ERROR! Converting array of JSON objects to single JSON object failed.\n"}));
}

TEST(VectorToJsonTest, NeedsAnArrayTarget) {
    LogCapture log;
    Json::Value object(Json::objectValue);
    EXPECT_FALSE(vectorToJson({Json::Value(1)}, object));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoJson: ERROR! Destination JSON object type is not JSON array.\n"}));
    Json::Value array(Json::arrayValue);
    EXPECT_TRUE(vectorToJson({Json::Value(1), Json::Value(2)}, array));
    EXPECT_EQ(array.size(), 2u);
}

TEST(PrintTest, ObjectArrayAndScalar) {
    LogCapture log;
    Json::Value object;
    object["k"] = "v";
    print(object);
    Json::Value array(Json::arrayValue);
    array.append(1);
    array.append(2);
    array.append(3);
    print(array);
    print(Json::Value(7));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"SsoJson: JSON object: '{\"k\":\"v\"}\n'.\n",
                                                     "SsoJson: JSON 1 object: '[1,2,3]\n'.\n",
                                                     "SsoJson: JSON 2 object: '[1,2,3]\n'.\n",
                                                     "SsoJson: JSON 3 object: '[1,2,3]\n'.\n"}));
}

TEST(HostileInputTest, NothingCrashes) {
    std::string const seeds[] = {
        std::string("{\"a\":\"\xff\xfe\"}"),
        std::string(10000, '['),
        "1e99999",
        "-99999999999999999999999999",
        std::string("{\"a\0b\":1}", 9),
        "{\"a\":1,\"a\":2}",
        "/* unterminated",
        "\"\\ud800\"",
    };
    for (auto const &seed : seeds) {
        Json::Value value;
        std::string text;
        if (readString(seed, value)) {
            writeString(value, text);
            print(value);
        }
    }
}

}  // namespace
