/// Time strings and the state file of the earlier version, which is made of such.
#include <cstring>
#include <fstream>

#include "alarmd/AlarmDB.h"
#include "alarmd/Constants.h"
#include "fuzz/Device.h"

namespace {

using namespace alarmd;
using fuzz::require;

TimedEvent eventAt(const std::string& time) {
    return TimedEvent("id", "client", EVT_TYPE_TIMER, time, "", false, "", 2, "");
}

void checkTime(const TimedEvent& event) {
    const TimedEvent again = eventAt(timeInStringFormat(toSeconds(event.getTime())));
    require(again.getTime() == event.getTime(), "a time reads as another");
}

/// A line that was read is written and read as itself.
void checkLine(const char* path) {
    TimedEvent event(EVT_TYPE_ALARM);
    std::ifstream in(path);
    event.readFrom(in);
    if (in.fail()) {
        return;
    }
    const std::string copy = std::string(path) + ".copy";
    std::ofstream out(copy);
    event.writeTo(out);
    out.close();
    TimedEvent again(EVT_TYPE_ALARM);
    std::ifstream copied(copy);
    again.readFrom(copied);
    require(copied.good() && again.matches(event.getId()) && again.getClient() == event.getClient()
                && again.getTimeStr() == event.getTimeStr() && again.getType() == event.getType(),
            "a line reads as another");
    checkTime(event);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::emptyDevice();
    const std::string input = fuzz::toText(data, size);
    checkTime(eventAt(input));
    Seconds seconds = 0;
    std::memcpy(&seconds, data, std::min(size, sizeof seconds));
    require(!formattedTime(seconds).empty() && !timeInStringFormat(seconds).empty(),
            "a number of seconds has no text");

    std::ofstream(ALARMD_LEGACY_STATE_FILE) << input;
    std::ofstream(ALARMD_LEGACY_RETAINED_FILE) << input;
    checkLine(ALARMD_LEGACY_STATE_FILE);
    AlarmDB db(ALARMD_DB_FILE);
    require(!std::filesystem::exists(ALARMD_LEGACY_STATE_FILE)
                && !std::filesystem::exists(ALARMD_LEGACY_RETAINED_FILE),
            "a state file is imported twice");
    for (const TimedEvent& event : db.getAllAlerts()) {
        require(db.readAlertById(event.getId()).getTime() == event.getTime(),
                "what was imported is lost");
        checkTime(event);
    }
    return 0;
}
