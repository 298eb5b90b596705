#include "desk/Collectors.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>
#include <vector>

#include "alarmd/Constants.h"
#include "desk/Json.h"

namespace desk {

namespace {

constexpr const char* k_logSocket = "/run/log.sock";
constexpr const char* k_metricsSocket = "/var/run/metrics-collector.sock";
constexpr std::size_t k_largestDatagram = 262144;

/// Warnings and errors of the ordinary course: for each empty slot of the store; for each
/// notification without sounds of its own; for each stop while offline, which counts a deletion
/// twice; for our plain reminders (the cloud's have sounds); for what is still to be sent when
/// alarmd ends; for a metric that finds the collector's queue full (the kernel keeps ten); and for
/// a bus whose user may not raise its limits.
constexpr const char* k_ordinary[] = {
    "TimedEvent:generateEarconFilesFromAlertFailed:reason=unknownEarcon",
    "There are no assets or assetPlayOrder in the JSON",
    "AlarmDB:emitDeleteMetricFailure:unknownType,type=*,",
    "type=REMINDER,assetPlayOrderSize=0",
    "AlarmCorvel:sendBasicMessageStr:reason=sendMessageFailed,result=-1:",
    "AlarmMetrics:emit:reason=",
    "Failed to set fd limit"};

/// Information that is worth a line.
constexpr const char* k_worthKnowing[] = {
    "AlarmEngine:retainEventForLater:", "reason=exitingNoAction", "event ignored - too old",
    "DeviceDeregistered"};

template <std::size_t N>
bool containsOne(const std::string& text, const char* const (&pieces)[N]) {
    return std::any_of(std::begin(pieces), std::end(pieces),
                       [&](const char* piece) { return text.find(piece) != std::string::npos; });
}

/// A line as syslog(3) sends it: "<131>Nov 24 15:00:00 alarmd[12]: E Component:event:...".
void showLogLine(Timeline& timeline, const std::string& datagram) {
    constexpr std::size_t k_timeLength = 16;
    const std::size_t name = datagram.find('>') + 1 + k_timeLength;
    const std::size_t colon = datagram.find(": ", name);
    if (colon == std::string::npos) {
        timeline.add(Source::Desk, "log:", datagram);
        return;
    }
    const std::string program = datagram.substr(name, datagram.find_first_of("[:", name) - name);
    const std::string line = datagram.substr(colon + 2);
    const bool isGrave = LOG_PRI(std::atoi(datagram.c_str() + 1)) <= LOG_WARNING;
    const bool shown = isGrave ? !containsOne(line, k_ordinary) : containsOne(line, k_worthKnowing);
    const Weight weight = shown ? Weight::Shown : Weight::Quiet;
    const std::size_t letterEnd = std::min(line.find(' '), line.size());
    if (program == alarmd::METRICS_SOURCE_NAME) {
        timeline.add(Source::Alarmd, line.substr(0, letterEnd),
                     line.substr(std::min(letterEnd + 1, line.size())), weight);
    } else {
        timeline.add(Source::Desk, program + ":", line, weight);
    }
}

/// "NotificationSetSuccess.TIMER" and the like follow "NotificationSetSuccess".
bool countsOneType(const std::string& metric) {
    const std::string type = metric.substr(metric.rfind('.') + 1);
    return type == alarmd::EVT_TYPE_ALARM || type == alarmd::EVT_TYPE_TIMER
           || type == alarmd::EVT_TYPE_REMINDER;
}

/// A counter, its copy for the forwarding channel, or a timed event: see the platform's metrics.
void showMetric(Timeline& timeline, const std::string& datagram) {
    const Json json(cJSON_Parse(datagram.c_str()));
    const std::string timer = member(json.get(), "timer");
    if (!timer.empty()) {
        timeline.add(Source::Metrics, timer, "", Weight::Quiet);
        return;
    }
    const std::string name = member(json.get(), "name");
    if (name.empty()) {
        timeline.add(Source::Metrics, datagram);
        return;
    }
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(json.get(), "value");
    const std::string text = cJSON_IsNumber(value) ? std::to_string(value->valueint) : "no value";
    const bool isCopy = member(json.get(), "program") == alarmd::KX_FORWARDING_PROGRAM_NAME;
    timeline.add(Source::Metrics, name, text,
                 isCopy || countsOneType(name) ? Weight::Quiet : Weight::Shown);
}

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

int openSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        fail(path);
    }
    unlink(path.c_str());  // what the last desk left
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail(path);
    }
    return descriptor;
}

}  // namespace

DatagramReader::DatagramReader(const std::string& path, Handler handler)
    : m_handler(std::move(handler)), m_socket(openSocket(path)), m_thread([this] { run(); }) {}

DatagramReader::~DatagramReader() {
    m_ending = true;
    shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    close(m_socket);
}

void DatagramReader::run() {
    std::vector<char> buffer(k_largestDatagram);
    while (!m_ending) {
        const ssize_t size = recv(m_socket, buffer.data(), buffer.size(), 0);
        if (size > 0) {
            m_handler(std::string(buffer.data(), static_cast<std::size_t>(size)));
        }
    }
}

Collectors::Collectors(Timeline& timeline)
    : m_log(k_logSocket, [&timeline](const std::string& line) { showLogLine(timeline, line); }),
      m_metrics(k_metricsSocket,
                [&timeline](const std::string& metric) { showMetric(timeline, metric); }) {}

}  // namespace desk
