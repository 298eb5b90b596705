/// From a directive to a ring and its end, as the cloud, the player and other daemons see it.
#include <netinet/in.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

std::string ids(const std::string& id) {
    return R"({"notificationId":")" + id + R"(","clientId":"c1"})";
}

std::string deleted(const std::string& id) {
    return R"({"key":"TimedNotificationState","notifications":[{"notificationId":")" + id
           + R"(","notificationType":"NONE"}]})";
}

TEST_F(System, SetRingAcknowledge) {
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    const std::time_t due = std::time(nullptr) + 3;
    const std::string row = "t1|c1|TIMER|" + utc(due) + "|system_alerts_melodic_02|0||-1||2";
    ASSERT_EQ(peer.deliver("SetNotification", setBody("t1", "TIMER", due), 7), "");
    settle();
    EXPECT_EQ(peer.timeline.takeAll(),
              (Lines{R"(AlertTimedEventChanged {"key":"TimedNotificationState","notifications":[)"
                     R"({"notificationId":"t1","notificationType":"TIMER","notificationTime":")"
                         + utc(due) + R"(","clientId":"c1"}]})",
                     R"(EditAcknowledged {"notificationId":"t1","disposition":"SET",)"
                     R"("clientId":"c1"} #7)"}));
    EXPECT_EQ(sql("SELECT * FROM Notifications"), Lines{row});

    const Entry playList = peer.timeline.take("setPlayList");
    EXPECT_GE(playList.at, system_clock::from_time_t(due));
    EXPECT_LT(playList.at, system_clock::from_time_t(due) + seconds(1));
    EXPECT_EQ(playList.text, "");
    EXPECT_EQ(std::filesystem::read_symlink(k_folder + "alertEarcon.mp3"),
              "/var/local/earcon/system_alerts_melodic_02.mp3");
    EXPECT_EQ(std::filesystem::read_symlink(k_folder + "alertEarconShort.wav"),
              "/var/local/earcon/system_alerts_melodic_02_short.wav");
    EXPECT_EQ(peer.timeline.take("NotificationStartedEvent").text, ids("t1"));
    EXPECT_EQ(peer.get("Status"), "TIMER");
    EXPECT_EQ(peer.timeline.takeAll(), Lines{"StatusChanged TIMER"});

    acknowledge();
    EXPECT_EQ(peer.get("Status"), "None");
    EXPECT_EQ(peer.timeline.takeAll(),
              (Lines{"AlertTimedEventChanged " + deleted("t1"),
                     "NotificationStoppedEvent " + ids("t1"), "StatusChanged None"}));
    EXPECT_EQ(sql("SELECT * FROM Notifications"), Lines{});
    for (const auto& [name, value] : {std::pair{"NotificationSetSuccess", "1"},
                                      {"NotificationSetSuccess.TIMER", "1"},
                                      {"NotificationRingingDeviceOnline", "1"},
                                      {"NotificationStartedLate", "0"},
                                      {"NotificationStartedRinging.TIMER", "1"}}) {
        // Once for the collector, once to be forwarded. A full collector loses datagrams, and the
        // daemon says so.
        const std::string text = std::string(name) + "\",\"value\":" + value;
        const std::string logged = std::string(name) + ",metricValue=" + value;
        if (log.timeline.take("", "sourceName=alarmd,metricName=" + logged).text.find("emit:reason")
            == std::string::npos) {
            metrics.timeline.take("",
                                  "\"metrics-collector\",\"source\":\"alarmd\",\"name\":\"" + text);
        }
        if (log.timeline.find("deviceMetricKXForwardingFailed").empty()) {
            metrics.timeline.take("", "/1/00470000\",\"name\":\"" + text);
        }
    }
}

TEST_F(System, NextOneRingsRightAfterTheStop) {
    start();
    const std::time_t past = std::time(nullptr) - 5;
    set("a1", "ALARM", past);
    rings("ALARM");
    set("t1", "TIMER", past);
    settle();
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    ASSERT_EQ(peer.deliver("StopNotification", R"({"notificationId":"a1"})", 42), "");
    rings("TIMER");
    const Entry stopped = peer.timeline.take("NotificationStoppedEvent");
    EXPECT_EQ(stopped.text, ids("a1"));
    EXPECT_EQ(stopped.id, 42);
    // One that does not ring is stopped without a word.
    set("r1", "REMINDER", past + 1000);
    ASSERT_EQ(peer.deliver("StopNotification", R"({"notificationId":"r1"})", 43), "");
    settle();
    EXPECT_EQ(peer.timeline.find("NotificationStoppedEvent"), Lines{});
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{"t1"});
    EXPECT_EQ(peer.get("Status"), "TIMER");
}

struct Sound {
    const char* type;
    std::string more;
    const char* status;
    std::string playList;
    const char* metric;
};

class Sounds : public System, public testing::WithParamInterface<Sound> {};

TEST_P(Sounds, RingsAs) {
    // The download fails, and what is there already stays.
    write(k_folder + "assets/here", "sound");
    peer.provide("com_brevan_corvel_ascendingAlarmVolume", "'enabled'");
    start();
    set("n1", GetParam().type, std::time(nullptr) - 2, GetParam().more);
    EXPECT_EQ(rings(GetParam().status).text, GetParam().playList);
    // From the log, as a full collector loses datagrams.
    log.timeline.take("", std::string("metricName=") + GetParam().metric + ",metricValue=");
}

std::string sounds(const std::string& name, const std::string& loops) {
    return R"(,"assets":[{"assetId":")" + name + R"(","url":"http://127.0.0.1:1/"}],)"
           + R"("assetPlayOrder":[")" + name + R"("],"loopPauseInMilliSeconds":1000,"loopCount":)"
           + loops;
}

const std::string k_once = k_folder + "assets/here,/var/local/earcon/1000ms_blank.mp3";

INSTANTIATE_TEST_SUITE_P(
    Ringing, Sounds,
    testing::Values(Sound{"ALARM", "", "ASCENDINGALARM", "", "ASCENDINGALARM"},
                    Sound{"REMINDER", "", "REMINDER", "", "NotificationStartedRinging.UNKNOWN"},
                    Sound{"ALARM", sounds("here", "2"), "REMINDER",
                          k_once + "," + k_folder + "assets/here", "NotificationStartedRinging"},
                    Sound{"ALARM", sounds("here", "-1"), "NAMEDALARMTIMER", k_once,
                          "NotificationSetSuccess.REMINDER"},
                    Sound{"ALARM", sounds("gone", "2"), "ALARM", "", "REMINDER.RingingDefaultTone"},
                    Sound{"TIMER", sounds("gone", "-1"), "TIMER", "",
                          "NAMEDTIMER.RingingDefaultTone"}));

TEST_F(System, FetchesItsOwnSound) {
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(server, generic, size), 0);
    ASSERT_EQ(listen(server, 1), 0);
    ASSERT_EQ(getsockname(server, generic, &size), 0);
    std::thread web([server] {
        const int client = accept(server, nullptr, nullptr);
        char request[4096];
        const std::string answer = "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\ntone";
        if (recv(client, request, sizeof request, 0) > 0) {
            EXPECT_GT(send(client, answer.data(), answer.size(), MSG_NOSIGNAL), 0);
        }
        close(client);
    });
    start();
    set("a1", "ALARM", std::time(nullptr) + 3600,
        R"(,"assets":[{"assetId":"own.mp3","url":"http://127.0.0.1:)"
            + std::to_string(ntohs(address.sin_port))
            + R"(/own"}],"assetPlayOrder":["own.mp3"],"loopCount":1)");
    const std::string own = k_folder + "assets/own.mp3";
    EXPECT_TRUE(await([&] { return std::filesystem::exists(own); }));
    EXPECT_EQ(std::filesystem::file_size(own), 4U);
    shutdown(server, SHUT_RDWR);
    web.join();
    close(server);
    // The same again, now: the fetched file rings even though the server is gone.
    sql("UPDATE Notifications SET time = '" + utc(std::time(nullptr) - 1) + "'");
    crash();
    start();
    EXPECT_EQ(rings("REMINDER").text, own);
}

TEST_F(System, HangingAssistantHoldsUpNoRing) {
    start();
    const std::time_t due = std::time(nullptr) + 2;
    peer.behave("com.quintel.corveld", Manner::Hang);
    ASSERT_EQ(peer.deliver("SetNotification", setBody("t1", "TIMER", due)), "");
    EXPECT_LT(rings("TIMER").at, system_clock::from_time_t(due) + seconds(1));
    peer.behave("com.quintel.corveld", Manner::Answer);
    set("a1", "ALARM", due);
    settle();

    // While the stop notice of the first hangs the second begins, and stays.
    peer.behave("com.quintel.corveld", Manner::Hang);
    auto acknowledged = std::async([&] { return peer.set("Acknowledge", "x"); });
    peer.timeline.take("NotificationStoppedEvent", "t1");
    ASSERT_EQ(peer.deliver("SetNotification", setBody("r1", "REMINDER", due + 1000)), "");
    rings("ALARM");
    peer.behave("com.quintel.corveld", Manner::Answer);
    EXPECT_EQ(acknowledged.get(), "");
    settle();
    EXPECT_EQ(peer.get("Status"), "ALARM");
}

class Troubled : public System, public testing::WithParamInterface<Manner> {};

TEST_P(Troubled, RingsWithoutTheOtherServices) {
    for (const char* service :
         {"com.quintel.audiod", "com.quintel.settingsd", "com.quintel.controld",
          "com.orun42.DeviceAuthenticationService", "com.quintel.corveld"}) {
        peer.behave(service, GetParam());
    }
    if (GetParam() == Manner::Answer) {
        peer.provide("AlarmVolume", "'loud'");
        peer.provide("com_brevan_corvel_ascendingAlarmVolume", "7");
        peer.provide("isRegistered", "'no'");
        peer.provide("connectionState", "'no'");
    }
    start();
    const std::time_t past = std::time(nullptr) - 2;
    ASSERT_EQ(peer.deliver("SetNotification", setBody("a1", "ALARM", past)), "");
    rings("ALARM");
    metrics.timeline.take("", "\"name\":\"NotificationRingingDeviceOffline\"");
    acknowledge();
    EXPECT_EQ(sql("SELECT * FROM RetainedEvents"), Lines{"a1|c1"});
}

/// Where they answer, they do so with wrong types.
INSTANTIATE_TEST_SUITE_P(Ringing, Troubled,
                         testing::Values(Manner::Absent, Manner::Answer, Manner::Hang,
                                         Manner::Refuse));

}  // namespace
}  // namespace harness
