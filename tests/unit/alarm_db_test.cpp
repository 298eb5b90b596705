#include <memory>
#include <stdexcept>

#include "alarmd/AlarmDB.h"
#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class AlarmDBTest : public Fixture {
  protected:
    AlarmDB& open() {
        m_db.reset();
        m_db = std::make_unique<AlarmDB>(ALARMD_DB_FILE);
        return *m_db;
    }
    AlarmDB& openWith(const std::vector<SqliteUtil::Row>& rows) {
        seed(rows);
        return open();
    }
    bool set(const std::string& id, const std::string& type, Seconds due,
             const std::string& playOrder = "", const std::string& shortAsset = "") {
        m_wasPlaying = false;
        return m_db->setEvent(id, "c", type, in(due), "", false, playOrder, 3, shortAsset,
                              m_wasPlaying);
    }
    /// What the timer thread is told to wait for: "id type", or "" for nothing.
    std::string next() {
        std::string text;
        bool flag = false;
        const bool found = m_db->getNextEvent(m_time, m_type, m_id, text, text, flag, m_playOrder,
                                              m_loopCount, text);
        return found ? m_id + " " + m_type : "";
    }
    bool starts(const std::string& id, TimePoint time) {
        m_ringing = m_db->playingCurrentEvent(id, time);
        return m_ringing.getId() != "*";
    }
    bool starts() { return starts(m_id, m_time); }
    bool rings(const std::string& id, const std::string& type) {
        return set(id, type, -2) && next() == id + " " + type && starts();
    }
    bool remove(const std::string& id) { return m_db->deleteEvent(id, m_wasPlaying); }

    std::unique_ptr<AlarmDB> m_db;
    TimedEvent m_ringing{"*"};
    bool m_wasPlaying = false;
    TimePoint m_time;
    std::string m_id;
    std::string m_type;
    std::string m_playOrder;
    int m_loopCount = 0;
};

class NextEvent : public AlarmDBTest {
  protected:
    NextEvent() { open(); }
};
class Ringing : public NextEvent {};
class Deletion : public NextEvent {};
class Opening : public AlarmDBTest {};
class Documents : public NextEvent {};

TEST_F(NextEvent, EarliestWinsAndAtTheSameSecondAlarmBeforeTimerBeforeReminder) {
    struct {
        Seconds alarm;
        Seconds timer;
        Seconds reminder;
        const char* chosen;
    } const cases[] = {{60, 60, 60, "a ALARM"}, {60, 60, 59, "r REMINDER"},
                       {61, 60, 60, "t TIMER"}, {61, 60, 59, "r REMINDER"},
                       {60, 61, 60, "a ALARM"}, {-9, -9, 60, "a ALARM"}};
    for (const auto& c : cases) {
        openWith({row("r", "REMINDER", in(c.reminder)), row("t", "TIMER", in(c.timer)),
                  row("a", "ALARM", in(c.alarm)), row("later", "ALARM", in(1000))});
        EXPECT_EQ(next(), c.chosen);
    }
}

TEST_F(NextEvent, WaitingOneStaysUntilASetOpensTheChoiceAgain) {
    EXPECT_EQ(next(), "");
    EXPECT_EQ(m_type + std::to_string(m_loopCount), "NONE2");
    EXPECT_EQ(m_time, AlarmDB::max_time());
    ASSERT_TRUE(set("a", "ALARM", 60, "/x,/y"));
    EXPECT_EQ(next(), "a ALARM");
    EXPECT_EQ(m_playOrder, "") << "the sounds come with the second call";
    EXPECT_EQ(next(), "a ALARM");
    EXPECT_EQ(m_playOrder + std::to_string(m_loopCount), "/x,/y3");
    ASSERT_TRUE(set("t", "TIMER", 30));
    EXPECT_EQ(next(), "t TIMER");
}

TEST_F(NextEvent, NothingUnfitHidesWhatCanRing) {
    openWith({row("bad", "ALARM", ""), row("good", "ALARM", in(60)), row("bad2", "ALARM", "0")});
    EXPECT_EQ(next(), "good ALARM") << "after unreadable times";
    EXPECT_TRUE(remove("good"));
    EXPECT_EQ(next(), "");
    openWith({row("*", "ALARM", in(-60))});
    ASSERT_TRUE(set("x", "ALARM", 10));
    ASSERT_TRUE(set("x", "TIMER", 60));
    EXPECT_EQ(next(), "x TIMER") << "after the identifier of no event, and with a new type";
    EXPECT_TRUE(remove("x"));
    EXPECT_EQ(next(), "");
    EXPECT_FALSE(set("x", "ASCENDINGALARM", 10));
    EXPECT_TRUE(logged("E AlarmDB:setEventFailed:reason=unknownType,id=x,client=c,type=ASC"));
    EXPECT_EQ(stored() + next(), "* x");
}

TEST_F(NextEvent, ExpiredOnesMoveToTheStopNotices) {
    openWith({row("gone", "TIMER", in(-1860)), row("just", "ALARM", in(-1800)),
              row("late", "TIMER", in(-1740)), row("bad", "ALARM", "?")});
    m_db->moveExpiredEventsForLaterStopNotice(false);
    EXPECT_EQ(stored(), "gone just late bad");
    m_db->moveExpiredEventsForLaterStopNotice(true);
    EXPECT_EQ(stored() + ", " + stored("RetainedEvents"), "late bad, gone just");
    EXPECT_EQ(next(), "late TIMER");
}

TEST_F(Ringing, BlocksTheOthersUntilItIsAcknowledged) {
    ASSERT_TRUE(rings("a", "ALARM") && set("t", "TIMER", -9));
    m_id = "before";
    EXPECT_EQ(next() + m_id, "before");
    EXPECT_EQ(m_db->deleteCurrentEvent().getId(), "a");
    EXPECT_EQ(next(), "t TIMER");
    EXPECT_EQ(m_db->deleteCurrentEvent().getId(), "*") << "one that only waits";
    EXPECT_EQ(stored(), "t");
}

TEST_F(Ringing, SetOfItsIdentifierEndsItAndOneOfItsTypeMakesItRingAgain) {
    for (const char* type : {"ALARM", "TIMER"}) {
        ASSERT_TRUE(rings("a", "ALARM") && set("a", type, 60));
        EXPECT_TRUE(m_wasPlaying);
        EXPECT_FALSE(m_db->isPlayingEvent());
        EXPECT_EQ(next(), std::string("a ") + type);
    }
    ASSERT_TRUE(rings("a", "ALARM") && set("b", "ALARM", 60));
    EXPECT_FALSE(m_wasPlaying);
    EXPECT_EQ(next(), "a ALARM");
    device.fail("insert", 2);
    EXPECT_TRUE(starts()) << "also when its row cannot be written";
    EXPECT_FALSE(set("a", "ALARM", 90));
    EXPECT_TRUE(m_db->isPlayingEvent()) << "a failed set changes nothing";
    EXPECT_TRUE(logged("E AlarmDB:setEventFailed:reason=UnableToSetEvent,id=a:"));
}

TEST_F(Ringing, BeginsOnlyIfTheChosenOneIsStillThere) {
    ASSERT_TRUE(set("a", "ALARM", 0));
    next();
    ASSERT_TRUE(set("a", "ALARM", 60));
    EXPECT_FALSE(starts()) << "set anew, not chosen";
    const TimePoint old = m_time;
    next();
    EXPECT_FALSE(starts("a", old)) << "chosen with another time";
    EXPECT_FALSE(starts("b", m_time)) << "another one";
    ASSERT_TRUE(remove("a"));
    EXPECT_FALSE(starts()) << "deleted";
    ASSERT_TRUE(set("a", "ALARM", 0));
    next();
    m_db->deleteAllAlarmsAndTimers();
    EXPECT_FALSE(starts()) << "emptied";
    EXPECT_FALSE(starts("*", AlarmDB::max_time())) << "no event";
    EXPECT_FALSE(m_db->isPlayingEvent());
    EXPECT_EQ(stored(), "");
}

TEST_F(Ringing, EndedOneWhoseRowCannotBeDeletedStaysSilentAndIsDeletedLater) {
    const std::function<bool()> ends[] = {
        [&] { return m_db->deleteCurrentEvent().matches("a"); },
        [&] { return m_db->endEvent("a", m_wasPlaying), m_wasPlaying; },
        [&] { return !remove("a") && m_wasPlaying; },
        [&] { return !m_db->deleteNotifications({"a"}, m_wasPlaying) && m_wasPlaying; }};
    for (const auto& end : ends) {
        ASSERT_TRUE(rings("a", "TIMER"));
        device.fail("delete Notifications");
        EXPECT_TRUE(end());
        EXPECT_FALSE(m_db->isPlayingEvent());
        EXPECT_EQ(next() + stored(), "a");
        ASSERT_TRUE(set("b", "TIMER", -1));
        EXPECT_EQ(next() + ", " + stored(), "b TIMER, b");
        ASSERT_TRUE(set("a", "TIMER", -2)) << "set anew it counts again";
        EXPECT_EQ(next(), "a TIMER");
        m_db->deleteAllAlarmsAndTimers();
    }
}

TEST_F(Deletion, ConcernsWhatItNamesAndFailureKeepsIt) {
    ASSERT_TRUE(rings("a", "ALARM") && set("t", "TIMER", -5) && set("t2", "TIMER", 6));
    device.fail("delete", 2);
    EXPECT_FALSE(remove("t"));
    EXPECT_FALSE(m_db->deleteNotifications({"t"}, m_wasPlaying));
    EXPECT_TRUE(m_db->deleteNotifications({}, m_wasPlaying));
    EXPECT_EQ(stored(), "a t t2");
    EXPECT_TRUE(remove("t2") && !m_wasPlaying && m_db->isPlayingEvent());
    device.forgetCalls();
    EXPECT_TRUE(m_db->deleteNotifications({"a", "unknown"}, m_wasPlaying) && m_wasPlaying);
    EXPECT_EQ(course("delete|metrics"), "delete Notifications ID=a ID=unknown");
    EXPECT_EQ(next(), "t TIMER");
    const TimePoint due = m_time;
    ASSERT_TRUE(set("t", "TIMER", 60));
    EXPECT_FALSE(m_db->retainEndedEvent("t", "c", due) || m_db->giveUpCurrentEvent("t", "c", due));
    EXPECT_EQ(next() + stored("RetainedEvents"), "t TIMER") << "set anew meanwhile";
    EXPECT_TRUE(m_db->giveUpCurrentEvent("t", "c", m_time));
    EXPECT_EQ(stored() + stored("RetainedEvents"), "t");
}

TEST_F(Deletion, OfAllNeverBlocksTheNextSet) {
    for (const bool isRinging : {false, true}) {
        ASSERT_TRUE(rings("a", "ALARM") && (isRinging || set("a", "ALARM", 0)));
        next();
        device.fail("delete-all");
        m_db->deleteAllAlarmsAndTimers();
        EXPECT_EQ(next(), "");
        ASSERT_TRUE(set("t", "TIMER", 5));
        EXPECT_EQ(next(), "t TIMER");
        m_db->deleteAllAlarmsAndTimers();
    }
    EXPECT_TRUE(
        logged("E AlarmDB:deleteAllAlarmsAndTimersFailed:reason="
               "databaseDeleteofAllTmersFailed,dbError=scripted failure:"));
}

TEST_F(Deletion, RemovesTheRingingOnesDownloadedSoundsOnly) {
    struct {
        std::string playOrder;
        std::string removed;
    } const cases[] = {
        {asset("1") + "," + asset("2"), "1"},
        {asset("1") + "," + asset("2") + ",", "12"},
        {asset("1") + "," + earcon("1000ms_blank.mp3") + "," + asset("2") + ",", "1"},
        {asset("3") + "," + asset("1") + ",", "1"},  // 3 is the short sound
        {asset("../alarms.db") + "," + ALARMD_DB_FILE + "," + asset("1") + ",", "1"},
    };
    for (const auto& c : cases) {
        for (const std::string& path : {asset("1"), asset("2"), asset("3")}) {
            writeFile(path);
        }
        writeFile(ALARMD_DB_FILE);
        ASSERT_TRUE(set("a", "ALARM", 0, c.playOrder, asset("3")));
        next();
        ASSERT_TRUE(starts() && remove("a") && m_wasPlaying);
        std::string removed;
        for (const char* name : {"1", "2", "3"}) {
            removed += exists(asset(name)) ? "" : name;
        }
        EXPECT_EQ(removed, c.removed) << c.playOrder;
        EXPECT_TRUE(exists(ALARMD_DB_FILE));
    }
}

TEST_F(Deletion, MetricsSplitByTypeAndCountTheirOwnFailure) {
    const std::string success = "NotificationDeleteSuccess=1, NotificationDelete";
    const std::string failure = "NotificationDeleteFailed=1";
    struct {
        const char* type;
        const char* playOrder;
        int failures;
        std::string metrics;
    } const cases[] = {
        {"TIMER", "", 0, success + "Success.TIMER=1"},
        {"ALARM", "", 0, success + "Success.ALARM=1"},
        {"ALARM", "/x", 0, success + "Success.REMINDER=1"},
        {"REMINDER", "", 0, success + "MetricFailure=1"},
        {"none", "", 0, success + "MetricFailure=1"},  // an unknown identifier
        {"TIMER", "", 1,
         failure + ", NotificationDeleteFailed.TIMER=1, NotificationDeleteMetricFailure=1"},
        {"REMINDER", "", 1, failure},
    };
    for (const auto& c : cases) {
        open();
        EXPECT_EQ(set("x", c.type, 60, c.playOrder), *c.type != 'n');
        device.fail("delete", c.failures);
        device.forgetCalls();
        EXPECT_EQ(remove(*c.type == 'n' ? "y" : "x"), c.failures == 0);
        EXPECT_EQ(course("metrics"), c.metrics) << c.type;
        m_db->deleteAllAlarmsAndTimers();
    }
    device.answer("identity dsn", "");
    openWith({row("t", "TIMER", "2030-01-02T03:04:05Z")});
    EXPECT_TRUE(remove("t"));
    EXPECT_EQ(device.calls("metrics*Success=1{notificationType=TIMER}").size(), 1U);
    EXPECT_EQ(device
                  .calls("metrics*Success.TIMER=1{actualDeleteTime=20*Z,"
                         "deviceType=TYPE1,triggerTime=2030-01-02T03:04:05Z}")
                  .size(),
              1U);
    EXPECT_TRUE(logged("W AlarmDB:metricMetadataNotAvailable:reason=deviceId,method="));
}

TEST_F(Opening, FileThatCannotBeUsedThrowsAndIsNotReplaced) {
    struct {
        const char* call;
        int times;
        int code;
        const char* error;
        std::size_t opens;
    } const cases[] = {{"open-db", 1, 26, "Could not open existing DB", 1},
                       {"open-db", 2, 14, "Could not open new DB", 2},
                       {"create Notifications", 1, 1, "Failed to create table", 2},
                       {"create RetainedEvents", 1, 1, "Failed to create table", 2},
                       {"add-column", 1, 1, "Failed to create table", 1}};
    for (const auto& c : cases) {
        device.reset();
        device.fail(c.call, c.times, c.code);
        if (std::string(c.call) == "add-column") {
            seed({}, 9);
        }
        try {
            open();
            ADD_FAILURE() << c.call;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), c.error);
        }
        EXPECT_EQ(device.calls("open-db").size(), c.opens) << c.call;
        EXPECT_EQ(device.calls("log C AlarmDB:ConstructorFailed:").size(), 1U) << c.call;
    }
}

TEST_F(Opening, OlderTablesGetTheirMissingColumnsAndBadCellsTheirDefaults) {
    const std::string add = "add-column Notifications ";
    const std::string three = add + "assetPlayOrder, " + add + "durationInSeconds, " + add
                              + "shortAlertAsset, " + add + "loopCount";
    for (const std::size_t columns : {6U, 8U, 9U, 10U}) {
        SqliteUtil::Row old = row("a", "ALARM", in(60), "99999999999");
        old[5] = "true";
        old.resize(columns);
        device.forgetCalls();
        seed({old}, columns);
        open();
        EXPECT_EQ(course("add"), columns == 6 ? three : columns == 9 ? add + "loopCount" : "");
        EXPECT_EQ(next(), columns == 8 ? "" : "a ALARM");
        EXPECT_EQ(logged("E AlarmDB:convertToTimedEventFailed:reason=columnNumberMismatch,"
                         "expected=10,actual=8:"),
                  columns == 8);
        EXPECT_TRUE(columns == 8 || m_db->readAlertById("a").getLoopCount() == 2);
        EXPECT_FALSE(m_db->readAlertById("a").isDynamicAlert());
    }
}

TEST_F(Opening, LegacyFilesAreImportedIntoANewDatabaseOnlyAndRemoved) {
    for (const bool isNew : {true, false}) {
        writeFile(ALARMD_LEGACY_STATE_FILE,
                  "a ca " + in(60) + " ALARM\n* * * TIMER\nr cr " + in(50) + " REMINDER\n");
        writeFile(ALARMD_LEGACY_RETAINED_FILE, "n1 c1\nn2 c2 lonely");
        open();
        EXPECT_EQ(course("insert"), isNew ? "insert Notifications a, insert Notifications r, "
                                            "insert RetainedEvents n1, insert RetainedEvents n2"
                                          : "");
        EXPECT_FALSE(exists(ALARMD_LEGACY_STATE_FILE) || exists(ALARMD_LEGACY_RETAINED_FILE));
        EXPECT_EQ(next(), "r REMINDER");
        device.forgetCalls();
    }
    device.reset();
    writeFile(ALARMD_LEGACY_STATE_FILE, "a ca " + in(60) + " ALARM\n");
    open();
    EXPECT_EQ(stored(), "a") << "what a broken file holds";
    EXPECT_TRUE(logged("E AlarmDB:migrateToDBFailed:reason=StateFileReadFailed,status="));
    EXPECT_TRUE(logged("E AlarmDB:ConstructorFailed:reason=migrateToDBFailed,fileName="));
}

TEST_F(Documents, AreExact) {
    const std::string state = R"({"key":"TimedNotificationState","notifications":[)";
    const std::string event = R"({"notificationId":"a\"","notificationType":"ALARM",)";
    const std::string whole = event
                              + R"("notificationTime":"2030-01-01T00:00:00Z",)"
                                R"("clientId":"client-a\""}]})";
    std::string json;
    EXPECT_TRUE(
        m_db->jsonForTimedEvent(json, "a\"", "client-a\"", "ALARM", "2030-01-01T00:00:00Z"));
    EXPECT_EQ(json, state + whole);
    EXPECT_TRUE(m_db->jsonForDeleteTimedEvents(json, {"b", "a"}));
    EXPECT_EQ(json, state
                        + R"({"notificationId":"a","notificationType":"NONE"},)"
                          R"({"notificationId":"b","notificationType":"NONE"}]})");
    openWith({row("bad", "ALARM", "?"), row("a\"", "ALARM", "2030-01-01T00:00:00Z")});
    EXPECT_TRUE(m_db->jsonForAllEvents(json));
    EXPECT_EQ(json, state + whole);
    device.fail("select");
    EXPECT_TRUE(m_db->jsonForAllEvents(json));
    EXPECT_EQ(json, state + "]}");
    next();
    EXPECT_TRUE(m_db->jsonForActiveEvents(50, json));
    EXPECT_EQ(json, R"({"alarmVolume":50,"activeNotifications":[]})");
    ASSERT_TRUE(starts());
    EXPECT_TRUE(m_db->jsonForActiveEvents(-1, json));
    EXPECT_EQ(json, R"({"alarmVolume":-1,"activeNotifications":[)" + event
                        + R"("clientId":"client-a\""}]})");
}

}  // namespace
}  // namespace alarmd
