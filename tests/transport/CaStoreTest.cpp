// Trust parsed once per process: every new TLS connection of a road is handed the same parsed
// store, a bundle file that changes is parsed again for the next new connection, and what a
// road refuses it still refuses.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TempDir.h"
#include "transport/CaStore.h"
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

size_t ignore(char *, size_t size, size_t count, void *) {
    return size * count;
}

// The certificate that `server` shows, in PEM, read over a connection that checks nothing.
std::string serverCertificate(FailureServer const &server) {
    CURL *easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, server.url("/x").c_str());
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(easy, CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, ignore);
    std::string pem;
    if (curl_easy_perform(easy) == CURLE_OK) {
        curl_certinfo *info = nullptr;
        curl_easy_getinfo(easy, CURLINFO_CERTINFO, &info);
        for (curl_slist *field = info != nullptr && info->num_of_certs > 0 ? info->certinfo[0]
                                                                           : nullptr;
             field != nullptr; field = field->next) {
            std::string text = field->data;
            if (text.compare(0, 5, "Cert:") == 0) {
                pem = text.substr(5);
            }
        }
    }
    curl_easy_cleanup(easy);
    return pem;
}

// A certificate of a CA that signed nothing here, in PEM.
std::string otherCertificate(std::string const &directory) {
    std::string path = directory + "/other.pem";
    std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
        "-nodes -days 2 -subj /CN=other -keyout " +
        directory + "/other.key -out " + path + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        return std::string();
    }
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// One new connection to `url` that trusts `bundle` through the shared store.
CURLcode connectTrusting(std::string const &url, std::string const &bundle) {
    CURL *easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, ignore);
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));
    CURLcode result = CaStore::getStore().trustOn(easy, bundle.c_str());
    if (result == CURLE_OK) {
        result = curl_easy_perform(easy);
    }
    curl_easy_cleanup(easy);
    return result;
}

void writeFile(std::string const &path, std::string const &text) {
    std::ofstream file(path, std::ios::trunc);
    file << text;
}

// A TLS server with a certificate that nothing trusts unless a test says so.
class CaStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(server.port, 0);
        server.on("/x", 200, "{}");
    }

    FailureServer server{true};
};

TEST_F(CaStoreTest, ChangedBundleIsParsedAgainForTheNextNewConnection) {
    TempDir directory("castore");
    std::string trusted = serverCertificate(server);
    std::string other = otherCertificate(directory.path);
    ASSERT_FALSE(trusted.empty());
    ASSERT_FALSE(other.empty());
    std::string bundle = directory.path + "/bundle.pem";
    writeFile(bundle, other);

    CaStore &store = CaStore::getStore();
    unsigned long before = store.parses;
    EXPECT_EQ(connectTrusting(server.url("/x"), bundle), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(connectTrusting(server.url("/x"), bundle), CURLE_PEER_FAILED_VERIFICATION);
    // Two new connections, one parse.
    EXPECT_EQ(store.parses, before + 1);

    writeFile(bundle, other + trusted);
    EXPECT_EQ(connectTrusting(server.url("/x"), bundle), CURLE_OK);
    EXPECT_EQ(connectTrusting(server.url("/x"), bundle), CURLE_OK);
    EXPECT_EQ(store.parses, before + 2);

    // Taken out again: refused again from the next new connection on.
    writeFile(bundle, other);
    EXPECT_EQ(connectTrusting(server.url("/x"), bundle), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(store.parses, before + 3);
}

TEST_F(CaStoreTest, MissingBundleFailsTheConnection) {
    TempDir directory("castore");
    EXPECT_NE(connectTrusting(server.url("/x"), directory.path + "/none.pem"), CURLE_OK);
}

// The trust entries that the store holds for `file` (any directory).
CaTrust const *trustOf(std::string const &file) {
    CaStore &store = CaStore::getStore();
    for (CaTrust const &trust : store.trusts) {
        if (trust.file == file) {
            return &trust;
        }
    }
    return nullptr;
}

// Runs `attempt` three times, each a new connection to the untrusted server: every one is
// refused, and after the first no bundle is parsed again. Then the trust of `file` holds a
// parsed store.
void expectRefusedWithOneParse(std::function<std::string()> const &attempt,
                               std::string const &file) {
    EXPECT_EQ(attempt(), "");
    unsigned long parses = CaStore::getStore().parses;
    EXPECT_EQ(attempt(), "");
    EXPECT_EQ(attempt(), "");
    EXPECT_EQ(CaStore::getStore().parses, parses);
    CaTrust const *trust = trustOf(file);
    ASSERT_NE(trust, nullptr);
    EXPECT_NE(trust->store, nullptr);
}

TEST_F(CaStoreTest, DiscoveryParsesItsBundleOnceAndStillRefusesAnUntrustedServer) {
    CurlRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    LogCapture log;
    expectRefusedWithOneParse(
        [&] {
            return network.syncRequest(HttpGet, server.url("/x").c_str(), {}, nullptr, nullptr);
        },
        "/etc/ssl/certs/ca-certificates.crt");
    network.cleanUp();
    EXPECT_EQ(log.count("CurlRequest: Request completed with code: 60.\n"), 3u);
}

TEST_F(CaStoreTest, BlockingRequestTrustsLibcurlsBuiltInBundleParsedOnce) {
    SsoRequest request;
    ASSERT_TRUE(request.init(CURL_GLOBAL_ALL));
    LogCapture log;
    // The built-in paths are learnt by the first request.
    EXPECT_EQ(request.request(HttpGet, server.url("/x").c_str(), {}, nullptr, nullptr), "");
    ASSERT_TRUE(CaStore::getStore().builtInKnown);
    expectRefusedWithOneParse(
        [&] { return request.request(HttpGet, server.url("/x").c_str(), {}, nullptr, nullptr); },
        CaStore::getStore().builtInFile);
    request.cleanUp();
    EXPECT_EQ(log.count("SsoRequest: Sso request success.\n"), 0u);
}

}  // namespace
