#pragma once

#include <curl/curl.h>

// The TLS checks that every road sets on its easy handles: TLS 1.2 at least, the road's trust
// (handed to CaStore), strict host name and strict certificate checks. One place, so the roads
// cannot drift apart in what they check.
class TlsOptions {
public:
    // The step of set that failed first.
    enum Step { Done, VersionFailed, TrustFailed, VerifyHostFailed, VerifyPeerFailed };

    // CURLOPT_SSL_VERIFYHOST and CURLOPT_PROXY_SSL_VERIFYHOST: the certificate must name the
    // host.
    static constexpr long kVerifyHostStrict = 2L;

    // A road's choice of trust: sets what it needs on the handle; false stops set.
    using Trust = bool (*)(CURL *handle);

    // Sets, in this order: the lowest TLS version, `trust` (skipped when null: the road sets
    // its trust itself), the host name check and the certificate check. Stops at the first
    // failure and says which step it was.
    static Step set(CURL *handle, Trust trust);

    // The same three checks, each set whether or not the one before it could be: for a road
    // that runs with libcurl's default for an option it cannot have.
    static void setLenient(CURL *handle);
};
