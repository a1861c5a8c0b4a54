#pragma once

#include <chrono>
#include <string>
#include <vector>

// What every phase of the login benchmark shares: the clock, one login ready to be timed, and
// the timings of one client in one phase.

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start);

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
    std::string phase;               // "sequential" or "inflight"
    std::string client;              // "library", "library-revoke", "bare", "peer"
    std::string transport = "http";  // "http", "h1" (HTTPS, HTTP/1.1) or "h2" (HTTPS, HTTP/2)
    int delay = 0;
    std::vector<double> ms;  // one a login, in the order the logins ended
    int failed = 0;
    double seconds = 0;  // the whole phase, first request to last answer
    double cpuMs = 0;    // CPU the client spent on the phase (library: its worker thread)
};

// The value at `share` (0 to 1) of `values`; 0 when empty.
double percentile(std::vector<double> values, double share);
