/// What all unit tests stand on: an empty device and its folders, in a sandbox.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "alarmd/AlarmEngine.h"
#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "tests/recording/Platform.h"

namespace alarmd {

using Texts = std::vector<std::string>;

/// The time string of an instant that is so many seconds from now.
inline std::string in(Seconds seconds) {
    return timeInStringFormat(toSeconds(now()) + seconds);
}

class Fixture : public testing::Test {
  protected:
    Fixture() {
        if (std::getenv("ALARMD_SANDBOX") == nullptr) {
            std::fputs("This wipes /var/local/alarmd: run it with tools/sandbox.\n", stderr);
            std::abort();
        }
        device.reset();
        device.answer("identity devicetype", "TYPE1");
        device.answer("identity dsn", "SERIAL1");
        for (const char* folder : {"/var/local/alarmd", "/var/local/earcon"}) {
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder + std::string("/assets"));
        }
        g_orun42_log_mask = 0xFFFFFFFF;
    }

    static void writeFile(const std::string& path, const std::string& text = "") {
        std::ofstream(path) << text;
    }
    static bool exists(const std::string& path) { return std::filesystem::exists(path); }
    static std::string asset(const std::string& name) { return ALARMD_ASSETS_PATH + name; }
    static std::string earcon(const std::string& name) { return ALARMD_EARCON_PATH + name; }

    static SqliteUtil::Row row(const std::string& id, const std::string& type,
                               const std::string& time, const std::string& loopCount = "2") {
        return {id, "client-" + id, type, time, "", "0", "", "-1", "", loopCount};
    }
    void seed(const std::vector<SqliteUtil::Row>& rows) {
        const auto& columns = AlarmDB::k_alarmColumns;
        device.seed(ALARMD_DB_FILE, "Notifications", {{columns.begin(), columns.end()}, rows});
    }
    /// The ids stored in a table, joined by blanks.
    std::string stored(const std::string& table = "Notifications") {
        std::string ids;
        for (const SqliteUtil::Row& row : device.rows(ALARMD_DB_FILE, table)) {
            ids += (ids.empty() ? "" : " ") + row[0];
        }
        return ids;
    }
    bool logged(const std::string& lineStart) { return !device.calls("log " + lineStart).empty(); }

    /// The calls in order, joined by ", ", without JSON documents and metric dimensions.
    std::string course(const std::string& call) {
        std::string joined;
        for (std::string text : device.calls(call)) {
            text = text.substr(0, text.find(text.find(" {") < text.find('{') ? " {" : "{"));
            for (const char* common : {"metrics-collector alarmd ", "time-event "}) {
                text.erase(0, text.find(common) == 0 ? std::string(common).size() : 0);
            }
            joined += (joined.empty() ? "" : ", ") + text;
        }
        return joined;
    }

    recording::Platform& device = recording::platform();
};

/// An engine with its real threads, and a test that plays bus and cloud. Notifications that are due
/// ring at once, so nothing waits.
class EngineFixture : public Fixture {
  protected:
    EngineFixture() {
        device.answer("com.orun42.system deviceHasTime", " true\n");
        device.answer("com.quintel.audiod AlarmVolume", "7");
        device.answer("com.quintel.corveld connectionState", "0");
    }
    ~EngineFixture() override { stop(); }

    AlarmEngine& start(const std::string& file = ALARMD_DB_FILE) {
        stop();
        m_engine = std::make_unique<AlarmEngine>(file);
        m_isRunning = m_engine->init();
        EXPECT_TRUE(m_isRunning);
        return *m_engine;
    }
    void stop() {
        if (std::exchange(m_isRunning, false)) {
            m_engine->terminate();
        }
        m_engine.reset();
    }
    void connect(bool online) {
        device.emit("com.quintel.corveld connectionStateChanged", online ? "1" : "0");
    }
    void set(const std::string& id, const std::string& type, Seconds due,
             const std::string& more = "") {
        device.deliver("SetNotification",
                       R"({"notificationId":")" + id + R"(","clientId":"c","notificationType":")"
                           + type + R"(","notificationTime":")" + in(due) + "\"" + more + "}");
    }
    void tell(const std::string& directive, const std::string& id) {
        device.deliver(directive, R"({"clientId":"c","notificationId":")" + id
                                      + R"(","notificationIds":[")" + id + R"("]})");
    }
    /// Waits until the worker has handled what was delivered to it. Any thread.
    void settle() {
        const std::string body = "{\"round\":" + std::to_string(++m_settled) + "}";
        device.deliver("Unknown", body);
        EXPECT_TRUE(device.waitFor("log E AlarmCorvel:onRequestMessage:json=" + body));
    }
    /// Sets one that is due and waits for the end of its ringing pass.
    void ring(const std::string& id, const std::string& type, const std::string& more = "") {
        const std::string last = "METRICS*NotificationStartedRinging.";
        const std::size_t before = device.calls(last).size();
        set(id, type, -1, more);
        ASSERT_TRUE(device.waitFor(last, before + 1));
        settle();
    }
    void acknowledge() { EXPECT_EQ(device.write("Acknowledge", "now"), 0); }
    void deregister() { device.emit(k_registration, "2"); }

    const std::string k_play = "put com.quintel.earconPlayer setPlayList=";
    const std::string k_send = "send DeviceNotifications.";
    const std::string k_finished = "log I AlarmEngine:sendAnyRetainedEvents:reason=finished";
    const std::string k_registration = "com.orun42.DeviceAuthenticationService registrationChanged";
    std::unique_ptr<AlarmEngine> m_engine;
    bool m_isRunning = false;
    std::atomic<int> m_settled{0};
};

}  // namespace alarmd
