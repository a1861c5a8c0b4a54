#include "tests/harness/LogCapture.h"

#include "worker/libqxss.h"

#include <chrono>
#include <thread>

LogCapture::LogCapture() {
    SsoSetLogCallback(&LogCapture::collect, this);
}

LogCapture::~LogCapture() {
    SsoSetLogCallback(nullptr, nullptr);
}

void LogCapture::collect(char const *text, void *context) {
    auto *self = static_cast<LogCapture *>(context);
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->lines_.emplace_back(text);
    }
    if (self->onLine) {
        self->onLine(text);
    }
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::string LogCapture::text() const {
    std::string all;
    for (auto const &line : lines()) {
        all += line;
    }
    return all;
}

bool LogCapture::has(std::string const &line) const {
    return count(line) != 0;
}

size_t LogCapture::count(std::string const &line) const {
    size_t found = 0;
    for (auto const &each : lines()) {
        found += each == line ? 1 : 0;
    }
    return found;
}

bool LogCapture::hasInOrder(std::vector<std::string> const &sequence) const {
    size_t next = 0;
    for (auto const &each : lines()) {
        if (next < sequence.size() && each == sequence[next]) {
            ++next;
        }
    }
    return next == sequence.size();
}

long LogCapture::indexOf(std::string const &line, size_t from) const {
    auto all = lines();
    for (size_t i = from; i < all.size(); ++i) {
        if (all[i] == line) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

bool LogCapture::contains(std::string const &piece) const {
    for (auto const &each : lines()) {
        if (each.find(piece) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> LogCapture::startingWith(std::string const &prefix) const {
    std::vector<std::string> found;
    for (auto const &each : lines()) {
        if (each.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(each);
        }
    }
    return found;
}

bool LogCapture::hasFramed(std::string const &prefix, std::string const &suffix) const {
    for (auto const &each : lines()) {
        if (each.size() >= prefix.size() + suffix.size() &&
            each.compare(0, prefix.size(), prefix) == 0 &&
            each.compare(each.size() - suffix.size(), suffix.size(), suffix) == 0) {
            return true;
        }
    }
    return false;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

bool LogCapture::waitFor(std::string const &line, size_t times, int ms) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (count(line) < times) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool LogCapture::waitForPiece(std::string const &piece, int ms) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!contains(piece)) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool LogCapture::waitForCount(std::function<bool(std::string const &)> const &matches, size_t times,
                              int ms) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        size_t found = 0;
        for (auto const &each : lines()) {
            found += matches(each) ? 1 : 0;
        }
        if (found >= times) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}
