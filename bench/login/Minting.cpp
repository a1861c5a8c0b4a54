// Minting codes for the login benchmark.

#include "bench/login/Minting.h"

#include "tests/harness/LocalProvider.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/WorkerHost.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>

namespace {

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

}  // namespace

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

std::vector<Job> mintOwn(LocalProvider const &provider, int count, char const *who) {
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

std::vector<Job> mintLibrary(LocalProvider const &provider, WorkerHost &host, int configId,
                             int count) {
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
    auto logins = provider.loginAll(urls);
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (!logins[i].ok || logins[i].state != "state-" + jobs[i].session) {
            std::fprintf(stderr, "minting for the library failed: %s\n", logins[i].error.c_str());
            return {};
        }
        jobs[i].code = logins[i].code;
    }
    return jobs;
}
