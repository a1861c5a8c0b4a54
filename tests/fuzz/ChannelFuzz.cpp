// The command channel: arbitrary bytes from the host, framed, split and dispatched over a
// loaded configuration. The first byte sets the size of the reads the bytes arrive in, so that
// lines broken across reads (the carried tail) are reached too. Replies go to /dev/null.
// Background flows that the commands start are queued and never run; each input starts from
// the same loaded configuration and an empty flow engine.
#include "server/SsoServer.h"
#include "tests/fuzz/FuzzSupport.h"
#include "transport/CurlRequest.h"
#include "worker/SsoChannel.h"
#include "worker/SsoWorkerInfo.h"

#include <curl/curl.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

constexpr size_t kLargestRead = 5680;

SsoWorkerInfo const &worker() {
    static SsoWorkerInfo const info = [] {
        FuzzSupport::quiet();
        // One reference of our own, so the engine's clean-up after each input leaves libcurl's
        // global state standing.
        curl_global_init(CURL_GLOBAL_ALL);
        SsoWorkerInfo made{};
        made.threadHandle = 1;
        made.threadId = 1;
        made.ioFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        made.internalReadFd = -1;
        made.internalWriteFd = -1;
        return made;
    }();
    return info;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    SsoWorkerInfo const &info = worker();
    if (size == 0) {
        return 0;
    }
    if (!FuzzSupport::loadServer(FuzzSupport::configuration(), FuzzSupport::discovery())) {
        __builtin_trap();
    }
    CurlRequest &network = CurlRequest::getNetwork();
    network.init(CURL_GLOBAL_ALL);

    size_t readSize = std::min<size_t>(kLargestRead, 1 + static_cast<size_t>(data[0]) * 23);
    auto const *bytes = reinterpret_cast<char const *>(data + 1);
    size_t left = size - 1;
    std::string lineCarry;
    while (left > 0) {
        size_t count = std::min(readSize, left);
        SsoChannel::receive(bytes, count, lineCarry, info);
        bytes += count;
        left -= count;
    }

    network.cleanUp();
    SsoServer::getServer().clearConfigs();
    return 0;
}
