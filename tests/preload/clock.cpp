/// Preloaded into the daemon: the clock of ClockFile in place of the machine's wall clock. Who
/// waits for a time of the wall clock is woken by a step over that time and kept by a step back
/// from it, as the kernel does it; the test of the kernel's own wait runs without this library.
#include "tests/harness/Clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

constexpr std::int64_t k_second = 1000000000;
constexpr std::int64_t k_look = k_second / 50;

/// The function that the daemon would have called without this library.
template <typename Function>
Function* original(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::int64_t machineTime(clockid_t clock) {
    static const auto get = original(&clock_gettime, "clock_gettime");
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

int gettimeofday(timeval* time, void*) noexcept {
    *time = {wallTime() / k_second, wallTime() % k_second / 1000};
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
    static const auto wait = original(&pthread_cond_clockwait, "pthread_cond_clockwait");
    if (clock != CLOCK_REALTIME) {
        return wait(condition, mutex, clock, until);
    }
    ++clockFile().waits;
    for (;;) {
        const std::int64_t left = until->tv_sec * k_second + until->tv_nsec - wallTime();
        ++clockFile().looks;
        if (left <= 0) {
            return ETIMEDOUT;
        }
        const timespec look = toTimespec(machineTime(CLOCK_MONOTONIC) + std::min(left, k_look));
        const int result = wait(condition, mutex, CLOCK_MONOTONIC, &look);
        if (result != ETIMEDOUT) {
            return result;
        }
    }
}

}  // extern "C"
