/// From a directive to a ring and its end, as the cloud, the player and other daemons see it.
#include <chrono>
#include <filesystem>

#include "tests/harness/Server.h"
#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

TEST_F(System, SetRingAcknowledge) {
    start();
    peer.timeline.take("NotificationIndicator.stateChanged");
    const std::time_t due = std::time(nullptr) + 3;
    set("t1", "TIMER", due);
    peer.timeline.take("AlertTimedEventChanged");
    EXPECT_EQ(sql("SELECT * FROM Notifications"),
              Lines{"t1|c1|TIMER|" + utc(due) + "|system_alerts_melodic_02|0||-1||2"});
    const Entry playList = peer.timeline.take("setPlayList");
    EXPECT_GE(playList.at, system_clock::from_time_t(due));
    EXPECT_LT(playList.at, system_clock::from_time_t(due) + seconds(1));
    EXPECT_EQ(playList.text, "");
    for (const auto& [link, sound] :
         {std::pair{"alertEarcon.mp3", ".mp3"}, std::pair{"alertEarconShort.wav", "_short.wav"}}) {
        EXPECT_EQ(std::filesystem::read_symlink(k_folder + link),
                  std::string("/var/local/earcon/system_alerts_melodic_02") + sound);
    }
    const std::string ids = R"({"notificationId":"t1","clientId":"c1"})";
    EXPECT_EQ(peer.timeline.take("NotificationStartedEvent").text, ids);
    EXPECT_EQ(peer.get("Status"), "TIMER");
    EXPECT_EQ(peer.timeline.takeAll(), Lines{"StatusChanged TIMER"});

    acknowledge();
    EXPECT_EQ(peer.get("Status"), "None");
    EXPECT_EQ(peer.timeline.takeAll(),
              (Lines{R"(AlertTimedEventChanged {"key":"TimedNotificationState","notifications":[)"
                     R"({"notificationId":"t1","notificationType":"NONE"}]})",
                     "NotificationStoppedEvent " + ids, "StatusChanged None"}));
    EXPECT_EQ(sql("SELECT * FROM Notifications"), Lines{});
    // Once for the collector, once to be forwarded.
    for (const char* metric :
         {"\"metrics-collector\",\"source\":\"alarmd\",\"name\":\"", "/1/00470000\",\"name\":\""}) {
        metrics.timeline.take("", metric + std::string("NotificationSetSuccess\",\"value\":1"));
    }
}

TEST_F(System, FetchesItsOwnSound) {
    std::optional<Server> server(std::in_place);
    start();
    // One answer is all that the server gives: none for a name that leads out of the directory.
    set("a1", "ALARM", std::time(nullptr) + 3600,
        R"(,"assets":[)" + server->asset("../alarms.db") + "," + server->asset("../new/../out")
            + "," + server->asset("own.mp3") + R"(],"assetPlayOrder":["own.mp3"],"loopCount":1)");
    server->take(1);
    server->say("HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\ntone");
    const std::string own = k_folder + "assets/own.mp3";
    EXPECT_TRUE(await([&] { return std::filesystem::exists(own); }));
    EXPECT_EQ(std::filesystem::file_size(own), 4U);
    EXPECT_FALSE(std::filesystem::exists(k_folder + "out"));
    server.reset();
    // The same again, now: the fetched file rings even though the server is gone.
    sql("UPDATE Notifications SET time = '" + utc(std::time(nullptr) - 1) + "'");
    crash();
    start();
    EXPECT_EQ(rings("REMINDER").text, own);
}

}  // namespace
}  // namespace harness
