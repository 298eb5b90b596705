/// A wall clock for the daemon alone, which the test sets. The machine's own is never touched.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace harness {

/// What the test and the library that is preloaded into the daemon share.
struct ClockFile {
    static constexpr const char* k_path = "/run/clock";

    std::atomic<std::int64_t> offset;  ///< ns that the clock is ahead of the machine's
    std::atomic<std::int64_t> fixed;   ///< ns since 1970 where it stands still; 0 when it runs
    std::atomic<std::int64_t> waits;   ///< wall-clock waits that the daemon has begun
    std::atomic<std::int64_t> looks;   ///< how often such a wait has looked at the clock

    static ClockFile& map() {
        const int file = open(k_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* const page =
            ftruncate(file, sizeof(ClockFile)) == 0
                ? mmap(nullptr, sizeof(ClockFile), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0)
                : MAP_FAILED;
        close(file);
        return *static_cast<ClockFile*>(page);
    }
};

}  // namespace harness
