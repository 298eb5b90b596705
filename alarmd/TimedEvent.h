/// The record of one notification: an alarm, a timer or a reminder.
#pragma once

#include <boost/chrono/system_clocks.hpp>
#include <cstdint>
#include <fstream>
#include <map>
#include <string>

namespace alarmd {

/// A point of the wall clock in nanoseconds since 1970, UTC; 64 bits on every machine.
using TimePoint =
    boost::chrono::time_point<boost::chrono::system_clock, boost::chrono::nanoseconds>;

/// Seconds since 1970; 64 bits on every machine, where long and time_t may have 32.
using Seconds = std::int64_t;

/// Whole seconds of a time point, and the wall clock's now.
Seconds toSeconds(TimePoint time);
TimePoint now();

/// Seconds as UTC text: "20170301T073000" for log lines and ringing metrics, and
/// "2017-03-01T07:30:00Z", the form of a record's time string.
std::string formattedTime(Seconds seconds);
std::string timeInStringFormat(Seconds seconds);

/// Which alert sounds are there. Each is looked for once, so one object serves records that are
/// made at one moment.
class AlertSounds {
  public:
    /// Whether both files of the earcon exist.
    bool exist(const std::string& earcon);

  private:
    std::map<std::string, bool> m_known;
};

/// A plain value: copied freely, no lock. An identifier "*" means "no notification" wherever a
/// record is returned (the empty event). Times are UTC. No operation throws but for lack of memory.
class TimedEvent {
  public:
    /// A notification as it was set. The time point is computed from `timeStr`
    /// ("2017-03-01T07:30:00Z"; anything else: the far future). When either sound file of
    /// `alertEarcon` is missing, the default sound of the type is taken, with a warning in the log.
    /// One of several records gets the `sounds` of all.
    TimedEvent(std::string id, std::string client, std::string type, std::string timeStr,
               std::string alertEarcon, bool isDynamicAlert, std::string assetPlayOrder,
               int loopCount, std::string shortAlertAsset, AlertSounds* sounds = nullptr);

    /// The empty event of a type: id, client and time string "*", far-future time, played.
    explicit TimedEvent(const std::string& type);

    const std::string& getId() const { return m_id; }
    const std::string& getClient() const { return m_client; }
    const std::string& getType() const { return m_type; }
    const std::string& getTimeStr() const { return m_timeStr; }
    TimePoint getTime() const { return m_time; }
    const std::string& getAlertEarcon() const { return m_alertEarcon; }
    const std::string& getAlertEarconFileLong() const { return m_alertFileLong; }
    const std::string& getAlertEarconFileShort() const { return m_alertFileShort; }
    bool isDynamicAlert() const { return m_isDynamicAlert; }
    /// Absolute paths joined by ","; empty without custom sounds.
    const std::string& getAssetPlayOrder() const { return m_assetPlayOrder; }
    int getLoopCount() const { return m_loopCount; }
    const std::string& getShortAlertAsset() const { return m_shortAlertAsset; }
    bool played() const { return m_played; }

    void setPlayed(bool played) { m_played = played; }

    /// Not yet rung and not in the far future. Says nothing about the present: a record whose time
    /// has passed but which has not rung is live.
    bool isLive() const;

    /// True for exactly this identifier, byte for byte.
    bool matches(const std::string& id) const;

    /// Computes the time point from the time string.
    void makeTimePoint();

    /// Writes a time that can be read but not in two digits each, as in "T7:30:00Z", in full: the
    /// store sorts them as texts, and such a one would be chosen too late.
    void makeTimeSortable();

    /// Sets the two alert files from an earcon name. True when both files exist; else the default
    /// of the type is taken (name included), a warning logged, and false returned.
    bool generateEarconFilesFromAlert(const std::string& alertEarcon,
                                      AlertSounds* sounds = nullptr);

    /// The legacy one-line form "id client time type". Reading leaves the sound and loop fields as
    /// they are and clears played; the caller inspects the stream's state afterwards.
    void writeTo(std::ofstream& out) const;
    void readFrom(std::ifstream& in);

  private:
    std::string m_id;
    std::string m_client;
    std::string m_type;
    std::string m_timeStr;
    TimePoint m_time;
    std::string m_alertEarcon;
    std::string m_alertFileLong;
    std::string m_alertFileShort;
    bool m_isDynamicAlert;
    std::string m_assetPlayOrder;
    int m_loopCount;
    std::string m_shortAlertAsset;
    bool m_played;
};

}  // namespace alarmd
