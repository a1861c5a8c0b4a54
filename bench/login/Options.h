#pragma once

#include <string>

// The command line of bench_login.
struct Options {
    bool brief = false;
    std::string out = ".";
    int logins = 300;
    int inflight = 500;
    int memory = 10000;
    int burst = 1500;
    std::string clients = "library,library-revoke,bare,peer";
    std::string delays = "0,20";
    std::string transports = "http,h1,h2";
};

// Whether `word` is one of the comma-separated `list`.
bool listed(std::string const &list, std::string const &word);
Options parse(int argc, char **argv);
