#pragma once

#include <string>
#include <vector>

// A helper program run by the tests. It is killed when the thread that started it ends (the
// kernel's parent-death signal), so start children from the test program's main thread; and its
// standard input is a pipe that this object holds, so a child that watches for end of input ends
// with the program too. The destructor terminates the child and reaps it.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(ChildProcess const &) = delete;
    ChildProcess &operator=(ChildProcess const &) = delete;

    // Starts `argv[0]` (searched in PATH) in `directory` (empty: current). False on failure.
    bool start(std::vector<std::string> const &argv, std::string const &directory = "");
    // Reads the child's standard output until a line starting with `prefix`; returns that line
    // without the prefix, or empty after `ms` milliseconds or at end of output.
    std::string waitForLine(std::string const &prefix, int ms);
    // Writes all of `text` to the child's standard input; false once it cannot (the child
    // ended, or the input was closed).
    bool send(std::string const &text);
    // Closes the child's standard input: a child that reads it to its end goes on from there.
    void closeInput();
    // True once the child has ended (it is then reaped), or when none was started.
    bool exited();
    // Waits up to `ms` milliseconds for the child to end and reaps it; its wait status (as
    // waitpid reports it), or -1 when it still runs at the deadline or none was started.
    int waitForExit(int ms);
    // Stops the child (SIGTERM, then SIGKILL) and reaps it.
    void stop();
    bool running() const { return pid > 0; }

    int pid = -1;

private:
    int stdinFd_ = -1;
    int stdoutFd_ = -1;
    std::string buffered_;
};

// Runs a program and returns the first line of its output (empty on failure or after a minute).
std::string runProgram(std::vector<std::string> const &argv, std::string const &directory = "");
