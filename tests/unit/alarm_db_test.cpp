#include <functional>

#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class Store : public Fixture {
  protected:
    bool set(const std::string& id, const std::string& type, Seconds due,
             const std::string& playOrder = "") {
        m_wasPlaying = false;
        return m_db.setEvent(id, "c", type, timeInStringFormat(k_start + due), "", false, playOrder,
                             3, asset("short"), m_wasPlaying);
    }
    /// What the timer thread is told to wait for: "id type", or "" for nothing.
    std::string next() {
        std::string text;
        std::string type;
        bool flag = false;
        int loopCount = 0;
        const bool found =
            m_db.getNextEvent(m_time, type, m_id, text, text, flag, text, loopCount, text);
        return found ? m_id + " " + type : "";
    }
    bool rings(const std::string& id, const std::string& type, const std::string& playOrder = "") {
        return set(id, type, -2, playOrder) && next() == id + " " + type
               && m_db.playingCurrentEvent(m_id, m_time).matches(id);
    }
    bool remove(const std::string& id) { return m_db.deleteEvent(id, m_wasPlaying); }

    const Seconds k_start = toSeconds(now());
    AlarmDB m_db{ALARMD_DB_FILE};
    bool m_wasPlaying = false;
    TimePoint m_time;
    std::string m_id;
};

TEST_F(Store, PrefersAnAlarmToATimerToAReminderAtTheSameSecond) {
    for (const std::string type : {"REMINDER", "TIMER", "ALARM"}) {
        EXPECT_TRUE(set(type, type, 60));
        EXPECT_EQ(next(), type + " " + type);
    }
}

TEST_F(Store, PrefersTheEarlierHoweverItsTimeIsWritten) {
    for (const char* time : {"2030-01-01T7:30:00Z", "2030-01-01T10:00:00Z"}) {
        EXPECT_TRUE(m_db.setEvent(time, "c", "ALARM", time, "", false, "", 2, "", m_wasPlaying));
    }
    EXPECT_EQ(next(), "2030-01-01T7:30:00Z ALARM");
}

TEST_F(Store, EndsTheRingingOneWithASetOfItsId) {
    for (const char* type : {"ALARM", "TIMER"}) {
        ASSERT_TRUE(rings("a", "ALARM") && set("a", type, 60));
        EXPECT_TRUE(m_wasPlaying && !m_db.isPlayingEvent());
        EXPECT_EQ(next(), std::string("a ") + type);
    }
}

TEST_F(Store, BeginsToRingOnlyWhatIsStillThere) {
    const std::function<void()> changes[] = {[&] { EXPECT_TRUE(set("a", "ALARM", 60)); },
                                             [&] { EXPECT_TRUE(remove("a")); }, [&] { m_id = "b"; },
                                             [&] { m_time += boost::chrono::seconds(1); }};
    for (const auto& change : changes) {
        ASSERT_TRUE(set("a", "ALARM", -2));
        EXPECT_EQ(next(), "a ALARM");
        change();
        EXPECT_TRUE(m_db.playingCurrentEvent(m_id, m_time).matches("*"));
        EXPECT_FALSE(m_db.isPlayingEvent());
    }
}

TEST_F(Store, KeepsTheRowOfAGivenUpOneUntilItsNoticeCanBeStored) {
    ASSERT_TRUE(set("a", "TIMER", -2));
    next();
    device.fail("insert RetainedEvents", 2);
    EXPECT_TRUE(m_db.giveUpCurrentEvent("a", "c", m_time));
    ASSERT_TRUE(set("b", "TIMER", -1));
    EXPECT_EQ(next() + ", " + stored(), "b TIMER, a b");
    ASSERT_TRUE(set("b", "TIMER", 9));
    EXPECT_EQ(stored() + stored("RetainedEvents"), "ba");
    EXPECT_FALSE(m_db.retainEndedEvent("b", "c", m_time)) << "set anew meanwhile";
    EXPECT_EQ(stored() + stored("RetainedEvents"), "ba");
}

TEST_F(Store, RemovesTheDownloadedSoundsOfARing) {
    const std::string one = asset("1") + ",";
    const std::string two = asset("2");
    for (const std::string& playOrder :
         {one + two + ",", one + two, one + ALARMD_EARCON_PATH + "1000ms_blank.mp3," + two + ",",
          asset("short") + "," + one, asset("../alarms.db") + "," + ALARMD_DB_FILE + "," + one}) {
        for (const std::string& file : {asset("1"), two, asset("short"), asset("../alarms.db")}) {
            writeFile(file);
        }
        ASSERT_TRUE(rings("a", "ALARM", playOrder) && remove("a") && m_wasPlaying);
        EXPECT_FALSE(std::filesystem::exists(asset("1"))) << playOrder;
        EXPECT_EQ(std::filesystem::exists(two), playOrder != one + two + ",") << playOrder;
        EXPECT_TRUE(std::filesystem::exists(asset("short")));
        EXPECT_TRUE(std::filesystem::exists(ALARMD_DB_FILE));
    }
}

TEST_F(Store, HidesNothingBehindWhatNeverComes) {
    // The last one is in 2219. The others cannot be read: they have over 64 bits of nanoseconds.
    for (const Seconds never : {Seconds{7884000000}, Seconds{9223372800}, Seconds{-11676096000}}) {
        EXPECT_TRUE(set("last", "ALARM", 7884000000 - 1 - k_start));
        EXPECT_TRUE(set("never", "ALARM", never - k_start));
        EXPECT_EQ(next(), "last ALARM") << never;
        EXPECT_TRUE(remove("last"));
        EXPECT_EQ(next(), "") << never;
    }
}

}  // namespace
}  // namespace alarmd
