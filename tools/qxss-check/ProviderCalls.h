#pragma once

#include <cstddef>
#include <string>
#include <vector>

// One HTTP request that the library's code made to a provider, as libcurl saw it end.
struct ProviderCall {
    std::string method;  // "GET", "POST"
    std::string url;     // the URL asked for
    long status = 0;     // HTTP status; 0 when no answer came
    double ms = 0;       // libcurl's total time of the transfer, milliseconds
    std::string error;   // libcurl's text for a failed transfer; empty when it completed
    std::string body;    // the answer's body as it came
};

// What the checker sees of the library's provider calls. The library reports neither status
// nor timing of its requests, so the checker's program is linked with libcurl's easy and multi
// calls wrapped (tools/CMakeLists.txt): every option, transfer and answer passes through
// unchanged, and each finished transfer is noted here. Single-threaded, like the checker.
class ProviderCalls {
public:
    // The calls noted so far, in the order they ended.
    static std::vector<ProviderCall> const &all();
    // The calls noted after `mark` (a former all().size()).
    static std::vector<ProviderCall> since(size_t mark);
};
