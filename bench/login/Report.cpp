// The table, CSV and plot of bench_login.

#include "bench/login/Report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

void printTable(std::vector<Series> const &all) {
    std::printf("\n%-11s %-5s %-15s %6s %6s %5s %9s %9s %9s %10s %10s\n", "phase", "over",
                "client", "delay", "logins", "fail", "p50 ms", "p99 ms", "max ms", "logins/s",
                "CPU us/login");
    for (auto const &s : all) {
        std::printf("%-11s %-5s %-15s %6d %6zu %5d %9.2f %9.2f %9.2f %10.1f %10.0f\n",
                    s.phase.c_str(), s.transport.c_str(), s.client.c_str(), s.delay, s.ms.size(),
                    s.failed, percentile(s.ms, 0.5), percentile(s.ms, 0.99),
                    percentile(s.ms, 1.0),
                    s.seconds > 0 ? static_cast<double>(s.ms.size()) / s.seconds : 0.0,
                    s.ms.empty() ? 0.0 : s.cpuMs * 1000 / static_cast<double>(s.ms.size()));
    }
}

bool writeCsv(std::string const &path, std::vector<Series> const &all) {
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(file, "phase,transport,client,delay_ms,index,latency_ms\n");
    for (auto const &s : all) {
        for (size_t i = 0; i < s.ms.size(); ++i) {
            std::fprintf(file, "%s,%s,%s,%d,%zu,%.3f\n", s.phase.c_str(), s.transport.c_str(),
                         s.client.c_str(), s.delay, i, s.ms[i]);
        }
    }
    return std::fclose(file) == 0;
}

// The latency distributions: the share of logins answered within x ms.
bool plot(std::string const &directory, std::vector<Series> const &all) {
    if (std::system("command -v gnuplot >/dev/null 2>&1") != 0) {
        std::printf("gnuplot is not installed: no PNG\n");
        return true;
    }
    std::string data = directory + "/login-cdf.dat";
    std::FILE *file = std::fopen(data.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::map<std::string, std::vector<std::pair<size_t, std::string>>> panels;
    size_t block = 0;
    for (auto const &s : all) {
        std::vector<double> sorted = s.ms;
        std::sort(sorted.begin(), sorted.end());
        std::fprintf(file, "# %s %s %s %d\n", s.phase.c_str(), s.transport.c_str(),
                     s.client.c_str(), s.delay);
        for (size_t i = 0; i < sorted.size(); ++i) {
            std::fprintf(file, "%.3f %.5f\n", sorted[i],
                         static_cast<double>(i + 1) / static_cast<double>(sorted.size()));
        }
        std::fprintf(file, "\n\n");
        std::string panel = s.phase +
                            (s.phase == "sequential" ? ", one at a time" : ", all at once") +
                            ", " + s.transport + ", provider delay " + std::to_string(s.delay) +
                            " ms";
        panels[panel].push_back({block++, s.client});
    }
    std::fclose(file);
    std::string script = directory + "/login.gp";
    file = std::fopen(script.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(file,
                 "set terminal pngcairo size 1400,%zu\nset output '%s/login.png'\n"
                 "set multiplot layout %zu,2 title 'Login latency: share of logins answered "
                 "within x ms'\nset key bottom right\nset grid\nset logscale x\n"
                 "set xlabel 'ms'\nset yrange [0:1]\n",
                 (panels.size() + 1) / 2 * 450, directory.c_str(), (panels.size() + 1) / 2);
    for (auto const &[title, series] : panels) {
        std::fprintf(file, "set title '%s'\nplot ", title.c_str());
        for (size_t i = 0; i < series.size(); ++i) {
            std::fprintf(file, "%s'%s' index %zu using 1:2 with lines lw 2 title '%s'",
                         i == 0 ? "" : ", ", data.c_str(), series[i].first,
                         series[i].second.c_str());
        }
        std::fprintf(file, "\n");
    }
    std::fprintf(file, "unset multiplot\n");
    std::fclose(file);
    return std::system(("gnuplot '" + script + "'").c_str()) == 0;
}

