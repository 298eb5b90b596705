/// The logging convention: every line goes to syslog with a one-letter severity, and only when that
/// severity's bit is set in the process-wide mask. The mask is tested before the arguments are
/// built, so arguments must not have side effects. A line reads
///   letter, blank, component ":" event ":" key=value pairs joined by "," ":" free text
/// Any thread.
#pragma once

#include <syslog.h>

#include <atomic>
#include <cstdint>

extern "C" {
/// The log mask, exported from the executable under this name for the logging library. Zero
/// (nothing is logged) until the program sets it. Atomic because the logging library changes it at
/// any time.
extern std::atomic<std::uint32_t> g_orun42_log_mask;
}

namespace alarmd {

constexpr std::uint32_t LOG_BIT_CRITICAL = 1U << 26;
constexpr std::uint32_t LOG_BIT_ERROR = 1U << 25;
constexpr std::uint32_t LOG_BIT_WARNING = 1U << 24;
constexpr std::uint32_t LOG_BIT_INFO = 1U << 23;
constexpr std::uint32_t LOG_BIT_DEBUG = 1U << 15;

inline bool isLogged(std::uint32_t bit) {
    return (g_orun42_log_mask.load(std::memory_order_relaxed) & bit) != 0;
}

/// Gives one line to syslog: at once, on the calling thread, until startLogThread.
void logLine(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// From here on a thread of its own gives the lines to syslog, in their order: syslog blocks while
/// the log's reader hangs, and nothing may ring late or go on ringing for that. At most 4 MiB wait;
/// what comes beyond that is counted and lost. The end of the process waits a second at most for
/// what still waits. Called once, by main, after openlog; where no thread can be started all stays
/// as it was.
void startLogThread();

}  // namespace alarmd

#define ALARMD_LOG_LINE(bit, priority, ...)           \
    do {                                              \
        if (::alarmd::isLogged(bit)) {                \
            ::alarmd::logLine(priority, __VA_ARGS__); \
        }                                             \
    } while (false)

// Emergency for a critical line and notice for an information line look odd; log readers rely on
// them.
#define LOGC(format, ...) \
    ALARMD_LOG_LINE(::alarmd::LOG_BIT_CRITICAL, LOG_EMERG, "C " format, ##__VA_ARGS__)
#define LOGE(format, ...) \
    ALARMD_LOG_LINE(::alarmd::LOG_BIT_ERROR, LOG_ERR, "E " format, ##__VA_ARGS__)
#define LOGW(format, ...) \
    ALARMD_LOG_LINE(::alarmd::LOG_BIT_WARNING, LOG_WARNING, "W " format, ##__VA_ARGS__)
#define LOGI(format, ...) \
    ALARMD_LOG_LINE(::alarmd::LOG_BIT_INFO, LOG_NOTICE, "I " format, ##__VA_ARGS__)
#define LOGD(format, ...) \
    ALARMD_LOG_LINE(::alarmd::LOG_BIT_DEBUG, LOG_DEBUG, "D " format, ##__VA_ARGS__)
