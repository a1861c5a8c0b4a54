// Login speed side by side, on one local provider in one run:
//   library  "SSO_VERIFY" written on a host's channel to its reply read (qx_refresh on, and off,
//            which adds the revocation);
//   bare     a libcurl multi loop doing only the code exchange and the userinfo call: the floor
//            that any client pays;
//   peer     openid-client (tests/servers/peer.js): its authorization-code grant and userinfo
//            call, timed by its own clock.
// Each gets codes of its own, minted by a scripted user just before its clock starts. Phases:
// one login at a time, then many in flight at once; each with the provider answering at once
// and 20 ms late per call. Then the library's heap per login in flight at many in flight.
//   bench_login [--short] [--out DIR] [--logins N] [--inflight N] [--memory N]
//               [--clients library,library-revoke,bare,peer] [--delays 0,20]
// (--memory 0 leaves the memory phase out; --clients and --delays choose phases, for profiling.)
// Prints a table and a last line "RESULT ..."; writes DIR/login.csv (every timing) and, when
// gnuplot is installed, DIR/login.png (the latency distributions side by side). Asserts no
// speed; exits non-zero only when a login failed or a file could not be written.
#include "tests/harness/ChildProcess.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <curl/curl.h>
#include <malloc.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void discard(char const *, void *) {}

// One login ready to be timed: a code minted for its client, with what that client needs.
struct Job {
    std::string code;
    std::string session;   // library: the user session of SSO_GET_CONFIG
    std::string verifier;  // bare and peer: their own PKCE verifier
    std::string state;
    std::string location;  // the whole redirect, for the peer's checks
};

// The timings of one client in one phase.
struct Series {
    std::string phase;   // "sequential" or "inflight"
    std::string client;  // "library", "library-revoke", "bare", "peer"
    int delay = 0;
    std::vector<double> ms;  // one a login, in the order the logins ended
    int failed = 0;
    double seconds = 0;  // the whole phase, first request to last answer
};

double percentile(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(at, values.size() - 1)];
}

std::string base64Url(unsigned char const *bytes, size_t size) {
    std::string text((size + 2) / 3 * 4 + 1, '\0');
    int written =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&text[0]), bytes, static_cast<int>(size));
    text.resize(static_cast<size_t>(written));
    while (!text.empty() && text.back() == '=') {
        text.pop_back();
    }
    for (char &c : text) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    return text;
}

// A PKCE verifier and its S256 challenge.
std::pair<std::string, std::string> pkce() {
    unsigned char random[32];
    RAND_bytes(random, sizeof random);
    std::string verifier = base64Url(random, sizeof random);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr);
    return {verifier, base64Url(digest, length)};
}

std::string const kRedirect = "http://127.0.0.1:18080/cb";

// Codes for the bare client or the peer: authorization URLs of their own (the library's scope,
// no nonce), signed for by the scripted user. Empty when any sign-in failed.
std::vector<Job> mintOwn(int count, char const *who) {
    auto &provider = LocalProvider::shared();
    std::vector<Job> jobs(static_cast<size_t>(count));
    std::vector<std::string> urls;
    for (int i = 0; i < count; ++i) {
        auto [verifier, challenge] = pkce();
        Job &job = jobs[static_cast<size_t>(i)];
        job.verifier = verifier;
        job.state = std::string(who) + "-" + std::to_string(i) + "-" + pkce().first.substr(0, 8);
        urls.push_back(provider.baseUrl() +
                       "/auth?client_id=qxss-client&response_type=code"
                       "&scope=openid%20email%20profile%20offline_access"
                       "&redirect_uri=http%3A%2F%2F127.0.0.1%3A18080%2Fcb&state=" +
                       job.state + "&code_challenge=" + challenge + "&code_challenge_method=S256");
    }
    auto logins = provider.loginAll(urls);
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (!logins[i].ok || logins[i].state != jobs[i].state) {
            std::fprintf(stderr, "minting for %s failed: %s\n", who, logins[i].error.c_str());
            return {};
        }
        jobs[i].code = logins[i].code;
        jobs[i].location = logins[i].location;
    }
    return jobs;
}

// The library's road to a code: "SSO_GET_CONFIG" for a new user session, the authorization URL
// of SsoLoginUrl, the scripted user's sign-in. Empty when any step failed.
std::vector<Job> mintLibrary(WorkerHost &host, int configId, int count) {
    std::vector<Job> jobs(static_cast<size_t>(count));
    std::vector<std::string> urls;
    for (auto &job : jobs) {
        job.session = LoginDriver::newSession();
        LoginDriver::Authorization authorization;
        urls.push_back(LoginDriver::authorizationUrl(host, configId, job.session, authorization));
        if (urls.back().empty()) {
            std::fprintf(stderr, "minting for the library failed: %s\n",
                         authorization.error.c_str());
            return {};
        }
    }
    auto logins = LocalProvider::shared().loginAll(urls);
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (!logins[i].ok || logins[i].state != "state-" + jobs[i].session) {
            std::fprintf(stderr, "minting for the library failed: %s\n", logins[i].error.c_str());
            return {};
        }
        jobs[i].code = logins[i].code;
    }
    return jobs;
}

// The user session, the last field of a SSO_VERIFY reply.
std::string replySession(std::string const &line) {
    size_t bar = line.rfind('|');
    return bar == std::string::npos ? std::string() : line.substr(bar + 1, line.size() - bar - 2);
}

bool replyOk(std::string const &line) {
    return line.compare(0, 14, "SSO_VERIFY_OK|") == 0;
}

// The library: all jobs' "SSO_VERIFY" lines at once when `together`, else one at a time.
void runLibrary(WorkerHost &host, std::vector<Job> const &jobs, bool together, Series &series) {
    auto start = Clock::now();
    if (!together) {
        for (auto const &job : jobs) {
            auto sent = Clock::now();
            host.send("SSO_VERIFY|" + job.code + "|" + job.session + "\n");
            std::string line = host.readLine(60000);
            series.ms.push_back(millisecondsSince(sent));
            series.failed += replyOk(line) && replySession(line) == job.session ? 0 : 1;
        }
    } else {
        std::string lines;
        std::map<std::string, bool> waiting;
        for (auto const &job : jobs) {
            lines += "SSO_VERIFY|" + job.code + "|" + job.session + "\n";
            waiting[job.session] = true;
        }
        start = Clock::now();
        host.send(lines);
        for (size_t i = 0; i < jobs.size(); ++i) {
            std::string line = host.readLine(120000);
            if (line.empty()) {
                series.failed += static_cast<int>(jobs.size() - i);
                break;
            }
            series.ms.push_back(millisecondsSince(start));
            series.failed += replyOk(line) && waiting.erase(replySession(line)) == 1 ? 0 : 1;
        }
    }
    series.seconds = millisecondsSince(start) / 1000;
}

size_t collect(char *bytes, size_t size, size_t count, void *user) {
    static_cast<std::string *>(user)->append(bytes, size * count);
    return size * count;
}

// The bare client: per login a token request, then a userinfo request; `parallel` logins at a
// time on one multi handle. Its only bookkeeping is what the two calls need.
class BareClient {
public:
    BareClient() : multi_(curl_multi_init()) {}
    ~BareClient() { curl_multi_cleanup(multi_); }

    void run(std::vector<Job> const &jobs, size_t parallel, Series &series) {
        std::string const base = LocalProvider::shared().baseUrl();
        tokenUrl_ = base + "/token";
        userinfoUrl_ = base + "/me";
        std::vector<Login> logins(jobs.size());
        size_t next = 0;
        size_t running = 0;
        auto start = Clock::now();
        auto begin = [&] {
            while (running < parallel && next < jobs.size()) {
                Login &login = logins[next];
                login.job = &jobs[next++];
                login.started = Clock::now();
                requestToken(login);
                ++running;
            }
        };
        begin();
        while (running > 0) {
            int active = 0;
            curl_multi_perform(multi_, &active);
            int left = 0;
            while (CURLMsg *message = curl_multi_info_read(multi_, &left)) {
                if (message->msg != CURLMSG_DONE) {
                    continue;
                }
                Login *login = nullptr;
                curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &login);
                long status = 0;
                curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
                bool ok = message->data.result == CURLE_OK && status == 200;
                curl_multi_remove_handle(multi_, login->easy);
                if (ok && !login->userinfo) {
                    std::string token = accessToken(login->body);
                    if (!token.empty()) {
                        requestUserinfo(*login, token);
                        continue;
                    }
                    ok = false;
                }
                series.ms.push_back(millisecondsSince(login->started));
                series.failed += ok ? 0 : 1;
                curl_easy_cleanup(login->easy);
                curl_slist_free_all(login->headers);
                login->easy = nullptr;
                login->headers = nullptr;
                --running;
            }
            begin();
            if (running > 0) {
                curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
            }
        }
        series.seconds = millisecondsSince(start) / 1000;
    }

private:
    struct Login {
        Job const *job = nullptr;
        Clock::time_point started;
        CURL *easy = nullptr;
        curl_slist *headers = nullptr;
        std::string body;
        std::string form;
        bool userinfo = false;
    };

    // The value of "access_token" in a token answer, found as text.
    static std::string accessToken(std::string const &body) {
        std::string const key = "\"access_token\":\"";
        size_t at = body.find(key);
        size_t end = at == std::string::npos ? at : body.find('"', at + key.size());
        return end == std::string::npos ? std::string()
                                        : body.substr(at + key.size(), end - at - key.size());
    }

    void transfer(Login &login, std::string const &url) {
        login.body.clear();
        login.easy = curl_easy_init();
        curl_easy_setopt(login.easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(login.easy, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(login.easy, CURLOPT_WRITEDATA, &login.body);
        curl_easy_setopt(login.easy, CURLOPT_PRIVATE, &login);
        curl_easy_setopt(login.easy, CURLOPT_HTTPHEADER, login.headers);
    }

    void requestToken(Login &login) {
        // The same form as the library's: the provider does the same work for both.
        char *code = curl_easy_escape(nullptr, login.job->code.c_str(), 0);
        char *verifier = curl_easy_escape(nullptr, login.job->verifier.c_str(), 0);
        char *redirect = curl_easy_escape(nullptr, kRedirect.c_str(), 0);
        login.form = std::string("client_id=qxss-client&client_secret=qxss-secret") +
                     "&grant_type=authorization_code&code=" + code + "&code_verifier=" + verifier +
                     "&redirect_uri=" + redirect;
        curl_free(code);
        curl_free(verifier);
        curl_free(redirect);
        login.headers =
            curl_slist_append(nullptr, "Content-Type: application/x-www-form-urlencoded");
        transfer(login, tokenUrl_);
        curl_easy_setopt(login.easy, CURLOPT_POSTFIELDS, login.form.c_str());
        curl_multi_add_handle(multi_, login.easy);
    }

    void requestUserinfo(Login &login, std::string const &token) {
        curl_slist_free_all(login.headers);
        login.headers = curl_slist_append(nullptr, ("Authorization: Bearer " + token).c_str());
        login.userinfo = true;
        // The token request's handle goes; its connection stays in the multi handle's cache.
        curl_easy_cleanup(login.easy);
        transfer(login, userinfoUrl_);
        curl_multi_add_handle(multi_, login.easy);
    }

    CURLM *multi_;
    std::string tokenUrl_;
    std::string userinfoUrl_;
};

// The peer in its own node process (tests/servers/peer.js), started once.
class Peer {
public:
    bool start() {
        return node_.start({"node", "peer.js", LocalProvider::shared().baseUrl()},
                           std::string(QXSS_SOURCE_DIR) + "/tests/servers") &&
               node_.waitForLine("READ", 20000) == "Y";
    }

    void run(std::vector<Job> const &jobs, size_t parallel, Series &series) {
        std::string input = "RUN " + std::to_string(parallel) + "\n";
        for (auto const &job : jobs) {
            input += job.location + " " + job.verifier + " " + job.state + "\n";
        }
        node_.send(input + "END\n");
        for (size_t i = 0; i < jobs.size(); ++i) {
            std::string line = node_.waitForLine("T ", 120000);
            double ms = 0;
            char ok[8] = "";
            unsigned index = 0;
            if (std::sscanf(line.c_str(), "%u %7s %lf", &index, ok, &ms) != 3) {
                series.failed += static_cast<int>(jobs.size() - i);
                return;
            }
            series.ms.push_back(ms);
            series.failed += std::strcmp(ok, "ok") == 0 ? 0 : 1;
        }
        series.seconds = std::atof(node_.waitForLine("DONE ", 120000).c_str());
    }

private:
    ChildProcess node_;
};

size_t heapInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

struct Memory {
    int logins = 0;
    int answered = 0;
    int reached = 0;  // code exchanges at the provider when the heap was read
    double reachedSeconds = 0;
    double pendingBytes = 0;   // per login after "SSO_GET_CONFIG", before "SSO_VERIFY"
    double inFlightBytes = 0;  // per login in flight, on top of that
    double residentBytes = 0;  // resident size per login in flight (pending and in flight)
};

// `count` logins of the library in flight at once: the provider holds every code exchange for
// `holdMs`, so they are all in flight together. The codes are not signed for (minting thousands
// would take minutes) and fail when the provider answers; up to then a login holds what any
// login holds.
Memory measureMemory(WorkerHost &host, int count, int holdMs) {
    auto &provider = LocalProvider::shared();
    Memory memory;
    memory.logins = count;
    std::vector<std::string> sessions;
    for (int i = 0; i < count; ++i) {
        sessions.push_back(LoginDriver::newSession());
    }
    malloc_trim(0);
    size_t before = heapInUse();
    long residentBefore = residentKilobytes();
    for (int i = 0; i < count; i += 200) {
        std::string lines;
        int chunk = std::min(200, count - i);
        for (int j = i; j < i + chunk; ++j) {
            lines += "SSO_GET_CONFIG|0|" + sessions[static_cast<size_t>(j)] + "\n";
        }
        host.send(lines);
        for (int j = 0; j < chunk; ++j) {
            host.readLine(30000);
        }
    }
    size_t pending = heapInUse();
    int tokenCalls = provider.requestCount("/token");
    provider.setDelay(holdMs);
    auto start = Clock::now();
    for (int i = 0; i < count; i += 200) {
        std::string lines;
        for (int j = i; j < std::min(count, i + 200); ++j) {
            lines += "SSO_VERIFY|unsigned-code-" + std::to_string(j) + "|" +
                     sessions[static_cast<size_t>(j)] + "\n";
        }
        host.send(lines);
    }
    // In flight once every code exchange reached the provider, which holds them all.
    while (provider.requestCount("/token") - tokenCalls < count &&
           millisecondsSince(start) < holdMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    memory.reachedSeconds = millisecondsSince(start) / 1000;
    memory.reached = provider.requestCount("/token") - tokenCalls;
    size_t inFlight = heapInUse();
    long residentInFlight = residentKilobytes();
    provider.setDelay(0);
    for (int i = 0; i < count; ++i) {
        if (host.readLine(holdMs + 60000).compare(0, 19, "SSO_VERIFY_FAILURE|") == 0) {
            ++memory.answered;
        }
    }
    memory.pendingBytes = (static_cast<double>(pending) - static_cast<double>(before)) / count;
    memory.inFlightBytes = (static_cast<double>(inFlight) - static_cast<double>(pending)) / count;
    memory.residentBytes = static_cast<double>(residentInFlight - residentBefore) * 1024 / count;
    return memory;
}

struct Options {
    bool brief = false;
    std::string out = ".";
    int logins = 300;
    int inflight = 500;
    int memory = 10000;
    std::string clients = "library,library-revoke,bare,peer";
    std::string delays = "0,20";
};

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
        } else if (arg == "--out" && i + 1 < argc) {
            options.out = argv[++i];
        } else if (arg == "--logins") {
            options.logins = value(options.logins);
        } else if (arg == "--inflight") {
            options.inflight = value(options.inflight);
        } else if (arg == "--memory") {
            options.memory = value(options.memory);
        } else if (arg == "--clients" && i + 1 < argc) {
            options.clients = argv[++i];
        } else if (arg == "--delays" && i + 1 < argc) {
            options.delays = argv[++i];
        }
    }
    return options;
}

void printTable(std::vector<Series> const &all) {
    std::printf("\n%-11s %-15s %6s %6s %5s %9s %9s %9s %10s\n", "phase", "client", "delay",
                "logins", "fail", "p50 ms", "p99 ms", "max ms", "logins/s");
    for (auto const &s : all) {
        std::printf("%-11s %-15s %6d %6zu %5d %9.2f %9.2f %9.2f %10.1f\n", s.phase.c_str(),
                    s.client.c_str(), s.delay, s.ms.size(), s.failed, percentile(s.ms, 0.5),
                    percentile(s.ms, 0.99), percentile(s.ms, 1.0),
                    s.seconds > 0 ? static_cast<double>(s.ms.size()) / s.seconds : 0.0);
    }
}

bool writeCsv(std::string const &path, std::vector<Series> const &all) {
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(file, "phase,client,delay_ms,index,latency_ms\n");
    for (auto const &s : all) {
        for (size_t i = 0; i < s.ms.size(); ++i) {
            std::fprintf(file, "%s,%s,%d,%zu,%.3f\n", s.phase.c_str(), s.client.c_str(), s.delay, i,
                         s.ms[i]);
        }
    }
    return std::fclose(file) == 0;
}

// The latency distributions (share of logins answered within x ms), one panel a phase and
// delay, the clients side by side in each. False when gnuplot ran and failed.
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
        std::fprintf(file, "# %s %s %d\n", s.phase.c_str(), s.client.c_str(), s.delay);
        for (size_t i = 0; i < sorted.size(); ++i) {
            std::fprintf(file, "%.3f %.5f\n", sorted[i],
                         static_cast<double>(i + 1) / static_cast<double>(sorted.size()));
        }
        std::fprintf(file, "\n\n");
        std::string panel = s.phase +
                            (s.phase == "sequential" ? ", one at a time" : ", all at once") +
                            ", provider delay " + std::to_string(s.delay) + " ms";
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

}  // namespace

int main(int argc, char **argv) {
    Options options = parse(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    // Every login in flight holds a socket here and one at the provider.
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Hundreds of codes minted ahead of their use outgrow the provider's default store.
    setenv("QXSS_PROVIDER_STORE", "map", 1);
    auto &provider = LocalProvider::shared();
    if (!provider.ready()) {
        std::fprintf(stderr, "%s\n", provider.error.c_str());
        return 1;
    }
    // With qx_refresh off a login revokes its refresh token and counts an empty answer as a
    // failure; the provider answers with a body, as many do.
    if (!provider.setRevocationBody(true)) {
        std::fprintf(stderr, "the provider did not switch its revocation answers\n");
        return 1;
    }
    // The statements are built as always but go nowhere: the figures leave out the host's
    // syslog, which is not the library's to speed up.
    SsoSetLogCallback(discard, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);

    LoginDriver::Entry refreshOn;
    refreshOn.lifetime = 600;
    LoginDriver::Entry refreshOff = refreshOn;
    refreshOff.name = "Revoking";
    refreshOff.refresh = false;
    TestMachine::server(LoginDriver::file({refreshOn, refreshOff}));
    WorkerHost host;
    if (host.start() != 0) {
        std::fprintf(stderr, "the worker did not start\n");
        return 1;
    }
    host.send("SSO_LOAD_CONFIGS\n");
    if (host.readLine(60000) != "SSO_LOAD_CONFIGS_OK\n") {
        std::fprintf(stderr, "the configuration did not load\n");
        return 1;
    }
    Peer peer;
    if (!peer.start()) {
        std::fprintf(stderr, "the peer did not start (tests/servers/peer.js)\n");
        return 1;
    }
    BareClient bare;

    std::printf(
        "login benchmark: provider %s, %d logins one at a time, %d in flight, "
        "memory at %d in flight\n",
        provider.baseUrl().c_str(), options.logins, options.inflight, options.memory);
    std::vector<Series> all;
    bool minted = true;
    for (int delay : {0, 20}) {
        if (!listed(options.delays, std::to_string(delay))) {
            continue;
        }
        for (bool together : {false, true}) {
            int count = together ? options.inflight : options.logins;
            for (char const *client : {"library", "library-revoke", "bare", "peer"}) {
                if (count <= 0 || !listed(options.clients, client)) {
                    continue;
                }
                Series series;
                series.phase = together ? "inflight" : "sequential";
                series.client = client;
                series.delay = delay;
                std::string name = client;
                // Minted just before the clock starts, with the provider answering at once.
                std::vector<Job> jobs = name == "library"          ? mintLibrary(host, 0, count)
                                        : name == "library-revoke" ? mintLibrary(host, 1, count)
                                                                   : mintOwn(count, client);
                if (jobs.empty()) {
                    minted = false;
                    break;
                }
                provider.setDelay(delay);
                size_t parallel = together ? jobs.size() : 1;
                if (name == "bare") {
                    bare.run(jobs, parallel, series);
                } else if (name == "peer") {
                    peer.run(jobs, parallel, series);
                } else {
                    runLibrary(host, jobs, together, series);
                }
                provider.setDelay(0);
                std::printf(
                    "%-10s %-15s delay %2d ms: %zu logins, %d failed, p50 %.2f ms, "
                    "p99 %.2f ms, %.3f s\n",
                    series.phase.c_str(), client, delay, series.ms.size(), series.failed,
                    percentile(series.ms, 0.5), percentile(series.ms, 0.99), series.seconds);
                std::fflush(stdout);
                all.push_back(std::move(series));
            }
        }
    }
    Memory memory;
    if (options.memory > 0) {
        memory = measureMemory(host, options.memory, options.brief ? 3000 : 30000);
    }
    host.stop();

    printTable(all);
    if (memory.logins > 0) {
        std::printf(
            "\nlibrary heap at %d logins in flight: %.0f bytes per pending login "
            "(SSO_GET_CONFIG), %.0f more per login in flight (SSO_VERIFY), resident %.0f "
            "bytes per login; %d code exchanges at the provider %.1f s after the "
            "first SSO_VERIFY, %d of %d answered afterwards\n",
            memory.logins, memory.pendingBytes, memory.inFlightBytes, memory.residentBytes,
            memory.reached, memory.reachedSeconds, memory.answered, memory.logins);
    }

    auto find = [&all](char const *phase, char const *client) -> Series const * {
        for (auto const &s : all) {
            if (s.phase == phase && s.client == client && s.delay == 0) {
                return &s;
            }
        }
        return nullptr;
    };
    auto p50 = [&](char const *client) {
        Series const *s = find("sequential", client);
        return s ? percentile(s->ms, 0.5) : 0.0;
    };
    auto rate = [&](char const *client) {
        Series const *s = find("inflight", client);
        return s && s->seconds > 0 ? static_cast<double>(s->ms.size()) / s->seconds : 0.0;
    };
    bool csv = writeCsv(options.out + "/login.csv", all);
    bool png = plot(options.out, all);
    std::printf("raw timings: %s/login.csv%s\n", options.out.c_str(),
                png ? (", latency distributions: " + options.out + "/login.png").c_str() : "");
    int failed = 0;
    for (auto const &s : all) {
        failed += s.failed;
    }
    std::printf(
        "RESULT p50_library_ms=%.2f p50_bare_ms=%.2f p50_peer_ms=%.2f "
        "rate_library=%.1f rate_bare=%.1f rate_peer=%.1f\n",
        p50("library"), p50("bare"), p50("peer"), rate("library"), rate("bare"), rate("peer"));
    SsoSetLogCallback(nullptr, nullptr);
    bool ok = minted && failed == 0 && csv && png && memory.answered == memory.logins;
    if (!ok) {
        std::fprintf(stderr, "bench_login: %s\n",
                     !minted  ? "minting failed"
                     : failed ? "logins failed"
                     : !csv   ? "cannot write the CSV"
                     : !png   ? "gnuplot failed"
                              : "not every held login was answered");
    }
    return ok ? 0 : 1;
}
