#include "tests/harness/System.h"

#include <linux/magic.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace harness {
namespace fs = std::filesystem;
namespace {

/// These tests own /var/local and /run and empty them, so a real machine's must never be theirs.
bool inSandbox() {
    struct statfs root {};
    std::error_code error;
    return statfs("/var/local", &root) == 0 && root.f_type == TMPFS_MAGIC
           && fs::read_symlink("/dev/log", error) == "/run/log.sock";
}

}  // namespace

System::Folders::Folders() {
    if (!inSandbox()) {
        std::cerr << "These tests empty /var/local and /run: start them with tools/sandbox.\n";
        std::_Exit(1);
    }
    std::error_code ignored;
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

std::string utc(std::time_t time) {
    std::ostringstream text;
    text << std::put_time(std::gmtime(&time), "%Y-%m-%dT%H:%M:%SZ");
    return text.str();
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
    char** cells = nullptr;
    int rows = 0;
    int columns = 0;
    EXPECT_EQ(sqlite3_open((k_folder + "alarms.db").c_str(), &file), SQLITE_OK);
    sqlite3_busy_timeout(file, 5000);
    EXPECT_EQ(sqlite3_get_table(file, text.c_str(), &cells, &rows, &columns, nullptr), SQLITE_OK)
        << sqlite3_errmsg(file);
    Lines lines(static_cast<std::size_t>(rows));
    for (int i = 0; i < rows * columns; ++i) {
        // The names of the columns come first.
        const char* cell = cells[i + columns];
        lines[static_cast<std::size_t>(i / columns)] +=
            std::string(i % columns == 0 ? "" : "|") + (cell != nullptr ? cell : "");
    }
    sqlite3_free_table(cells);
    sqlite3_close(file);
    return lines;
}

}  // namespace harness
