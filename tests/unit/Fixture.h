/// What all unit tests stand on: an empty device and its folders, in a sandbox.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <regex>

#include "alarmd/AlarmEngine.h"
#include "alarmd/Constants.h"
#include "fuzz/Device.h"

namespace alarmd {

using Texts = std::vector<std::string>;

/// The time string of an instant that is so many seconds from now.
inline std::string in(Seconds seconds) {
    return timeInStringFormat(toSeconds(now()) + seconds);
}

class Fixture : public testing::Test {
  protected:
    static void writeFile(const std::string& path) { std::ofstream(path) << "sound"; }
    static std::string asset(const std::string& name) { return ALARMD_ASSETS_PATH + name; }
    /// The ids stored in a table, joined by blanks.
    std::string stored(const std::string& table = "Notifications") {
        std::string ids;
        for (const SqliteUtil::Row& row : device.rows(table)) {
            ids += (ids.empty() ? "" : " ") + row[0];
        }
        return ids;
    }
    /// The calls in order, joined by ", ", without JSON documents, metric dimensions and what is
    /// the same everywhere.
    std::string course(const std::string& call) {
        static const std::regex common(
            R"(metrics-collector alarmd |time-event |DeviceNotifications\.|com\.quintel\.\w+ |)"
            R"(/var/local/[a-z/]+/|\{.*| \{.*| $)");
        std::string joined;
        for (const std::string& text : device.calls(call)) {
            joined += (joined.empty() ? "" : ", ") + std::regex_replace(text, common, "");
        }
        return joined;
    }

    recording::Platform& device = fuzz::emptyDevice();
};

/// An engine with its real threads, and a test that plays bus and cloud. Notifications that are due
/// ring at once, so nothing waits.
class EngineFixture : public Fixture {
  protected:
    EngineFixture() { device.answer("com.orun42.system deviceHasTime", " true\n"); }
    ~EngineFixture() override { stop(); }

    AlarmEngine& start() {
        m_engine = std::make_unique<AlarmEngine>(ALARMD_DB_FILE);
        EXPECT_TRUE(m_engine->init());
        return *m_engine;
    }
    void stop() {
        if (m_engine) {
            m_engine->terminate();
        }
        m_engine.reset();
    }
    void connect(bool online) {
        device.send("com.quintel.corveld connectionStateChanged", online ? "1" : "0");
    }
    void set(const std::string& id, const std::string& type, const std::string& time,
             const std::string& more = "") {
        device.deliver("SetNotification",
                       R"({"notificationId":")" + id + R"(","clientId":"c","notificationType":")"
                           + type + R"(","notificationTime":")" + time + "\"" + more + "}");
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
    void ring(const std::string& id, const std::string& type, const std::string& more = "",
              Seconds due = -1) {
        const std::string last = "METRICS*NotificationStartedRinging.";
        const std::size_t before = device.calls(last).size();
        set(id, type, in(due), more);
        ASSERT_TRUE(device.waitFor(last, before + 1));
        settle();
    }
    void acknowledge() { EXPECT_EQ(device.send("Acknowledge", "now"), 0); }

    std::unique_ptr<AlarmEngine> m_engine;
    std::atomic<int> m_settled{0};
};

}  // namespace alarmd
