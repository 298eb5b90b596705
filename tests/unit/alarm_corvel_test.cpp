#include <boost/make_shared.hpp>

#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

/// An adapter on a store of its own, called directly; the engine beside it has nothing to ring.
class Adapter : public EngineFixture {
  protected:
    Adapter() : m_corvel(start("/var/local/alarmd/engine.db"), m_db) {
        int status = 0;
        m_corvel.initOipcUtils(OipcOpenEx("com.quintel.test", &status));
    }
    /// Sets "a" and gives its row.
    SqliteUtil::Row tellSet(const std::string& more = "", const std::string& type = "ALARM") {
        using namespace CorvelMessaging;
        device.forgetCalls();
        const MessageBody body(
            "application/json",
            R"({"notificationId":"a","clientId":"c","notificationTime":"2030-01-01T00:00:00Z",)"
            R"("notificationType":")"
                + type + "\"" + more + "}");
        m_corvel.onMessage(boost::make_shared<Message>(
            MessageType(ALARM_MSG_NAMESPACE, "DeviceNotifications.SetNotification"), body,
            MessageAttachment(), MessageVoiceRequest(), MessageRequestReplyContext(7),
            static_cast<unsigned char>(0)));
        const auto rows = device.rows(ALARMD_DB_FILE, "Notifications");
        return rows.empty() ? SqliteUtil::Row(10) : rows.back();
    }

    AlarmDB m_db{ALARMD_DB_FILE};
    AlarmCorvel m_corvel;
};

TEST_F(Adapter, StoresCountsBroadcastsAndThenAcknowledgesASet) {
    tellSet();
    const std::string answer = "publish AlertTimedEvent=, " + k_send + "EditAcknowledged";
    EXPECT_EQ(course("time-event|insert|metrics|publish|put|send|end-thinking"),
              "metricNotificationSetBegin, insert Notifications a, NotificationSetSuccess=1, "
              "NotificationSetSuccess.ALARM=1, "
                  + answer + ", metricNotificationSetEnd");
    EXPECT_EQ(device
                  .calls("metrics*SetSuccess=1{notificationType=ALARM}|metrics*SetSuccess.ALARM=1"
                         "{deviceId=SERIAL1,deviceType=TYPE1,triggerTime=2030-01-01T00:00:00Z}")
                  .size(),
              2U);
    device.fail("insert");
    tellSet("", "REMINDER");
    EXPECT_EQ(course("metrics|publish|send"),
              "NotificationSetFailed=1, NotificationSetMetricFailure=1, " + answer);
    EXPECT_EQ(device.calls("send*FAILED").size(), 1U);
}

TEST_F(Adapter, RepeatsTheSoundsWithPausesBetween) {
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
        {R"(,"loopCount":5,"assets":{"L":1},"assetPlayOrder":["L"])", "", "2"},
        {R"(,"loopCount":5,"assets":[null],"assetPlayOrder":[])", "", "2"},
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

TEST_F(Adapter, EndsAHugePlayListWithAWholeEntryWithinItsLimit) {
    for (const std::string pause : {"0", "4000", "2147483647"}) {
        const SqliteUtil::Row row = tellSet(R"(,"assets":[null],"assetPlayOrder":["L"],)"
                                            R"("loopCount":2147483647,"loopPauseInMilliSeconds":)"
                                            + pause);
        EXPECT_TRUE(row[6].size() <= 1024 * 1024 && row[6].size() > 1024 * 1024 - 40);
        const std::string last = row[6].substr(row[6].rfind(',') + 1);
        EXPECT_TRUE(last == asset("L")
                    || last == earcon(pause[0] == '4' ? "4000ms_blank.mp3" : "1000ms_blank.mp3"));
        EXPECT_EQ(row[9], "2147483647");
    }
}

}  // namespace
}  // namespace alarmd
