#pragma once

#include "tests/harness/ChildProcess.h"
#include "tests/harness/TempDir.h"

#include <string>

// A real forward proxy (tinyproxy) on a free loopback port, started for the test program and
// stopped when it ends (or killed with it). The port is the one tinyproxy reports having bound;
// when another process took it first, tinyproxy is started again on another. Tunnels (CONNECT)
// to any port are allowed.
class LocalProxy {
public:
    static LocalProxy &shared();

    LocalProxy();
    ~LocalProxy();

    bool ready() const { return port != 0; }
    // "127.0.0.1:<port>" and "http://127.0.0.1:<port>".
    std::string hostPort() const;
    std::string url() const;
    // Number of connections the proxy has opened to a target so far (from its log).
    int connections() const;

    int port = 0;
    std::string error;

private:
    TempDir directory_;
    std::string log_;
    ChildProcess process_;
};
