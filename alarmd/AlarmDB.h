/// The device's notifications and undelivered stop notices in one SQLite file, the choice of the
/// notification that rings next, and the one that waits or rings now.
#pragma once

#include <glib.h>

#include <array>
#include <boost/shared_ptr.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alarmd/AlarmMetrics.h"
#include "alarmd/Lock.h"
#include "alarmd/TimedEvent.h"
#include "alarmd/platform/SqliteUtil.h"

namespace alarmd {

/// The store. Three slots mirror, in memory, the earliest stored notification of each type; the
/// current event is one of them or none. It is Idle (no current event), Waiting (chosen, not
/// played) or Ringing (played).
///
/// Threads: the timer thread, the messaging worker, the stop-notice thread and the bus callbacks,
/// all at once. Every public operation locks what it needs: those that read or change the slots or
/// the current event hold the store mutex for their whole body; the others touch only the database,
/// which locks itself. No bus call is made under the store mutex. What a document costs beyond
/// reading its rows is paid after the store mutex is released: a ring may be due.
///
/// Failure: the constructor alone throws. After that an operation that fails logs one line and
/// returns false, the empty event (identifier "*"), "" or an empty list; what is stored is left as
/// it was.
///
/// A write that has returned true is on disk, power loss included.
///
/// A notification that has ended (acknowledged, stopped, given up on) but whose row could not be
/// deleted is passed over from then on: it is not chosen again in this life of the daemon, and its
/// deletion is tried again whenever the store is changed.
class AlarmDB {
  public:
    static const std::string k_alarmTableName;
    static const std::string k_alarmTableSchema;
    static const std::string k_retainedEvtTable;
    static const std::string k_retainedEvtSchema;
    static constexpr int k_numOfAlarmColumns = 10;
    static const std::array<std::string, k_numOfAlarmColumns> k_alarmColumns;
    static constexpr int k_numOfRetainedEvtColumns = 2;
    static const std::array<std::string, k_numOfRetainedEvtColumns> k_retainedEvtColumns;

    using StopNotices = std::vector<std::pair<std::string, std::string>>;  ///< (id, client)

    /// Opens the file or, when there is none, creates it; upgrades older tables; imports the legacy
    /// state files into a new file and removes them; loads the slots. Throws std::runtime_error
    /// ("Could not open existing DB", "Could not open new DB", "Failed to create table"); a file
    /// that cannot be used is left as it is.
    explicit AlarmDB(const std::string& dbFileName);
    ~AlarmDB();
    AlarmDB(const AlarmDB&) = delete;
    AlarmDB& operator=(const AlarmDB&) = delete;

    /// "Never": 7,884,000,000 s after 1970.
    static TimePoint max_time();

    // --- Choice and the current event ---

    /// What to wait for. With a live current event: that one. With a ringing one: false, outputs
    /// untouched. Else the earliest of the three slots (at the same time an alarm before a timer
    /// before a reminder) becomes current; without a live one false, with type "NONE" and time
    /// max_time(). When the event is chosen in this call, the asset play order, loop count and
    /// short asset are those of the null event; callers that need the chosen one's read it with
    /// playingCurrentEvent.
    bool getNextEvent(TimePoint& time, std::string& type, std::string& id, std::string& client,
                      std::string& earcon, bool& isDynamic, std::string& assetPlayOrder,
                      int& loopCount, std::string& shortAlertAsset) EXCLUDES(m_mutex);

    /// Whether all slots are as stored. False while some could not be read: getNextEvent, which
    /// tries them again, may miss a notification, so the caller asks again before long.
    bool isChoiceComplete() EXCLUDES(m_mutex);

    /// Stores or replaces a notification and opens the choice again unless one rings. `wasPlaying`
    /// is set (never cleared) when the one replaced was ringing: it does not ring any more. False
    /// when it could not be written, and then it is not stored, unless the very last step failed:
    /// what rings is what is stored either way. Also false when the type is none of the three, and
    /// then the row is stored all the same.
    [[nodiscard]] bool setEvent(const std::string& id, const std::string& client,
                                const std::string& type, const std::string& timeStr,
                                const std::string& earcon, bool isDynamicAlert,
                                const std::string& assetPlayOrder, int loopCount,
                                const std::string& shortAlertAsset, bool& wasPlaying)
        EXCLUDES(m_mutex);

    /// A copy of the current event; the empty event when there is none.
    TimedEvent getCurrentEvent() EXCLUDES(m_mutex);

    /// Whether there is a current event, and whether it rings. A current event whose slot was
    /// emptied (identifier "*") does not ring.
    bool hasCurrentEvent() EXCLUDES(m_mutex);
    bool isPlayingEvent() EXCLUDES(m_mutex);

    /// In one step: marks the current event as ringing, writes its row again and returns a copy.
    /// The empty event, and nothing done, unless it still is the one with this id and time,
    /// waiting: a directive may have removed or replaced it since it was chosen. A failed write is
    /// logged; it rings anyway.
    TimedEvent playingCurrentEvent(const std::string& id, TimePoint time) EXCLUDES(m_mutex);

    /// Ends the ringing event: removes its row and downloaded sounds, and opens the choice again.
    /// Returns it, or the empty event when nothing rings (an event that only waits is not touched,
    /// so that a late acknowledgement cannot remove the next notification before it has rung).
    TimedEvent deleteCurrentEvent() EXCLUDES(m_mutex);

    // --- Deletion ---

    /// Deletes one notification and counts it in the metrics. `wasPlaying` tells whether it was
    /// ringing. An unknown id is a success. On failure false, and the notification stays; if it was
    /// ringing it has ended all the same and `wasPlaying` is set.
    [[nodiscard]] bool deleteEvent(const std::string& id, bool& wasPlaying) EXCLUDES(m_mutex);

    /// The same for a notification that has ended (stopped, or given up on): when its row cannot be
    /// deleted it is passed over from now on.
    void endEvent(const std::string& id, bool& wasPlaying) EXCLUDES(m_mutex);

    /// Gives up on the current event: keeps its stop notice and ends it, in one step. False, and
    /// nothing done, unless it still is the one with this id and due time, waiting. A notice that
    /// cannot be stored is kept in memory and stored when the store is next changed; the row stays
    /// until then.
    bool giveUpCurrentEvent(const std::string& id, const std::string& client, TimePoint time)
        EXCLUDES(m_mutex);

    /// The same for a notification that was due at `time`, rang and was ended: a row that is left
    /// is removed. False, and nothing done, when another is stored under the id by now (its time
    /// differs): it was set anew.
    bool retainEndedEvent(const std::string& id, const std::string& client, TimePoint time)
        EXCLUDES(m_mutex);

    /// Deletes several in one step, without metrics; their downloaded sounds stay. An empty set
    /// deletes nothing. Failure as in deleteEvent.
    [[nodiscard]] bool deleteNotifications(const std::set<std::string>& ids, bool& wasPlaying)
        EXCLUDES(m_mutex);

    /// Deletes all notifications, not the stop notices. The slots are empty afterwards whether or
    /// not the rows could be deleted. The current event is left as it is; getNextEvent sorts that
    /// out.
    void deleteAllAlarmsAndTimers() EXCLUDES(m_mutex);

    /// Ends every stored notification that is 30 minutes or more past its time, keeping a stop
    /// notice for each. Does nothing unless `retain`.
    void moveExpiredEventsForLaterStopNotice(bool retain) EXCLUDES(m_mutex);

    // --- Reads ---

    /// One notification by id, or the empty event; its client, or ""; several (an empty set means
    /// all); all.
    TimedEvent readAlertById(const std::string& id);
    std::string getClientId(const std::string& id);
    std::vector<TimedEvent> getAllAlerts(const std::set<std::string>& ids);
    std::vector<TimedEvent> getAllAlerts();

    // --- Stop notices that could not be sent ---

    /// Whether a notification that has not ended is stored under the id: the cloud would take that
    /// one for stopped. False when it cannot be read.
    bool isSet(const std::string& id) EXCLUDES(m_mutex);

    /// Keeps one notice; a second one of the same id replaces the first.
    [[nodiscard]] bool retainEventForLaterStopNotice(const std::string& id,
                                                     const std::string& client);
    /// False, and no notices, when they could not be read.
    [[nodiscard]] bool getSavedStopNotices(StopNotices& notices);
    void deleteSavedStopNotices();

    // --- JSON documents (unformatted); on failure false and an empty `json` ---

    /// The state document of one notification, made of the arguments alone.
    static bool jsonForTimedEvent(std::string& json, const std::string& id,
                                  const std::string& client, const std::string& type,
                                  const std::string& time);
    /// The state document of deleted notifications: type "NONE", in ascending byte order.
    static bool jsonForDeleteTimedEvents(std::string& json, const std::set<std::string>& ids);
    /// The volume and the notification that rings, if any.
    bool jsonForActiveEvents(int volume, std::string& json) EXCLUDES(m_mutex);
    /// The state document of all live stored notifications.
    bool jsonForAllEvents(std::string& json) EXCLUDES(m_mutex);

  private:
    /// A slot, the type it is for, and its name in the log.
    struct Slot {
        TimedEvent& event;
        const char* type;
        const char* name;
    };
    using Slots = std::array<Slot, 3>;

    // --- Construction ---

    /// True when the file was created. Throws as the constructor.
    bool openDB();
    bool isImportUnfinished();
    void markImport(bool isUnderWay);
    [[nodiscard]] bool makeDBTables();
    [[nodiscard]] bool createTable(const std::string& table, const std::string& schema);
    void createChoiceIndex();
    [[nodiscard]] bool upgradeColumns();
    [[nodiscard]] bool migrateToDB(bool isNewDB) REQUIRES(m_mutex);
    [[nodiscard]] bool importAlarms(bool isNewDB) REQUIRES(m_mutex);
    [[nodiscard]] bool importRetainedEvents(bool isNewDB);
    void readDB() REQUIRES(m_mutex);

    // --- Rows ---

    [[nodiscard]] bool writeToDB(const TimedEvent& event);
    /// The empty event, logged, when the row has another number of columns.
    static TimedEvent convertToTimedEvent(const SqliteUtil::Row& row,
                                          AlertSounds* sounds = nullptr);
    class PackedRows;
    /// The stored notifications that have not ended, as they are at one moment.
    PackedRows readUnendedRows() EXCLUDES(m_mutex);
    /// False, logged, when not all could be shown.
    bool visitAlerts(const SqliteUtil::Conditions& conditions, const SqliteUtil::Visitor& visitor);
    std::vector<TimedEvent> readAlerts(const SqliteUtil::Conditions& conditions);
    /// The earliest stored notification of the type that can be chosen. One that never rings, its
    /// time being unreadable or too far away, only when there is no other; the empty event when
    /// there is none at all. Nothing, logged, when it cannot be read.
    std::optional<TimedEvent> readAlert(const std::string& type) REQUIRES(m_mutex);
    /// The one with this id, or the empty event; nothing, logged, when it cannot be read.
    std::optional<TimedEvent> findAlert(const std::string& id);
    bool hasEnded(const std::string& id) const REQUIRES(m_mutex);
    [[nodiscard]] bool deleteAlert(const std::string& id) REQUIRES(m_mutex);

    // --- Slots and current event ---

    /// In the order in which equal times are chosen.
    Slots slots() REQUIRES(m_mutex);
    Slot earliestSlot() REQUIRES(m_mutex);
    std::string eventPrintString(const TimedEvent* event) const REQUIRES(m_mutex);
    bool hasCurrent() const REQUIRES(m_mutex);
    bool isPlaying() const REQUIRES(m_mutex);
    bool isWaiting(const std::string& id, TimePoint time) const REQUIRES(m_mutex);
    bool reload(const Slot& slot) REQUIRES(m_mutex);
    void reloadStaleSlots() REQUIRES(m_mutex);
    /// Has all slots read again before the next choice.
    void distrustSlots() REQUIRES(m_mutex);
    /// Makes the next getNextEvent choose afresh, unless one rings.
    void reopenChoice() REQUIRES(m_mutex);
    /// Reloads the slots that hold one of the ids, which are gone; true when one of them rang.
    bool reloadSlots(const std::set<std::string>& ids) REQUIRES(m_mutex);
    /// The same, and no such one is current any more.
    bool releaseEvents(const std::set<std::string>& ids) REQUIRES(m_mutex);

    // --- Deletion ---

    TimedEvent readForDeletion(const std::string& id) REQUIRES(m_mutex);
    bool removeEvent(const TimedEvent& event, const std::string& id, bool hasEnded,
                     bool& wasPlaying) REQUIRES(m_mutex);
    void countDeletion(const TimedEvent& event, const std::string& id) REQUIRES(m_mutex);
    void countFailedDeletion(const TimedEvent& event, const std::string& id) REQUIRES(m_mutex);
    /// Keeps the notices of all and removes the rows, each in one step.
    void retainAndRemoveAll(const PackedRows& expired) REQUIRES(m_mutex);
    int deleteRows(const std::set<std::string>& ids, std::string& error);
    /// Passes the ids over from now on and tries their deletion again later.
    void passOver(const std::set<std::string>& ids) REQUIRES(m_mutex);
    /// Stores the notices and deletes the rows that could not be before.
    void retryDeletions() REQUIRES(m_mutex);
    bool keepStopNotice(const std::string& id, const std::string& client) REQUIRES(m_mutex);
    /// All in one step, or none.
    [[nodiscard]] int saveStopNotices(const StopNotices& notices, std::string& error);
    void retainAndRemove(const std::string& id, const std::string& client) REQUIRES(m_mutex);
    bool emitDeleteMetrics(const TimedEvent& event, bool succeeded, Seconds now) REQUIRES(m_mutex);

    Mutex m_mutex{LockRank::Store};
    TimedEvent m_timer GUARDED_BY(m_mutex);
    TimedEvent m_reminder GUARDED_BY(m_mutex);
    TimedEvent m_alarm GUARDED_BY(m_mutex);
    TimedEvent m_nullEvent GUARDED_BY(m_mutex);
    TimedEvent* m_current GUARDED_BY(m_mutex);  ///< a slot, or the null event
    /// The types whose slot could not be read when it last changed, or may have changed.
    std::set<std::string> m_staleTypes GUARDED_BY(m_mutex);
    /// Ended, but the row was still there afterwards: not chosen again until it is set anew.
    std::set<std::string> m_passedOver GUARDED_BY(m_mutex);
    /// Those of them whose deletion failed and is to be tried again.
    std::set<std::string> m_undeleted GUARDED_BY(m_mutex);
    /// All rows were to be deleted, and could not be: none of them counts any more.
    bool m_allAreUndeleted GUARDED_BY(m_mutex) = false;
    StopNotices m_unsavedNotices GUARDED_BY(m_mutex);
    const std::string m_dbFileName;
    boost::shared_ptr<SqliteUtil> m_db;                          ///< serves several threads itself
    GHashTable* m_metricMetadata GUARDED_BY(m_mutex) = nullptr;  ///< null: no metadata
    AlarmMetrics m_metrics;
};

}  // namespace alarmd
