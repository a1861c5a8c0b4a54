#pragma once

// What the tests of qxss-check share: running the program as an admin runs it (a separate
// process, optionally answering what it prints on its standard input), the entries they write,
// and a fixture with a folder of the test's own.
#include <gtest/gtest.h>
#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

struct ToolRun {
    int status = -1;  // exit status, or -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// Decides what to type: called with the standard output so far; returns true with `input` set
// once it has seen enough. The input is written once and standard input is then closed.
using ToolAnswer = std::function<bool(std::string const &out, std::string &input)>;

// Runs qxss-check with `arguments`; gives up (and kills it) after two minutes. Without
// `answer` its standard input is empty.
ToolRun runCheck(std::vector<std::string> const &arguments, ToolAnswer const &answer = nullptr);

Json::Value parsed(std::string const &text);
std::string compact(Json::Value const &value);

// An OAuth entry for the local provider's registered client, user type "local".
Json::Value entry(std::string const &name, std::string const &provider,
                  std::string const &idpDomain);

// A loopback port where nothing listens (just closed by us).
int closedPort();

// The "line" members of a report's problem list.
std::vector<std::string> problemLines(Json::Value const &problems);

// The lines of a text report that start with `prefix`, in order.
std::vector<std::string> linesStartingWith(std::string const &text, std::string const &prefix);

class CheckToolTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes `text` to `name` in the test's folder (mode 0600) and returns the path.
    std::string write(std::string const &name, std::string const &text);
    std::string write(std::string const &name, std::vector<Json::Value> const &entries);

    // The problems the library logs when it loads `text` as its configuration file, in order
    // and without their line ends.
    std::vector<std::string> libraryProblems(std::string const &text);

    std::string dir;
    std::vector<std::string> files;
};
