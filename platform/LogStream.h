#pragma once

#include <string>
#include <type_traits>

// One log statement under construction. Pieces are appended with <<; the whole statement is
// handed to the log sink when the stream is destroyed, so statements of two threads never
// interleave. A stream lives for one statement on one thread.
class LogStream {
public:
    LogStream() { text.reserve(128); }
    ~LogStream();
    LogStream(LogStream &&other) noexcept : text(std::move(other.text)) { other.moved = true; }
    LogStream(LogStream const &) = delete;
    LogStream &operator=(LogStream const &) = delete;
    LogStream &operator=(LogStream &&) = delete;

    // A null text prints as "nil".
    LogStream &operator<<(char const *piece) {
        text += piece ? piece : "nil";
        return *this;
    }
    LogStream &operator<<(char *piece) { return *this << static_cast<char const *>(piece); }
    LogStream &operator<<(std::string const &piece) {
        text += piece;
        return *this;
    }
    LogStream &operator<<(char piece) {
        text += piece;
        return *this;
    }
    template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number> &&
                                                           !std::is_same_v<Number, char> &&
                                                           !std::is_same_v<Number, bool>>>
    LogStream &operator<<(Number number) {
        text += std::to_string(number);
        return *this;
    }
    LogStream &operator<<(bool value) {
        text += value ? "1" : "0";
        return *this;
    }

    std::string text;
    bool moved = false;
};
