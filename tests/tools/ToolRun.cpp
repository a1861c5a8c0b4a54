// Running qxss-check for the tool tests: the program with its pipes, and readers of its report.
#include "tests/tools/ToolRun.h"

#include "server/SsoServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"

#include <json/reader.h>
#include <json/writer.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>

#ifndef QXSS_CHECK_TOOL
#error "QXSS_CHECK_TOOL must name the qxss-check binary"
#endif

namespace {

// This side of a running qxss-check: its process and the ends of its three pipes (-1 once
// closed).
struct ToolProcess {
    pid_t pid = -1;
    int input = -1;
    int out = -1;
    int err = -1;
};

// Starts qxss-check with `arguments` on three new pipes. False, with nothing started, when the
// pipes cannot be made; a failed fork leaves pid -1 and pipes that end at once.
bool startTool(std::vector<std::string> const &arguments, ToolProcess &tool) {
    std::vector<std::string> argv = {QXSS_CHECK_TOOL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char *> raw;
    for (auto const &argument : argv) {
        raw.push_back(const_cast<char *>(argument.c_str()));
    }
    raw.push_back(nullptr);
    int out[2];
    int err[2];
    int in[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) {
        return false;
    }
    tool.pid = fork();
    if (tool.pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(raw[0], raw.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    tool.input = in[1];
    tool.out = out[0];
    tool.err = err[0];
    return true;
}

// Reads the tool's output and errors into `run` until both end or two minutes pass, and types
// what `answer` gives once it gives something (no answer: the input is closed at once). True
// when both streams ended; every pipe is closed on return.
bool collect(ToolProcess &tool, ToolAnswer const &answer, ToolRun &run) {
    if (!answer) {
        close(tool.input);
        tool.input = -1;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    pollfd fds[2] = {{tool.out, POLLIN, 0}, {tool.err, POLLIN, 0}};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (poll(fds, 2, 1000) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
            if (got <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(got));
            }
        }
        std::string typed;
        if (tool.input >= 0 && answer(run.out, typed)) {
            // A program that already ended leaves EPIPE here, not a signal.
            signal(SIGPIPE, SIG_IGN);
            ssize_t written = ::write(tool.input, typed.data(), typed.size());
            (void)written;
            close(tool.input);
            tool.input = -1;
        }
    }
    if (tool.input >= 0) {
        close(tool.input);
    }
    for (auto &fd : fds) {
        if (fd.fd >= 0) {
            close(fd.fd);
        }
    }
    return open == 0;
}

// Waits for the tool to end, killing it first when it outlived the deadline, and keeps its exit
// status (-1 when a signal ended it).
void reap(ToolProcess const &tool, bool ended, ToolRun &run) {
    if (tool.pid > 0) {
        if (!ended) {
            kill(tool.pid, SIGKILL);
        }
        int status = 0;
        waitpid(tool.pid, &status, 0);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
}

}  // namespace

ToolRun runCheck(std::vector<std::string> const &arguments, ToolAnswer const &answer) {
    ToolRun run;
    ToolProcess tool;
    if (!startTool(arguments, tool)) {
        return run;
    }
    bool ended = collect(tool, answer, run);
    reap(tool, ended, run);
    return run;
}

Json::Value parsed(std::string const &text) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        ADD_FAILURE() << "not JSON: " << errors << "\n" << text;
    }
    return root;
}

std::string compact(Json::Value const &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value entry(std::string const &name, std::string const &provider,
                  std::string const &idpDomain) {
    Json::Value value;
    value["name"] = name;
    value["desc"] = name + " login";
    value["type"] = "OAuth";
    value["provider"] = provider;
    Json::Value &config = value["config"];
    config["idp_domain"] = idpDomain;
    config["client_id"] = LocalProvider::clientId;
    config["client_secret"] = LocalProvider::clientSecret;
    config["redirect_uris"].append(LocalProvider::redirectUri);
    config["qx_user_type"] = "local";
    return value;
}

// A loopback port where nothing listens (just closed by us).
int closedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

std::vector<std::string> problemLines(Json::Value const &problems) {
    std::vector<std::string> lines;
    for (auto const &problem : problems) {
        lines.push_back(problem["line"].asString());
    }
    return lines;
}

std::vector<std::string> linesStartingWith(std::string const &text, std::string const &prefix) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line =
            text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (line.compare(0, prefix.size(), prefix) == 0) {
            lines.push_back(line);
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return lines;
}

void CheckToolTest::SetUp() {
    char pattern[] = "/tmp/qxss-check-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
}

void CheckToolTest::TearDown() {
    for (auto const &file : files) {
        unlink(file.c_str());
    }
    rmdir(dir.c_str());
}

std::string CheckToolTest::write(std::string const &name, std::string const &text) {
    std::string path = dir + "/" + name;
    std::ofstream(path) << text;
    chmod(path.c_str(), 0600);
    files.push_back(path);
    return path;
}

std::string CheckToolTest::write(std::string const &name, std::vector<Json::Value> const &entries) {
    Json::Value root(Json::arrayValue);
    for (auto const &value : entries) {
        root.append(value);
    }
    return write(name, compact(root));
}

std::vector<std::string> CheckToolTest::libraryProblems(std::string const &text) {
    std::string path = write("sso.cfg", text);
    SsoServer server;
    server.configPath = dir;
    server.machineType = 0;
    LogCapture log;
    EXPECT_FALSE(server.loadConfigsJson()) << text;
    std::vector<std::string> problems;
    for (std::string line : log.lines()) {
        if (line.find(": ERROR! ") != std::string::npos ||
            line.find(": WARNING! ") != std::string::npos) {
            line.pop_back();
            problems.push_back(line);
        }
    }
    unlink(path.c_str());
    return problems;
}
