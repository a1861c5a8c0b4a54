#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Turns commands from the channel into engine calls and composes their reply lines, all from
// one table with a row (SsoCommand) per command. Worker thread only.
class SsoCommands {
public:
    // Runs one split command (element 0 is the name) and returns the reply line to write, a new
    // array ending in "\n", or null when the command gets no reply (unknown name, missing or
    // empty arguments, or a login flow that answers later).
    static char *execute(std::vector<std::string> const &command);

    // The failure line of a command whose handling threw, as a new array, or null for a command
    // that has no failure line (unknown name, missing or empty arguments, an id below 1).
    static char *failureReply(std::vector<std::string> const &command);

    // The session element of a command (the one its replies end with), or "" for a command
    // without one.
    static std::string sessionOf(std::vector<std::string> const &command);

    // Writes the reply line of every finished background flow to `ioFd`. A result that it has
    // taken is written, or put back for the next drain when something throws before the write.
    static void drainCompletedFlows(int ioFd);

    // Set once the command being executed has started its background flow, which then answers
    // it; cleared by the channel before each command.
    static bool flowStarted;
};
