/// The bus goes and comes back, and others misbehave or hang: the ring comes all the same.
#include <filesystem>
#include <future>

#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

TEST_F(System, OutlivesTheBus) {
    start();
    const std::time_t due = std::time(nullptr) + 2;
    set("a1", "ALARM", due);
    loseBus();
    bus.start();
    peer.connect();
    settle();
    settleEvents();
    EXPECT_EQ(peer.get("AlarmdStarted"), "true");
    const auto rang = rings("ALARM").at;
    EXPECT_GE(rang, system_clock::from_time_t(due));
    EXPECT_LT(rang, system_clock::from_time_t(due) + seconds(1));

    // Somebody takes its name before it is back: it rings, is stopped, and takes the name later.
    kill(daemon->pid(), SIGSTOP);
    loseBus();
    bus.start();
    peer.connect();
    peer.provide("AlarmdStarted", "'stolen'");
    peer.behave("com.quintel.alarmd", Manner::Answer);
    kill(daemon->pid(), SIGCONT);
    settle();
    set("t1", "TIMER", due);
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    EXPECT_EQ(peer.deliver("StopNotification", R"({"notificationId":"a1"})"), "");
    peer.timeline.take("setPlayList");
    peer.behave("com.quintel.alarmd", Manner::Absent);
    EXPECT_TRUE(await([&] { return peer.get("Status") == "TIMER"; }));
    acknowledge();
}

TEST_F(System, HangingAssistantHoldsUpNoRingAndNoSilence) {
    start();
    const std::time_t due = std::time(nullptr) + 2;
    peer.behave("com.quintel.corveld", Manner::Hang);
    ASSERT_EQ(peer.deliver("SetNotification", setBody("t1", "TIMER", due)), "");
    EXPECT_LT(rings("TIMER").at, system_clock::from_time_t(due) + seconds(1));
    // Now its start notice hangs, and the timer thread with it; the stop's own notice will as well.
    const auto asked = system_clock::now();
    const auto stopped =
        std::async(std::launch::async, [&] { return peer.set("Acknowledge", "x"); });
    EXPECT_LT(peer.timeline.take("StatusChanged", "None").at, asked + seconds(5));
    peer.behave("com.quintel.corveld", Manner::Answer);
}

TEST_F(System, HangingLogReaderHoldsUpNothing) {
    // Bound, and never read: a few lines, and whoever writes another one waits for ever.
    std::filesystem::rename("/run/log.sock", "/run/read.sock");
    const int unread = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address{AF_UNIX, "/run/log.sock"};
    ASSERT_EQ(bind(unread, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    daemon.emplace(Lines{binary(), "-f", "-d"});
    ASSERT_TRUE(await([this] { return peer.get("AlarmdStarted") == "true"; }));
    set("t1", "TIMER", std::time(nullptr) - 2);
    rings("TIMER");
    acknowledge();
    EXPECT_EQ(peer.get("Status"), "None");
    stop();
    close(unread);
}

class Peers : public System, public testing::WithParamInterface<Manner> {};

/// Where they answer, they do so with wrong types. The clock alone must be known.
TEST_P(Peers, HoldUpNoRing) {
    const Manner manner = GetParam();
    const auto behave = [&](Manner all) {
        for (const char* service :
             {"com.quintel.audiod", "com.quintel.settingsd", "com.quintel.controld",
              "com.quintel.earconPlayer", "com.orun42.DeviceAuthenticationService",
              "com.quintel.corveld"}) {
            peer.behave(service, all);
        }
    };
    behave(manner);
    if (manner == Manner::Answer) {
        peer.provide("AlarmVolume", "'loud'");
        peer.provide("com_brevan_corvel_ascendingAlarmVolume", "7");
        peer.provide("isRegistered", "'no'");
        peer.provide("connectionState", "'no'");
    }
    start();
    const std::time_t past = std::time(nullptr) - 2;
    const auto asked = system_clock::now();
    EXPECT_EQ(peer.deliver("SetNotification", setBody("a1", "ALARM", past)), "");
    if (manner != Manner::Absent) {
        peer.timeline.take("setPlayList");
    }
    // Two of them are asked before the status is told, each for 2 s at most.
    const auto rang = peer.timeline.take("StatusChanged", "ALARM").at;
    EXPECT_LT(rang - asked, seconds(manner == Manner::Hang ? 5 : 1));
    log.timeline.take("", "metricName=NotificationRingingDeviceOffline,metricValue=1");
    acknowledge();
    EXPECT_EQ(peer.get("Status"), "None");
    EXPECT_EQ(sql("SELECT * FROM RetainedEvents"), Lines{"a1|c1"});
    behave(Manner::Answer);
    set("t1", "TIMER", past);
    rings("TIMER");
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
}

INSTANTIATE_TEST_SUITE_P(System, Peers,
                         testing::Values(Manner::Absent, Manner::Answer, Manner::Hang,
                                         Manner::Refuse));

}  // namespace
}  // namespace harness
