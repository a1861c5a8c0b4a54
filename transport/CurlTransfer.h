#pragma once

#include "transport/HttpMethod.h"

#include <cstdint>
#include <string>
#include <vector>

struct curl_slist;

// Where a transfer stands.
enum requestState {
    RequestFailed = -2,   // no handle could be had, three times
    RequestQueued = -1,   // waits for processRequests
    RequestInFlight = 0,  // on the multi handle
    RequestDone = 1,      // ended, answer routed to its flow
};

// One queued or running transfer of a flow. Text fields are owned copies (delete[]).
struct curlRequest {
    int32_t requestId = 0;
    int32_t configId = 0;
    char *sessionId = nullptr;
    httpMethod method = HttpGet;
    char *url = nullptr;
    std::vector<std::string> *headers = nullptr;
    char *postData = nullptr;
    char *proxy = nullptr;
    int32_t state = -1;  // -2 failed, -1 queued, 0 in flight, 1 done
    int32_t retryCount = 0;
    bool finished = false;
    curl_slist *headerList = nullptr;
    void *handle = nullptr;           // CURL *, borrowed from the pool while in flight
    std::string *response = nullptr;  // the body so far, while in flight; also CURLOPT_PRIVATE
};
