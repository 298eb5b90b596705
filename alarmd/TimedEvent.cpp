#include "alarmd/TimedEvent.h"

#include <sys/stat.h>

#include <ctime>
#include <limits>
#include <utility>

#include "alarmd/AlarmDB.h"
#include "alarmd/Constants.h"
#include "alarmd/Log.h"

namespace alarmd {

namespace {

constexpr char TIME_FORMAT[] = "%Y-%m-%dT%H:%M:%SZ";
constexpr Seconds MAX_SECONDS = std::numeric_limits<std::int64_t>::max() / 1000000000;

bool exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

std::string longFileOf(const std::string& earcon) {
    return ALARMD_EARCON_PATH + earcon + ALARMD_LONG_ALERT_APPEND;
}

std::string shortFileOf(const std::string& earcon) {
    return ALARMD_EARCON_PATH + earcon + ALARMD_SHORT_ALERT_APPEND;
}

const char* defaultEarconOf(const std::string& type) {
    if (type == EVT_TYPE_TIMER) {
        return ALARMD_DEFAULT_ALERT_EARCON_TIMER;
    }
    if (type == EVT_TYPE_REMINDER) {
        return ALARMD_DEFAULT_ALERT_EARCON_REMINDER;
    }
    return ALARMD_DEFAULT_ALERT_EARCON_ALARM;
}

std::tm toUtc(Seconds seconds) {
    const std::time_t time = seconds;
    std::tm fields{};
    ::gmtime_r(&time, &fields);
    return fields;
}

/// The seconds of a time string, or false when it cannot be read or its nanoseconds do not fit.
bool readTime(const std::string& text, Seconds& seconds) {
    std::tm fields{};
    if (::strptime(text.c_str(), TIME_FORMAT, &fields) == nullptr) {
        return false;
    }
    // Local time, although the text says UTC and is written with gmtime_r: the device's zone is
    // UTC, and what is stored relies on this pair.
    seconds = std::mktime(&fields);
    return seconds != -1 && seconds >= -MAX_SECONDS && seconds <= MAX_SECONDS;
}

}  // namespace

Seconds toSeconds(TimePoint time) {
    return boost::chrono::duration_cast<boost::chrono::seconds>(time.time_since_epoch()).count();
}

TimePoint now() {
    return boost::chrono::system_clock::now();
}

std::string formattedTime(Seconds seconds) {
    const std::tm fields = toUtc(seconds);
    char text[40] = {};
    std::strftime(text, sizeof text - 1, "%Y%m%dT%H%M%S", &fields);
    return text;
}

std::string timeInStringFormat(Seconds seconds) {
    const std::tm fields = toUtc(seconds);
    char text[40] = {};
    std::strftime(text, sizeof text - 1, TIME_FORMAT, &fields);
    return text;
}

bool AlertSounds::exist(const std::string& earcon) {
    const auto [known, isNew] = m_known.try_emplace(earcon, false);
    if (isNew) {
        known->second = exists(longFileOf(earcon)) && exists(shortFileOf(earcon));
    }
    return known->second;
}

TimedEvent::TimedEvent(std::string id, std::string client, std::string type, std::string timeStr,
                       std::string alertEarcon, bool isDynamicAlert, std::string assetPlayOrder,
                       int loopCount, std::string shortAlertAsset, AlertSounds* sounds)
    : m_id(std::move(id)),
      m_client(std::move(client)),
      m_type(std::move(type)),
      m_timeStr(std::move(timeStr)),
      m_alertEarcon(std::move(alertEarcon)),
      m_isDynamicAlert(isDynamicAlert),
      m_assetPlayOrder(std::move(assetPlayOrder)),
      m_loopCount(loopCount),
      m_shortAlertAsset(std::move(shortAlertAsset)),
      m_played(false) {
    makeTimePoint();
    generateEarconFilesFromAlert(m_alertEarcon, sounds);
}

TimedEvent::TimedEvent(const std::string& type)
    : m_id(EVT_EMPTY),
      m_client(EVT_EMPTY),
      m_type(type),
      m_timeStr(EVT_EMPTY),
      m_time(AlarmDB::max_time()),
      m_isDynamicAlert(false),
      m_loopCount(0),
      m_played(true) {
    generateEarconFilesFromAlert("");
}

bool TimedEvent::isLive() const {
    return !m_played && m_time < AlarmDB::max_time();
}

bool TimedEvent::matches(const std::string& id) const {
    return m_id == id;
}

void TimedEvent::makeTimePoint() {
    Seconds seconds = 0;
    if (readTime(m_timeStr, seconds)) {
        m_time = TimePoint(boost::chrono::seconds(seconds));
    } else {
        m_time = AlarmDB::max_time();
        // The operation's name in this line is the one that log readers know.
        LOGD("TimedEvent:getTime:timestr=%s:could not read time", m_timeStr.c_str());
    }
}

void TimedEvent::makeTimeSortable() {
    const std::string shape = "0000-00-00T00:00:00Z";
    const auto isOfShape = [](char c, char model) {
        return model == '0' ? c >= '0' && c <= '9' : c == model;
    };
    if (isLive()
        && !std::equal(m_timeStr.begin(), m_timeStr.end(), shape.begin(), shape.end(), isOfShape)) {
        m_timeStr = timeInStringFormat(toSeconds(m_time));
    }
}

bool TimedEvent::generateEarconFilesFromAlert(const std::string& alertEarcon, AlertSounds* sounds) {
    AlertSounds ofThisOne;
    const bool exist = (sounds != nullptr ? *sounds : ofThisOne).exist(alertEarcon);
    if (!exist) {
        LOGW(
            "TimedEvent:generateEarconFilesFromAlertFailed:reason=unknownEarcon:Using default earcons");
        m_alertEarcon = defaultEarconOf(m_type);
    }
    const std::string& taken = exist ? alertEarcon : m_alertEarcon;
    m_alertFileLong = longFileOf(taken);
    m_alertFileShort = shortFileOf(taken);
    return exist;
}

void TimedEvent::writeTo(std::ofstream& out) const {
    out << m_id << ' ' << m_client << ' ' << m_timeStr << ' ' << m_type << '\n';
    LOGD("TimedEvent:writeTo:type=%s,id=%s,vers=%s,time=%s:event", m_type.c_str(), m_id.c_str(),
         m_client.c_str(), m_timeStr.c_str());
}

void TimedEvent::readFrom(std::ifstream& in) {
    in >> m_id >> m_client >> m_timeStr >> m_type;
    m_played = false;
    makeTimePoint();
    LOGD("TimedEvent:readFrom:type=%s,id=%s,vers=%s,time=%s,played=%d:event", m_type.c_str(),
         m_id.c_str(), m_client.c_str(), m_timeStr.c_str(), m_played);
}

}  // namespace alarmd
