#pragma once

#include <cstddef>
#include <string>
#include <vector>

// One row of the command table (SsoCommands.cpp): what a command needs on its line, which
// element its replies repeat, the words of its replies and what handles it. The execution of
// a command, its failure line, the blocking fallback of a login and the drain of finished
// flows all read the same row, so a command is answered in its own words on every road.
struct SsoCommand {
    // Handles a command whose line passed the row's checks: returns its reply line, a new
    // array ending in "\n", or null when it gets no reply now (none at all, or its background
    // flow answers later).
    using Handler = char *(*)(SsoCommand const &row, std::vector<std::string> const &command);

    // Element 0 of the line, compared exactly.
    char const *name;
    // How many elements the line must hold, the name included; each argument among them must
    // be non-empty, or the command gets no reply at all.
    size_t elements;
    // The element that its replies repeat, the user session; 0 for a command without one.
    size_t sessionElement;
    // The words that lead the success and the failure line.
    char const *okWord;
    char const *failureWord;
    // Whether the worker adds "|<session>" to a success line (the engine's own text of the
    // other commands already holds what follows the word).
    bool okEndsWithSession;
    Handler handler;
    // Whether "Sso: Command arguments: " is logged before the handler runs.
    bool logsArguments;
    // Whether element 1 is a user login option id, which must read as 0 or at least 1.
    bool readsOptionId;
    // For a login: the type of the background flow that answers it (0 for the others), and
    // its names in the log, "Async <flowName> flow" and "Sync <loginName> login".
    int flowType;
    char const *flowName;
    char const *loginName;
};
