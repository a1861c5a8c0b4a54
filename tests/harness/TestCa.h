#pragma once

#include <string>

// The certificate world of the HTTPS tests, as scripts/with-test-ca.sh hands it to the program
// it runs: a CA that the system trusts inside that script's private mount namespace (its bundle
// bind-mounted over /etc/ssl/certs/ca-certificates.crt), and the certificates that
// tests/servers/make-test-ca.sh made beside it. Outside that script nothing is trusted, and
// available() is false.
class TestCa {
public:
    // True when the program runs under scripts/with-test-ca.sh with a whole world (the bundle
    // file and every certificate below exist); else `why()` says what is missing.
    static bool available();
    static std::string why();

    // QXSS_TEST_CA_DIR and the files in it.
    static std::string directory();
    static std::string file(std::string const &name);
    static std::string caPem() { return file("ca.pem"); }
    // Trusted: localhost, 127.0.0.1, ::1.
    static std::string serverPem() { return file("server.pem"); }
    static std::string serverKey() { return file("server.key"); }
    // Trusted CA, but only for the name "other.test".
    static std::string otherHostPem() { return file("other-host.pem"); }
    static std::string otherHostKey() { return file("other-host.key"); }
    // localhost and 127.0.0.1, signed by a CA that nothing trusts.
    static std::string untrustedPem() { return file("untrusted.pem"); }
    static std::string untrustedKey() { return file("untrusted.key"); }

    // QXSS_TEST_CA_BUNDLE: the file that /etc/ssl/certs/ca-certificates.crt shows in this
    // namespace. Its content now, and writing it in place (the mount follows the file, not
    // its name, so it is never replaced).
    static std::string bundle();
    static std::string readBundle();
    static bool writeBundle(std::string const &content);

    // A new world of its own in `directory` (tests/servers/make-test-ca.sh), for a CA that the
    // bundle does not hold yet. True when the script succeeded.
    static bool makeWorld(std::string const &directory);
};
