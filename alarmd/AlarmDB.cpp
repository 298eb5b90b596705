#include "alarmd/AlarmDB.h"

#include <cjson/cJSON.h>

#include <boost/lexical_cast.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>

#include "alarmd/Constants.h"
#include "alarmd/Log.h"

namespace alarmd {

namespace {

using Condition = SqliteUtil::Condition;
using Conditions = SqliteUtil::Conditions;

constexpr int SQL_OK = 0;
constexpr int SQL_CANNOT_OPEN = 14;

constexpr const char* ID_COLUMN = "ID";
constexpr const char* CHOICE_INDEX = "NotificationsByTypeAndTime";
constexpr const char* DURATION_COLUMN = "durationInSeconds";
/// What the duration column holds for every notification; nobody reads it.
constexpr const char* UNUSED_DURATION = "-1";

/// The file's user version while the legacy files are imported into it.
constexpr int IMPORT_UNDER_WAY = 1;

/// Loop count when there is none, and when a stored one cannot be read.
constexpr int DEFAULT_LOOP_COUNT = 2;
constexpr boost::chrono::minutes EXPIRY(30);

/// Constructing it logs that the sounds of its empty earcon are missing: only where it is returned.
TimedEvent emptyEvent() {
    return TimedEvent(EVT_EMPTY);
}

bool isEmpty(const TimedEvent& event) {
    return event.getId() == EVT_EMPTY;
}

/// An emptied slot counts as played, but it does not ring.
bool rings(const TimedEvent& event) {
    return event.played() && !isEmpty(event);
}

std::intptr_t addressOf(const TimedEvent* event) {
    return reinterpret_cast<std::intptr_t>(event);
}

Conditions withId(const std::string& id) {
    return {Condition::equal(ID_COLUMN, id)};
}

Conditions withIds(const std::set<std::string>& ids) {
    Conditions conditions;
    conditions.reserve(ids.size());
    for (const std::string& id : ids) {
        conditions.push_back(Condition::equal(ID_COLUMN, id));
    }
    return conditions;
}

/// Whether a path from a play order, which others wrote, names something in the assets directory.
bool isInAssetsDirectory(const std::string& path) {
    return path.rfind(ALARMD_ASSETS_PATH, 0) == 0 && (path + "/").find("/../") == std::string::npos;
}

/// Downloaded sounds precede the first blank of a play order. What follows its last comma is not
/// taken for a path.
void removeAssets(const TimedEvent& event) {
    const std::string& playOrder = event.getAssetPlayOrder();
    std::size_t begin = 0;
    for (std::size_t comma = playOrder.find(','); comma != std::string::npos;
         comma = playOrder.find(',', begin)) {
        const std::string path = playOrder.substr(begin, comma - begin);
        begin = comma + 1;
        if (path.find("_blank") != std::string::npos) {
            return;
        }
        if (path == event.getShortAlertAsset()) {
            continue;
        }
        if (!isInAssetsDirectory(path)) {
            LOGW("AlarmDB:deleteEvent:reason=notAnAsset,path=%s:not removed", path.c_str());
            continue;
        }
        [[maybe_unused]] const int result = std::remove(path.c_str());
        LOGI("AlarmDB:deleteEvent:Deleting asset=%s, result=%d:", path.c_str(), result);
    }
}

void logSavingNotice() {
    LOGD("AlarmDB:retainEventForLaterStopNotice:table=%s:writing retained event to DB",
         AlarmDB::k_retainedEvtTable.c_str());
}

void logUnsavedNotice(const std::string& error, const std::string& id, const std::string& client) {
    LOGE("AlarmDB:retainEventForLaterStopNoticeFailed:dbError=%s,id=%s,client=%s:", error.c_str(),
         id.c_str(), client.c_str());
}

// --- Metric dimensions; the table borrows both texts, and may be null ---

void clearDimensions(GHashTable* table) {
    if (table != nullptr) {
        g_hash_table_remove_all(table);
    }
}

void putDimension(GHashTable* table, const char* key, const std::string& value) {
    if (table != nullptr) {
        g_hash_table_insert(table, const_cast<char*>(key), const_cast<char*>(value.c_str()));
    }
}

void removeDimension(GHashTable* table, const char* key) {
    if (table != nullptr) {
        g_hash_table_remove(table, key);
    }
}

void warnMissingDimension(const char* reason, const char* name) {
    LOGW(
        "AlarmDB:metricMetadataNotAvailable:reason=%s,method=emitDeleteMetrics:%s is not added during emit metric call",
        reason, name);
}

void putAvailableDimension(GHashTable* table, const char* key, const std::string& value,
                           const char* reasonIfEmpty) {
    if (value.empty()) {
        warnMissingDimension(reasonIfEmpty, key);
    } else {
        putDimension(table, key, value);
    }
}

// --- JSON documents ---

/// How the failures of one document are told. The four differ in name, words and levels; log
/// readers count on each as it is.
struct DocumentLog {
    const char* operation;
    const char* reason;
    bool startIsDebug;
    bool printIsDebug;
};

constexpr DocumentLog TIMED_EVENT_LOG{"jsonForTimedEvent", "malloc failed", false, true};
constexpr DocumentLog DELETED_LOG{"jsonForDeleteTimedEvents", "mallocfailed", true, false};
constexpr DocumentLog ACTIVE_LOG{"jsonForAllEvents", "mallocfailed", false, false};
constexpr DocumentLog ALL_LOG{"jsonForAllEvents", "mallocfailed", true, false};

struct Member {
    const char* key;
    const char* value;
};

struct DeleteJson {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

struct FreeText {
    void operator()(char* text) const { cJSON_free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

Json makeItem(std::initializer_list<Member> members) {
    Json item(cJSON_CreateObject());
    for (const Member& member : members) {
        if (cJSON_AddStringToObject(item.get(), member.key, member.value) == nullptr) {
            return nullptr;
        }
    }
    return item;
}

/// A document under construction: an object that ends with an array of notifications. The first
/// failure is logged and drops the whole; what follows does nothing, and printing fails.
///
/// Each notification is printed when it is added, so that a hundred thousand take the memory of
/// their text and not that of a tree.
class Document {
  public:
    /// The document of a set of notifications.
    static Document ofState(const DocumentLog& log) {
        Document document(log);
        document.startWith(
            cJSON_AddStringToObject(document.m_root.get(), ALARM_STATE_KEY, ALARM_STATE_VAL));
        document.addArray(NOTIFICATIONS);
        return document;
    }

    /// The document of what rings.
    static Document ofActive(const DocumentLog& log, int volume) {
        Document document(log);
        document.startWith(
            cJSON_AddNumberToObject(document.m_root.get(), ALARM_VOLUME_KEY, volume));
        document.addArray(ALARM_ACTIVE_EVENTS_KEY);
        return document;
    }

    void add(std::initializer_list<Member> members) {
        if (m_root == nullptr) {
            return;
        }
        Json item = makeItem(members);
        if (item == nullptr) {
            LOGE("AlarmDB:%s:reason=%s:alarm json not created", m_log.operation, m_log.reason);
            m_root.reset();
            return;
        }
        const Text text = print(item);
        if (text != nullptr) {
            m_items.append(m_items.empty() ? "" : ",").append(text.get());
        }
    }

    bool print(std::string& json) {
        const Text text = m_root == nullptr ? Text() : print(m_root);
        if (text == nullptr) {
            return false;
        }
        constexpr std::size_t END = sizeof "]}" - 1;
        json = text.get();
        json.insert(json.size() - END, m_items);
        return true;
    }

  private:
    explicit Document(const DocumentLog& log) : m_log(log), m_root(cJSON_CreateObject()) {}

    void startWith(const cJSON* firstMember) {
        if (firstMember == nullptr) {
            logStartFailure();
            m_root.reset();
        }
    }

    void addArray(const char* key) {
        if (m_root == nullptr) {
            return;
        }
        if (cJSON_AddArrayToObject(m_root.get(), key) == nullptr) {
            LOGE("AlarmDB:%s:reason=%s:timers json not created", m_log.operation, m_log.reason);
            m_root.reset();
        }
    }

    /// Null, logged, when it cannot be printed; the document is dropped then.
    Text print(const Json& json) {
        Text text(cJSON_PrintUnformatted(json.get()));
        if (text == nullptr) {
            logPrintFailure();
            m_root.reset();
        }
        return text;
    }

    void logStartFailure() const {
        if (m_log.startIsDebug) {
            LOGD("AlarmDB:%s:reason=%s:json not created", m_log.operation, m_log.reason);
        } else {
            LOGE("AlarmDB:%s:reason=%s:json not created", m_log.operation, m_log.reason);
        }
    }

    void logPrintFailure() const {
        if (m_log.printIsDebug) {
            LOGD("AlarmDB:%s:reason=JSONPrintFailed:json failure", m_log.operation);
        } else {
            LOGE("AlarmDB:%s:reason=JSONPrintFailed:json failure", m_log.operation);
        }
    }

    DocumentLog m_log;
    Json m_root;          ///< all but the notifications
    std::string m_items;  ///< these
};

void addStateItem(Document& document, const std::string& id, const std::string& type,
                  const std::string& time, const std::string& client) {
    document.add({{ALARM_EVENT_ID, id.c_str()},
                  {ALARM_EVENT_TYPE, type.c_str()},
                  {ALARM_EVENT_TIME, time.c_str()},
                  {ALARM_EVENT_CLIENT, client.c_str()}});
}

}  // namespace

const std::string AlarmDB::k_alarmTableName = "Notifications";
const std::string AlarmDB::k_alarmTableSchema =
    "id PRIMARY KEY, client NOT NULL, type NOT NULL, time NOT NULL, earcon, is_dynamic INTEGER, assetPlayOrder, durationInSeconds INTEGER, shortAlertAsset, loopCount INTEGER";
const std::string AlarmDB::k_retainedEvtTable = "RetainedEvents";
const std::string AlarmDB::k_retainedEvtSchema = "id PRIMARY KEY, client";
const std::array<std::string, AlarmDB::k_numOfAlarmColumns> AlarmDB::k_alarmColumns = {
    "id",
    "client",
    "type",
    "time",
    "earcon",
    "is_dynamic",
    ALARM_EVENT_ASSET_PLAY_ORDER,
    DURATION_COLUMN,
    ALARM_EVENT_SHORT_ALERT_ASSET,
    ALARM_EVENT_ASSETS_LOOP_COUNT};
const std::array<std::string, AlarmDB::k_numOfRetainedEvtColumns> AlarmDB::k_retainedEvtColumns = {
    "id", "client"};

// --- Construction ---

AlarmDB::AlarmDB(const std::string& dbFileName)
    : m_timer(EVT_TYPE_TIMER),
      m_reminder(EVT_TYPE_REMINDER),
      m_alarm(EVT_TYPE_ALARM),
      m_nullEvent(EVT_EMPTY),
      m_current(&m_nullEvent),
      m_dbFileName(dbFileName),
      m_db(boost::make_shared<SqliteUtil>()) {
    const bool isNewDB = openDB();
    markImport(isNewDB);
    if (!makeDBTables()) {
        throw std::runtime_error("Failed to create table");
    }
    Lock lock(m_mutex);
    if (!migrateToDB(isNewDB)) {
        LOGE("AlarmDB:ConstructorFailed:reason=migrateToDBFailed,fileName=%s:",
             m_dbFileName.c_str());
    }
    markImport(false);
    readDB();
    m_metricMetadata = g_hash_table_new(g_str_hash, g_str_equal);
    if (m_metricMetadata == nullptr) {
        LOGE("AlarmDB:createAlarmMetricsFailed:reason=newHashTableCreationFailed:");
    }
}

AlarmDB::~AlarmDB() {
    if (m_metricMetadata != nullptr) {
        g_hash_table_destroy(m_metricMetadata);
    }
}

bool AlarmDB::openDB() {
    int code = m_db->open(m_dbFileName, false);
    if (code == SQL_OK) {
        return isImportUnfinished();
    }
    // Only a missing file is created: one that is locked or damaged may still hold every alarm.
    if (code != SQL_CANNOT_OPEN) {
        LOGC("AlarmDB:ConstructorFailed:reason=unableToOpenExistingDB,fileName=%s,sqlCode=%d:",
             m_dbFileName.c_str(), code);
        throw std::runtime_error("Could not open existing DB");
    }
    code = m_db->open(m_dbFileName, true);
    if (code != SQL_OK) {
        LOGC("AlarmDB:ConstructorFailed:reason=unableToOpenNewDB,fileName=%s,sqlCode=%d:",
             m_dbFileName.c_str(), code);
        throw std::runtime_error("Could not open new DB");
    }
    return true;
}

/// A start that was cut off in the middle of an import is taken up again: the legacy files still
/// hold what the new file may lack.
bool AlarmDB::isImportUnfinished() {
    int version = 0;
    std::string error;
    return m_db->userVersion(version, error) == SQL_OK
           && (version == IMPORT_UNDER_WAY
               || (m_db->columnNames(k_alarmTableName, error).empty() && error.empty()));
}

void AlarmDB::markImport(bool isUnderWay) {
    const int wanted = isUnderWay ? IMPORT_UNDER_WAY : 0;
    int version = 0;
    std::string error;
    if (m_db->userVersion(version, error) == SQL_OK && version != wanted
        && (isUnderWay || version == IMPORT_UNDER_WAY)
        && m_db->setUserVersion(wanted, error) != SQL_OK) {
        LOGW("AlarmDB:markImportFailed:dbError=%s:", error.c_str());
    }
}

bool AlarmDB::makeDBTables() {
    if (!createTable(k_alarmTableName, k_alarmTableSchema)
        || !createTable(k_retainedEvtTable, k_retainedEvtSchema)) {
        return false;
    }
    createChoiceIndex();
    return upgradeColumns();
}

bool AlarmDB::createTable(const std::string& table, const std::string& schema) {
    std::string error;
    if (m_db->createTable(table, schema, error) != SQL_OK) {
        LOGC("AlarmDB:ConstructorFailed:TableCreateFailed,Table=%s,error=%s:", table.c_str(),
             error.c_str());
        return false;
    }
    return true;
}

/// Keeps the choice of the next notification as quick with 100,000 rows as with ten.
void AlarmDB::createChoiceIndex() {
    std::string error;
    if (m_db->createIndex(CHOICE_INDEX, k_alarmTableName, "type, time", error) != SQL_OK) {
        LOGW("AlarmDB:createIndexFailed:dbError=%s,index=%s:", error.c_str(), CHOICE_INDEX);
    }
}

/// Only the two older layouts, of six and of nine columns, are upgraded; others stay as they are.
bool AlarmDB::upgradeColumns() {
    std::string error;
    const std::size_t count = m_db->columnNames(k_alarmTableName, error).size();
    std::vector<std::string> missing;
    if (count == k_numOfAlarmColumns) {
        LOGI("AlarmDB:makeDBTables:No change in schema:");
    } else if (count == 9) {
        missing = {ALARM_EVENT_ASSETS_LOOP_COUNT};
    } else if (count <= 6) {
        missing = {ALARM_EVENT_ASSET_PLAY_ORDER, DURATION_COLUMN, ALARM_EVENT_SHORT_ALERT_ASSET,
                   ALARM_EVENT_ASSETS_LOOP_COUNT};
    }
    // All in one step: a table with some of them is none that the next start would know.
    if (m_db->addColumns(k_alarmTableName, missing, error) != SQL_OK) {
        LOGC("AlarmDB:ConstructorFailed:addColumnFailed,Table=%s,error=%s:",
             k_alarmTableName.c_str(), error.c_str());
        return false;
    }
    return true;
}

/// The state files of the earlier version are read into a new database only: beside an older one
/// they are stale. Either way they are removed.
bool AlarmDB::migrateToDB(bool isNewDB) {
    const bool alarmsImported = importAlarms(isNewDB);
    return importRetainedEvents(isNewDB) && alarmsImported;
}

bool AlarmDB::importAlarms(bool isNewDB) {
    std::ifstream file(ALARMD_LEGACY_STATE_FILE);
    if (!file.is_open()) {
        return true;
    }
    bool result = true;
    if (isNewDB) {
        m_alarm.readFrom(file);
        m_timer.readFrom(file);
        m_reminder.readFrom(file);
        if (!file.good()) {
            LOGE("AlarmDB:migrateToDBFailed:reason=StateFileReadFailed,status=%d:",
                 static_cast<int>(file.rdstate()));
            result = false;
        }
        if (!isEmpty(m_alarm) && !writeToDB(m_alarm)) {
            LOGE("AlarmDB:migrateToDBFailed:reason=FailedToWriteAlarmToDB:");
            result = false;
        }
        if (!isEmpty(m_timer) && !writeToDB(m_timer)) {
            LOGE("AlarmDB:migrateToDBFailed:reason=FailedToWriteTimerToDB:");
            result = false;
        }
        if (!isEmpty(m_reminder) && !writeToDB(m_reminder)) {
            LOGE("AlarmDB:migrateToDBFailed:reason=FailedToWriteReminderToDB:");
            result = false;
        }
    }
    file.close();
    if (std::remove(ALARMD_LEGACY_STATE_FILE) != 0) {
        LOGE("AlarmDB:migrateToDBFailed:reason=UnableToRemoveStateFile,file=%s,errno=%d:",
             ALARMD_LEGACY_STATE_FILE, errno);
        result = false;
    }
    return result;
}

bool AlarmDB::importRetainedEvents(bool isNewDB) {
    std::ifstream file(ALARMD_LEGACY_RETAINED_FILE);
    if (!file.is_open()) {
        return true;
    }
    bool result = true;
    std::string id;
    std::string client;
    while (isNewDB && file >> id >> client) {
        if (!retainEventForLaterStopNotice(id, client)) {
            LOGE("AlarmDB:migrateToDBFailed:reason=FailedToWriteRetainedEventToDB,id=%s,client=%s:",
                 id.c_str(), client.c_str());
            result = false;
        }
    }
    file.close();
    if (std::remove(ALARMD_LEGACY_RETAINED_FILE) != 0) {
        LOGE("AlarmDB:migrateToDBFailed:reason=UnableToRemoveRetainedEventFile,file=%s,errno=%d:",
             ALARMD_LEGACY_RETAINED_FILE, errno);
        result = false;
    }
    return result;
}

void AlarmDB::readDB() {
    LOGD("AlarmDB:readDB:reason=readingAlertsFromDB:");
    for (const Slot& slot : slots()) {
        reload(slot);
    }
}

TimePoint AlarmDB::max_time() {
    return TimePoint(boost::chrono::seconds(7884000000));
}

// --- Rows ---

/// Rows put aside in one piece of memory, at little more than their bytes.
class AlarmDB::PackedRows {
  public:
    void add(const SqliteUtil::Row& row) {
        m_columns = row.size();
        for (const std::string& value : row) {
            m_text += value;
            m_ends.push_back(m_text.size());
        }
    }

    void forEach(const SqliteUtil::Visitor& visit) const {
        SqliteUtil::Row row(m_columns);
        std::size_t begin = 0;
        std::size_t column = 0;
        for (const std::size_t end : m_ends) {
            row[column].assign(m_text, begin, end - begin);
            begin = end;
            if (++column == m_columns) {
                column = 0;
                visit(row);
            }
        }
    }

    bool isEmpty() const { return m_ends.empty(); }

  private:
    std::size_t m_columns = 0;
    std::string m_text;
    std::vector<std::size_t> m_ends;
};

bool AlarmDB::writeToDB(const TimedEvent& event) {
    LOGI("AlarmDB:writeDB:id=%s,client=%s,type=%s,time=%s getAssetPlayOrder=%s, getLoopCount=%d:",
         event.getId().c_str(), event.getClient().c_str(), event.getType().c_str(),
         event.getTimeStr().c_str(), event.getAssetPlayOrder().c_str(), event.getLoopCount());
    std::string isDynamic;
    if (!boost::conversion::try_lexical_convert(event.isDynamicAlert(), isDynamic)) {
        LOGE("AlarmDB:writeToDBFailed:reason=castFromIsDynamicAlertFailed,dbError=,alertId=%s:",
             event.getId().c_str());
        return false;
    }
    std::string loopCount;
    if (!boost::conversion::try_lexical_convert(event.getLoopCount(), loopCount)) {
        LOGE("AlarmDB:writeToDB:reason=castFromLoopCountFailed,dbError=,alertId=%s:",
             event.getId().c_str());
        return false;
    }
    const SqliteUtil::Row row{event.getId(),
                              event.getClient(),
                              event.getType(),
                              event.getTimeStr(),
                              event.getAlertEarcon(),
                              isDynamic,
                              event.getAssetPlayOrder(),
                              UNUSED_DURATION,
                              event.getShortAlertAsset(),
                              loopCount};
    std::string error;
    if (m_db->insert(k_alarmTableName, row, error, true) != SQL_OK) {
        LOGE("AlarmDB:writeToDBFailed:reason=dbWriteFailed,dbError=%s,alertId=%s:", error.c_str(),
             event.getId().c_str());
        return false;
    }
    return true;
}

TimedEvent AlarmDB::convertToTimedEvent(const SqliteUtil::Row& row, AlertSounds* sounds) {
    const int columns = static_cast<int>(row.size());
    if (columns != k_numOfAlarmColumns) {
        LOGE("AlarmDB:convertToTimedEventFailed:reason=columnNumberMismatch,expected=%d,actual=%d:",
             k_numOfAlarmColumns, columns);
        return emptyEvent();
    }
    bool isDynamic = false;
    try {
        isDynamic = boost::lexical_cast<bool>(row[5]);
    } catch (const boost::bad_lexical_cast& error) {
        LOGW(
            "AlarmDB:convertToTimedEventWarn:reason=isDynamicAlertCastFailed,expected=%d,actual=%d:%s, setting isDynamic to false",
            k_numOfAlarmColumns, columns, error.what());
    }
    int loopCount = DEFAULT_LOOP_COUNT;
    try {
        loopCount = boost::lexical_cast<int>(row[9]);
    } catch (const boost::bad_lexical_cast& error) {
        LOGW(
            "AlarmDB:convertToTimedEventWarn:reason=LoopCountCastFailed,expected=%d,actual=%d:%s, setting loopCount to 2",
            k_numOfAlarmColumns, columns, error.what());
    }
    return TimedEvent(row[0], row[1], row[2], row[3], row[4], isDynamic, row[6], loopCount, row[8],
                      sounds);
}

std::optional<TimedEvent> AlarmDB::readAlert(const std::string& type) {
    // Nearly always the first row is the one. Only when it is not, longer and longer beginnings
    // are read, each as a whole: rows of the same time may change places when more are asked
    // for.
    AlertSounds sounds;
    for (std::size_t limit = 1;; limit *= 8) {
        std::optional<TimedEvent> never;
        std::vector<SqliteUtil::Row> rows;
        std::string error;
        if (m_db->select(k_alarmTableName,
                         {Condition::equal("TYPE", type), Condition::orderBy("TIME"),
                          Condition::limit(limit)},
                         rows, error)
            != SQL_OK) {
            LOGE("AlarmDB:readAlertFailed:dbError=%s,type=%s:", error.c_str(), type.c_str());
            return std::nullopt;
        }
        for (const SqliteUtil::Row& row : rows) {
            if (row.size() != k_numOfAlarmColumns) {
                return convertToTimedEvent(row);  // and so are all rows of this table
            }
            if (row.front() == EVT_EMPTY || hasEnded(row.front())) {
                continue;
            }
            TimedEvent event = convertToTimedEvent(row, &sounds);
            if (event.isLive()) {
                return event;
            }
            if (!never) {
                never = std::move(event);
            }
        }
        if (rows.size() < limit) {
            return never ? *never : emptyEvent();
        }
    }
}

bool AlarmDB::hasEnded(const std::string& id) const {
    return m_allAreUndeleted || m_passedOver.count(id) != 0;
}

std::optional<TimedEvent> AlarmDB::findAlert(const std::string& id) {
    std::vector<SqliteUtil::Row> rows;
    std::string error;
    if (m_db->select(k_alarmTableName, withId(id), rows, error) != SQL_OK) {
        LOGE("AlarmDB:readAlertByIdFailed:dbError=%s,id=%s:", error.c_str(), id.c_str());
        return std::nullopt;
    }
    return rows.empty() ? emptyEvent() : convertToTimedEvent(rows.front());
}

TimedEvent AlarmDB::readAlertById(const std::string& id) {
    const std::optional<TimedEvent> event = findAlert(id);
    return event ? *event : emptyEvent();
}

std::string AlarmDB::getClientId(const std::string& id) {
    std::vector<SqliteUtil::Row> rows;
    std::string error;
    if (m_db->select(k_alarmTableName, withId(id), rows, error) != SQL_OK) {
        LOGE("AlarmDB:getClientIdFailed:dbError=%s,id=%s:", error.c_str(), id.c_str());
        return "";
    }
    return rows.size() == 1 ? convertToTimedEvent(rows.front()).getClient() : "";
}

bool AlarmDB::visitAlerts(const SqliteUtil::Conditions& conditions,
                          const SqliteUtil::Visitor& visitor) {
    std::string error;
    if (m_db->visit(k_alarmTableName, conditions, visitor, error) != SQL_OK) {
        LOGE("AlarmDB:getAllAlertFailed:dbError=%s:", error.c_str());
        return false;
    }
    return true;
}

AlarmDB::PackedRows AlarmDB::readUnendedRows() {
    PackedRows rows;
    Lock lock(m_mutex);
    const bool isRead =
        visitAlerts(SqliteUtil::noConditions, [&](const SqliteUtil::Row& row) REQUIRES(m_mutex) {
            if (!hasEnded(row.front())) {
                rows.add(row);
            }
        });
    return isRead ? std::move(rows) : PackedRows();
}

std::vector<TimedEvent> AlarmDB::readAlerts(const SqliteUtil::Conditions& conditions) {
    PackedRows rows;
    std::vector<TimedEvent> events;
    if (visitAlerts(conditions, [&](const SqliteUtil::Row& row) { rows.add(row); })) {
        AlertSounds sounds;
        rows.forEach([&](const SqliteUtil::Row& row) {
            events.push_back(convertToTimedEvent(row, &sounds));
        });
    }
    return events;
}

/// An empty set gives an empty list of conditions, and so all: callers rely on it.
std::vector<TimedEvent> AlarmDB::getAllAlerts(const std::set<std::string>& ids) {
    return readAlerts(withIds(ids));
}

std::vector<TimedEvent> AlarmDB::getAllAlerts() {
    return readAlerts(SqliteUtil::noConditions);
}

bool AlarmDB::deleteAlert(const std::string& id) {
    if (hasCurrent() && m_current->matches(id)) {
        removeAssets(*m_current);
    }
    std::string error;
    if (m_db->deleteFrom(k_alarmTableName, withId(id), error) != SQL_OK) {
        LOGE("AlarmDB:deleteAlertFailed:dbError=%s,id=%s:", error.c_str(), id.c_str());
        return false;
    }
    return true;
}

// --- Choice and the current event ---

AlarmDB::Slots AlarmDB::slots() {
    return {{{m_alarm, EVT_TYPE_ALARM, "alarm"},
             {m_timer, EVT_TYPE_TIMER, "timer"},
             {m_reminder, EVT_TYPE_REMINDER, "reminder"}}};
}

AlarmDB::Slot AlarmDB::earliestSlot() {
    const Slots all = slots();
    const Slot* earliest = &all[0];
    for (const Slot& slot : all) {
        if (slot.event.getTime() < earliest->event.getTime()) {
            earliest = &slot;
        }
    }
    return *earliest;
}

std::string AlarmDB::eventPrintString(const TimedEvent* event) const {
    if (event == &m_timer) {
        return "TimerEvent";
    }
    if (event == &m_alarm) {
        return "AlarmEvent";
    }
    if (event == &m_reminder) {
        return "ReminderEvent";
    }
    return event == &m_nullEvent ? "NullEvent" : "NotAnEvent";
}

bool AlarmDB::hasCurrent() const {
    LOGD("AlarmDB:hasCurrentEvent:current=%" PRIdPTR ",null=%" PRIdPTR ":", addressOf(m_current),
         addressOf(&m_nullEvent));
    return m_current != &m_nullEvent;
}

bool AlarmDB::isPlaying() const {
    const bool result = rings(*m_current);
    LOGD("AlarmDB:isPlayingEvent:current=%" PRIdPTR ",null=%" PRIdPTR ",result=%d:",
         addressOf(m_current), addressOf(&m_nullEvent), result);
    return result;
}

/// A directive removes or replaces the current event by opening the choice again, so one that is
/// still current is the one that was chosen.
bool AlarmDB::isWaiting(const std::string& id, TimePoint time) const {
    return !m_current->played() && m_current->matches(id) && m_current->getTime() == time;
}

bool AlarmDB::hasCurrentEvent() {
    Lock lock(m_mutex);
    return hasCurrent();
}

bool AlarmDB::isPlayingEvent() {
    Lock lock(m_mutex);
    return isPlaying();
}

TimedEvent AlarmDB::getCurrentEvent() {
    Lock lock(m_mutex);
    return *m_current;
}

void AlarmDB::reopenChoice() {
    if (!isPlaying()) {
        m_current = &m_nullEvent;
    }
}

bool AlarmDB::getNextEvent(TimePoint& time, std::string& type, std::string& id, std::string& client,
                           std::string& earcon, bool& isDynamic, std::string& assetPlayOrder,
                           int& loopCount, std::string& shortAlertAsset) {
    Lock lock(m_mutex);
    reloadStaleSlots();
    LOGD("AlarmDB:getNextEvent:alarmLive=%d,timerlive=%d,reminderlive=%d:events avail",
         m_alarm.isLive(), m_timer.isLive(), m_reminder.isLive());
    if (isEmpty(*m_current)) {  // its slot was emptied: nothing there to wait for or to stop
        m_current = &m_nullEvent;
    }
    if (hasCurrent()) {
        LOGD("AlarmDB:getNextEvent:event=hascurrent(%s):waiting for ack",
             eventPrintString(m_current).c_str());
        if (!m_current->isLive()) {
            LOGD("AlarmDB:getNextEvent:event=hascurrent(%s):notLive",
                 eventPrintString(m_current).c_str());
            return false;
        }
        LOGD("AlarmDB:getNextEvent:event=hascurrent(%s):isLive",
             eventPrintString(m_current).c_str());
        time = m_current->getTime();
        type = m_current->getType();
        id = m_current->getId();
        client = m_current->getClient();
        earcon = m_current->getAlertEarcon();
        isDynamic = m_current->isDynamicAlert();
        assetPlayOrder = m_current->getAssetPlayOrder();
        loopCount = m_current->getLoopCount();
        shortAlertAsset = m_current->getShortAlertAsset();
        return true;
    }
    const Slot earliest = earliestSlot();
    if (!earliest.event.isLive()) {
        LOGD("AlarmDB:getNextEvent:event=none:chosen event");
        time = max_time();
        type = EVT_TYPE_NONE;
        id.clear();
        client.clear();
        earcon.clear();
        isDynamic = false;
        assetPlayOrder.clear();
        loopCount = DEFAULT_LOOP_COUNT;
        shortAlertAsset.clear();
        return false;
    }
    LOGD("AlarmDB:getNextEvent:event=%s:chosen event", earliest.name);
    time = earliest.event.getTime();
    type = earliest.type;
    id = earliest.event.getId();
    client = earliest.event.getClient();
    earcon = earliest.event.getAlertEarcon();
    isDynamic = earliest.event.isDynamicAlert();
    // These three are those of no event until the chosen one is asked for again: callers know it.
    assetPlayOrder = m_current->getAssetPlayOrder();
    loopCount = m_current->getLoopCount();
    shortAlertAsset = m_current->getShortAlertAsset();
    m_current = &earliest.event;
    return true;
}

bool AlarmDB::setEvent(const std::string& id, const std::string& client, const std::string& type,
                       const std::string& timeStr, const std::string& earcon, bool isDynamicAlert,
                       const std::string& assetPlayOrder, int loopCount,
                       const std::string& shortAlertAsset, bool& wasPlaying) {
    LOGI(
        "AlarmDB:setEvent:id=%s,client=%s,type=%s,time=%s,isDynamicAlert=%d,assetPlayOrder=%s,loopCount=%d,shortAlertAsset=%s:chosen event",
        id.c_str(), client.c_str(), type.c_str(), timeStr.c_str(), isDynamicAlert,
        assetPlayOrder.c_str(), loopCount, shortAlertAsset.c_str());
    TimedEvent event(id, client, type, timeStr, earcon, isDynamicAlert, assetPlayOrder, loopCount,
                     shortAlertAsset);
    event.makeTimeSortable();
    Lock lock(m_mutex);
    retryDeletions();
    // While those of a former owner are still there nothing is to ring, so nothing can be set.
    if (m_allAreUndeleted || !writeToDB(event)) {
        LOGE("AlarmDB:setEventFailed:reason=UnableToSetEvent,id=%s:", id.c_str());
        distrustSlots();
        return false;
    }
    m_passedOver.erase(id);
    m_undeleted.erase(id);

    bool typeIsKnown = false;
    for (const Slot& slot : slots()) {
        const bool isOfType = type == slot.type;
        const bool holdsId = slot.event.matches(id);
        typeIsKnown = typeIsKnown || isOfType;
        wasPlaying = wasPlaying || (holdsId && rings(slot.event));
        if (holdsId) {
            slot.event = m_nullEvent;
        }
        if (isOfType || holdsId) {
            reload(slot);
        }
        // It has been written, so it rings, also where a damaged file does not give it back.
        if (isOfType && !isEmpty(event) && event.getTime() < slot.event.getTime()) {
            slot.event = event;
        }
    }
    if (!typeIsKnown) {
        LOGE(
            "AlarmDB:setEventFailed:reason=unknownType,id=%s,client=%s,type=%s,time=%s:unknown type",
            id.c_str(), client.c_str(), type.c_str(), timeStr.c_str());
    }
    reopenChoice();
    return typeIsKnown;
}

TimedEvent AlarmDB::playingCurrentEvent(const std::string& id, TimePoint time) {
    Lock lock(m_mutex);
    LOGD("AlarmDB:playingCurrentEvent:type=%s:", m_current->getType().c_str());
    if (!isWaiting(id, time)) {
        return m_nullEvent;
    }
    m_current->setPlayed(true);
    // Its failure is logged. It rings all the same: the row says nothing of ringing.
    static_cast<void>(writeToDB(*m_current));
    return *m_current;
}

TimedEvent AlarmDB::deleteCurrentEvent() {
    Lock lock(m_mutex);
    LOGI("AlarmDB:deleteCurrentEvent:type=%s:", m_current->getType().c_str());
    if (!isPlaying()) {
        return m_nullEvent;
    }
    retryDeletions();
    const TimedEvent ended = *m_current;
    if (!deleteAlert(ended.getId())) {
        passOver({ended.getId()});
    }
    reloadSlots({ended.getId()});
    m_current = &m_nullEvent;
    LOGD("AlarmDB:deleteCurrentEvent:current=%" PRIdPTR ",null=%" PRIdPTR ":settonull",
         addressOf(m_current), addressOf(&m_nullEvent));
    return ended;
}

/// A slot that cannot be read keeps what it has, and is read again at the next choice.
bool AlarmDB::reload(const Slot& slot) {
    std::optional<TimedEvent> event = readAlert(slot.type);
    if (!event) {
        m_staleTypes.insert(slot.type);
        return false;
    }
    slot.event = std::move(*event);
    m_staleTypes.erase(slot.type);
    return true;
}

void AlarmDB::reloadStaleSlots() {
    if (m_staleTypes.empty() || isPlaying()) {
        return;
    }
    m_current = &m_nullEvent;
    for (const Slot& slot : slots()) {
        // One failure is enough: each may wait for a lock of another program.
        if (m_staleTypes.count(slot.type) != 0 && !reload(slot)) {
            return;
        }
    }
}

/// After a write that failed: the last step may be what failed, and then it has been done.
void AlarmDB::distrustSlots() {
    for (const Slot& slot : slots()) {
        m_staleTypes.insert(slot.type);
    }
}

bool AlarmDB::isChoiceComplete() {
    Lock lock(m_mutex);
    return m_staleTypes.empty();
}

bool AlarmDB::reloadSlots(const std::set<std::string>& ids) {
    bool rang = false;
    for (const Slot& slot : slots()) {
        if (ids.count(slot.event.getId()) == 0) {
            continue;
        }
        rang = rang || rings(slot.event);
        slot.event = m_nullEvent;
        reload(slot);
        // A damaged table may give a row back whose deletion has succeeded. It must not ring again
        // and again.
        while (!isEmpty(slot.event) && ids.count(slot.event.getId()) != 0) {
            m_passedOver.insert(slot.event.getId());
            slot.event = m_nullEvent;
            reload(slot);
        }
    }
    return rang;
}

bool AlarmDB::releaseEvents(const std::set<std::string>& ids) {
    if (hasCurrent() && ids.count(m_current->getId()) != 0) {
        m_current = &m_nullEvent;
    }
    const bool rang = reloadSlots(ids);
    reopenChoice();
    return rang;
}

// --- Deletion ---

bool AlarmDB::deleteEvent(const std::string& id, bool& wasPlaying) {
    Lock lock(m_mutex);
    const TimedEvent event = readForDeletion(id);
    const bool hasEnded = rings(*m_current) && m_current->matches(id);
    return removeEvent(event, id, hasEnded, wasPlaying);
}

void AlarmDB::endEvent(const std::string& id, bool& wasPlaying) {
    Lock lock(m_mutex);
    static_cast<void>(removeEvent(readForDeletion(id), id, true, wasPlaying));
}

bool AlarmDB::giveUpCurrentEvent(const std::string& id, const std::string& client, TimePoint time) {
    Lock lock(m_mutex);
    if (!isWaiting(id, time)) {
        return false;
    }
    retainAndRemove(id, client);
    return true;
}

bool AlarmDB::retainEndedEvent(const std::string& id, const std::string& client, TimePoint time) {
    Lock lock(m_mutex);
    const std::optional<TimedEvent> stored = findAlert(id);
    if (!stored) {
        keepStopNotice(id, client);
        return true;
    }
    if (!isEmpty(*stored) && stored->getTime() != time) {
        return false;
    }
    retainAndRemove(id, client);
    return true;
}

/// The notice before the deletion, so that a crash between the two loses nothing. Without a notice
/// the row stays for the next start to find, but it is over.
void AlarmDB::retainAndRemove(const std::string& id, const std::string& client) {
    bool wasPlaying = false;
    if (keepStopNotice(id, client)) {
        static_cast<void>(removeEvent(readForDeletion(id), id, true, wasPlaying));
        return;
    }
    passOver({id});
    releaseEvents({id});
}

TimedEvent AlarmDB::readForDeletion(const std::string& id) {
    LOGI("AlarmDB:deleteEvent:id=%s:chosen event", id.c_str());
    retryDeletions();
    return readAlertById(id);
}

bool AlarmDB::removeEvent(const TimedEvent& event, const std::string& id, bool hasEnded,
                          bool& wasPlaying) {
    if (!deleteAlert(id)) {
        countFailedDeletion(event, id);
        distrustSlots();
        if (hasEnded) {
            passOver({id});
            wasPlaying = releaseEvents({id});
        }
        return false;
    }
    countDeletion(event, id);
    wasPlaying = releaseEvents({id});
    return true;
}

void AlarmDB::countDeletion(const TimedEvent& event, const std::string& id) {
    LOGI("AlarmDB:deleteEventSuccess:id=%s:", id.c_str());
    if (!emitDeleteMetrics(event, true, toSeconds(now()))) {
        m_metrics.emitErrorMetric(METRIC_DELETE_METRIC_FAILURE);
    }
}

void AlarmDB::countFailedDeletion(const TimedEvent& event, const std::string& id) {
    LOGE("AlarmDB:deleteEventFailed:UnableToDeleteEvt,id=%s:", id.c_str());
    // The other way round than after a success; those who read the counters know it so.
    if (emitDeleteMetrics(event, false, toSeconds(now()))) {
        m_metrics.emitErrorMetric(METRIC_DELETE_METRIC_FAILURE);
    }
}

bool AlarmDB::deleteNotifications(const std::set<std::string>& ids, bool& wasPlaying) {
    LOGD("AlarmDB:deleteAllAlarmTypes:reason=removingAllAlarms/Timers/reminders:");
    Lock lock(m_mutex);
    retryDeletions();
    std::string error;
    if (deleteRows(ids, error) != SQL_OK) {
        LOGE("AlarmDB:DeleteAllNotificationsFailed:dbError=%s:", error.c_str());
        distrustSlots();
        const std::string ringing = m_current->getId();
        if (rings(*m_current) && ids.count(ringing) != 0) {
            passOver({ringing});
            wasPlaying = releaseEvents({ringing});
        }
        return false;
    }
    wasPlaying = releaseEvents(ids);
    return true;
}

void AlarmDB::deleteAllAlarmsAndTimers() {
    LOGD("AlarmDB:deleteAllAlarmsAndTimers:reason=removingAllAlarmsTimers:");
    Lock lock(m_mutex);
    m_timer = TimedEvent(EVT_TYPE_TIMER);
    m_reminder = TimedEvent(EVT_TYPE_REMINDER);
    m_alarm = TimedEvent(EVT_TYPE_ALARM);
    std::string error;
    m_passedOver.clear();
    m_undeleted.clear();
    m_staleTypes.clear();
    m_allAreUndeleted = m_db->deleteAllEntries(k_alarmTableName, error) != SQL_OK;
    if (m_allAreUndeleted) {
        LOGE(
            "AlarmDB:deleteAllAlarmsAndTimersFailed:reason=databaseDeleteofAllTmersFailed,dbError=%s:",
            error.c_str());
    }
}

int AlarmDB::deleteRows(const std::set<std::string>& ids, std::string& error) {
    return m_db->deleteFrom(k_alarmTableName, withIds(ids), error);
}

void AlarmDB::passOver(const std::set<std::string>& ids) {
    m_passedOver.insert(ids.begin(), ids.end());
    m_undeleted.insert(ids.begin(), ids.end());
}

/// What was deleted in the end stays passed over, at no cost: only setting it makes a new one.
void AlarmDB::retryDeletions() {
    // The notices first: a row without one is what the next start makes it from.
    std::string error;
    if (!m_unsavedNotices.empty() && saveStopNotices(m_unsavedNotices, error) != SQL_OK) {
        const auto& [id, client] = m_unsavedNotices.front();
        logUnsavedNotice(error, id, client);  // one line stands for all: this is tried often
        return;
    }
    m_unsavedNotices.clear();
    if (m_allAreUndeleted) {
        m_allAreUndeleted = m_db->deleteAllEntries(k_alarmTableName, error) != SQL_OK;
    }
    if (!m_undeleted.empty() && deleteRows(m_undeleted, error) == SQL_OK) {
        m_undeleted.clear();
    }
    if (!error.empty()) {
        LOGW("AlarmDB:retryDeletionsFailed:dbError=%s:", error.c_str());
    }
}

bool AlarmDB::keepStopNotice(const std::string& id, const std::string& client) {
    if (retainEventForLaterStopNotice(id, client)) {
        return true;
    }
    m_unsavedNotices.emplace_back(id, client);
    return false;
}

bool AlarmDB::emitDeleteMetrics(const TimedEvent& event, bool succeeded, Seconds now) {
    const std::string deleteTime = timeInStringFormat(now);
    const std::string deviceType = m_metrics.getDeviceTypeId();
    const std::string serial = m_metrics.getDeviceSerial();
    const std::string& type = event.getType();
    const std::string& triggerTime = event.getTimeStr();
    const int playOrderSize = static_cast<int>(event.getAssetPlayOrder().size());
    const std::string name = succeeded ? METRIC_DELETE_SUCCESS : METRIC_DELETE_FAILED;

    clearDimensions(m_metricMetadata);
    if (type.empty()) {
        // It is the notification's type that is missing; log readers know the line as it is.
        warnMissingDimension("deviceTypeIsEmpty", METRIC_DEVICE_TYPE_KEY);
    } else {
        putDimension(m_metricMetadata, ALARM_EVENT_TYPE, type);
        m_metrics.emitMetric(name, 1, m_metricMetadata);
    }
    LOGI(
        "AlarmDB:emitDeleteMetrics:type=%s,assetPlayOrderSize=%d,deviceType=%s,actualDeleteTime=%s,triggerTime=%s:",
        type.c_str(), playOrderSize, deviceType.c_str(), deleteTime.c_str(), triggerTime.c_str());

    removeDimension(m_metricMetadata, ALARM_EVENT_TYPE);
    putDimension(m_metricMetadata, METRIC_ACTUAL_DELETE_TIME_KEY, deleteTime);
    putAvailableDimension(m_metricMetadata, METRIC_TRIGGER_TIME_KEY, triggerTime,
                          "triggerTimeIsEmpty");
    putAvailableDimension(m_metricMetadata, METRIC_DEVICE_TYPE_KEY, deviceType,
                          "deviceTypeIsEmpty");
    putAvailableDimension(m_metricMetadata, METRIC_DEVICE_ID_KEY, serial, "deviceId");

    bool result = false;
    if (type == EVT_TYPE_TIMER) {
        result =
            m_metrics.emitMetric(name + METRIC_SEPARATOR + EVT_TYPE_TIMER, 1, m_metricMetadata);
    } else if (type == EVT_TYPE_ALARM) {
        // An alarm with sounds of its own counts as a reminder, and a reminder has no counter:
        // dashboards rely on it.
        const char* word = playOrderSize == 0 ? EVT_TYPE_ALARM : EVT_TYPE_REMINDER;
        result = m_metrics.emitMetric(name + METRIC_SEPARATOR + word, 1, m_metricMetadata);
    } else {
        LOGE("AlarmDB:emitDeleteMetricFailure:unknownType,type=%s,assetPlayOrderSize=%d:",
             type.c_str(), playOrderSize);
    }
    clearDimensions(m_metricMetadata);
    return result;
}

void AlarmDB::moveExpiredEventsForLaterStopNotice(bool retain) {
    if (!retain) {
        return;
    }
    const TimePoint cutOff = now() - EXPIRY;
    Lock lock(m_mutex);
    PackedRows expired;
    AlertSounds sounds;
    const bool isRead =
        visitAlerts(SqliteUtil::noConditions, [&](const SqliteUtil::Row& row) REQUIRES(m_mutex) {
            // What could not be deleted when it was to go is not to be told of either.
            if (!hasEnded(row.front()) && convertToTimedEvent(row, &sounds).getTime() <= cutOff) {
                expired.add(row);
            }
        });
    if (isRead && !expired.isEmpty()) {
        retainAndRemoveAll(expired);
    }
}

/// Two durable steps and not two for each: after a long time without power a ring may be due before
/// thousands of them are done.
void AlarmDB::retainAndRemoveAll(const PackedRows& expired) {
    StopNotices notices;
    std::set<std::string> ids;
    expired.forEach([&](const SqliteUtil::Row& row) {
        notices.emplace_back(row[0], row[1]);
        ids.insert(row[0]);
    });
    std::string error;
    if (saveStopNotices(notices, error) != SQL_OK) {
        for (const auto& [id, client] : notices) {
            logUnsavedNotice(error, id, client);
        }
        m_unsavedNotices.insert(m_unsavedNotices.end(), notices.begin(), notices.end());
        passOver(ids);
        releaseEvents(ids);
        return;
    }
    const bool areDeleted = deleteRows(ids, error) == SQL_OK;
    AlertSounds sounds;
    expired.forEach([&](const SqliteUtil::Row& row) REQUIRES(m_mutex) {
        const TimedEvent event = convertToTimedEvent(row, &sounds);
        LOGI("AlarmDB:deleteEvent:id=%s:chosen event", event.getId().c_str());
        if (areDeleted) {
            countDeletion(event, event.getId());
        } else {
            LOGE("AlarmDB:deleteAlertFailed:dbError=%s,id=%s:", error.c_str(),
                 event.getId().c_str());
            countFailedDeletion(event, event.getId());
        }
    });
    if (!areDeleted) {
        distrustSlots();
        passOver(ids);
    }
    releaseEvents(ids);
}

// --- Stop notices that could not be sent ---

bool AlarmDB::isSet(const std::string& id) {
    Lock lock(m_mutex);
    const std::optional<TimedEvent> stored = findAlert(id);
    return stored && !isEmpty(*stored) && !hasEnded(id);
}

bool AlarmDB::retainEventForLaterStopNotice(const std::string& id, const std::string& client) {
    logSavingNotice();
    std::string error;
    if (m_db->insert(k_retainedEvtTable, {id, client}, error, true) != SQL_OK) {
        logUnsavedNotice(error, id, client);
        return false;
    }
    return true;
}

int AlarmDB::saveStopNotices(const StopNotices& notices, std::string& error) {
    std::vector<SqliteUtil::Row> rows;
    for (const auto& [id, client] : notices) {
        logSavingNotice();
        rows.push_back({id, client});
    }
    return m_db->replaceAll(k_retainedEvtTable, rows, error);
}

bool AlarmDB::getSavedStopNotices(StopNotices& notices) {
    LOGD("AlarmDB:getSavedStopNotice:table=%s:reading from DB table", k_retainedEvtTable.c_str());
    std::vector<SqliteUtil::Row> rows;
    std::string error;
    notices.clear();
    // Before the read: what is only in memory may be saved meanwhile, and then be in neither.
    Lock lock(m_mutex);
    if (m_db->select(k_retainedEvtTable, SqliteUtil::noConditions, rows, error) != SQL_OK) {
        LOGE("AlarmDB:getSavedStopNoticeFailed:dbError=%s:", error.c_str());
        return false;
    }
    for (const SqliteUtil::Row& row : rows) {
        if (row.size() != k_numOfRetainedEvtColumns) {
            LOGW("AlarmDB:getSavedStopNoticeFailed:badColumnInTable,table=%s:",
                 k_retainedEvtTable.c_str());
            continue;
        }
        notices.emplace_back(row[0], row[1]);
    }
    notices.insert(notices.end(), m_unsavedNotices.begin(), m_unsavedNotices.end());
    return true;
}

void AlarmDB::deleteSavedStopNotices() {
    LOGD("AlarmDB:deleteSavedStopNotices:table=%s:deleting retained events from DB",
         k_retainedEvtTable.c_str());
    {
        Lock lock(m_mutex);
        m_unsavedNotices.clear();
    }
    std::string error;
    if (m_db->deleteAllEntries(k_retainedEvtTable, error) != SQL_OK) {
        LOGE(
            "AlarmDB:deleteSavedStopNoticesFailed:reason=databaseDeleteofAllTmersFailed,dbError=%s:",
            error.c_str());
    }
}

// --- JSON documents ---

bool AlarmDB::jsonForTimedEvent(std::string& json, const std::string& id, const std::string& client,
                                const std::string& type, const std::string& time) {
    json.clear();
    Document document = Document::ofState(TIMED_EVENT_LOG);
    addStateItem(document, id, type, time, client);
    return document.print(json);
}

bool AlarmDB::jsonForDeleteTimedEvents(std::string& json, const std::set<std::string>& ids) {
    json.clear();
    Document document = Document::ofState(DELETED_LOG);
    for (const std::string& id : ids) {
        document.add({{ALARM_EVENT_ID, id.c_str()}, {ALARM_EVENT_TYPE, EVT_TYPE_NONE}});
    }
    return document.print(json);
}

bool AlarmDB::jsonForActiveEvents(int volume, std::string& json) {
    Lock lock(m_mutex);
    json.clear();
    Document document = Document::ofActive(ACTIVE_LOG, volume);
    if (isPlaying()) {
        document.add({{ALARM_EVENT_ID, m_current->getId().c_str()},
                      {ALARM_EVENT_TYPE, m_current->getType().c_str()},
                      {ALARM_EVENT_CLIENT, m_current->getClient().c_str()}});
    }
    return document.print(json);
}

bool AlarmDB::jsonForAllEvents(std::string& json) {
    json.clear();
    Document document = Document::ofState(ALL_LOG);
    AlertSounds sounds;
    readUnendedRows().forEach([&](const SqliteUtil::Row& row) {
        const TimedEvent event = convertToTimedEvent(row, &sounds);
        if (event.isLive()) {
            addStateItem(document, event.getId(), event.getType(), event.getTimeStr(),
                         event.getClient());
        }
    });
    return document.print(json);
}

}  // namespace alarmd
