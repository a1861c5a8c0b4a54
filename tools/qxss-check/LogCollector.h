#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Takes over the library's log for the whole run of the checker, so that every problem can be
// shown with the exact statement the library wrote for it and nothing reaches syslog. One per
// process, made first thing in main; single-threaded, like the checker.
class LogCollector {
public:
    // Installs the collector as the log sink. With `echo` every statement is also written to
    // standard error as it comes.
    explicit LogCollector(bool echo);
    // Keeps the sink installed but drops later statements: code that runs at exit (singleton
    // destructors) still logs, and must reach neither syslog nor a freed collector.
    ~LogCollector();
    LogCollector(LogCollector const &) = delete;
    LogCollector &operator=(LogCollector const &) = delete;

    // Number of statements collected so far; a mark for since().
    size_t mark() const { return lines_.size(); }
    // The statements collected after `mark`, each whole, with its own line end.
    std::vector<std::string> since(size_t mark) const;
    // While muted, statements are dropped (the checker's own reading of the file is not part of
    // what the library reports).
    void mute(bool muted) { muted_ = muted; }

private:
    static void collect(char const *text, void *context);
    static void drop(char const *text, void *context);

    bool echo_ = false;
    bool muted_ = false;
    std::vector<std::string> lines_;
};

// A problem the library reported: a statement with "ERROR! " or "WARNING! " right after its
// layer prefix ("SsoServer: ERROR! ...").
struct LoggedProblem {
    bool error = false;  // false: a warning
    std::string line;    // the statement without its final line end
};

// The problems among `statements`, in order.
std::vector<LoggedProblem> problemsIn(std::vector<std::string> const &statements);
