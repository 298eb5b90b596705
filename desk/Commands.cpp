#include "desk/Commands.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "alarmd/Constants.h"

namespace desk {

namespace {

constexpr int k_loudest = 100;

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    const std::size_t last = text.find_last_not_of(" \t\r");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

using Run = std::function<bool(const std::string&)>;

/// A command without argument.
Run plain(std::function<void()> action) {
    return [action = std::move(action)](const std::string&) {
        action();
        return true;
    };
}

/// A command that takes "on" or "off".
Run onOrOff(std::function<void(bool)> action) {
    return [action = std::move(action)](const std::string& text) {
        const bool known = text == "on" || text == "off";
        if (known) {
            action(text == "on");
        }
        return known;
    };
}

/// The number of an identifier that was made here, "t12"; 0 for any other.
int numberOf(const std::string& id, char prefix) {
    const bool ours = id.size() > 1 && id.size() < 10 && id[0] == prefix
                      && id.find_first_not_of("0123456789", 1) == std::string::npos;
    return ours ? std::atoi(id.c_str() + 1) : 0;
}

std::string row(const std::string& first, const std::string& second, const std::string& third,
                const std::string& fourth = "") {
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(), "  %-12s %-16s %-22s %s\n", first.c_str(),
                  second.c_str(), third.c_str(), fourth.c_str());
    return text.data();
}

std::string timeLeft(const std::string& time) {
    const auto due = parseTimeString(time);
    if (!due) {
        return "?";
    }
    const auto left = std::chrono::ceil<std::chrono::seconds>(
        std::max(*due - std::chrono::system_clock::now(), Instant::duration::zero()));
    return std::to_string(left.count()) + " s";
}

}  // namespace

Commands::Commands(Timeline& timeline, Supervisor& supervisor, Cloud& cloud, Device& device,
                   AlarmdClient& alarmd)
    : m_timeline(timeline),
      m_supervisor(supervisor),
      m_cloud(cloud),
      m_device(device),
      m_alarmd(alarmd),
      m_commands{
          {"timer", "DURATION", "10s, 5m, 1h30m, or 90 for seconds",
           [this](const std::string& text) { return setIn(text, alarmd::EVT_TYPE_TIMER, 't'); }},
          {"alarm", "HH:MM[:SS]", "the next time that the clock shows this, in UTC",
           [this](const std::string& text) {
               return setAt(nextTimeOfDay(text, std::chrono::system_clock::now()),
                            alarmd::EVT_TYPE_ALARM, 'a');
           }},
          {"reminder", "DURATION", "as for timer",
           [this](const std::string& text) { return setIn(text, alarmd::EVT_TYPE_REMINDER, 'r'); }},
          {"list", "", "what is set, and what rings", plain([this] { list(); })},
          {"stop", "", "stops what rings", plain([this] { stop(); })},
          {"delete", "ID", "removes what was set, also while it rings",
           [this](const std::string& id) {
               if (!id.empty()) {
                   m_cloud.deleteNotification(id);
               }
               return !id.empty();
           }},
          {"offline", "", "the connection to the cloud goes",
           plain([this] { m_cloud.setConnected(false); })},
          {"online", "", "and comes back", plain([this] { m_cloud.setConnected(true); })},
          {"refresh", "", "the cloud asks for the state", plain([this] { m_cloud.refresh(); })},
          {"volume", "0-100", "the volume of alarms",
           [this](const std::string& text) { return setVolume(text); }},
          {"ascending", "on|off", "whether alarms start softly",
           onOrOff([this](bool on) { m_device.setAscending(on); })},
          {"dnd", "on|off", "do not disturb",
           onOrOff([this](bool on) { m_alarmd.setDoNotDisturb(on); })},
          {"alert", "long|short|none", "the alert type that is chosen on the device",
           [this](const std::string& type) { return m_device.setAlertType(type); }},
          {"deregister", "", "the customer's account goes from the device",
           plain([this] { m_device.setRegistered(false); })},
          {"register", "", "and comes back", plain([this] { m_device.setRegistered(true); })},
          {"restart", "", "stops alarmd and starts it again", plain([this] { restart(); })},
          {"kill", "", "ends alarmd with kill -9 and starts it again", plain([this] { kill(); })},
          {"verbose", "on|off", "shows every log line and every metric",
           onOrOff([this](bool on) { m_timeline.setVerbose(on); })},
          {"help", "", "this list", plain([this] { help(); })},
          {"quit", "", "ends everything; what is set is kept", plain([this] { m_quit = true; })},
      } {}

void Commands::run(const std::string& line) {
    const std::string text = trimmed(line);
    if (text.empty()) {
        return;
    }
    m_timeline.add(Source::You, text);
    const std::size_t blank = std::min(text.find_first_of(" \t"), text.size());
    const std::string name = text.substr(0, blank);
    const std::string argument = trimmed(text.substr(blank));
    const auto command = std::find_if(m_commands.begin(), m_commands.end(),
                                      [&](const Command& each) { return each.name == name; });
    if (command == m_commands.end()) {
        m_timeline.add(Source::Desk, "there is no command", name + "; help lists them");
        return;
    }
    const bool isSurplus = command->argument.empty() && !argument.empty();
    if (isSurplus || !command->run(argument)) {
        m_timeline.add(Source::Desk, "expected:",
                       command->name + " " + command->argument + " (" + command->help + ")");
    }
}

bool Commands::setIn(const std::string& duration, const char* type, char prefix) {
    const auto parsed = parseDuration(duration);
    // Directives name whole seconds; a timer is never shorter than was asked for.
    return parsed
           && setAt(
               std::chrono::ceil<std::chrono::seconds>(std::chrono::system_clock::now() + *parsed),
               type, prefix);
}

bool Commands::setAt(std::optional<Instant> due, const char* type, char prefix) {
    if (due) {
        m_cloud.setNotification(newId(prefix), type, *due);
    }
    return due.has_value();
}

std::string Commands::newId(char prefix) {
    // What was set in an earlier run is still there, and must not be replaced.
    int& last = m_lastIds[prefix];
    for (const Notification& each : m_alarmd.list().value_or(std::vector<Notification>{})) {
        last = std::max(last, numberOf(each.id, prefix));
    }
    return prefix + std::to_string(++last);
}

void Commands::list() {
    const auto notifications = m_alarmd.list();
    const auto status = m_alarmd.property(alarmd::ALARMD_STATUS_PROP_NAME);
    if (!notifications || !status) {
        return;
    }
    m_timeline.add(Source::Desk,
                   std::to_string(notifications->size()) + " set, ringing: " + *status);
    std::string table = notifications->empty() ? "" : row("id", "type", "time", "left");
    for (const Notification& each : *notifications) {
        table += row(each.id, each.type, each.time, timeLeft(each.time));
    }
    m_timeline.print(table);
}

void Commands::stop() {
    if (m_alarmd.property(alarmd::ALARMD_STATUS_PROP_NAME) == alarmd::ALARMD_STATUS_NONE) {
        m_timeline.add(Source::Desk, "nothing rings");
    }
    m_alarmd.acknowledge();
}

bool Commands::setVolume(const std::string& text) {
    const bool isNumber = !text.empty() && text.size() <= 3
                          && text.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || std::stoi(text) > k_loudest) {
        return false;
    }
    m_device.setVolume(std::stoi(text));
    return true;
}

void Commands::restart() {
    m_supervisor.stopDaemon();
    m_device.silence();
    m_supervisor.startDaemon();
}

void Commands::kill() {
    m_supervisor.killDaemon();
    m_device.silence();
    m_supervisor.startDaemon();
}

void Commands::help() {
    std::string text;
    for (const Command& each : m_commands) {
        text += row(each.name, each.argument, each.help);
    }
    m_timeline.print(text);
}

}  // namespace desk
