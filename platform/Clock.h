#pragma once

#include <cstdint>

// Whole seconds since the epoch, as time() gives them. Any thread. Tests may fix the clock
// through PlatformFakes::clock().
int64_t ClockSeconds();

// The whole seconds of gettimeofday(); the same seam as ClockSeconds.
int64_t ClockTimeOfDaySeconds();
