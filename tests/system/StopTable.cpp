/// Whatever rings can be stopped, in every way there is, whatever else goes wrong; and then the
/// next one rings.
#include <sqlite3.h>

#include <future>

#include "tests/harness/Stepped.h"

namespace harness {
namespace {

constexpr const char* k_cloud = "com.quintel.corveld";
constexpr const char* k_player = "com.quintel.earconPlayer";

const Lines k_ways{"Acknowledge",         "StopNotification", "DeleteNotification",
                   "DeleteNotifications", "SetNotification",  "registrationChanged"};

/// The alarm "a1" rings, and in some states the timer "t1" is due behind it.
class Stop : public Stepped, public testing::WithParamInterface<const char*> {
  protected:
    bool is(const std::string& state) const { return GetParam() == state; }
    bool isAlone() const { return is("assistant hangs, none due"); }
    bool hangs() const { return is("assistant hangs") || is("alert type changes") || isAlone(); }
    bool nextIsDue() const {
        return is("second one due") || is("store locked") || (hangs() && !isAlone());
    }

    void hears(const std::string& id, const std::string& status) {
        if (!is("player absent")) {
            peer.timeline.take("setPlayList");
        }
        peer.timeline.take("StatusChanged", status);
        if (!is("offline")) {
            peer.timeline.take("NotificationStartedEvent", id);
        }
    }

    void ring(bool isNextDue) {
        if (is("just rung")) {  // and "Status" does not say so yet
            peer.behave(k_player, Manner::Hang);
            set("a1", "ALARM", now() - 5);
            peer.timeline.take("setPlayList");
            return;
        }
        set("a1", "ALARM", now() - 5);
        hears("a1", "ALARM");
        if (isNextDue) {
            set("t1", "TIMER", now() - 5);
            settle();
        }
    }

    void getInto() {
        if (is("rung for long")) {
            step(std::chrono::hours(1));
        } else if (is("rung after a restart")) {
            crash();
            startStepped();
            rings("ALARM");  // maybe before it is known that the cloud is there
        } else if (is("edited")) {
            set("a1", "ALARM", now() - 4);
            hears("a1", "ALARM");
        } else if (is("bus just back")) {
            loseBus();
            bus.start();
            const auto since = std::chrono::steady_clock::now();
            peer.connect();
            settle();
            EXPECT_LT(std::chrono::steady_clock::now() - since, std::chrono::seconds(3));
            EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
        } else if (is("store locked")) {
            sqlite3_open((k_folder + "alarms.db").c_str(), &m_store);
            EXPECT_EQ(sqlite3_exec(m_store, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
                      SQLITE_OK);
        } else if (hangs()) {
            peer.behave(k_cloud, Manner::Hang);
        }
        if (is("alert type changes")) {
            for (const char* type : {"none", "short"}) {
                peer.emit("com.quintel.controld", "AlarmTypeChanged", g_variant_new("(s)", type));
            }
            peer.timeline.take("NotificationEnteredBackgroundEvent");
        }
    }

    void getOut() {
        peer.behave(k_cloud, Manner::Answer);
        peer.behave(k_player, is("player absent") ? Manner::Absent : Manner::Answer);
        sqlite3_close(std::exchange(m_store, nullptr));
    }

    void stopBy(const std::string& way) {
        if (way == "Acknowledge") {
            acknowledge();
        } else if (way == "registrationChanged") {
            peer.emit("com.orun42.DeviceAuthenticationService", way.c_str(),
                      g_variant_new("(i)", 2));
        } else {
            const std::string ids = R"(,"notificationIds":["a1"])";
            EXPECT_EQ(peer.deliver(way, setBody("a1", "ALARM", 1893456000, ids)), "");
        }
    }

  private:
    sqlite3* m_store = nullptr;
};

TEST_P(Stop, AlwaysWorks) {
    if (is("offline")) {
        peer.provide("connectionState", "0");
    } else if (is("player absent")) {
        peer.behave(k_player, Manner::Absent);
    }
    startStepped();
    for (const std::string& way : k_ways) {
        SCOPED_TRACE(way);
        const bool endsAll = way == "registrationChanged";
        const bool isSet = way == "SetNotification";
        const bool isRefused = isSet && is("store locked");
        // A deregistration ends what is due next as well.
        const bool isNextDue = nextIsDue() && !endsAll;
        peer.timeline.takeAll();
        ring(isNextDue);
        getInto();
        peer.timeline.takeAll();
        if (endsAll && is("alert type changes")) {
            getOut();  // one event after the other
        }
        const auto asked = std::chrono::steady_clock::now();
        auto stopped = std::async(std::launch::async, [&] { stopBy(way); });
        if (isNextDue && !isRefused) {
            // It rings while whatever hangs still hangs.
            hears("t1", "TIMER");
        }
        if (!hangs() || endsAll) {
            stopped.get();
            settle();
            settleEvents();
        } else if (!isNextDue) {
            peer.timeline.take("StatusChanged", "None");
        }
        if (isRefused) {  // and that is no stop
            EXPECT_EQ(peer.get("Status"), "ALARM");
            acknowledge();
            hears("t1", "TIMER");
        }
        EXPECT_LT(std::chrono::steady_clock::now() - asked,
                  std::chrono::seconds(is("store locked") ? 10 : 5));
        if (!isNextDue) {
            EXPECT_EQ(peer.get("Status"), "None");
            getOut();
            set("t1", "TIMER", now() - 4);
            hears("t1", "TIMER");
        }
        getOut();
        if (stopped.valid()) {
            stopped.get();
        }
        settle();
        EXPECT_EQ(peer.get("Status"), "TIMER");
        EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
        EXPECT_EQ(peer.timeline.find("StatusChanged ALARM"), Lines{});
        acknowledge();
        EXPECT_EQ(peer.get("Status"), "None");
        EXPECT_EQ(sql("SELECT id FROM Notifications"), isSet && !isRefused ? Lines{"a1"} : Lines{});
    }
}

INSTANTIATE_TEST_SUITE_P(System, Stop,
                         testing::Values("just rung", "rung for long", "rung after a restart",
                                         "edited", "second one due", "offline", "assistant hangs",
                                         "assistant hangs, none due", "player absent",
                                         "store locked", "bus just back", "alert type changes"));

}  // namespace
}  // namespace harness
