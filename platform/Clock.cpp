// Clock: whole seconds since the epoch, from time() and from gettimeofday, with a test seam.

#include "platform/Clock.h"

#include "platform/PlatformFakes.h"

#include <sys/time.h>

#include <ctime>

int64_t ClockSeconds() {
    auto const &fake = PlatformFakes::clock();
    if (fake) {
        return fake();
    }
    return static_cast<int64_t>(std::time(nullptr));
}

int64_t ClockTimeOfDaySeconds() {
    auto const &fake = PlatformFakes::clock();
    if (fake) {
        return fake();
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec);
}
