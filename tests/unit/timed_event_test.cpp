#include "alarmd/TimedEvent.h"
#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class TimedEventTest : public Fixture {};

TEST_F(TimedEventTest, TimeStringIsUtcAndWhatCannotBeReadIsNever) {
    constexpr Seconds never = 7884000000;
    struct {
        const char* text;
        Seconds seconds;
        bool isReadable;
    } const cases[] = {
        {"2017-03-01T07:30:00Z", 1488353400, true}, {"1960-01-01T00:00:00Z", -315619200, true},
        {"2219-11-01T23:59:59Z", never - 1, true},  {"2219-11-02T00:00:00Z", never, true},
        {"2262-04-12T00:00:00Z", never, false},  // over 64 bits of nanoseconds
        {"9999-12-31T23:59:59Z", never, false},     {"2017-03-01 07:30:00Z", never, false},
        {"2017-03-01T07:30:00", never, false},      {"", never, false},
    };
    for (const auto& c : cases) {
        TimedEvent event("a", "c", EVT_TYPE_ALARM, c.text, "", false, "", 2, "");
        EXPECT_EQ(toSeconds(event.getTime()), c.seconds) << c.text;
        EXPECT_EQ(event.hasReadableTime(), c.isReadable) << c.text;
        EXPECT_EQ(event.isLive(), c.seconds < never) << c.text;
        event.setPlayed(true);
        EXPECT_FALSE(event.isLive()) << c.text;
    }
    EXPECT_TRUE(logged("D TimedEvent:getTime:timestr=2017-03-01 07:30:00Z:could not read time"));
    EXPECT_EQ(formattedTime(0) + timeInStringFormat(never), "19700101T0000002219-11-02T00:00:00Z");
}

TEST_F(TimedEventTest, MissingSoundGivesTheDefaultOfTheType) {
    for (const char* file : {"whole.mp3", "whole_short.wav", "half.mp3"}) {
        writeFile(earcon(file));
    }
    struct {
        const char* type;
        const char* name;
        std::string taken;
    } const cases[] = {
        {EVT_TYPE_TIMER, "whole", "whole"},
        {EVT_TYPE_ALARM, "half", "system_alerts_melodic_01"},
        {EVT_TYPE_TIMER, "half", "system_alerts_melodic_02"},
        {EVT_TYPE_REMINDER, "", "system_alerts_melodic_01"},
        {EVT_TYPE_NONE, "none", "system_alerts_melodic_01"},
    };
    for (const auto& c : cases) {
        const TimedEvent event("a1", "c1", c.type, "", c.name, false, "", 2, "");
        EXPECT_EQ(event.getAlertEarcon(), c.taken) << c.type << c.name;
        EXPECT_EQ(event.getAlertEarconFileLong(), earcon(c.taken) + ".mp3");
        EXPECT_EQ(event.getAlertEarconFileShort(), earcon(c.taken) + "_short.wav");
    }
    EXPECT_EQ(device.calls("log W TimedEvent:generateEarconFilesFromAlertFailed:").size(), 4U);
}

TEST_F(TimedEventTest, LegacyLineIsReadIntoAnEmptyEventAndAShortOneLeavesTheRest) {
    const std::string path = asset("legacy");
    {
        std::ofstream out(path);
        TimedEvent("a1", "c1", "ALARM", "2017-03-01T07:30:00Z", "", false, "", 2, "").writeTo(out);
        out << "b2 c2";
    }
    std::ifstream in(path);
    TimedEvent read(EVT_TYPE_TIMER);
    EXPECT_TRUE(read.matches("*") && read.played() && !read.isLive());
    read.readFrom(in);
    EXPECT_EQ(read.getId() + read.getClient() + read.getTimeStr() + read.getType(),
              "a1c12017-03-01T07:30:00ZALARM");
    EXPECT_TRUE(read.matches("a1") && !read.matches("A1") && !read.matches("a1 "));
    EXPECT_TRUE(read.isLive() && in.good());
    EXPECT_EQ(read.getAlertEarcon(), "system_alerts_melodic_02");
    read.readFrom(in);
    EXPECT_FALSE(in.good());
    EXPECT_EQ(read.getId() + read.getTimeStr(), "b22017-03-01T07:30:00Z");
}

}  // namespace
}  // namespace alarmd
