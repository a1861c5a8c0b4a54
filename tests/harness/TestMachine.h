#pragma once

#include <string>

// Makes this process look like a server or a node to the library, without touching /usr and
// without sharing anything with other test programs: "/usr/QX/etc" is reported missing (through
// the platform's file fake) and the second candidate directory is a temporary directory of this
// process (through the platform's directory fake), never the build's.
//
// The test main (TestMain.cpp) gives every test a fresh, empty directory and the default role,
// a node, before it starts (beginTest), and removes the directory and clears every platform
// fake after it ends (endTest). So no test sees what another wrote, and none leaves the process
// in another role for the next one. Outside GoogleTest (benchmarks) the first use makes the
// directory, and it is removed when the program ends. Test thread only, while no worker runs.
class TestMachine {
public:
    // The current configuration directory (created if missing). Never empty: when no
    // temporary directory can be made the program stops with a message.
    static std::string configDir();
    // Path of the configuration file in it.
    static std::string configFile();
    // No configuration file: the library decides "node".
    static void node();
    // The configuration file holds `text`: the library decides "server".
    static void server(std::string const &text);
    // Removes the directory itself, so that no candidate exists.
    static void noConfigDir();
    // Back to the default role: a node in the current directory, with every other platform
    // fake (random source, clock, file answers) cleared.
    static void reset();

    // A fresh, empty directory and the default role. The previous directory is removed.
    static void beginTest();
    // Removes the current directory and clears every platform fake.
    static void endTest();
};
