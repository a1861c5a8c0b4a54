// The bare libcurl client of the login benchmark: the floor that any client pays.

#include "bench/login/BareClient.h"

#include "bench/login/Minting.h"

#include <time.h>

namespace {

size_t collect(char *bytes, size_t size, size_t count, void *user) {
    static_cast<std::string *>(user)->append(bytes, size * count);
    return size * count;
}

double processCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

}  // namespace

BareClient::BareClient() : multi_(curl_multi_init()) {}

BareClient::~BareClient() {
    curl_multi_cleanup(multi_);
}

void BareClient::run(std::string const &base, std::vector<Job> const &jobs, size_t parallel,
                     Series &series) {
    tokenUrl_ = base + "/token";
    userinfoUrl_ = base + "/me";
    std::vector<Login> logins(jobs.size());
    size_t next = 0;
    size_t running = 0;
    double cpuBefore = processCpuMs();
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
    series.cpuMs = processCpuMs() - cpuBefore;
}

// The value of "access_token" in a token answer, found as text.
std::string BareClient::accessToken(std::string const &body) {
    std::string const key = "\"access_token\":\"";
    size_t at = body.find(key);
    size_t end = at == std::string::npos ? at : body.find('"', at + key.size());
    return end == std::string::npos ? std::string()
                                    : body.substr(at + key.size(), end - at - key.size());
}

void BareClient::transfer(Login &login, std::string const &url) {
    login.body.clear();
    login.easy = curl_easy_init();
    curl_easy_setopt(login.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(login.easy, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(login.easy, CURLOPT_WRITEDATA, &login.body);
    curl_easy_setopt(login.easy, CURLOPT_PRIVATE, &login);
    curl_easy_setopt(login.easy, CURLOPT_HTTPHEADER, login.headers);
    if (url.compare(0, 8, "https://") == 0) {
        // Shares an HTTP/2 connection being made rather than opening one per transfer.
        curl_easy_setopt(login.easy, CURLOPT_PIPEWAIT, 1L);
    }
}

void BareClient::requestToken(Login &login) {
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
    login.headers = curl_slist_append(nullptr, "Content-Type: application/x-www-form-urlencoded");
    transfer(login, tokenUrl_);
    curl_easy_setopt(login.easy, CURLOPT_POSTFIELDS, login.form.c_str());
    curl_multi_add_handle(multi_, login.easy);
}

void BareClient::requestUserinfo(Login &login, std::string const &token) {
    curl_slist_free_all(login.headers);
    login.headers = curl_slist_append(nullptr, ("Authorization: Bearer " + token).c_str());
    login.userinfo = true;
    // The token request's handle goes; its connection stays in the multi handle's cache.
    curl_easy_cleanup(login.easy);
    transfer(login, userinfoUrl_);
    curl_multi_add_handle(multi_, login.easy);
}
