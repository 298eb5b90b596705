#include <functional>

#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class RingingPass : public EngineFixture {};
class Start : public EngineFixture {};
class Retained : public EngineFixture {};

TEST_F(RingingPass, MakesItsCallsInOrder) {
    const std::string here =
        R"(,"assets":[null],"assetPlayOrder":["here"],"shortAlertAsset":"short","loopCount":)";
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
    const std::string state = "NotificationRingingDevice";
    const std::string online = state + "Online=1, " + state + "Online.";
    const std::string offline = state + "Offline=1, " + state + "Offline.";
    const std::string late = "=1, NotificationStartedLate=0, NotificationStartedLate.";
    start();
    for (const auto& c : cases) {
        const bool isOnline = *c.status != 'A';
        device.answer("com.quintel.settingsd com_brevan_corvel_ascendingAlarmVolume", c.ascending);
        connect(isOnline);
        writeFile(sound);
        device.forgetCalls();
        ring("x", c.type, c.more);
        EXPECT_EQ(course("get com.quintel|put|publish Status|send *StartedEvent|metrics* @("
                         "NotificationRinging|NotificationStartedL|ASC|NAM|REM)"),
                  "get com.quintel.settingsd com_brevan_corvel_ascendingAlarmVolume, " + c.metric
                      + k_play + c.playList + ", publish Status=" + c.status
                      + ", get com.quintel.audiod AlarmVolume, "
                      + (isOnline ? k_send + "NotificationStartedEvent, " + online : offline)
                      + c.type + late + c.type + "=0");
        // The cloud sends reminders as alarms; the other daemons are told what they are.
        const bool isReminder = *c.type == 'A' && !c.more.empty();
        EXPECT_NE(device.published("AlertTimedEvent")
                      .find("Type\":\"" + std::string(isReminder ? "REMINDER" : c.type)),
                  std::string::npos);
        if (!c.playList.empty()) {
            EXPECT_EQ(
                std::filesystem::read_symlink(ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE),
                asset("short"));
        }
        acknowledge();
        EXPECT_EQ(device.published("Status"), "None");
    }
}

TEST_F(RingingPass, BeginsWhileTheStopNoticeOfTheOneBeforeHangs) {
    device.answer("com.quintel.audiod AlarmVolume", "loud");
    start();
    connect(true);
    ring("t", "TIMER");
    set("r", "REMINDER", -40);
    settle();
    EXPECT_EQ(course("put"), k_play);
    device.during(k_send + "NotificationStopped",
                  [&] { EXPECT_TRUE(device.waitFor("publish Status=REMINDER")); });
    acknowledge();
    EXPECT_EQ(course("publish Status"),
              "publish Status=TIMER, publish Status=None, publish Status=REMINDER");
    EXPECT_TRUE(
        device.waitFor("metrics*NotificationStartedLate=1{ActualTriggerTime=20*T*,"
                       "DeviceState=ONLINE,MonotonicTime=20*T*,NotificationId=r,"
                       "NotificationMetadataVersion=2.0,NotificationType=UNKNOWN,"
                       "NotificationVolume=-1,ScheduledTriggerTime=20*T*,"
                       "isAscending=disabled}"));
}

TEST_F(RingingPass, ComesAlsoWhenTheStoreCouldNotBeReadForAWhile) {
    seed({row("a", "ALARM", in(-1)), row("t", "TIMER", in(3600))});
    device.fail("select Notifications TYPE=ALARM", 2);
    start();
    EXPECT_TRUE(device.waitFor(k_play));
    EXPECT_EQ(device.calls("log E AlarmDB:readAlertFailed").size(), 2U);
}

TEST_F(Start, EndsAtTheFirstFailureWithOneLine) {
    writeFile(earcon(ALARMD_DEFAULT_NOTICE_EARCON));
    for (const char* call : {"open ", "endpoint", "property Status", "property inDND",
                             "register Ack", "register List", "subscribe com.quintel.corveld"}) {
        device.forgetCalls();
        device.fail(call);
        AlarmEngine engine(ALARMD_DB_FILE);
        EXPECT_FALSE(engine.init()) << call;
        EXPECT_EQ(device.calls("log E").size(), 1U) << call;
        EXPECT_EQ(course("get"), "") << call;
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

TEST_F(Retained, NoticeThatComesWhileSendingIsSentToo) {
    AlarmEngine& engine = start();
    engine.retainEventForLater("a", "c", now());
    for (const char* id : {"b", "a"}) {  // another one, and the same one once more
        device.during("send *Stopped",
                      [&engine, id] { engine.retainEventForLater(id, "c", now()); });
    }
    connect(true);
    EXPECT_TRUE(device.waitFor(k_finished));
    EXPECT_EQ(device.calls("send *Stopped").size(), 3U);
    EXPECT_EQ(device.calls("send *Stopped*\"b\"").size(), 1U);
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
    stop();
    EXPECT_EQ(device.calls(indicator).size(), 4U);
}

TEST_F(RingingPass, MetricsNameTypes) {
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
}

}  // namespace
}  // namespace alarmd
