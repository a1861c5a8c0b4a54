#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

// Collects every log statement while it lives (through the host log callback), so that tests
// can assert exact texts. One capture at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(LogCapture const &) = delete;
    LogCapture &operator=(LogCapture const &) = delete;

    // Copy of the statements so far, in order.
    std::vector<std::string> lines() const;
    // All statements concatenated.
    std::string text() const;
    // True when a statement equals `line` exactly.
    bool has(std::string const &line) const;
    // Number of statements equal to `line`.
    size_t count(std::string const &line) const;
    // True when the statements `sequence` appear in this order (not necessarily adjacent).
    bool hasInOrder(std::vector<std::string> const &sequence) const;
    // Index of the first statement equal to `line` at or after `from`, or -1.
    long indexOf(std::string const &line, size_t from = 0) const;
    // True when some statement contains `piece`.
    bool contains(std::string const &piece) const;
    // The statements that begin with `prefix`, in order.
    std::vector<std::string> startingWith(std::string const &prefix) const;
    // True when one statement begins with `prefix` and ends with `suffix`: for statements that
    // carry a text the library does not make (a libcurl message) between two known ends.
    bool hasFramed(std::string const &prefix, std::string const &suffix) const;
    void clear();
    // Waits up to `ms` milliseconds until at least `times` statements equal `line`.
    bool waitFor(std::string const &line, size_t times = 1, int ms = 5000) const;
    // Waits up to `ms` milliseconds until some statement contains `piece`.
    bool waitForPiece(std::string const &piece, int ms = 5000) const;
    // Waits up to `ms` milliseconds until at least `times` statements satisfy `matches`.
    bool waitForCount(std::function<bool(std::string const &)> const &matches, size_t times,
                      int ms = 5000) const;

    // Called with each statement, on the logging thread, after it was stored; may block.
    std::function<void(std::string const &)> onLine;

private:
    static void collect(char const *text, void *context);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};
