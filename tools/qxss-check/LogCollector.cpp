#include "tools/qxss-check/LogCollector.h"

#include "platform/LogSink.h"

#include <cstdio>

LogCollector::LogCollector(bool echo) : echo_(echo) {
    LogSink::setCallback(&LogCollector::collect, this);
}

LogCollector::~LogCollector() {
    LogSink::setCallback(&LogCollector::drop, nullptr);
}

void LogCollector::collect(char const *text, void *context) {
    auto *self = static_cast<LogCollector *>(context);
    if (self->muted_) {
        return;
    }
    self->lines_.emplace_back(text);
    if (self->echo_) {
        std::fputs(text, stderr);
    }
}

void LogCollector::drop(char const *, void *) {}

std::vector<std::string> LogCollector::since(size_t mark) const {
    if (mark >= lines_.size()) {
        return {};
    }
    return std::vector<std::string>(lines_.begin() + static_cast<std::ptrdiff_t>(mark),
                                    lines_.end());
}

std::vector<LoggedProblem> problemsIn(std::vector<std::string> const &statements) {
    std::vector<LoggedProblem> problems;
    for (std::string const &statement : statements) {
        // Every statement starts with its layer and ": "; the severity word follows at once.
        size_t layerEnd = statement.find(": ");
        if (layerEnd == std::string::npos) {
            continue;
        }
        size_t start = layerEnd + 2;
        bool error = statement.compare(start, 7, "ERROR! ") == 0;
        bool warning = statement.compare(start, 9, "WARNING! ") == 0;
        if (!error && !warning) {
            continue;
        }
        std::string line = statement;
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        problems.push_back({error, line});
    }
    return problems;
}
