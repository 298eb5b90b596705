#include <boost/make_shared.hpp>
#include <stdexcept>

#include "alarmd/AlarmCorvel.h"
#include "alarmd/AlarmEngine.h"
#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

/// An adapter on a store of its own, called directly; the engine beside it has nothing to ring.
class AlarmCorvelTest : public Fixture {
  protected:
    AlarmCorvelTest() {
        device.answer("com.orun42.system deviceHasTime", "true");
        EXPECT_TRUE(m_engine.init());
        int status = 0;
        m_corvel.initOipcUtils(OipcOpenEx("com.quintel.test", &status));
        device.forgetCalls();
    }
    ~AlarmCorvelTest() override { m_engine.terminate(); }

    /// A directive with reconciliation id 7 and voice request "voice".
    void tell(const std::string& name, const std::string& body) {
        using namespace CorvelMessaging;
        device.forgetCalls();
        m_corvel.onMessage(boost::make_shared<Message>(
            MessageType(ALARM_MSG_NAMESPACE, name), MessageBody("application/json", body),
            MessageAttachment(), MessageVoiceRequest("voice"), MessageRequestReplyContext(7),
            static_cast<unsigned char>(0)));
    }
    /// Sets "a" and gives its row.
    SqliteUtil::Row tellSet(const std::string& more = "", const std::string& type = "ALARM") {
        tell("DeviceNotifications.SetNotification",
             R"({"notificationId":"a","clientId":"c","notificationTime":"2030-01-01T00:00:00Z",)"
             R"("notificationType":")"
                 + type + "\"" + more + "}");
        const auto rows = device.rows(ALARMD_DB_FILE, "Notifications");
        return rows.empty() ? SqliteUtil::Row(10) : rows.back();
    }
    void ring(const std::string& id) {
        TimePoint time;
        std::string text;
        bool flag = false;
        int count = 0;
        ASSERT_TRUE(m_db.setEvent(id, "c", "TIMER", in(0), "", false, "", 2, "", flag));
        ASSERT_TRUE(m_db.getNextEvent(time, text, text, text, text, flag, text, count, text));
        ASSERT_EQ(m_db.playingCurrentEvent(id, time).getId(), id);
    }
    const std::string k_all = "time-event|insert|delete|metrics|publish|put|send|end-thinking";
    const std::string k_send = "send DeviceNotifications.";

    AlarmEngine m_engine{"/var/local/alarmd/engine.db"};
    AlarmDB m_db{ALARMD_DB_FILE};
    AlarmCorvel m_corvel{m_engine, m_db};
};

class Directive : public AlarmCorvelTest {};
class PlayList : public AlarmCorvelTest {};
class Sending : public AlarmCorvelTest {};

TEST_F(Directive, SetIsStoredCountedBroadcastAndThenAcknowledged) {
    tellSet();
    EXPECT_EQ(course(k_all),
              "metricNotificationSetBegin, insert Notifications a, NotificationSetSuccess=1, "
              "NotificationSetSuccess.ALARM=1, publish AlertTimedEvent=, "
                  + k_send + "EditAcknowledged, metricNotificationSetEnd");
    EXPECT_EQ(device.calls("send"),
              Texts({k_send
                     + R"(EditAcknowledged {"notificationId":"a","disposition":"SET",)"
                       R"("clientId":"c"} #7)"}));
    EXPECT_EQ(device.calls("metrics*SetSuccess=1{notificationType=ALARM}").size(), 1U);
    EXPECT_EQ(device
                  .calls("metrics*SetSuccess.ALARM=1{deviceId=SERIAL1,deviceType=TYPE1,"
                         "triggerTime=2030-01-01T00:00:00Z}")
                  .size(),
              1U);
    device.fail("insert");
    tellSet("", "REMINDER");
    EXPECT_EQ(course("metrics|publish|send"),
              "NotificationSetFailed=1, NotificationSetMetricFailure=1, publish AlertTimedEvent=, "
                  + k_send + "EditAcknowledged");
    EXPECT_EQ(device.calls("send*FAILED").size(), 1U);
}

TEST_F(Directive, ThatEndsTheRingingOneStopsIt) {
    const std::string silence = "publish Status=None, end-thinking voice, ";
    const std::string stop = k_send + "NotificationStoppedEvent, ";
    const std::string acknowledge = k_send + "EditAcknowledged, ";
    const std::string broadcast = "publish AlertTimedEvent=, ";
    ring("a");
    tellSet();
    EXPECT_EQ(course("publish|send|end|time"), "metricNotificationSetBegin, " + broadcast + stop
                                                   + silence + acknowledge
                                                   + "metricNotificationSetEnd");
    EXPECT_EQ(device.calls("send")[0],
              k_send + R"(NotificationStoppedEvent {"notificationId":"a","clientId":"c"})");
    struct {
        const char* name;
        const char* body;
        std::string course;
    } const cases[] = {
        {"DeleteNotification", R"({"notificationId":"b"})",
         broadcast + acknowledge + stop + silence},
        {"StopNotification", R"({"notificationId":"b"})", stop + silence},
        {"DeleteNotifications", R"({"clientId":"c","notificationIds":["b"]})",
         broadcast + acknowledge + silence},
    };
    for (const auto& c : cases) {
        ring("b");
        tell(c.name, c.body);
        EXPECT_EQ(course("publish|send|end|time"),
                  "metricNotificationStoppedBegin, " + c.course + "metricNotificationStoppedEnd");
        EXPECT_EQ(device.calls("send*Stopped* #7").size(), c.name[0] == 'S' ? 1U : 0U);
    }
    tell("StopNotification", R"({"notificationId":"a"})");
    EXPECT_EQ(course("send|publish|end") + stored(), "") << "one that does not ring";
}

TEST_F(Directive, DeleteOfAnUnknownOneSucceedsAndAFailedOneIsBroadcastToo) {
    for (const char* disposition : {"DELETED", "FAILED"}) {
        device.fail("delete", *disposition == 'F' ? 1 : 0);
        tell("DeleteNotification", R"({"notificationId":"x"})");
        EXPECT_EQ(device.calls("send"),
                  Texts({k_send + R"(EditAcknowledged {"notificationId":"x","disposition":")"
                         + disposition + R"(","clientId":""} #7)"}));
        EXPECT_EQ(course("publish"), "publish AlertTimedEvent=");
    }
}

TEST_F(Directive, DeleteOfAListIsAllOrNothingAndEchoed) {
    struct {
        const char* ids;
        const char* left;
    } const cases[] = {
        {R"("notificationIds":["a",5],"disposition":"FAILED")", "a b"},
        {R"("notificationIds":[],"disposition":"FAILED")", "a b"},
        {R"("disposition":"FAILED")", "a b"},
        {R"("notificationIds":["a","x","a"],"disposition":"DELETED")", "b"},
    };
    seed({row("a", "ALARM", in(60)), row("b", "ALARM", in(60))});
    for (const auto& c : cases) {
        const std::string body = std::string(R"({"clientId":"c",)") + c.ids + "}";
        tell("DeleteNotifications", body);
        EXPECT_EQ(device.calls("send"), Texts({k_send + "EditAcknowledged " + body + " #7"}));
        EXPECT_EQ(stored(), c.left) << c.ids;
        EXPECT_EQ(course("publish"), *c.left == 'a' ? "" : "publish AlertTimedEvent=");
    }
    device.fail("select");
    tell("ListNotification", "{}");
    EXPECT_EQ(device.calls("send"), Texts({k_send
                                           + R"(NotificationList {"key":"TimedNotificationState",)"
                                             R"("notifications":[]} #7)"}));
}

TEST_F(Directive, WhatCannotBeReadIsDroppedWithOneLine) {
    struct {
        const char* name;
        const char* body;
        const char* line;
    } const cases[] = {
        {"SetNotification", "{oops", "parseCommand:json={oops:Failed to Parse JSON"},
        {"SetNotification",
         R"({"notificationId":"a","clientId":5,"notificationType":"ALARM",)"
         R"("notificationTime":"t"})",
         "getRequiredStringKey:key=clientId:Key not found"},
        {"DeleteNotification", R"({"NotificationID":"a"})",
         "getRequiredStringKey:key=notificationId:Key not found"},
        {"DeleteNotifications", R"(["a"])", "getRequiredStringKey:key=clientId:Key not found"},
        {"StateUpdate", "{}", "onRequestMessage:json={}:unknown message type"},
        {"ANamespaceOfTwentyOne.SetNotification", "{}",
         "onRequestMessage:json={}:unknown message type"},
        {"Notify", "{}",
         "onRequestMessageFailed::Notice payload is missing 'renderBehavior', "
         "giving up."},
        {"Notify", R"({"renderBehavior":{"playEarcon":"yes","displayLed":true}})",
         "onRequestMessageFailed::Notice payload is missing renderBehavior::playEarcon, giving "
         "up."},
        {"Notify", R"({"renderBehavior":{"playEarcon":true}})",
         "onRequestMessageFailed::Notice payload is missing renderBehavior::displayLed!, giving "
         "up."},
    };
    for (const auto& c : cases) {
        tell(c.name, c.body);
        EXPECT_EQ(course(k_all), "") << c.name << c.body;
        EXPECT_EQ(device.calls("log E"), Texts({std::string("log E AlarmCorvel:") + c.line}));
    }
    EXPECT_THROW(tell("x.SetNotification", "{}"), std::out_of_range);
}

TEST_F(Directive, IndicatorShowsAndClearsTheMessageWaitingNotice) {
    struct {
        const char* name;
        const char* body;
        bool earcon;
        bool enabled;
    } const cases[] = {
        {"enable", "{}", true, true},
        {"enable", R"({"isEarconEnabled":false})", false, true},
        {"enable", R"({"isEarconEnabled":"no"})", true, true},
        {"disable", "{}", true, false},
        {"Notify", R"({"renderBehavior":{"playEarcon":false,"displayLed":true}})", false, true},
        {"Notify", R"({"renderBehavior":{"playEarcon":true,"displayLed":false}})", true, true},
        {"Notify", R"({"renderBehavior":{"playEarcon":false,"displayLed":false}})", false, false},
    };
    for (const auto& c : cases) {
        tell(c.name, c.body);
        EXPECT_EQ(course("publish|put"),
                  std::string("publish NoticesEarconEnabled=") + (c.earcon ? "true" : "false")
                      + (c.enabled ? ", put com.quintel.controld noticeslatch=None" : "")
                      + ", publish Notices=" + (c.enabled ? "MSG_WAITING" : "None"));
        EXPECT_EQ(device.calls("send"),
                  Texts({std::string("send NotificationIndicator.stateChanged {\"isEnabled\":")
                         + (c.enabled ? "true} #7" : "false} #7")}));
    }
}

TEST_F(PlayList, RepeatsTheSoundsWithPausesBetween) {
    const std::string l = R"(,"assets":[null],"assetPlayOrder":["L"])";
    struct {
        std::string more;
        std::string playList;  // L is the sound, B4 the blank one of four seconds
        const char* loopCount;
    } const cases[] = {
        {l + R"(,"loopCount":3,"loopPauseInMilliSeconds":2000)", "L,B1,B1,L,B1,B1,L", "3"},
        {l + R"(,"loopCount":2,"loopPauseInMilliSeconds":4000)", "L,B4,L", "2"},
        {l + R"(,"loopCount":1,"loopPauseInMilliSeconds":6000)", "L,B6", "1"},
        {l + R"(,"loopCount":0,"loopPauseInMilliSeconds":3000)", "L,B1,B1,B1", "0"},
        {l + R"(,"loopCount":-1,"loopPauseInMilliSeconds":999)", "L", "-1"},
        {l + R"(,"loopCount":"3","loopPauseInMilliSeconds":"4000")", "L,L", "2"},
        {"", "", "2"},
        {R"(,"loopCount":5,"assets":[],"assetPlayOrder":["L"])", "", "2"},
        {R"(,"loopCount":5,"assets":{"L":1},"assetPlayOrder":["L"])", "", "2"},
        {R"(,"loopCount":5,"assets":[null],"assetPlayOrder":"L")", "", "2"},
        {R"(,"loopCount":1,"assets":[null],"assetPlayOrder":["L","M"])", "L,M", "1"},
        {R"(,"loopCount":1,"assets":[null],"assetPlayOrder":["L",null,"M"])", "L,", "1"},
        {R"(,"loopCount":5,"assets":[null],"assetPlayOrder":["","M"])", "", "2"},
    };
    for (const auto& c : cases) {
        std::string expected;
        for (const char letter : c.playList) {
            expected += letter == 'B'               ? earcon("")
                        : std::isdigit(letter) != 0 ? letter + std::string("000ms_blank.mp3")
                        : letter == ','             ? ","
                                                    : asset(std::string(1, letter));
        }
        const SqliteUtil::Row row = tellSet(c.more);
        EXPECT_EQ(row[6], expected) << c.more;
        EXPECT_EQ(row[9], c.loopCount) << c.more;
    }
}

TEST_F(PlayList, HugeOneEndsWithAWholeEntryWithinItsLimit) {
    for (const std::string pause : {"0", "4000", "2147483647"}) {
        const SqliteUtil::Row row =
            tellSet(R"(,"assets":[null],"assetPlayOrder":["L"],"loopCount":2147483647,)"
                    R"("loopPauseInMilliSeconds":)"
                    + pause);
        constexpr std::size_t limit = 1024 * 1024;
        EXPECT_LE(row[6].size(), limit);
        EXPECT_GT(row[6].size(), limit - 40);
        const std::string last = row[6].substr(row[6].rfind(',') + 1);
        EXPECT_TRUE(last == asset("L") || last == earcon("1000ms_blank.mp3")
                    || last == earcon("4000ms_blank.mp3"))
            << last;
        EXPECT_EQ(row[9], "2147483647");
        EXPECT_EQ(device.calls("log W AlarmCorvel").size(), 1U);
    }
}

TEST_F(PlayList, SoundsAreDownloadedUntilTheFirstUnreadableOne) {
    const std::string sounds = R"(,"assets":[{"assetId":"s1","url":"http://h/1"},{"assetId":"s2",)"
                               R"("url":"http://h/2"},{"assetId":"s3","url":""},)"
                               R"({"assetId":"s4","url":"u"}],"assetPlayOrder":["s1"],)"
                               R"("shortAlertAsset":"s2")";
    device.fail("download http://h/2");
    EXPECT_EQ(tellSet(sounds)[8], asset("s2"));
    EXPECT_EQ(device.calls("metrics*SetSuccess.REMINDER=1").size(), 1U);
    EXPECT_TRUE(
        device.waitFor("log I AlarmCorvel:downloadAssetFile::downloadedAsset=" + asset("s1")));
    EXPECT_TRUE(device.waitFor("METRICS*AssetDownloadFailure=1"));
    EXPECT_EQ(device.calls("download").size(), 2U);
    EXPECT_TRUE(exists(asset("s1")));
    EXPECT_FALSE(exists(asset("s1.partial")) || exists(asset("s2")));
    EXPECT_TRUE(logged("E AlarmCorvel:downloadAssetFile:reason=UnableToDownloadAsset=" + asset("s2")
                       + ",CURLError=scripted failure:"));

    writeFile(asset("s5.partial"));
    std::filesystem::create_directory(asset("folder.partial"));
    const AlarmCorvel next(m_engine, m_db);
    EXPECT_TRUE(exists(asset("s1")) && exists(asset("folder.partial")));
    EXPECT_FALSE(exists(asset("s5.partial"))) << "left by an interrupted download";
}

TEST_F(Sending, ReportsFailureAndAMissingEndpoint) {
    const CorvelMessaging::MessageRequestReplyContext context;
    EXPECT_TRUE(m_corvel.sendBasicMessage("T", "{}", "N", context));
    device.fail("send", 1, 9);
    EXPECT_FALSE(m_corvel.sendBasicMessage("T", "{}", "N", context));
    EXPECT_TRUE(logged("E AlarmCorvel:sendBasicMessageStr:reason=sendMessageFailed,result=9:"));
    EXPECT_FALSE(m_corvel.sendBasicMessage("T", static_cast<cJSON*>(nullptr), "N", context));
    AlarmEngine notOpen("/var/local/alarmd/other.db");
    AlarmCorvel unconnected(notOpen, m_db);
    EXPECT_FALSE(unconnected.sendBasicMessage("T", "{}", "N", context));
    EXPECT_EQ(device.calls("send"), Texts({"send N.T {}", "send N.T {}"}));
}

}  // namespace
}  // namespace alarmd
