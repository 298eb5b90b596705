/// What the cloud and the other services may ask, and what they get for it.
#include <filesystem>

#include "tests/harness/System.h"

namespace harness {
namespace {

namespace fs = std::filesystem;

TEST_F(System, AnswersEachDirective) {
    std::ifstream script(DIRECTIVES_FILE);
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

TEST_F(System, TellsTheCloudOfWhatRings) {
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    const std::string body = R"({"notificationId":"a1","clientId":"c1"})";
    const auto answer = [](const std::string& disposition) {
        return R"(EditAcknowledged {"notificationId":"a1","disposition":")" + disposition
               + R"(","clientId":"c1"} #5)";
    };
    const Lines ended{answer("DELETED"), "NotificationStoppedEvent " + body, "StatusChanged None",
                      "endThinkingMode v1", answer("SET")};
    for (const std::string way : {"SetNotification", "DeleteNotification"}) {
        set("a1", "ALARM", std::time(nullptr) - 5);
        rings("ALARM");
        peer.timeline.take("NotificationStartedEvent", body);
        for (const auto& [volume, told] : {std::pair{"50", "50"}, std::pair{"'loud'", "25"}}) {
            peer.provide("AlarmVolume", volume);
            peer.emit("com.quintel.corveld", "refreshCloudState");
            EXPECT_EQ(peer.timeline.take("StateUpdate").text,
                      std::string(R"({"alarmVolume":)") + told
                          + R"(,"activeNotifications":[{"notificationId":"a1",)"
                            R"("notificationType":"ALARM","clientId":"c1"}]})");
        }
        settle();
        peer.timeline.takeAll();
        for (const char* mode : {"long", "long", "Long", "short", "none", "short"}) {
            peer.emit("com.quintel.controld", "AlarmTypeChanged", g_variant_new("(s)", mode));
        }
        peer.emit("com.orun42.DeviceAuthenticationService", "registrationChanged",
                  g_variant_new("(i)", 3));
        settleEvents();
        EXPECT_EQ(peer.timeline.takeAll(), (Lines{"NotificationEnteredForegroundEvent " + body,
                                                  "NotificationEnteredBackgroundEvent " + body,
                                                  "NotificationEnteredBackgroundEvent " + body}));
        EXPECT_EQ(peer.deliver(way, setBody("a1", "ALARM", 1893456000), 5), "");
        peer.timeline.take("AlertTimedEventChanged");
        settle();
        const int isSet = way[0] == 'S' ? 1 : 0;
        EXPECT_EQ(peer.timeline.takeAll(), Lines(ended.begin() + isSet, ended.end() - 1 + isSet));
    }
    // The notice of a stop is its answer.
    set("a1", "ALARM", std::time(nullptr) - 5);
    rings("ALARM");
    EXPECT_EQ(peer.deliver("StopNotification", body, 5), "");
    EXPECT_EQ(peer.timeline.take("NotificationStoppedEvent").id, 5);
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

TEST_F(System, LogsAsItIsTold) {
    start();
    EXPECT_EQ(peer.get("LogMask"), "0xFFFFFDE");
    log.timeline.take("", ": D ");
    EXPECT_EQ(peer.set("LogMask", "50331648"), "");
    EXPECT_EQ(peer.get("LogMask"), "0x3000000");
    log.timeline.takeAll();
    settle();
    EXPECT_EQ(log.timeline.find(": D "), Lines{});
}

}  // namespace
}  // namespace harness
