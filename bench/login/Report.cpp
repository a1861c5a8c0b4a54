// The table, CSV, plot and closing figures of bench_login.

#include "bench/login/Report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

void printTable(std::vector<Series> const &all) {
    std::printf("\n%-11s %-5s %-15s %6s %6s %5s %9s %9s %9s %10s %10s\n", "phase", "over", "client",
                "delay", "logins", "fail", "p50 ms", "p99 ms", "max ms", "logins/s",
                "CPU us/login");
    for (auto const &s : all) {
        std::printf("%-11s %-5s %-15s %6d %6zu %5d %9.2f %9.2f %9.2f %10.1f %10.0f\n",
                    s.phase.c_str(), s.transport.c_str(), s.client.c_str(), s.delay, s.ms.size(),
                    s.failed, percentile(s.ms, 0.5), percentile(s.ms, 0.99), percentile(s.ms, 1.0),
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
                            (s.phase == "sequential" ? ", one at a time" : ", all at once") + ", " +
                            s.transport + ", provider delay " + std::to_string(s.delay) + " ms";
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

void printMemory(std::string const &transport, Memory const &memory) {
    std::printf(
        "\nlibrary heap at %d logins in flight over %s: %.0f bytes per pending login "
        "(SSO_GET_CONFIG), %.0f more per login in flight (SSO_VERIFY), resident %.0f "
        "bytes per login; %d code exchanges at the provider %.1f s after the "
        "first SSO_VERIFY, %d of %d answered afterwards\n",
        memory.logins, transport.c_str(), memory.pendingBytes, memory.inFlightBytes,
        memory.residentBytes, memory.reached, memory.reachedSeconds, memory.answered,
        memory.logins);
}

namespace {

// The series of `client` over `transport` in `phase` with the provider answering at once; null
// when that series did not run.
Series const *find(std::vector<Series> const &all, char const *phase, char const *transport,
                   char const *client) {
    for (auto const &s : all) {
        if (s.phase == phase && s.transport == transport && s.client == client && s.delay == 0) {
            return &s;
        }
    }
    return nullptr;
}

double p50(std::vector<Series> const &all, char const *client, char const *transport) {
    Series const *s = find(all, "sequential", transport, client);
    return s ? percentile(s->ms, 0.5) : 0.0;
}

double rate(std::vector<Series> const &all, char const *client, char const *transport) {
    Series const *s = find(all, "inflight", transport, client);
    return s && s->seconds > 0 ? static_cast<double>(s->ms.size()) / s->seconds : 0.0;
}

double cpu(std::vector<Series> const &all, char const *client, char const *transport) {
    Series const *s = find(all, "inflight", transport, client);
    return s && !s->ms.empty() ? s->cpuMs * 1000 / static_cast<double>(s->ms.size()) : 0.0;
}

}  // namespace

void printResult(std::vector<Series> const &all, int burstOk) {
    std::printf(
        "RESULT p50_library_ms=%.2f p50_bare_ms=%.2f p50_peer_ms=%.2f "
        "rate_library=%.1f rate_bare=%.1f rate_peer=%.1f "
        "p50_library_tls_ms=%.2f p50_library_revoke_tls_ms=%.2f rate_library_tls=%.1f "
        "rate_bare_tls=%.1f cpu_us_library_tls=%.0f cpu_us_bare_tls=%.0f burst_1500_ok=%d\n",
        p50(all, "library", "http"), p50(all, "bare", "http"), p50(all, "peer", "http"),
        rate(all, "library", "http"), rate(all, "bare", "http"), rate(all, "peer", "http"),
        p50(all, "library", "h2"), p50(all, "library-revoke", "h2"), rate(all, "library", "h2"),
        rate(all, "bare", "h2"), cpu(all, "library", "h2"), cpu(all, "bare", "h2"), burstOk);
}
