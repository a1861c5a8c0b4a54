#pragma once

#include <cstdint>

// One pooled libcurl easy handle. Owned by CurlRequest::handlers; the handle is owned by the
// record and serves transfers of its own configuration only.
struct curlHandler {
    int32_t configId = 0;
    void *handle = nullptr;  // CURL *
    bool inUse = false;
    bool isDynamic = false;  // made on demand by acquireHandler, swept when idle
};
