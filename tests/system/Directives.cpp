/// What the cloud and the other services may ask, and what they get for it.
#include <filesystem>
#include <fstream>

#include "tests/harness/System.h"

namespace harness {
namespace {

namespace fs = std::filesystem;

constexpr std::time_t k_far = 1893456000;  // 2030-01-01T00:00:00Z

TEST_F(System, AnswersEachDirective) {
    std::ifstream script(fs::path(__FILE__).parent_path() / "../data/directives.txt");
    ASSERT_TRUE(script);
    std::string line;
    std::string directive;
    Lines expected;
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    const auto check = [&] {
        settle();
        EXPECT_EQ(peer.timeline.takeAll(), std::exchange(expected, {})) << "after " << directive;
    };
    while (std::getline(script, line)) {
        const std::size_t blank = line.find(' ');
        if (blank == 0) {
            expected.push_back(line.substr(2));
        } else if (!line.empty() && line[0] != '#') {
            check();
            directive = line;
            EXPECT_EQ(peer.deliver(line.substr(0, blank), line.substr(blank + 1), 9), "");
        }
    }
    check();
    // The last name is too short for the prefix that is cut off: that ends this message alone.
    EXPECT_NE(log.timeline.take("", "E CorvelMessaging:onMessage:reason=exception").text, "");
}

TEST_F(System, ListsMoreThanFitsTheFirstBuffer) {
    start();
    for (int i = 0; i < 20; ++i) {
        set("a" + std::to_string(i), "ALARM", k_far + i);
    }
    const std::string list = peer.get("ListAlerts");
    EXPECT_GT(list.size(), 256U * 7);
    EXPECT_EQ(peer.deliver("ListNotification", "{}"), "");
    EXPECT_EQ(peer.timeline.take("NotificationList").text, list);
}

TEST_F(System, ChangesTheRingingOne) {
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    const std::time_t past = std::time(nullptr) - 5;
    const std::string stopped =
        R"(NotificationStoppedEvent {"notificationId":"a1","clientId":"c1"})";
    for (const bool edited : {true, false}) {
        set("a1", "ALARM", past);
        rings("ALARM");
        peer.timeline.take("NotificationStartedEvent");
        peer.timeline.takeAll();
        EXPECT_EQ(peer.deliver(edited ? "SetNotification" : "DeleteNotification",
                               setBody("a1", "ALARM", k_far), 5),
                  "");
        settle();
        const std::string answer = R"(EditAcknowledged {"notificationId":"a1","disposition":")"
                                   + std::string(edited ? "SET" : "DELETED")
                                   + R"(","clientId":"c1"} #5)";
        Lines seen = peer.timeline.takeAll();
        ASSERT_EQ(seen.size(), 5U);
        seen.erase(seen.begin());
        EXPECT_EQ(seen, edited
                            ? (Lines{stopped, "StatusChanged None", "endThinkingMode v1", answer})
                            : (Lines{answer, stopped, "StatusChanged None", "endThinkingMode v1"}));
    }
}

TEST_F(System, HearsOfRefreshAndAlertType) {
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    set("t1", "TIMER", std::time(nullptr) - 5);
    rings("TIMER");
    peer.timeline.take("NotificationStartedEvent");
    const std::string active =
        R"(,"activeNotifications":[{"notificationId":"t1","notificationType":"TIMER",)"
        R"("clientId":"c1"}]})";
    peer.emit("com.quintel.corveld", "refreshCloudState");
    EXPECT_EQ(peer.timeline.take("StateUpdate").text, "{\"alarmVolume\":50" + active);
    peer.provide("AlarmVolume", "'loud'");
    peer.emit("com.quintel.corveld", "refreshCloudState");
    EXPECT_EQ(peer.timeline.take("StateUpdate").text, "{\"alarmVolume\":25" + active);
    peer.timeline.takeAll();
    for (const char* mode : {"long", "long", "Long", "short", "none", "short"}) {
        peer.emit("com.quintel.controld", "AlarmTypeChanged", g_variant_new("(s)", mode));
    }
    settleEvents();
    const std::string body = R"({"notificationId":"t1","clientId":"c1"})";
    EXPECT_EQ(peer.timeline.takeAll(), (Lines{"NotificationEnteredForegroundEvent " + body,
                                              "NotificationEnteredBackgroundEvent " + body,
                                              "NotificationEnteredBackgroundEvent " + body}));
}

TEST_F(System, KeepsTheStopNoticeWhileOffline) {
    peer.provide("connectionState", "0");
    start();
    set("t1", "TIMER", std::time(nullptr) - 5);
    rings("TIMER");
    acknowledge();
    EXPECT_EQ(sql("SELECT * FROM RetainedEvents"), Lines{"t1|c1"});
    EXPECT_EQ(sql("SELECT * FROM Notifications"), Lines{});
    // The word of a stranger does not count, whether said to all or to the daemon alone.
    Peer stranger;
    stranger.emit("com.quintel.corveld", "connectionStateChanged", g_variant_new("(i)", 1));
    stranger.emit("com.quintel.corveld", "connectionStateChanged", g_variant_new("(i)", 1),
                  "com.quintel.alarmd");
    stranger.get("Status");
    settleEvents();
    EXPECT_EQ(sql("SELECT * FROM RetainedEvents"), Lines{"t1|c1"});
    peer.emit("com.quintel.corveld", "connectionStateChanged", g_variant_new("(i)", 1));
    EXPECT_EQ(peer.timeline.take("NotificationStoppedEvent").text,
              R"({"notificationId":"t1","clientId":"c1"})");
    EXPECT_EQ(peer.timeline.find("NotificationStartedEvent"), Lines{});
    EXPECT_EQ(peer.timeline.find("stateChanged").size(), 1U);
    EXPECT_TRUE(await([] { return sql("SELECT * FROM RetainedEvents").empty(); }));
}

TEST_F(System, ForgetsEverythingWhenDeregistered) {
    start();
    const std::time_t past = std::time(nullptr) - 5;
    set("a1", "ALARM", k_far);
    for (const char* ringing : {"t1", "t2"}) {
        // The first time an alarm waits, the second time a timer rings.
        peer.emit("com.orun42.DeviceAuthenticationService", "registrationChanged",
                  g_variant_new("(i)", 2));
        settleEvents();
        EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{});
        EXPECT_EQ(peer.get("Status"), "None");
        set(ringing, "TIMER", past);
        rings("TIMER");
    }
    peer.emit("com.orun42.DeviceAuthenticationService", "registrationChanged",
              g_variant_new("(i)", 3));
    settleEvents();
    EXPECT_EQ(peer.get("Status"), "TIMER");
    stop();
    peer.provide("isRegistered", "0");
    start();
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{});
}

TEST_F(System, RemembersDoNotDisturb) {
    for (const std::string value : {"true", "false"}) {
        start();
        EXPECT_EQ(peer.get("inDND"), value == "true" ? "false" : "true");
        EXPECT_EQ(peer.set("inDND", value), "");
        peer.timeline.take("inDNDChanged", value);
        settleEvents();
        EXPECT_EQ(fs::exists(k_folder + "DNDEnabled"), value == "true");
        stop();
    }
}

TEST_F(System, GuardsItsProperties) {
    start();
    const std::string error = "org.freedesktop.DBus.Error.";
    EXPECT_EQ(peer.get("Acknowledge"), error + "AccessDenied");
    EXPECT_EQ(peer.set("ListAlerts", "x"), error + "PropertyReadOnly");
    EXPECT_EQ(peer.get("Nothing"), error + "UnknownProperty");
    EXPECT_EQ(peer.get("LogMask"), "0xFFFFFDE");
    EXPECT_EQ(peer.set("LogMask", "50331648"), "");
    EXPECT_EQ(peer.set("LogMask", "many"), error + "InvalidArgs");
    EXPECT_EQ(peer.get("LogMask"), "0x3000000");
    settle();
    const std::size_t lines = log.timeline.find(": D ").size();
    EXPECT_GT(lines, 0U);
    set("a1", "ALARM", k_far);
    settle();
    EXPECT_EQ(log.timeline.find(": D ").size(), lines);
}

}  // namespace
}  // namespace harness
