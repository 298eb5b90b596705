#include <functional>

#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class Engine : public EngineFixture {
  protected:
    static constexpr const char* k_far = "2030-01-01T00:00:00Z";
    static constexpr const char* k_noticesSent =
        "log I AlarmEngine:sendAnyRetainedEvents:reason=finished";
};

/// All calls of the threads that handle directives and callbacks and send notices, and of the timer
/// thread those of a ring.
TEST_F(Engine, MakesItsCallsInOrder) {
    const std::string all = "time-event|insert|delete|metrics|put|publish|send|end-thinking";
    const std::string ofRing =
        "get com.quintel|put|publish Status|send *StartedEvent|metrics* @(NotificationRinging|"
        "NotificationStartedL|ASC|NAM|REM)";
    const std::string ascending = "com.quintel.settingsd com_brevan_corvel_ascendingAlarmVolume";
    const std::string registered = "com.orun42.DeviceAuthenticationService isRegistered";
    const std::string sounds =
        R"(,"assets":[null],"shortAlertAsset":"short","loopCount":3,"assetPlayOrder":[")";
    struct {
        std::function<void()> act;
        std::string watched;
        std::string calls;
    } const steps[] = {
        {[&] { set("a", "ALARM", k_far); }, all,
         "metricNotificationSetBegin, insert Notifications a, NotificationSetSuccess=1, "
         "NotificationSetSuccess.ALARM=1, publish AlertTimedEvent=, send EditAcknowledged, "
         "metricNotificationSetEnd"},
        {[&] { device.fail("insert"), set("b", "REMINDER", k_far); }, all,
         "metricNotificationSetBegin, insert Notifications b, NotificationSetFailed=1, "
         "NotificationSetMetricFailure=1, publish AlertTimedEvent=, send EditAcknowledged, "
         "metricNotificationSetEnd"},
        {[&] { tell("DeleteNotification", "a"); }, all,
         "metricNotificationStoppedBegin, delete Notifications ID=a, NotificationDeleteSuccess=1, "
         "NotificationDeleteSuccess.ALARM=1, publish AlertTimedEvent=, send EditAcknowledged, "
         "metricNotificationStoppedEnd"},
        {[&] { device.fail("delete"), tell("DeleteNotification", "a"); }, "metrics|send",
         "NotificationDeleteFailed=1, send EditAcknowledged"},
        {[&] { ring("t", "TIMER"); }, ofRing,
         "get com_brevan_corvel_ascendingAlarmVolume, put setPlayList=, publish Status=TIMER, "
         "get AlarmVolume, send NotificationStartedEvent, NotificationRingingDeviceOnline=1, "
         "NotificationRingingDeviceOnline.TIMER=1, NotificationStartedLate=0, "
         "NotificationStartedLate.TIMER=0"},
        {[&] { acknowledge(); }, all,
         "delete Notifications ID=t, publish AlertTimedEvent=, send NotificationStoppedEvent, "
         "publish Status=None"},
        {[&] { ring("n", "ALARM", sounds + "here\"]"); }, "put|publish Status|metrics* REM",
         "put setPlayList=here,here,here, publish Status=REMINDER"},
        {[&] { tell("StopNotification", "n"); }, all,
         "metricNotificationStoppedBegin, delete Notifications ID=n, NotificationDeleteSuccess=1, "
         "NotificationDeleteSuccess.REMINDER=1, send NotificationStoppedEvent, "
         "publish Status=None, end-thinking, metricNotificationStoppedEnd"},
        {[&] { device.answer(ascending, "enabled"), connect(false), ring("a", "ALARM", "", -40); },
         "put|publish Status|send *StartedEvent|metrics* @(ASC|NotificationStartedL)",
         "ASCENDINGALARM=1, put setPlayList=, publish Status=ASCENDINGALARM, "
         "NotificationStartedLate=1, NotificationStartedLate.ALARM=1"},
        {[&] { device.fail("delete", 2), acknowledge(); }, "insert|delete|publish|send",
         "delete Notifications ID=a, publish AlertTimedEvent=, insert RetainedEvents a, "
         "delete Notifications ID=a, delete Notifications ID=a, publish Status=None"},
        {[&] { connect(true), device.waitFor(k_noticesSent); }, "put|send *Stopped",
         "send NotificationStoppedEvent"},
        {[&] { stop(), device.forgetCalls(), device.answer(registered, "0"), start(); }, "delete",
         "delete-all Notifications, delete-all RetainedEvents"}};
    writeFile(asset("here"));
    start();
    connect(true);
    device.waitFor(k_noticesSent);
    for (const auto& step : steps) {
        device.forgetCalls();
        step.act();
        settle();
        EXPECT_EQ(course(step.watched), step.calls);
    }
    EXPECT_EQ(std::filesystem::read_symlink(ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE),
              asset("short"));
}

TEST_F(Engine, RingsAlsoWhenTheStoreCouldNotBeReadForAWhile) {
    start();
    set("a", "ALARM", in(2));
    settle();
    stop();
    device.fail("select Notifications TYPE=ALARM", 2);
    start();
    EXPECT_TRUE(device.waitFor("put com.quintel.earconPlayer setPlayList="));
    EXPECT_EQ(device.calls("log E AlarmDB:readAlertFailed").size(), 2U);
}

TEST_F(Engine, StartsNotAfterAFailureAndSaysSoOnce) {
    writeFile(std::string(ALARMD_EARCON_PATH) + ALARMD_DEFAULT_NOTICE_EARCON);
    for (const char* call : {"open ", "endpoint", "publish Status", "publish inDND", "register Ack",
                             "register List", "subscribe com.quintel.corveld"}) {
        device.forgetCalls();
        device.fail(call);
        AlarmEngine engine(ALARMD_DB_FILE);
        EXPECT_FALSE(engine.init()) << call;
        EXPECT_EQ(device.calls("log E").size(), 1U) << call;
        EXPECT_EQ(course("get"), "") << call;
    }
}

TEST_F(Engine, SendsAlsoTheNoticeThatComesWhileSendingAndNoStartWaits) {
    const char* const pass = "log D AlarmEngine:timeThread::no event";
    AlarmEngine& engine = start();
    EXPECT_TRUE(device.waitFor(pass));
    engine.retainEventForLater("a", "c", now());
    Texts late{"a", "b"};  // another one, and then the same one once more
    std::size_t passes = 1;
    device.listen([&](const std::string& call) {
        if (call.find("send DeviceNotifications.NotificationStopped") == 0 && !late.empty()) {
            engine.retainEventForLater(late.back(), "c", now());
            late.pop_back();
            // None of these waits for this send, and all passes together ask for one run.
            for (int i = 0; i < 2; ++i) {
                engine.resetTimerThread();
                EXPECT_TRUE(device.waitFor(pass, ++passes));
            }
            engine.startRetainedEventThread();
        }
    });
    connect(true);
    EXPECT_TRUE(device.waitFor("send NotificationIndicator.stateChanged", 4)) << "one for each run";
    stop();
    EXPECT_EQ(device.calls("log D *startRetainedEventThread::joining").size(), 3U);
    EXPECT_EQ(device.calls("send *Stopped*\"a\"").size(), 2U);
    EXPECT_EQ(device.calls("send *Stopped*\"b\"").size(), 1U);
    EXPECT_EQ(stored("RetainedEvents"), "");
}

}  // namespace
}  // namespace alarmd
