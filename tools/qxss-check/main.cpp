// qxss-check: tells an admin whether libqxss would load a configuration file, and why not.
#include "tools/qxss-check/CheckOptions.h"
#include "tools/qxss-check/CheckReportOutput.h"
#include "tools/qxss-check/ConfigCheck.h"
#include "tools/qxss-check/LogCollector.h"
#include "tools/qxss-check/LoginCheck.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#ifndef QXSS_VERSION
#define QXSS_VERSION "unknown"
#endif

namespace {

int run(std::vector<std::string> const &arguments) {
    CheckOptions options = parseCheckOptions(arguments);
    switch (options.action) {
        case CheckOptions::Action::Help:
            std::fputs(checkHelpText(), stdout);
            return 0;
        case CheckOptions::Action::Version:
            std::printf("qxss-check %s\n", QXSS_VERSION);
            return 0;
        case CheckOptions::Action::UsageError:
            std::fprintf(stderr, "qxss-check: %s\nTry 'qxss-check --help'.\n",
                         options.error.c_str());
            return 2;
        case CheckOptions::Action::Check:
        case CheckOptions::Action::Login:
            break;
    }
    LogCollector log(options.verbose);
    if (options.action == CheckOptions::Action::Login) {
        return runLogin(options, log, stdin, stdout);
    }
    CheckReport report = checkConfiguration(options.file, options.offline, log);
    std::string output = options.json ? reportAsJson(report) : reportAsText(report);
    std::fputs(output.c_str(), stdout);
    return report.loads ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (std::exception const &error) {
        std::fprintf(stderr, "qxss-check: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "qxss-check: unexpected failure\n");
    }
    return 1;
}
