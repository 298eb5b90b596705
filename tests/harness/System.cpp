#include "tests/harness/System.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iostream>

namespace harness {
namespace fs = std::filesystem;

System::Folders::Folders() {
    // A real machine's must never be theirs, whatever the environment says.
    struct statx place {};
    std::error_code ignored;
    if (std::getenv("ALARMD_SANDBOX") == nullptr || statx(AT_FDCWD, "/var/local", 0, 0, &place) != 0
        || (place.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0
        || fs::read_symlink("/dev/log", ignored) != "/run/log.sock") {
        std::cerr << "These tests empty /var/local and /run: start them with tools/sandbox.\n";
        std::_Exit(1);
    }
    for (const char* folder : {"/var/local", "/run"}) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            fs::remove_all(entry, ignored);
        }
    }
    fs::create_directories(k_folder + "assets");
    for (const char* name : {"system_alerts_melodic_01.mp3", "system_alerts_melodic_01_short.wav",
                             "system_alerts_melodic_02.mp3", "system_alerts_melodic_02_short.wav",
                             "system_communications_sms_received_02.mp3", "1000ms_blank.mp3"}) {
        write(std::string("/var/local/earcon/") + name);
    }
    write("/var/local/idme/dsn", "G0000000\n");
    write("/var/local/idme/devicetype", "SPEAKER\n");
}

System::System() {
    setenv("TZ", "UTC", 1);
    for (const char* service :
         {"com.quintel.corveld", "com.quintel.earconPlayer", "com.quintel.audiod",
          "com.quintel.settingsd", "com.quintel.controld", "com.orun42.DeviceAuthenticationService",
          "com.orun42.system"}) {
        peer.behave(service, Manner::Answer);
    }
    peer.provide("connectionState", "1");
    peer.provide("AlarmVolume", "50");
    peer.provide("com_brevan_corvel_ascendingAlarmVolume", "'disabled'");
    peer.provide("isRegistered", "1");
    peer.provide("deviceHasTime", "'true'");
}

void System::TearDown() {
    peer.disconnect();
    if (daemon) {
        stop();
    }
    EXPECT_EQ(log.timeline.find("reason=exception"), Lines{});
}

void System::start(const Lines& options) {
    Lines command{binary()};
    command.insert(command.end(), options.begin(), options.end());
    daemon.emplace(command);
    settle();
}

void System::end(int signal, int status) {
    if (status == 0) {
        awaitHandlers(daemon->pid());
    }
    EXPECT_EQ(daemon->end(signal), status);
    daemon.reset();
}

// A message, or an event, that does nothing but leave a line in the log: the queue has come to it.
// The read that follows brings in what the daemon has sent until then.

void System::settle() {
    const std::string probe = "{\"probe\":" + std::to_string(++m_probes) + "}";
    await([&] { return peer.deliver("probe", probe).empty(); });
    log.timeline.take("", "json=" + probe + ":unknown message type");
    peer.get("AlarmdStarted");
}

void System::settleEvents() {
    const std::string probe = "probe" + std::to_string(++m_probes);
    peer.emit("com.quintel.controld", "AlarmTypeChanged", g_variant_new("(s)", probe.c_str()));
    log.timeline.take("", "invalidAlertState,status=" + probe + ":");
    peer.get("AlarmdStarted");
}

void System::set(const std::string& id, const std::string& type, std::time_t due,
                 const std::string& more) {
    EXPECT_EQ(peer.deliver("SetNotification", setBody(id, type, due, more)), "");
    peer.timeline.take("EditAcknowledged", "\"" + id + "\",\"disposition\":\"SET\"");
}

Entry System::rings(const std::string& status) {
    const Entry playList = peer.timeline.take("setPlayList");
    peer.timeline.take("StatusChanged", status);
    return playList;
}

std::string binary() {
    const char* other = std::getenv("ALARMD_BINARY");
    return other != nullptr ? other : ALARMD_BINARY;
}

unsigned long fromEnvironment(const char* name, unsigned long otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoul(text, nullptr, 10) : otherwise;
}

std::string utc(std::time_t time) {
    char text[64];
    std::tm fields{};
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &fields));
    return text;
}

std::string setBody(const std::string& id, const std::string& type, std::time_t due,
                    const std::string& more) {
    return R"({"notificationId":")" + id + R"(","clientId":"c1","notificationType":")" + type
           + R"(","notificationTime":")" + utc(due) + "\"" + more + "}";
}

void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

Lines sql(const std::string& text) {
    sqlite3* file = nullptr;
    Lines rows;
    const auto add = [](void* all, int columns, char** cells, char**) {
        std::string& row = static_cast<Lines*>(all)->emplace_back();
        for (int i = 0; i < columns; ++i) {
            row += std::string(i == 0 ? "" : "|") + (cells[i] != nullptr ? cells[i] : "");
        }
        return 0;
    };
    EXPECT_EQ(sqlite3_open((k_folder + "alarms.db").c_str(), &file), SQLITE_OK);
    sqlite3_busy_timeout(file, 5000);
    EXPECT_EQ(sqlite3_exec(file, text.c_str(), add, &rows, nullptr), SQLITE_OK)
        << sqlite3_errmsg(file);
    sqlite3_close(file);
    return rows;
}

}  // namespace harness
