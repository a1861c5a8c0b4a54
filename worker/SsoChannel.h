#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

struct SsoWorkerInfo;

// The host's side of the worker: cuts what was read from the channel into messages, splits
// them into elements and runs them, writing each reply line to the host's descriptor. Worker
// thread only (and fuzzing, which feeds it bytes directly).
class SsoChannel {
public:
    // Frames, splits and executes one chunk read from the channel. `lineCarry` holds the
    // unterminated tail between calls; it belongs to the caller and starts empty.
    static void receive(char const *chunk, size_t length, std::string &lineCarry,
                        SsoWorkerInfo const &info);

    // Appends the complete messages of `chunk` to `commandLines`. An unterminated tail
    // replaces `lineCarry` (see the definition for why it does not extend it).
    static void frame(char const *chunk, size_t length, std::string &lineCarry,
                      std::vector<std::string> &commandLines);

    // The "|"-separated elements of `message`; never empty (an empty message is one empty
    // element).
    static std::vector<std::string> split(std::string const &message);

    // Runs one split command and writes its reply line, if it has one, to `info.ioFd`. Never
    // throws: a throw is logged and the command's failure line written where it has one.
    static void execute(std::vector<std::string> const &command, SsoWorkerInfo const &info);

    // Writes one reply line to `ioFd`, the only place where reply lines are written: the
    // command step's and the drain's. `reply` is a new array, freed here; `announce` logs it
    // just before the write. A reply that holds a line break anywhere but at its end is neither
    // announced nor written: the line "Reply for session '<session>' holds a line break" is
    // logged, and the line of `failure` (a new array or null) goes out instead, announced as
    // every reply is. Nothing that can throw follows the write.
    static void writeReply(int ioFd, char *reply, std::string const &session,
                           std::function<char *()> const &failure,
                           std::function<void(char const *reply)> const &announce);

    // Lets a test make the worker's step `name` (a command's name, or a step of the turn)
    // throw; nothing happens while no test hook is set.
    static void enterStep(char const *name);

    // What the exception being handled says, for the log. Call inside a catch block only.
    static std::string currentError();
};
