/// Runs the two programs below the desk, the private bus and the daemon, and is the place where the
/// desk's main thread waits: for their end, for signals, and for what happens on the timeline.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "desk/Child.h"
#include "desk/Timeline.h"

namespace desk {

/// Blocks the signals that a supervisor waits for. To be called before any thread is started.
void blockSignals();

/// Used by the main thread only.
class Supervisor {
  public:
    /// After blockSignals(). `alarmd` is the
    /// daemon's program; `debug` starts it with all its log lines.
    Supervisor(Timeline& timeline, std::string alarmd, bool debug);
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Starts the bus and makes it the system bus of this process and of its children. Throws
    /// std::runtime_error when there is none.
    void startBus();

    /// Starts the daemon and waits until it is up: it catches the signal that asks it to end, which
    /// is the last thing that its start does. False when that does not come.
    bool startDaemon();

    /// Asks the daemon to end and waits; ends it by force after a while. True when it ended by
    /// itself, with status 0.
    bool stopDaemon();

    /// Ends the daemon as kill -9 does.
    void killDaemon();

    bool daemonRunning() const { return m_daemon.running(); }

    /// True once an interrupt or termination signal has come, or the bus is gone: time to end.
    bool quitRequested() const { return m_quit; }

    /// Waits until something happens (see above) or `input`, when not negative, is readable;
    /// `limit` at the longest. True when `input` is readable.
    bool wait(std::chrono::milliseconds limit, int input = -1);

    /// Waits until `condition` holds; false when it does not within `limit`, or when it is time to
    /// end.
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

  private:
    void takeSignals();

    Timeline& m_timeline;
    const std::string m_alarmd;
    const bool m_debug;
    int m_signals = -1;
    bool m_quit = false;
    Child m_bus;
    Child m_daemon;
};

}  // namespace desk
