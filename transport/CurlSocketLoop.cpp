// CurlRequest's multi_socket loop: the worker's wait on the channel together with libcurl's
// sockets and timer, the socket and timer callbacks that keep the epoll set, and the drive that
// hands libcurl the ready sockets once per turn.

#include "transport/CurlRequest.h"

#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>

namespace {

// Ready sockets taken per turn.
constexpr int kReadyPerTurn = 1024;

int64_t steadyMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void CurlRequest::callbackHook(char const *where) {
    auto const &hook = PlatformFakes::allocation();
    if (hook) {
        hook(where);
    }
}

void CurlRequest::logFailure(char const *what) {
    try {
        throw;
    } catch (std::exception const &error) {
        Log() << "CurlRequest: ERROR! " << what << " failed: '" << error.what() << "'.\n";
    } catch (...) {
        Log() << "CurlRequest: ERROR! " << what << " failed: 'unknown exception'.\n";
    }
}

int CurlRequest::waitForEvents(int first, int second, int ms) {
    if (!initialized || multiHandle == nullptr) {
        return Io::wait(first, second, ms);
    }
    int timeout = ms;
    for (curlRequest const *request : requests) {
        if (request->state == RequestQueued && !request->finished) {
            timeout = 0;
            break;
        }
    }
    if (socketSet >= 0) {
        // The set stands for every transfer's socket: three descriptors to poll, however many
        // transfers are in flight.
        if (timerDue >= 0) {
            timeout = static_cast<int>(
                std::min<int64_t>(timeout, std::max<int64_t>(0, timerDue - steadyMilliseconds())));
        }
        pollfd fds[] = {{first, POLLIN, 0}, {second, POLLIN, 0}, {socketSet, POLLIN, 0}};
        if (poll(fds, std::size(fds), timeout) < 0 && errno != EINTR) {
            return Io::wait(first, second, timeout);
        }
        return Io::wait(first, second, 0);
    }
    curl_waitfd channel[] = {{first, CURL_WAIT_POLLIN, 0}, {second, CURL_WAIT_POLLIN, 0}};
    int events = 0;
    if (curl_multi_poll(multiHandle, channel, std::size(channel), timeout, &events) != CURLM_OK) {
        return Io::wait(first, second, ms);
    }
    // libcurl reports only POLLIN for the channel; a hang-up or an error must read as ready
    // too, so the channel's own answer is taken from a poll that does not wait.
    return Io::wait(first, second, 0);
}

void CurlRequest::watchSockets() {
    socketSet = epoll_create1(EPOLL_CLOEXEC);
    timerDue = -1;
    if (socketSet < 0) {
        return;
    }
    curl_multi_setopt(multiHandle, CURLMOPT_SOCKETFUNCTION, &CurlRequest::onSocket);
    curl_multi_setopt(multiHandle, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multiHandle, CURLMOPT_TIMERFUNCTION, &CurlRequest::onTimer);
    curl_multi_setopt(multiHandle, CURLMOPT_TIMERDATA, this);
}

void CurlRequest::watchSocket(curl_socket_t socket, int what) {
    if (what == CURL_POLL_REMOVE) {
        epoll_ctl(socketSet, EPOLL_CTL_DEL, socket, nullptr);
        return;
    }
    epoll_event event{};
    event.events =
        ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0u) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0u);
    event.data.fd = socket;
    if (epoll_ctl(socketSet, EPOLL_CTL_MOD, socket, &event) != 0 && errno == ENOENT) {
        epoll_ctl(socketSet, EPOLL_CTL_ADD, socket, &event);
    }
}

// Both callbacks run inside libcurl's C frames, which no exception may cross, and a -1 would
// stop every transfer of the multi handle for good: a failure is logged, 0 returned, and the
// next turn catches up on what could not be recorded.
int CurlRequest::onSocket(CURL * /*easy*/, curl_socket_t socket, int what, void *self,
                          void * /*known*/) {
    auto *network = static_cast<CurlRequest *>(self);
    try {
        callbackHook("CurlRequest socket");
        network->watchSocket(socket, what);
    } catch (...) {
        logFailure("Socket callback");
        network->missedSockets.emplace_back(socket, what);
    }
    return 0;
}

int CurlRequest::onTimer(CURLM * /*multi*/, long timeoutMs, void *self) {
    auto *network = static_cast<CurlRequest *>(self);
    try {
        callbackHook("CurlRequest timer");
        network->timerDue = timeoutMs < 0 ? -1 : steadyMilliseconds() + timeoutMs;
    } catch (...) {
        logFailure("Timer callback");
        // A timer run that is due at once makes libcurl tell its next time again.
        network->timerDue = steadyMilliseconds();
    }
    return 0;
}

void CurlRequest::driveTransfers() {
    int running = 0;
    CURLMcode code = CURLM_OK;
    // Sockets whose callback failed are watched from now on.
    std::vector<std::pair<curl_socket_t, int>> missed;
    missed.swap(missedSockets);
    for (auto const &socket : missed) {
        watchSocket(socket.first, socket.second);
    }
    if (socketSet < 0) {
        code = curl_multi_perform(multiHandle, &running);
    } else {
        // Sockets that stay ready beyond these are taken on the next turn, which then does not
        // wait.
        epoll_event events[kReadyPerTurn];
        int ready = epoll_wait(socketSet, events, kReadyPerTurn, 0);
        for (int i = 0; i < ready; ++i) {
            uint32_t what = events[i].events;
            int mask = ((what & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                       ((what & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                       ((what & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
            CURLMcode result =
                curl_multi_socket_action(multiHandle, events[i].data.fd, mask, &running);
            code = result != CURLM_OK ? result : code;
        }
        // Also what starts new transfers: adding one sets the timer to now.
        if (timerDue >= 0 && steadyMilliseconds() >= timerDue) {
            timerDue = -1;
            CURLMcode result =
                curl_multi_socket_action(multiHandle, CURL_SOCKET_TIMEOUT, 0, &running);
            code = result != CURLM_OK ? result : code;
        }
    }
    if (code != CURLM_OK) {
        Log() << "CurlRequest: ERROR! Failed to send requests failed: " << curl_multi_strerror(code)
              << ".\n";
    }
}
