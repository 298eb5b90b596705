/// What the user can do on the desk.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "desk/AlarmdClient.h"
#include "desk/Cloud.h"
#include "desk/Device.h"
#include "desk/Supervisor.h"
#include "desk/Timeline.h"

namespace desk {

/// Runs typed commands. Used by the main thread.
class Commands {
  public:
    Commands(Timeline& timeline, Supervisor& supervisor, Cloud& cloud, Device& device,
             AlarmdClient& alarmd);

    /// Runs one line. One that is no command, or has a wrong argument, gets a line that says what
    /// was expected, and changes nothing.
    void run(const std::string& line);

    /// True once the user wants to leave.
    bool quitRequested() const { return m_quit; }

  private:
    /// One command. `run` does it, or answers false when the argument is wrong.
    struct Command {
        std::string name;
        std::string argument;  // empty: it takes none
        std::string help;
        std::function<bool(const std::string& argument)> run;
    };

    void list();
    void stop();
    void restart();
    void kill();
    void help();
    bool setIn(const std::string& duration, const char* type, char prefix);
    bool setAt(std::optional<Instant> due, const char* type, char prefix);
    std::string newId(char prefix);
    bool setVolume(const std::string& text);

    Timeline& m_timeline;
    Supervisor& m_supervisor;
    Cloud& m_cloud;
    Device& m_device;
    AlarmdClient& m_alarmd;
    const std::vector<Command> m_commands;
    std::map<char, int> m_lastIds;  // the number of the last identifier, by its prefix
    bool m_quit = false;
};

}  // namespace desk
