#include "desk/Supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace desk {

namespace {

constexpr std::chrono::seconds k_startLimit{20};
constexpr std::chrono::seconds k_stopLimit{20};
constexpr std::chrono::milliseconds k_busLimit{5000};
/// Conditions that no event announces (a file that appears) are looked at this often.
constexpr std::chrono::milliseconds k_lookAgain{5};

constexpr const char* k_busConfigFile = "/run/bus.conf";
constexpr const char* k_busConfig = R"(<busconfig>
  <listen>unix:path=/run/bus.sock</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

constexpr std::array<int, 4> k_signals{SIGINT, SIGTERM, SIGHUP, SIGCHLD};

sigset_t signalMask() {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int number : k_signals) {
        sigaddset(&mask, number);
    }
    return mask;
}

/// The first line that comes through a pipe within the limit; empty when none comes.
std::string readLine(int pipe) {
    std::string line;
    pollfd waiting{pipe, POLLIN, 0};
    char letter = '\0';
    while (poll(&waiting, 1, static_cast<int>(k_busLimit.count())) > 0
           && read(pipe, &letter, 1) == 1) {
        if (letter == '\n') {
            return line;
        }
        line += letter;
    }
    return "";
}

/// Whether the process has a handler for SIGTERM.
bool catchesTermination(pid_t pid) {
    static const std::string k_field = "SigCgt:";
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, k_field.size(), k_field) == 0) {
            const auto caught = std::stoull(line.substr(k_field.size()), nullptr, 16);
            return (caught >> (SIGTERM - 1) & 1U) != 0;
        }
    }
    return false;
}

std::string describe(int status) {
    return status < 128 ? "status " + std::to_string(status)
                        : "signal " + std::to_string(status - 128);
}

}  // namespace

void blockSignals() {
    for (const int number : k_signals) {
        // An ignored signal does not reach a descriptor, and whoever started us may have ignored
        // it.
        signal(number, SIG_DFL);
    }
    const sigset_t mask = signalMask();
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
}

Supervisor::Supervisor(Timeline& timeline, std::string alarmd, bool debug)
    : m_timeline(timeline), m_alarmd(std::move(alarmd)), m_debug(debug) {
    const sigset_t mask = signalMask();
    m_signals = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
}

Supervisor::~Supervisor() {
    close(m_signals);
}

void Supervisor::startBus() {
    std::ofstream(k_busConfigFile, std::ios::trunc) << k_busConfig;
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for the bus");
    }
    m_bus.start({"dbus-daemon", std::string("--config-file=") + k_busConfigFile, "--nofork",
                 "--nopidfile", "--syslog-only", "--print-address=1"},
                pipe[1]);
    close(pipe[1]);
    const std::string address = readLine(pipe[0]);
    close(pipe[0]);
    if (address.empty()) {
        throw std::runtime_error("the private bus (dbus-daemon) does not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    m_timeline.add(Source::Desk, "the bus listens at", address);
}

bool Supervisor::startDaemon() {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::string> arguments{m_alarmd, "-f"};
    if (m_debug) {
        arguments.emplace_back("-d");
    }
    m_daemon.start(arguments, STDERR_FILENO);
    const pid_t pid = m_daemon.pid();
    waitUntil([&] { return !daemonRunning() || catchesTermination(pid); }, k_startLimit);
    const bool up = daemonRunning() && catchesTermination(pid);
    const auto took = std::chrono::steady_clock::now() - begin;
    m_timeline.add(Source::Desk, up ? "alarmd is up, process " + std::to_string(pid) + ", after "
                                          + std::to_string(static_cast<int>(milliseconds(took)))
                                          + " ms"
                                    : "alarmd does not come up");
    return up;
}

bool Supervisor::stopDaemon() {
    if (!daemonRunning()) {
        return false;
    }
    m_daemon.signal(SIGTERM);
    // Not waitUntil: the daemon is to end in order also when the desk was told to end.
    const auto deadline = std::chrono::steady_clock::now() + k_stopLimit;
    while (daemonRunning() && std::chrono::steady_clock::now() < deadline) {
        wait(k_lookAgain);
    }
    if (daemonRunning()) {
        m_timeline.add(Source::Desk, "alarmd does not end by itself and is killed");
        m_daemon.kill();
    }
    return m_daemon.status() == 0;
}

void Supervisor::killDaemon() {
    m_daemon.kill();
    m_timeline.add(Source::Desk, "alarmd was killed with kill -9");
}

bool Supervisor::wait(std::chrono::milliseconds limit, int input) {
    std::array<pollfd, 3> waiting{
        {{m_signals, POLLIN, 0}, {m_timeline.wakeDescriptor(), POLLIN, 0}, {input, POLLIN, 0}}};
    poll(waiting.data(), waiting.size(), static_cast<int>(limit.count()));
    m_timeline.settle();
    takeSignals();
    return waiting[2].revents != 0;
}

bool Supervisor::waitUntil(const std::function<bool()>& condition,
                           std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (m_quit || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        wait(k_lookAgain);
    }
    return true;
}

void Supervisor::takeSignals() {
    signalfd_siginfo info{};
    while (read(m_signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        m_quit = m_quit || info.ssi_signo != SIGCHLD;
    }
    if (m_daemon.reap()) {
        m_timeline.add(Source::Desk, "alarmd has ended with", describe(m_daemon.status()));
    }
    if (m_bus.reap()) {
        m_timeline.add(Source::Desk, "the bus has ended with", describe(m_bus.status()));
        m_quit = true;
    }
}

}  // namespace desk
