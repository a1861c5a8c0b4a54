// The command line of bench_login.

#include "bench/login/Options.h"

#include <cstdlib>

// Whether `word` is one of the comma-separated `list`.
bool listed(std::string const &list, std::string const &word) {
    return ("," + list + ",").find("," + word + ",") != std::string::npos;
}

Options parse(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](int fallback) { return i + 1 < argc ? std::atoi(argv[++i]) : fallback; };
        if (arg == "--short") {
            options.brief = true;
            options.logins = 5;
            options.inflight = 10;
            options.memory = 50;
            options.burst = 20;
        } else if (arg == "--out" && i + 1 < argc) {
            options.out = argv[++i];
        } else if (arg == "--logins") {
            options.logins = value(options.logins);
        } else if (arg == "--inflight") {
            options.inflight = value(options.inflight);
        } else if (arg == "--memory") {
            options.memory = value(options.memory);
        } else if (arg == "--burst") {
            options.burst = value(options.burst);
        } else if (arg == "--transports" && i + 1 < argc) {
            options.transports = argv[++i];
        } else if (arg == "--clients" && i + 1 < argc) {
            options.clients = argv[++i];
        } else if (arg == "--delays" && i + 1 < argc) {
            options.delays = argv[++i];
        }
    }
    return options;
}
