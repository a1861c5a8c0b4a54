// The command channel: arbitrary bytes from the host, framed, split and dispatched over a
// loaded configuration. The first byte sets the size of the reads the bytes arrive in, so that
// lines broken across reads (the carried tail) are reached too. Each command runs as the
// worker runs it, and its replies are read back from the host's end of a socket pair: a command
// gets at most one reply, and a reply is one line that ends in its only "\n". Background flows
// that the commands start are queued and never run; each input starts from the same loaded
// configuration and an empty flow engine.
#include "server/SsoServer.h"
#include "tests/fuzz/FuzzSupport.h"
#include "transport/CurlRequest.h"
#include "worker/SsoChannel.h"
#include "worker/SsoWorkerInfo.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr size_t kLargestRead = 5680;

int &hostEnd() {
    static int fd = -1;
    return fd;
}

// Everything that the commands so far wrote to the channel.
std::string replies() {
    std::string all;
    char buffer[65536];
    ssize_t count = 0;
    while ((count = read(hostEnd(), buffer, sizeof buffer)) > 0) {
        all.append(buffer, static_cast<size_t>(count));
    }
    return all;
}

// What one command wrote: nothing, or one line ending in its only line break.
void checkReplies(std::string const &written) {
    if (written.empty()) {
        return;
    }
    if (written.back() != '\n' || written.find('\n') != written.size() - 1) {
        __builtin_trap();
    }
}

SsoWorkerInfo const &worker() {
    static SsoWorkerInfo const info = [] {
        FuzzSupport::quiet();
        // One reference of our own, so the engine's clean-up after each input leaves libcurl's
        // global state standing.
        curl_global_init(CURL_GLOBAL_ALL);
        SsoWorkerInfo made{};
        made.threadHandle = 1;
        made.threadId = 1;
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            __builtin_trap();
        }
        // The host's end is read without waiting; the library's end blocks as a host's does.
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        hostEnd() = ends[0];
        made.ioFd = ends[1];
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
        // As SsoChannel::receive does, with the replies read back after each command.
        std::vector<std::string> messages;
        SsoChannel::frame(bytes, count, lineCarry, messages);
        for (auto const &message : messages) {
            SsoChannel::execute(SsoChannel::split(message), info);
            checkReplies(replies());
        }
        bytes += count;
        left -= count;
    }

    network.cleanUp();
    SsoServer::getServer().clearConfigs();
    return 0;
}
