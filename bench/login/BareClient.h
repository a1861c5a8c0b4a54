#pragma once

#include "bench/login/Timing.h"

#include <curl/curl.h>

#include <string>
#include <vector>

// The bare client: per login a token request, then a userinfo request; `parallel` logins at a
// time on one multi handle, its connections kept alive between logins, as a careful user of
// libcurl would write it. Its only bookkeeping is what the two calls need.
class BareClient {
public:
    BareClient();
    ~BareClient();
    BareClient(BareClient const &) = delete;
    BareClient &operator=(BareClient const &) = delete;

    // Runs `jobs` against the provider at `base`; the process's CPU time goes into cpuMs.
    void run(std::string const &base, std::vector<Job> const &jobs, size_t parallel,
             Series &series);

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

    static std::string accessToken(std::string const &body);
    void transfer(Login &login, std::string const &url);
    void requestToken(Login &login);
    void requestUserinfo(Login &login, std::string const &token);

    CURLM *multi_;
    std::string tokenUrl_;
    std::string userinfoUrl_;
};
