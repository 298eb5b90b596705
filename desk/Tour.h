/// A guided tour of the daemon, which is also its test on the whole device.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "desk/AlarmdClient.h"
#include "desk/Cloud.h"
#include "desk/Supervisor.h"
#include "desk/Timeline.h"

namespace desk {

/// Does what a customer might do within a minute, and compares what the daemon does with what it
/// should do. Every step waits for what it expects, up to a limit; nothing is taken for granted.
/// Starts and stops the daemon itself. Used by the main thread, once.
class Tour {
  public:
    Tour(Timeline& timeline, Supervisor& supervisor, Cloud& cloud, AlarmdClient& alarmd);

    /// Goes through all steps and prints the closing table. True when everything came as it should.
    bool run();

  private:
    using Filter = Timeline::Filter;

    struct Row {
        std::string step;
        std::string expected;
        std::string seen;
        bool ok;
    };

    void start();
    void twoTimers();
    void killed();
    void offline();
    void doNotDisturb();
    void end();

    /// Says what "you" do now, and remembers where to look for what comes of it.
    void act(const std::string& what);
    void setNotification(const std::string& id, const char* type, Instant due);
    Instant stop();
    void startDaemon(const std::string& step);
    void stopDaemon(const std::string& step);

    bool isWell() const;
    void check(const std::string& step, const std::string& expected, const std::string& seen,
               bool ok);
    /// Waits until an entry since the last act passes; the first that does.
    std::optional<Entry> await(const Filter& filter);
    void expect(const std::string& step, const std::string& expected, const Filter& filter);
    void expectNone(const std::string& step, const std::string& expected, const Filter& filter);
    /// A ring at its time; or, when it has to wait for the stop of another one, right after that.
    void expectRing(const std::string& step, Instant due,
                    std::optional<Instant> stop = std::nullopt);
    void expectDoNotDisturbFile(bool there);
    void printTable();

    Timeline& m_timeline;
    Supervisor& m_supervisor;
    Cloud& m_cloud;
    AlarmdClient& m_alarmd;
    Timeline::Position m_act = 0;
    std::vector<Row> m_rows;
};

}  // namespace desk
