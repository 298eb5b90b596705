/// The bus goes and comes back, and the other services misbehave: the ring comes all the same.
#include <chrono>

#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

TEST_F(System, OutlivesTheBus) {
    start();
    const auto lose = [this] {
        peer.disconnect();
        bus.crash();
    };
    const auto comeBack = [this] {
        bus.start();
        peer.connect();
        settle();
        settleEvents();
    };
    const std::time_t due = std::time(nullptr) + 2;
    set("a1", "ALARM", due);
    lose();
    comeBack();
    EXPECT_EQ(peer.get("AlarmdStarted"), "true");
    const auto rang = rings("ALARM").at;
    EXPECT_GE(rang, system_clock::from_time_t(due));
    EXPECT_LT(rang, system_clock::from_time_t(due) + seconds(1));

    set("t1", "TIMER", due);
    lose();
    comeBack();
    EXPECT_EQ(peer.get("Status"), "ALARM");
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    acknowledge();
    rings("TIMER");
    acknowledge();
    lose();
    comeBack();
    EXPECT_EQ(peer.get("Status"), "None");

    // Somebody takes its name before it is back: it rings, is stopped, and takes the name later.
    kill(daemon->pid(), SIGSTOP);
    lose();
    bus.start();
    peer.connect();
    peer.provide("AlarmdStarted", "'stolen'");
    peer.behave("com.quintel.alarmd", Manner::Answer);
    kill(daemon->pid(), SIGCONT);
    settle();
    set("t1", "TIMER", due);
    peer.timeline.take("setPlayList");
    set("a1", "ALARM", due);
    EXPECT_EQ(peer.deliver("StopNotification", R"({"notificationId":"t1"})"), "");
    peer.timeline.take("setPlayList");
    peer.behave("com.quintel.alarmd", Manner::Absent);
    EXPECT_TRUE(await([&] { return peer.get("Status") == "ALARM"; }));
    acknowledge();
}

struct Service {
    const char* name;
    const char* property;    ///< what is asked of it for a ring
    const char* value;       ///< as it should be
    const char* wrongValue;  ///< of another type
    seconds delay;           ///< of "Status" when it hangs
};

class Peers : public System, public testing::WithParamInterface<Manner> {};

/// Where they answer, they do so with a wrong type.
TEST_P(Peers, HoldUpNoRing) {
    start();
    for (const Service& service :
         {Service{"com.quintel.settingsd", "com_brevan_corvel_ascendingAlarmVolume", "'disabled'",
                  "7", seconds(2)},
          Service{"com.quintel.earconPlayer", "", "''", "7", seconds(2)},
          Service{"com.quintel.audiod", "AlarmVolume", "50", "'loud'", seconds(0)},
          Service{"com.quintel.corveld", "connectionState", "1", "'no'", seconds(0)}}) {
        SCOPED_TRACE(service.name);
        const bool isPlayer = service.property[0] == '\0';
        peer.behave(service.name, GetParam());
        peer.provide(service.property, service.wrongValue);
        const auto asked = system_clock::now();
        ASSERT_EQ(peer.deliver("SetNotification", setBody("a1", "ALARM", std::time(nullptr) - 2)),
                  "");
        const auto rang = peer.timeline.take("StatusChanged", "ALARM").at;
        EXPECT_LT(rang - asked,
                  (GetParam() == Manner::Hang ? service.delay : seconds(0)) + seconds(1));
        if (!isPlayer || GetParam() != Manner::Absent) {
            EXPECT_LE(peer.timeline.take("setPlayList").at, rang);
        }
        peer.behave(service.name, Manner::Answer);
        peer.provide(service.property, service.value);
        acknowledge();
        settle();
        EXPECT_EQ(peer.get("Status"), "None");
        EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    }
}

INSTANTIATE_TEST_SUITE_P(System, Peers,
                         testing::Values(Manner::Absent, Manner::Answer, Manner::Hang,
                                         Manner::Refuse));

}  // namespace
}  // namespace harness
