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
    EXPECT_EQ(stored() + next(), "* x");
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

TEST_F(Ringing, EndedOneWhoseRowCannotBeDeletedStaysSilentAndIsDeletedLaterOnce) {
    const std::function<bool()> ends[] = {
        [&] { return m_db->deleteCurrentEvent().matches("a"); },
        [&] { return m_db->endEvent("a", m_wasPlaying), m_wasPlaying; },
        [&] { return !remove("a") && m_wasPlaying; },
        [&] { return !m_db->deleteNotifications({"a"}, m_wasPlaying) && m_wasPlaying; }};
    for (const auto& end : ends) {
        ASSERT_TRUE(rings("a", "TIMER"));
        device.fail("delete Notifications");
        EXPECT_TRUE(end());
        EXPECT_FALSE(m_db->isPlayingEvent() || m_db->isSet("a"));
        EXPECT_EQ(next() + stored(), "a");
        ASSERT_TRUE(set("b", "TIMER", -1));
        EXPECT_EQ(next() + ", " + stored(), "b TIMER, b");
        device.forgetCalls();
        ASSERT_TRUE(set("a", "TIMER", -2)) << "set anew it counts again";
        EXPECT_EQ(next() + course("delete"), "a TIMER");
        m_db->deleteAllAlarmsAndTimers();
    }
}

TEST_F(Ringing, GivenUpOneWhoseNoticeCannotBeStoredKeepsItsRowUntilItCan) {
    ASSERT_TRUE(set("a", "TIMER", -2));
    next();
    device.fail("insert RetainedEvents", 2);
    EXPECT_TRUE(m_db->giveUpCurrentEvent("a", "c", m_time));
    AlarmDB::StopNotices notices;
    EXPECT_TRUE(m_db->getSavedStopNotices(notices));
    EXPECT_EQ(notices, (AlarmDB::StopNotices{{"a", "c"}}));
    ASSERT_TRUE(set("b", "TIMER", -1));
    EXPECT_EQ(next() + ", " + stored(), "b TIMER, a b");
    ASSERT_TRUE(set("b", "TIMER", -1));
    EXPECT_EQ(stored() + stored("RetainedEvents"), "ba");
}

TEST_F(NextEvent, SlotThatCannotBeReadKeepsTheGoodOnesAndIsReadAgain) {
    openWith({row("t", "TIMER", in(60)), row("a", "ALARM", in(30)), row("b", "ALARM", in(40))});
    EXPECT_TRUE(next() == "a ALARM" && m_db->isChoiceComplete());
    device.fail("select Notifications TYPE=ALARM", 2);
    ASSERT_TRUE(remove("a"));
    for (int pass = 0; pass < 2; ++pass) {
        EXPECT_FALSE(m_db->isChoiceComplete());
        EXPECT_EQ(next(), pass == 0 ? "t TIMER" : "b ALARM");
    }
    EXPECT_TRUE(m_db->isChoiceComplete());
    device.fail("select Notifications TYPE=ALARM");
    ASSERT_TRUE(set("c", "ALARM", 90));
    EXPECT_EQ(next(), "b ALARM") << "what was read before stays";
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
    const std::string failed = "NotificationDeleteFailed=1";
    struct {
        const char* type;
        const char* playOrder;
        int failures;
        std::string metrics;
    } const cases[] = {
        {"TIMER", "", 0, success + "Success.TIMER=1"},
        {"ALARM", "/x", 0, success + "Success.REMINDER=1"},
        {"REMINDER", "", 0, success + "MetricFailure=1"},
        {"TIMER", "", 1,
         failed + ", NotificationDeleteFailed.TIMER=1, NotificationDeleteMetricFailure=1"},
        {"REMINDER", "", 1, failed},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(set("x", c.type, 60, c.playOrder));
        device.fail("delete", c.failures);
        device.forgetCalls();
        EXPECT_EQ(remove("x"), c.failures == 0);
        EXPECT_EQ(course("metrics"), c.metrics) << c.type;
    }
    device.answer("identity dsn", "");
    openWith({row("t", "TIMER", "2030-01-02T03:04:05Z")});
    EXPECT_TRUE(remove("t"));
    EXPECT_EQ(device
                  .calls("metrics*Success=1{notificationType=TIMER}|metrics*Success.TIMER=1"
                         "{actualDeleteTime=20*Z,deviceType=TYPE1,triggerTime=2030-01-02T03:04:"
                         "05Z}")
                  .size(),
              2U);
}

TEST_F(Opening, InterruptedImportIsTakenUpAgain) {
    struct {
        const char* crashIn;
        const char* left;
    } const cases[] = {{"create Notifications", ""},
                       {"insert Notifications a", "a"},
                       {"insert RetainedEvents n2", "a r"}};
    for (const auto& c : cases) {
        device.reset();
        writeFile(ALARMD_LEGACY_STATE_FILE,
                  "a ca " + in(60) + " ALARM\n* * * TIMER\nr cr " + in(50) + " REMINDER\n");
        writeFile(ALARMD_LEGACY_RETAINED_FILE, "n1 c1\nn2 c2 lonely");
        device.during(c.crashIn, [] { throw std::domain_error("power cut"); });
        EXPECT_THROW(open(), std::domain_error);
        EXPECT_EQ(stored(), c.left);
        open();
        EXPECT_EQ(stored() + ", " + stored("RetainedEvents"), "a r, n1 n2") << c.crashIn;
        EXPECT_FALSE(exists(ALARMD_LEGACY_STATE_FILE) || exists(ALARMD_LEGACY_RETAINED_FILE));
        writeFile(ALARMD_LEGACY_STATE_FILE, "z cz " + in(40) + " ALARM\n");
        open();
        EXPECT_EQ(stored(), "a r") << "beside a whole database they are stale";
    }
    device.reset();
    device.seed(ALARMD_DB_FILE, "", {});  // an empty file
    writeFile(ALARMD_LEGACY_STATE_FILE, "a ca " + in(60) + " ALARM\n");
    open();
    EXPECT_EQ(stored(), "a") << "what a broken file holds";
    EXPECT_TRUE(logged("E AlarmDB:migrateToDBFailed:reason=StateFileReadFailed,status="));
}

}  // namespace
}  // namespace alarmd
