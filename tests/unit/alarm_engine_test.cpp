#include <memory>
#include <stdexcept>
#include <thread>

#include "alarmd/AlarmEngine.h"
#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

/// An engine with its real threads. Notifications that are due ring at once, so nothing waits.
class AlarmEngineTest : public Fixture {
  protected:
    AlarmEngineTest() {
        device.answer("com.orun42.system deviceHasTime", " true\n");
        device.answer("com.quintel.audiod AlarmVolume", "7");
        device.answer("com.quintel.corveld connectionState", "0");
    }
    ~AlarmEngineTest() override { stop(); }

    AlarmEngine& start() {
        stop();
        m_engine = std::make_unique<AlarmEngine>(ALARMD_DB_FILE);
        m_isRunning = m_engine->init();
        EXPECT_TRUE(m_isRunning);
        return *m_engine;
    }
    void stop() {
        if (m_isRunning) {
            m_engine->terminate();
        }
        m_isRunning = false;
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
    /// Waits until the worker has handled what was delivered to it.
    void settle() {
        const std::string answer = "send DeviceNotifications.NotificationList";
        const std::size_t before = device.calls(answer).size();
        device.deliver("ListNotification", "{}");
        EXPECT_TRUE(device.waitFor(answer, before + 1));
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

    const std::string k_play = "put com.quintel.earconPlayer setPlayList=";
    const std::string k_send = "send DeviceNotifications.";
    const std::string k_finished = "log I AlarmEngine:sendAnyRetainedEvents:reason=finished";
    const std::string k_registration = "com.orun42.DeviceAuthenticationService registrationChanged";
    std::unique_ptr<AlarmEngine> m_engine;
    bool m_isRunning = false;
};

class RingingPass : public AlarmEngineTest {};
class Status : public AlarmEngineTest {};
class Start : public AlarmEngineTest {};
class Retained : public AlarmEngineTest {};
class BusEvent : public AlarmEngineTest {};

TEST_F(RingingPass, MakesItsCallsInOrder) {
    const std::string here = R"(,"assets":[null],"assetPlayOrder":["here"],"loopCount":)";
    const std::string gone = R"(,"assets":[null],"assetPlayOrder":["gone"],"loopCount":)";
    const std::string sound = asset("here");
    struct {
        const char* type;
        std::string more;
        const char* ascending;
        std::string metric;
        std::string playList;
        const char* status;
    } const cases[] = {
        {"TIMER", "", "enabled", "", "", "TIMER"},
        {"ALARM", "", "disabled", "", "", "ALARM"},
        {"ALARM", "", "enabled", "ASCENDINGALARM=1, ", "", "ASCENDINGALARM"},
        {"ALARM", here + "3", "enabled", "", sound + "," + sound + "," + sound, "REMINDER"},
        {"ALARM", gone + "3", "enabled", "REMINDER.RingingDefaultTone=1, ", "", "ALARM"},
        {"TIMER", here + "-1", "enabled", "", sound, "NAMEDALARMTIMER"},
        {"TIMER", gone + "-1", "enabled", "NAMEDTIMER.RingingDefaultTone=1, ", "", "TIMER"},
    };
    start();
    for (const auto& c : cases) {
        const bool isOnline = *c.status != 'A';
        device.answer("com.quintel.settingsd com_brevan_corvel_ascendingAlarmVolume", c.ascending);
        connect(isOnline);
        writeFile(sound);
        device.forgetCalls();
        ring("x", c.type, c.more);
        const std::string metric = ", Notification";
        const std::string state = isOnline ? "RingingDeviceOnline" : "RingingDeviceOffline";
        std::string metrics;
        for (const std::string& name :
             {state + "=1", std::string("StartedLate=0"), std::string("StartedRinging=1")}) {
            const std::size_t value = name.size() - 2;
            metrics +=
                metric + name + metric + name.substr(0, value) + "." + c.type + name.substr(value);
        }
        EXPECT_EQ(course("get com.quintel|put|publish Status|send *StartedEvent|metrics* @("
                         "NotificationR|NotificationSt|ASC|NAM|REM)"),
                  "get com.quintel.settingsd com_brevan_corvel_ascendingAlarmVolume, " + c.metric
                      + k_play + c.playList + ", publish Status=" + c.status
                      + ", get com.quintel.audiod AlarmVolume"
                      + (isOnline ? ", " + k_send + "NotificationStartedEvent" : "") + metrics);
        acknowledge();
        EXPECT_EQ(device.published("Status"), "None");
    }
}

TEST_F(RingingPass, LinksTheSoundsForThePlayer) {
    const auto target = [](const char* link) { return std::filesystem::read_symlink(link); };
    writeFile(asset("here"));
    start();
    ring("t", "TIMER");
    EXPECT_EQ(target(ALARMD_ALERT_EARCON_SYMLINK_FILE), earcon("system_alerts_melodic_02.mp3"));
    EXPECT_EQ(target(ALARMD_SHORT_ALERT_EARCON_SYMLINK_FILE),
              earcon("system_alerts_melodic_02_short.wav"));
    acknowledge();
    ring("r", "ALARM", R"(,"assets":[null],"assetPlayOrder":["here"],"shortAlertAsset":"short")");
    EXPECT_EQ(target(ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE), asset("short"));
    EXPECT_FALSE(std::filesystem::is_symlink(ALARMD_SHORT_ALERT_EARCON_SYMLINK_FILE));
}

TEST_F(RingingPass, TooOldOrWithUnknownClockIsRetainedInstead) {
    for (const Seconds due : {-1801, -1}) {
        device.seed(ALARMD_DB_FILE, "RetainedEvents", {{"id", "client"}, {}});
        start();
        device.answer("com.orun42.system deviceHasTime", due == -1 ? "TRUE" : "true");
        set("x", "ALARM", due);
        EXPECT_TRUE(device.waitUntil([&] { return stored() + stored("RetainedEvents") == "x"; }));
        EXPECT_TRUE(device.waitFor("delete Notifications ID=x"));
        EXPECT_EQ(course("put"), "");
        EXPECT_TRUE(logged("I AlarmEngine:timerThreadLoopTimeKnownCheck:expiry="));
        device.forgetCalls();
    }
}

TEST_F(RingingPass, SecondOneComesWithTheAcknowledgementOfTheFirst) {
    device.answer("com.quintel.audiod AlarmVolume", "loud");
    start();
    set("far", "ALARM", 3600);
    ring("t", "TIMER");
    set("r", "REMINDER", -40);
    settle();
    EXPECT_EQ(course("put"), k_play);
    acknowledge();
    EXPECT_TRUE(
        device.waitFor("metrics*NotificationStartedLate=1{ActualTriggerTime=20*T*,"
                       "DeviceState=OFFLINE,MonotonicTime=20*T*,NotificationId=r,"
                       "NotificationMetadataVersion=2.0,NotificationType=UNKNOWN,"
                       "NotificationVolume=-1,ScheduledTriggerTime=20*T*,"
                       "isAscending=disabled}"));
    EXPECT_EQ(device.published("Status"), "REMINDER");
}

TEST_F(RingingPass, SelectsAgainWhenItsNotificationIsGone) {
    start();
    device.during("get com.orun42.system deviceHasTime", [&] {
        device.deliver("DeleteNotification", R"({"notificationId":"a"})");
        EXPECT_TRUE(device.waitFor("send *EditAcknowledged*DELETED"));
    });
    set("a", "ALARM", -1);
    EXPECT_TRUE(device.waitFor("send *EditAcknowledged*DELETED"));
    ring("t", "TIMER");
    EXPECT_EQ(course("put|publish Status"), k_play + ", publish Status=TIMER");
}

TEST_F(RingingPass, WaitsForNoHangingAssistantAndNoUndeletableRow) {
    start();
    connect(true);
    device.during("send *EditAcknowledged", [&] { EXPECT_TRUE(device.waitFor(k_play)); });
    ring("t", "TIMER");
    device.fail("delete Notifications");
    acknowledge();
    EXPECT_EQ(device.published("Status") + stored(), "Nonet");
    ring("a", "ALARM");
    EXPECT_EQ(course("put") + stored(), k_play + ", " + k_play + "a");
}

TEST_F(Status, IsNoneWhenTheRingWasStoppedDuringItsPass) {
    const std::function<void()> stops[] = {
        [&] { acknowledge(); }, [&] { device.emit(k_registration, "4"); },
        [&] {
            device.deliver("StopNotification", R"({"notificationId":"t"})");
            settle();
        }};
    start();
    for (const auto& stopping : stops) {
        device.during(k_play, [&] { std::thread(stopping).join(); });
        ring("t", "TIMER");
        EXPECT_EQ(device.published("Status"), "None");
    }
}

TEST_F(Status, NamesTheNextRingWhenTheAcknowledgementOfTheFirstEndsLate) {
    start();
    connect(true);
    ring("t", "TIMER");
    device.during(k_send + "NotificationStopped", [&] {
        set("a", "ALARM", -1);
        EXPECT_TRUE(device.waitFor("publish Status=ALARM"));
    });
    acknowledge();
    EXPECT_EQ(device.published("Status"), "ALARM");
}

TEST_F(Status, AcknowledgementEndsOnlyWhatRings) {
    start();
    set("far", "ALARM", 3600);
    settle();
    for (const char* answer : {"insert RetainedEvents t",
                               "send DeviceNotifications.Notification"
                               "StoppedEvent"}) {
        device.forgetCalls();
        acknowledge();
        EXPECT_EQ(course("publish|send|delete|insert"), "");
        connect(*answer == 's');
        ring("t", "TIMER");
        device.forgetCalls();
        acknowledge();
        const std::string made = course("publish|send Dev|delete Notif|insert");
        EXPECT_EQ(made.find("delete Notifications ID=t, publish AlertTimedEvent=, "
                            + std::string(answer)),
                  0U)
            << made;
        EXPECT_EQ(course("publish Status"), "publish Status=None");
    }
}

TEST_F(Status, BroadcastsTheKindThatTheCloudSendsAsAnAlarm) {
    AlarmEngine& engine = start();
    struct {
        const char* type;
        int loopCount;
        const char* playOrder;
        const char* broadcast;
    } const cases[] = {{"ALARM", -1, "", "TIMER"},
                       {"ALARM", 3, "/x", "REMINDER"},
                       {"ALARM", 3, "", "ALARM"},
                       {"ALARM", 0, "/x", "ALARM"},
                       {"REMINDER", -1, "", "REMINDER"}};
    for (const auto& c : cases) {
        engine.broadcastSetTimedEvent("a", "c", c.type, "t", c.loopCount, c.playOrder);
        EXPECT_NE(device.published("AlertTimedEvent")
                      .find(std::string("\"notificationType\":\"") + c.broadcast + "\""),
                  std::string::npos)
            << c.broadcast;
    }
}

TEST_F(Start, MakesEverythingInOrderOnceAndEndsOnce) {
    device.answer("com.orun42.DeviceAuthenticationService isRegistered", "1");
    writeFile(ALARMD_DND_STATE_FILE);
    start();
    EXPECT_EQ(course("open |log-prop|endpoint|property|register|subscribe|get"),
              "open com.quintel.alarmd, log-properties, endpoint com.quintel.alarmd.corvel, "
              "property AlarmdStarted=true, property Status=None, property AlertTimedEvent=[], "
              "property Notices=None, property NoticesEarconEnabled=true, property inDND=true, "
              "register Acknowledge, register ListAlerts, "
              "subscribe com.quintel.alarmd inDNDChanged, "
              "subscribe com.quintel.corveld connectionStateChanged, "
              "subscribe com.quintel.corveld refreshCloudState, "
              "subscribe com.quintel.controld AlarmTypeChanged, "
              "subscribe com.orun42.DeviceAuthenticationService registrationChanged, "
              "get com.orun42.DeviceAuthenticationService isRegistered, "
              "get com.orun42.system deviceHasTime, get com.quintel.corveld connectionState");
    m_engine->terminate();
    m_isRunning = false;
    EXPECT_EQ(m_engine->corvelClient(), nullptr);
    EXPECT_THROW(m_engine->terminate(), std::logic_error);
}

TEST_F(Start, EndsAtTheFirstFailureWithItsLine) {
    const std::string subscription = "RegisterFailed:reason=OipcSubscribeExtFailed,status=scripted";
    struct {
        const char* call;
        std::string line;
    } const cases[] = {
        {"open ", "init:reason=OipcOpenFailed,status=scripted failure:"},
        {"endpoint ", "init:reason=failedToinitCorvelEndpoint,status=failed:"},
        {"property Alert", "init:reason=failedToCreateStatusOIPCProp,status=failed:"},
        {"property inDND", "init:reason=failedToCreateIsDNDEnabledProp,status=failed:"},
        {"register Ack", "acknowledgePropRegister:reason=OipcRegisterStringPropFailed,reason="},
        {"subscribe com.quintel.alarmd",
         "alarmStatusEventRegister:reason=OipcSubscribeExtFailed,reason=scripted failure,"
         "source=com.quintel.alarmd,event=inDND:"},
        {"subscribe com.quintel.controld",
         "timedEvent" + subscription + " failure,source=com.quintel.controld,event=AlarmType:"},
    };
    for (const auto& c : cases) {
        device.forgetCalls();
        device.fail(c.call);
        AlarmEngine engine(ALARMD_DB_FILE);
        EXPECT_FALSE(engine.init()) << c.call;
        EXPECT_TRUE(logged("E AlarmEngine:" + c.line)) << c.line;
        EXPECT_EQ(course("get"), "") << c.call;
    }
}

TEST_F(Start, OfAnUnregisteredDeviceForgetsAll) {
    for (const char* state : {"?", "0"}) {
        seed({row("a", "ALARM", in(60))});
        device.seed(ALARMD_DB_FILE, "RetainedEvents", {{"id", "client"}, {{"n", "c"}}});
        device.answer("com.orun42.DeviceAuthenticationService isRegistered", state);
        start();
        EXPECT_EQ(stored() + stored("RetainedEvents"), *state == '0' ? "" : "an");
    }
}

TEST_F(Retained, StayWhileOfflineAndGoOutWithTheConnection) {
    start();
    ring("t", "TIMER");
    acknowledge();
    m_engine->startRetainedEventThread();
    EXPECT_TRUE(device.waitFor("log I AlarmEngine:sendAnyRetainedEvents:reason=exitingNoAction"));
    EXPECT_EQ(stored("RetainedEvents"), "t");
    device.forgetCalls();
    connect(true);
    EXPECT_TRUE(device.waitFor(k_finished));
    EXPECT_EQ(course("send Dev"), k_send + "NotificationStoppedEvent");
    EXPECT_EQ(stored("RetainedEvents"), "");
}

TEST_F(Retained, NoticeThatComesWhileSendingIsSentToo) {
    AlarmEngine& engine = start();
    engine.retainEventForLater("a", "c", now());
    for (const char* id : {"b", "a"}) {  // another one, and the same one once more
        device.during("send *Stopped",
                      [&engine, id] { engine.retainEventForLater(id, "c", now()); });
    }
    connect(true);
    EXPECT_TRUE(device.waitFor(k_finished));
    const Texts sent = device.calls("send *Stopped");
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[1],
              k_send + R"(NotificationStoppedEvent {"notificationId":"b","clientId":"c"})");
    EXPECT_EQ(sent[2], sent[0]);
    EXPECT_EQ(stored("RetainedEvents"), "");
}

TEST_F(Retained, EachStartRunsOnceAndNoneWaitsForASend) {
    AlarmEngine& engine = start();
    const std::string indicator = "send NotificationIndicator.stateChanged";
    device.during(indicator, [&] {
        for (int i = 0; i < 3; ++i) {
            engine.startRetainedEventThread();  // would not return if it waited for this send
        }
    });
    connect(true);
    EXPECT_TRUE(device.waitFor(indicator, 4));
    engine.terminate();
    m_isRunning = false;
    EXPECT_EQ(device.calls(indicator).size(), 4U);
}

TEST_F(BusEvent, DeregistrationEmptiesAllAndNeverBlocksTheNextSet) {
    start();
    for (const bool isRinging : {false, true}) {
        set("far", "ALARM", 3600);
        settle();
        if (isRinging) {
            ring("a", "ALARM");
        }
        device.emit(k_registration, "3");
        EXPECT_NE(stored(), "");
        device.emit(k_registration, "2");
        EXPECT_EQ(stored() + device.published("Status") + device.published("Notices"), "NoneNone");
        ring("t", "TIMER");
        EXPECT_EQ(device.published("Status"), "TIMER");
        acknowledge();
    }
}

TEST_F(BusEvent, DoNotDisturbIsKeptInAFile) {
    start();
    for (const std::string state : {"true", "true", "false", "false", "true", "maybe"}) {
        device.emit("com.quintel.alarmd inDNDChanged", state.c_str());
        EXPECT_EQ(exists(ALARMD_DND_STATE_FILE), state == "true") << state;
    }
    EXPECT_EQ(course("publish"), "");
    device.emit("com.quintel.alarmd inDNDChanged", nullptr);
    EXPECT_EQ(course("publish"), "publish inDND=false");
}

TEST_F(BusEvent, WithoutItsArgumentChangesNothing) {
    start();
    set("far", "ALARM", 3600);
    settle();
    device.forgetCalls();
    for (const std::string& source :
         {std::string("com.quintel.corveld connectionStateChanged"),
          std::string("com.quintel.controld AlarmTypeChanged"), k_registration}) {
        device.emit(source, nullptr);
    }
    EXPECT_EQ(device.calls("log E").size(), 3U);
    EXPECT_EQ(course("send|publish|delete"), "");
}

TEST_F(BusEvent, ListNeedsABufferOfItsSizeWithTheTerminator) {
    start();
    std::string buffer(64, '#');
    unsigned int size = 1;
    EXPECT_EQ(device.read("ListAlerts", buffer.data(), size), OIPC_BUFFER_TOO_SMALL);
    EXPECT_EQ(buffer[0], '#');
    const std::string document = R"({"key":"TimedNotificationState","notifications":[]})";
    EXPECT_EQ(size, document.size() + 1);
    EXPECT_EQ(device.read("ListAlerts", buffer.data(), size), OIPC_SUCCESS);
    EXPECT_EQ(buffer.c_str(), document);
}

TEST_F(BusEvent, NoticeLinksItsSoundOncePerNameAndFilesAreChecked) {
    const auto target = [] {
        return std::filesystem::read_symlink(ALARMD_NOTICE_EARCON_SYMLINK_FILE);
    };
    writeFile(earcon(ALARMD_DEFAULT_NOTICE_EARCON));
    writeFile(earcon("new.mp3"));
    AlarmEngine& engine = start();
    engine.setMessageWaitingNotification(true, true, "new.mp3");
    EXPECT_EQ(target(), earcon("new.mp3"));
    std::filesystem::remove(ALARMD_NOTICE_EARCON_SYMLINK_FILE);
    engine.setMessageWaitingNotification(true, true, "new.mp3");
    EXPECT_FALSE(std::filesystem::is_symlink(ALARMD_NOTICE_EARCON_SYMLINK_FILE));
    engine.setMessageWaitingNotification(true, true, "gone.mp3");
    EXPECT_EQ(target(), earcon(ALARMD_DEFAULT_NOTICE_EARCON));
    EXPECT_FALSE(engine.updateNoticeEarconSymlink(ALARMD_EARCON_PATH));
    EXPECT_TRUE(logged("E AlarmEngine:updateNoticeEarconSymlinkFailedWrongMode:"));
    EXPECT_TRUE(engine.checkFilesExist(earcon("new.mp3") + "," + earcon("new.mp3")));
    EXPECT_FALSE(engine.checkFilesExist("") || engine.checkFilesExist(earcon("new.mp3") + ","));
}

TEST_F(RingingPass, MetricsNameTypesAndDefaults) {
    struct {
        const char* text;
        const char* type;
        int count;
        const char* name;
    } const cases[] = {
        {"", "TIMER", -1, "TIMER"},  {"[]", "ALARM", -1, "ALARM"},    {"/xy", "ALARM", -1, "TIMER"},
        {"x", "ALARM", -1, "ALARM"}, {"x", "ALARM", 2, "REMINDER"},   {"", "ALARM", 2, "ALARM"},
        {"x", "ALARM", 5, "ALARM"},  {"x", "REMINDER", 2, "UNKNOWN"}, {"", "", 0, "UNKNOWN"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(getNotificationType(c.text, c.type, c.count), c.name) << c.text << c.type;
    }
    AlarmEngine engine(ALARMD_DB_FILE);
    engine.emitNotificationRingingMetrics({}, false);
    const std::string last = "NotificationStartedRinging";
    EXPECT_EQ(course("metrics"),
              "NotificationRingingDeviceOffline=1, NotificationRingingDevice"
              "Offline.UNKNOWN=1, NotificationStartedLate=0, NotificationStarted"
              "Late.UNKNOWN=0, "
                  + last + "=1, " + last + ".UNKNOWN=1");
    EXPECT_EQ(device
                  .calls("metrics*{DeviceState=UNKNOWN,NotificationMetadataVersion=2.0,"
                         "NotificationType=NONE}")
                  .size(),
              6U);
    EXPECT_EQ(device.calls("log W AlarmEngine:metricMetadataNotAvailable").size(), 8U);
}

}  // namespace
}  // namespace alarmd
