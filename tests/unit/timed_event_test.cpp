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
    EXPECT_EQ(formattedTime(0) + timeInStringFormat(never), "19700101T0000002219-11-02T00:00:00Z");
}

TEST_F(TimedEventTest, MissingSoundGivesTheDefaultOfTheType) {
    for (const char* file : {"whole.mp3", "whole_short.wav", "half.mp3"}) {
        writeFile(earcon(file));
    }
    for (const Texts& c : {Texts{"TIMER", "whole", "whole"},
                           {"ALARM", "half", "system_alerts_melodic_01"},
                           {"TIMER", "half", "system_alerts_melodic_02"},
                           {"REMINDER", "", "system_alerts_melodic_01"}}) {
        const TimedEvent event("a", "c", c[0], "", c[1], false, "", 2, "");
        EXPECT_EQ(event.getAlertEarcon(), c[2]) << c[0] << c[1];
    }
}

}  // namespace
}  // namespace alarmd
