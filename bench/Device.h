/// The device around the daemon that is measured, and around what it is measured against.
#pragma once

#include <ctime>

#include "bench/Figures.h"
#include "tests/harness/Peer.h"
#include "tests/harness/Process.h"

namespace bench {

using harness::Lines;

/// A connection to the bus that does nothing but one call at a time.
class Caller {
  public:
    Caller();
    ~Caller();

    /// Reads a property, or waits until it can be read.
    std::string get(const std::string& service, const std::string& property);
    std::string awaitProperty(const std::string& service, const std::string& property);
    /// An entry for each name that somebody has taken, with the moment in which it was heard of.
    harness::Timeline names;

  private:
    std::string read(const std::string& service, const std::string& property, GError** error);

    GDBusConnection* m_bus;
    guint m_filter;
};

/// All services are there, sensible and connected. Failures end the program by an exception.
class Device {
  public:
    Device();

    /// Starts the daemon as on a device: in the foreground for the supervisor, no debug lines.
    void start();
    /// Waits until it handles messages; then, the timer thread, too, has nothing left to do.
    void settle();
    void stop();
    /// Makes the store hold that many notifications of the far future and nothing else. The daemon
    /// must not run.
    void fill(int count);
    void acknowledge();

    harness::Datagrams log{"/run/log.sock"};
    harness::Datagrams metrics{"/run/metrics-collector.sock"};
    harness::PrivateBus bus;
    harness::Peer peer;
    Caller caller;

  private:
    std::optional<harness::Process> m_daemon;
    int m_probes = 0;
};

/// The reference program, ready.
class Bare {
  public:
    explicit Bare(const Lines& arguments);

    pid_t pid() const { return m_pid; }

  private:
    harness::Process m_process;
    pid_t m_pid;
};

Lines bareCommand(const Lines& arguments);

/// The daemon writes its store with these settings (device/store/SqliteUtil.cpp); this one does it
/// with nothing around.
class BareStore {
  public:
    BareStore();
    ~BareStore();
    void insert(const std::string& id);

  private:
    struct Handles;
    std::unique_ptr<Handles> m_handles;
};

}  // namespace bench
