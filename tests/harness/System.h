/// The device around one daemon: folders, bus, services, log, metrics collector and the daemon.
#pragma once

#include <gtest/gtest.h>

#include <ctime>

#include "tests/harness/Peer.h"
#include "tests/harness/Process.h"

namespace harness {

inline const std::string k_folder = "/var/local/alarmd/";

/// Each test gets a fresh device with all services there, sensible and connected; the daemon is
/// started by the test. At the end the services go, and the daemon has to stop in good order.
class System : public testing::Test {
  protected:
    System();
    void TearDown() override;

    /// Starts the daemon and returns when it handles messages.
    void start(const Lines& options = {"-f", "-d"});
    /// Ends the daemon as a crash or a power cut would.
    void crash() { end(SIGKILL, -SIGKILL); }
    /// Ends the daemon in good order.
    void stop(int signal = SIGTERM) { end(signal, 0); }

    /// Returns when all messages, or all events, that were sent before have been handled.
    void settle();
    void settleEvents();

    /// Has a notification of the client "c1" set, and waits until that is acknowledged.
    void set(const std::string& id, const std::string& type, std::time_t due,
             const std::string& more = "");
    /// Both the bus and the peer can come back.
    void loseBus() {
        peer.disconnect();
        bus.crash();
    }
    /// Waits until a play list reaches the player and the status follows.
    Entry rings(const std::string& status);
    /// Stops what rings; returns when that is done.
    void acknowledge() { EXPECT_EQ(peer.set("Acknowledge", "anything"), ""); }

    struct Folders {
        Folders();
    };
    Folders folders;
    Datagrams log{"/run/log.sock"};
    Datagrams metrics{"/run/metrics-collector.sock"};
    PrivateBus bus;
    Peer peer;
    std::optional<Process> daemon;

  private:
    void end(int signal, int status);
    int m_probes = 0;
};

std::string binary();
/// A number that the caller may choose, as the length of a long run or the seed of a random one.
unsigned long fromEnvironment(const char* name, unsigned long otherwise);
/// "2030-01-31T06:30:00Z"
std::string utc(std::time_t time);
std::string setBody(const std::string& id, const std::string& type, std::time_t due,
                    const std::string& more = "");
void write(const std::string& path, const std::string& text = "");
/// Runs SQL on the daemon's file; the rows, with the columns joined by "|".
Lines sql(const std::string& text);

}  // namespace harness
