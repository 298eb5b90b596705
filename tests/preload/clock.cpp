/// Preloaded into the daemon: the clock of ClockFile in place of the machine's wall clock. Who
/// waits for a time of the wall clock is woken by a step over that time and kept by a step back
/// from it, as the kernel does it.
#include "tests/harness/Clock.h"

#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

constexpr std::int64_t k_second = 1000000000;
constexpr std::int64_t k_look = k_second / 50;

std::int64_t machineTime(clockid_t clock) {
    static const auto get =
        reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    timespec time{};
    get(clock, &time);
    return time.tv_sec * k_second + time.tv_nsec;
}

timespec toTimespec(std::int64_t time) {
    return {time / k_second, static_cast<long>(time % k_second)};
}

harness::ClockFile& clockFile() {
    static harness::ClockFile& file = harness::ClockFile::map();
    return file;
}

std::int64_t wallTime() {
    const std::int64_t fixed = clockFile().fixed;
    return fixed != 0 ? fixed : machineTime(CLOCK_REALTIME) + clockFile().offset;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    *time = toTimespec(clock == CLOCK_REALTIME ? wallTime() : machineTime(clock));
    return 0;
}

time_t time(time_t* time) noexcept {
    const time_t now = wallTime() / k_second;
    return time != nullptr ? *time = now : now;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
    static const auto wait = reinterpret_cast<decltype(&pthread_cond_clockwait)>(
        dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    if (clock != CLOCK_REALTIME) {
        return wait(condition, mutex, clock, until);
    }
    ++clockFile().waits;
    std::int64_t left = 0;
    int result = 0;
    do {
        left = until->tv_sec * k_second + until->tv_nsec - wallTime();
        ++clockFile().looks;
        const std::int64_t pause = std::clamp(left, std::int64_t{0}, k_look);
        const timespec look = toTimespec(machineTime(CLOCK_MONOTONIC) + pause);
        result = wait(condition, mutex, CLOCK_MONOTONIC, &look);
    } while (result == ETIMEDOUT && left > 0);
    return result;
}

}  // extern "C"
