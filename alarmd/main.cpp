/// The daemon's entry: command line, single instance, logging, signals, and the engine's life.
#include <getopt.h>
#include <glib.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "alarmd/AlarmEngine.h"
#include "alarmd/AlarmMetrics.h"
#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "alarmd/platform/Singleton.h"

namespace {

using namespace alarmd;

constexpr int LARGE_BLOCK_BYTES = 128 << 10;
constexpr std::uint32_t LOG_MASK_NORMAL = 0xFFF0000;
constexpr std::uint32_t LOG_MASK_DEBUG = 0xFFFFFDE;

// What the signal handler uses; it may interrupt any thread, so these must not need a lock.
std::atomic<bool> g_stopRequested{false};
std::atomic<pthread_t> g_mainThread{};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<pthread_t>::is_always_lock_free,
              "the signal handler must not block");

struct Options {
    bool foreground = false;
    bool debug = false;
};

void usage(const char* program) {
    std::printf(
        "%s [options]\n\nOptions:\n-f  --foreground   Run in the foreground\n-d  --debug        Produce debug logs\n-h  --help         print this message\n\n",
        program);
}

/// False when the usage text is to be shown instead.
bool parseOptions(int argc, char** argv, Options& options) {
    static const option longOpts[] = {{"foreground", no_argument, nullptr, 'f'},
                                      {"debug", no_argument, nullptr, 'd'},
                                      {"help", no_argument, nullptr, '?'},
                                      {nullptr, 0, nullptr, 0}};
    int code = 0;
    while ((code = ::getopt_long(argc, argv, "fdc:h", longOpts, nullptr)) != -1) {
        switch (code) {
            case 'd':
                options.debug = true;
                break;
            case 'f':
                options.foreground = true;
                break;
            case 'h':
            case '?':
                return false;
            default:  // -c named a configuration file once; start scripts may still give it
                break;
        }
    }
    return optind >= argc;
}

/// Adds one dimension; the table borrows both texts.
void insert(GHashTable* table, const char* key, const std::string& value) {
    if (table != nullptr) {
        g_hash_table_insert(table, const_cast<char*>(key), const_cast<char*>(value.c_str()));
    }
}

/// Counts a start that was refused because another instance runs. Its log lines are never written,
/// the log mask being zero that early.
void countSecondStart() {
    GHashTable* dimensions = g_hash_table_new(g_str_hash, g_str_equal);
    if (dimensions == nullptr) {
        LOGE("alarmd:createAlarmMetricsFailed:reason=newHashTableCreationFailed:");
    }
    const AlarmMetrics metrics;
    const std::string serial = metrics.getDeviceSerial();
    if (!serial.empty()) {
        insert(dimensions, METRIC_DEVICE_ID_KEY, serial);
    } else {
        LOGW(
            "alarmd:metricMetadataNotAvailable:reason=dsnIsEmpty:deviceId is not added during emit metric call");
    }
    const std::string type = metrics.getDeviceTypeId();
    if (!type.empty()) {
        insert(dimensions, METRIC_DEVICE_TYPE_KEY, type);
    } else {
        LOGW(
            "alarmd:metricMetadataNotAvailable:reason=deviceTypeIsEmpty:deviceType is not added during emit metric call");
    }
    metrics.emitMetric(METRIC_SECOND_START, 1, dimensions);
    if (dimensions != nullptr) {
        g_hash_table_destroy(dimensions);
    }
}

void startLogging(bool debug) {
    g_orun42_log_mask = LOG_MASK_NORMAL;
    ::openlog("alarmd", LOG_PID | LOG_CONS, LOG_LOCAL0);
    startLogThread();
    if (debug) {
        g_orun42_log_mask = LOG_MASK_DEBUG;
    }
}

/// Makes the main thread leave its wait, whichever thread the system interrupted.
void signal_callback_handler(int signal) {
    g_stopRequested = true;
    const pthread_t mainThread = g_mainThread;
    if (pthread_equal(pthread_self(), mainThread) == 0) {
        ::pthread_kill(mainThread, signal);
    }
}

/// Sleeps until SIGINT or SIGTERM. From here on this thread takes both only inside the wait, which
/// unblocks them in one step: with a plain pause() a signal that arrives just before it would be
/// handled too early and the daemon would sleep on. Other threads do not block them, so the handler
/// may run on any; it then hands the signal on to this one.
void waitForStopSignal() {
    sigset_t stopSignals;
    sigset_t previous;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
    g_mainThread = pthread_self();
    ::signal(SIGINT, signal_callback_handler);
    ::signal(SIGTERM, signal_callback_handler);
    // Whoever started the daemon may have had them blocked.
    sigdelset(&previous, SIGINT);
    sigdelset(&previous, SIGTERM);
    while (!g_stopRequested) {
        ::sigsuspend(&previous);
    }
}

void runEngine() {
    AlarmEngine engine(ALARMD_DB_FILE);
    if (engine.init()) {
        waitForStopSignal();
        engine.terminate();
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Large blocks go back to the system one by one; left to itself the allocator would come to
    // keep what a single huge message took.
    ::mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK_BYTES);
    Options options;
    if (!parseOptions(argc, argv, options)) {
        usage(argv[0]);
        return 1;
    }
    if (!options.foreground) {
        // Where it cannot detach it serves in the foreground.
        [[maybe_unused]] const int ignored = ::daemon(0, 0);
    }
    const int guard = orun42_daemon_checksingleton(ALARMD_PID_FILE);
    if (guard < 0) {
        countSecondStart();
        std::exit(1);
    }
    startLogging(options.debug);
    try {
        runEngine();
    } catch (const std::exception& error) {
        LOGE("alarmd:alarmd:reason=uncaughtException,exc=%s:", error.what());
        orun42_daemon_cleansingleton(ALARMD_PID_FILE, guard);
        std::exit(1);
    }
    orun42_daemon_cleansingleton(ALARMD_PID_FILE, guard);
    return 0;
}
