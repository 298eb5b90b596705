/// The two daemons that every program of the device reports to: the system log and the metrics
/// collector. What arrives at their sockets goes to the timeline.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "desk/Timeline.h"

namespace desk {

/// Receives the datagrams that come to a Unix socket, on a thread of its own: a program that logs
/// waits when nobody reads, so reading must not depend on what else the desk does.
class DatagramReader {
  public:
    using Handler = std::function<void(const std::string& datagram)>;

    /// Throws std::system_error when there can be no socket at `path`.
    DatagramReader(const std::string& path, Handler handler);
    ~DatagramReader();
    DatagramReader(const DatagramReader&) = delete;
    DatagramReader& operator=(const DatagramReader&) = delete;

  private:
    void run();

    const Handler m_handler;
    const int m_socket;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;
};

/// Both sockets, at the paths that the device's programs know.
class Collectors {
  public:
    explicit Collectors(Timeline& timeline);

  private:
    DatagramReader m_log;
    DatagramReader m_metrics;
};

}  // namespace desk
