#pragma once

#include <string>

// Makes this machine look like a server or a node to the library, without touching /usr:
// "/usr/QX/etc" is reported missing (through the platform's file fake) and the build's second
// configuration directory is used instead.
class TestMachine {
public:
    // The second candidate directory of this build (created if missing).
    static std::string configDir();
    // Path of the configuration file in it.
    static std::string configFile();
    // No configuration file: the library decides "node".
    static void node();
    // The configuration file holds `text`: the library decides "server".
    static void server(std::string const &text);
    // Removes the directory itself, so that no candidate exists.
    static void noConfigDir();
    // Restores the system's answers (clears every platform fake).
    static void reset();
};
