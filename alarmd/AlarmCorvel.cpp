#include "alarmd/AlarmCorvel.h"

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>
#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <set>
#include <utility>

#include "alarmd/AlarmDB.h"
#include "alarmd/AlarmEngine.h"
#include "alarmd/Constants.h"
#include "alarmd/Log.h"

using CorvelMessaging::Message;
using CorvelMessaging::MessageRequestReplyContext;

namespace alarmd {

namespace {

namespace fs = boost::filesystem;

constexpr int k_sendTimeoutMs = 35000;
constexpr int k_noEndpoint = -1;
/// All downloads at once have to fit into a 32-bit process beside everything else.
constexpr std::size_t k_downloadStackSize = std::size_t{512} << 10U;
constexpr std::size_t k_mostDownloads = 512;

/// The length of "DeviceNotifications" and a dot.
constexpr std::size_t k_namePrefixLength = 20;

struct JsonDelete {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
struct JsonTextFree {
    void operator()(char* text) const { cJSON_free(text); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;
using JsonText = std::unique_ptr<char, JsonTextFree>;

// --- Reading. A member of the wrong type counts as absent. ---

const cJSON* getItem(const cJSON* json, const char* key) {
    return cJSON_GetObjectItemCaseSensitive(json, key);
}

bool getBoolItem(const cJSON* json, const char* key, bool& found) {
    const cJSON* item = getItem(json, key);
    found = cJSON_IsBool(item) != 0;
    return cJSON_IsTrue(item) != 0;
}

/// Null when absent.
const cJSON* getArrayItem(const cJSON* json, const char* key) {
    const cJSON* item = getItem(json, key);
    return cJSON_IsArray(item) != 0 ? item : nullptr;
}

/// A number outside the range of int is the nearest int.
int getIntItem(const cJSON* json, const char* key, int absent) {
    const cJSON* item = getItem(json, key);
    return cJSON_IsNumber(item) != 0 ? item->valueint : absent;
}

/// False when there is nothing to delete, and then `ids` is empty.
bool getIdsToDelete(const cJSON* array, std::set<std::string>& ids) {
    if (array == nullptr) {
        LOGE("AlarmCorvel:getIdsToDelete:Key not found:");
        return false;
    }
    if (array->child == nullptr) {
        LOGD("AlarmCorvel:getIdsToDelete:reason=noIdsToDelete:");
        return false;
    }
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, array) {
        const char* id = cJSON_GetStringValue(item);
        if (id == nullptr) {
            LOGE("AlarmCorvel:getIdsToDelete:reason=invalidArrayItem,error=0:");
            ids.clear();
            return false;
        }
        LOGD("AlarmCorvel:getIdsToDelete:temp=%s:", id);
        ids.insert(id);
    }
    return true;
}

/// The local paths of a play order, joined by ",".
std::string readPlayOrder(const cJSON* playOrder, const std::string& id) {
    std::string list;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, playOrder) {
        if (cJSON_IsNull(item) != 0) {
            LOGE("AlarmCorvel:onMessage:id=%s:assetPlayOrderItem is NULL", id.c_str());
            break;
        }
        const char* asset = cJSON_GetStringValue(item);
        if (asset == nullptr || *asset == '\0') {
            LOGE("AlarmCorvel:onMessage:id=%s:assetPlayOrderItemValue is empty", id.c_str());
            break;
        }
        list.append(ALARMD_ASSETS_PATH).append(asset);
        if (item->next != nullptr) {
            list += ',';
        }
    }
    return list;
}

// --- Play lists ---

/// Whole seconds of a pause.
int pauseSeconds(int pauseMs) {
    return std::max(pauseMs, 0) / 1000;
}

bool isTooLong(const std::string& list) {
    return list.size() > std::size_t{ALARMD_MAX_PLAY_LIST};
}

void appendPause(std::string& list, int pauseMs) {
    const char* earcon = ALARMD_ONE_SECOND_IN_MILLIS_BLANK_EARCON;
    int count = pauseSeconds(pauseMs);
    if (pauseMs == 4000) {
        earcon = ALARMD_FOUR_SECOND_IN_MILLIS_BLANK_EARCON;
        count = 1;
    } else if (pauseMs == 6000) {
        earcon = ALARMD_SIX_SECOND_IN_MILLIS_BLANK_EARCON;
        count = 1;
    }
    for (int i = 0; i < count && !isTooLong(list); ++i) {
        list.append(",").append(ALARMD_EARCON_PATH).append(earcon);
    }
}

/// Ends a list that is too long before the last "," that leaves it short enough, and before those
/// that stand directly in front of that one.
void cutAfterLastEntry(std::string& list) {
    const std::size_t comma = list.rfind(',', ALARMD_MAX_PLAY_LIST);
    list.erase(comma == std::string::npos ? 0 : list.find_last_not_of(',', comma) + 1);
}

// --- Files ---

/// False, logged, when there is no such directory and none can be made.
bool makeAssetsDirectory() {
    struct stat status {};
    if (::stat(ALARMD_ASSETS_PATH, &status) == 0 && S_ISDIR(status.st_mode)) {
        return true;
    }
    if (::mkdir(ALARMD_ASSETS_PATH, 0755) == 0) {
        return true;
    }
    LOGE("AlarmCorvel:onMessage:reason=unableToCreateDir,path=%s,errno=%d:", ALARMD_ASSETS_PATH,
         errno);
    return false;
}

void deletePartialDownload(const fs::directory_entry& entry) {
    boost::system::error_code error;
    // An entry that is no file cannot be one of ours: each is worth an error line.
    if (!fs::is_regular_file(entry.status(error))) {
        LOGE("AlarmCorvel:deletePartialDownloads:reason=couldnotDeletePartial:");
        return;
    }
    const std::string name = entry.path().filename().string();
    if (name.find(ALARMD_PARTIAL_APPEND) == std::string::npos) {
        return;
    }
    const std::string file = ALARMD_ASSETS_PATH + name;
    if (std::remove(file.c_str()) != 0) {
        LOGE("AlarmCorvel:deletePartialDownloads:reason=UnableToRemoveAssetFile,file=%s,errno=%d:",
             file.c_str(), errno);
    }
}

/// Removes what downloads left that were interrupted by the end of the last run.
void deletePartialDownloads() {
    boost::system::error_code error;
    if (!fs::is_directory(ALARMD_ASSETS_PATH, error)) {
        LOGD("AlarmCorvel:deletePartialDownloads:reason=assetsDirectoryDoesnotExist:");
        return;
    }
    fs::directory_iterator entry(ALARMD_ASSETS_PATH, error);
    for (; entry != fs::directory_iterator(); entry.increment(error)) {
        deletePartialDownload(*entry);
    }
    if (error) {
        LOGE("AlarmCorvel:deletePartialDownloads:reason=couldnotReadAssetsDirectory,errno=%d:",
             error.value());
    }
}

/// 0 or the error number. Nothing there is as good as removed.
int removeTemporary(const std::string& file) {
    const fs::path path(file);
    struct stat status {};
    // Where the downloader refused the path it wrote nothing: what lies there is not ours.
    if (std::find(path.begin(), path.end(), "..") != path.end()) {
        return EINVAL;
    }
    if (::lstat(file.c_str(), &status) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    return std::remove(file.c_str()) == 0 ? 0 : errno;
}

// --- Metric metadata; the table may be null and owns nothing ---

void clearMetadata(GHashTable* table) {
    if (table != nullptr) {
        g_hash_table_remove_all(table);
    }
}

void putMetadata(GHashTable* table, const char* key, const std::string& value) {
    if (table != nullptr) {
        g_hash_table_insert(table, const_cast<char*>(key), const_cast<char*>(value.c_str()));
    }
}

/// `warningReason` names an absent value in the log.
void putAvailable(GHashTable* table, const char* key, const std::string& value,
                  const char* warningReason) {
    if (value.empty()) {
        LOGW(
            "AlarmCorvel:metricMetadataNotAvailable:reason=%s,method=emitSetMetrics:%s is not added during emit metric call",
            warningReason, key);
        return;
    }
    putMetadata(table, key, value);
}

// --- Outbound documents ---

/// An object of text members in the order given; null when there is no memory.
Json makeObject(std::initializer_list<std::pair<const char*, const char*>> members) {
    Json object(cJSON_CreateObject());
    if (object != nullptr) {
        for (const auto& [key, text] : members) {
            cJSON_AddStringToObject(object.get(), key, text);
        }
    }
    return object;
}

}  // namespace

std::string getRequiredStringKey(const cJSON* json, const char* key, bool& found) {
    bool keyFound = false;
    std::string text = getOptionalStringKey(json, key, keyFound);
    if (!keyFound) {
        LOGE("AlarmCorvel:getRequiredStringKey:key=%s:Key not found", key);
        found = false;
    }
    return text;
}

std::string getOptionalStringKey(const cJSON* json, const char* key, bool& found) {
    const char* text = cJSON_GetStringValue(getItem(json, key));
    found = text != nullptr;
    return found ? text : "";
}

std::string buildPlayList(const std::string& assetList, int loopCount, int pauseMs, bool& cut) {
    const int passes = std::max(loopCount, 1);
    std::string list;
    for (int pass = 0; pass < passes && !isTooLong(list); ++pass) {
        const bool isLast = pass == passes - 1;
        list += assetList;
        // A single copy is followed by its pause; of several the last one is not.
        if (!isLast || passes == 1) {
            appendPause(list, pauseMs);
        }
        if (!isLast) {
            list += ',';
        }
    }
    cut = isTooLong(list);
    if (cut) {
        cutAfterLastEntry(list);
    }
    return list;
}

AlarmCorvel::AlarmCorvel(AlarmEngine& engine, AlarmDB& db)
    : m_engine(engine),
      m_db(db),
      m_metricMetadata(g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr)) {
    if (m_metricMetadata == nullptr) {
        LOGE("AlarmCorvel:createAlarmMetricsFailed:reason=newHashTableCreationFailed:");
    }
    deletePartialDownloads();
}

AlarmCorvel::~AlarmCorvel() {
    m_downloader.cancel();
    for (Download& download : m_downloads) {
        download.thread.join();
    }
    if (m_metricMetadata != nullptr) {
        g_hash_table_destroy(m_metricMetadata);
    }
}

void AlarmCorvel::initOipcUtils(OipcHandleStruct* handle) {
    m_thinkingMode = std::make_unique<ThinkingModeUtil>(handle);
    for (metrics::MetricTimeEvent* event :
         {&m_setBegin, &m_stoppedBegin, &m_setEnd, &m_stoppedEnd}) {
        event->setOipcHandle(handle);
    }
}

// --- Inbound ---

void AlarmCorvel::onMessage(boost::shared_ptr<Message> message) {
    struct Row {
        const char* name;
        void (AlarmCorvel::*read)(const Directive&);
    };
    static constexpr Row k_rows[] = {
        {CORVEL_TIMED_SET_MSG, &AlarmCorvel::readSet},
        {CORVEL_TIMED_DELETE_MSG, &AlarmCorvel::readDelete},
        {CORVEL_TIMED_DELETE_LIST_MSG, &AlarmCorvel::readDeleteList},
        {CORVEL_TIMED_STOP_MSG, &AlarmCorvel::readStop},
        {CORVEL_TIMED_LIST_MSG, &AlarmCorvel::readList},
        {CORVEL_NOTIFICATION_ENABLE, &AlarmCorvel::readEnable},
        {CORVEL_NOTIFICATION_DISABLE, &AlarmCorvel::readDisable},
        {CORVEL_NOTIFY, &AlarmCorvel::readNotify},
    };

    std::string name = message->getType().getName();
    const std::string& body = message->getBody().getBody();
    const MessageRequestReplyContext& context = message->getRequestReplyContext();
    const auto& voiceRequest = message->getVoiceRequest();
    LOGD("AlarmCorvel:onMessage:type=%s,body=%s,requestReplyContext=%d:messageReceived",
         name.c_str(), body.c_str(), context.getReconciliationId());

    const Json json(cJSON_Parse(body.c_str()));
    if (json == nullptr) {
        LOGE("AlarmCorvel:parseCommand:json=%s:Failed to Parse JSON", body.c_str());
        return;
    }
    if (name.find('.') != std::string::npos) {
        // Callers rely on the fixed cut: the dot is not searched for.
        name = name.substr(k_namePrefixLength);
        LOGI("AlarmCorvel:onMessage:newtype=%s:filtered msgtype", name.c_str());
    }
    const Row* row = std::find_if(std::begin(k_rows), std::end(k_rows),
                                  [&name](const Row& r) { return name == r.name; });
    if (row == std::end(k_rows)) {
        LOGE("AlarmCorvel:onRequestMessage:json=%s:unknown message type", body.c_str());
        return;
    }
    const std::string voiceRequestId =
        voiceRequest.isEmpty() ? std::string() : voiceRequest.getVoiceRequestIdentifier();
    (this->*row->read)(Directive{json.get(), voiceRequestId, context});
}

void AlarmCorvel::onMessageWithAttachment(
    boost::shared_ptr<Message> /*message*/,
    boost::shared_ptr<CorvelMessaging::CorvelMessageAttachmentReader> /*reader*/) {
    LOGE(
        "AlarmCorvel:messageWithAttachment:reason=noSuchMessage:no messages with attachment implemented");
}

void AlarmCorvel::handleStateUpdateEvent() {
    LOGD("AlarmCorvel:handleStateUpdateEvent::to be implemented");
}

void AlarmCorvel::readSet(const Directive& directive) {
    const cJSON* json = directive.json;
    bool found = true;
    const std::string id = getRequiredStringKey(json, ALARM_EVENT_ID, found);
    const std::string clientId = getRequiredStringKey(json, ALARM_EVENT_CLIENT, found);
    const std::string type = getRequiredStringKey(json, ALARM_EVENT_TYPE, found);
    const std::string time = getRequiredStringKey(json, ALARM_EVENT_TIME, found);
    if (!found) {
        return;
    }
    bool given = false;
    const std::string alertEarcon = getOptionalStringKey(json, ALARM_EVENT_ALERT_EARCON, given);
    const std::string shortAsset = getOptionalStringKey(json, ALARM_EVENT_SHORT_ALERT_ASSET, given);
    const bool isDynamicAlert = getBoolItem(json, ALARM_EVENT_IS_DYNAMIC_ALERT, given);
    const Sounds sounds = readSounds(json, id, shortAsset);
    handleSetTimedEvent(id, clientId, type, time, alertEarcon, isDynamicAlert, sounds.playList,
                        sounds.loopCount, sounds.shortAlertAsset, directive.voiceRequestId,
                        directive.context);
}

AlarmCorvel::Sounds AlarmCorvel::readSounds(const cJSON* json, const std::string& id,
                                            const std::string& shortAlertAsset) {
    Sounds sounds;
    const cJSON* assets = getArrayItem(json, ALARM_EVENT_ASSETS);
    const cJSON* playOrder = getArrayItem(json, ALARM_EVENT_ASSET_PLAY_ORDER);
    if (assets == nullptr || assets->child == nullptr || playOrder == nullptr
        || playOrder->child == nullptr) {
        LOGE("AlarmCorvel:onMessage:id=%s:There are no assets or assetPlayOrder in the JSON",
             id.c_str());
        return sounds;
    }
    startDownloads(assets, id);
    const std::string assetList = readPlayOrder(playOrder, id);
    if (!shortAlertAsset.empty()) {
        sounds.shortAlertAsset = ALARMD_ASSETS_PATH + shortAlertAsset;
    }
    if (assetList.empty()) {
        LOGE("AlarmCorvel:onMessage:id=%s:assetPlayList is empty", id.c_str());
        return sounds;
    }
    const int pauseMs = getIntItem(json, ALARM_EVENT_LOOP_PAUSE_IN_MILLI_SECONDS, 0);
    // Handed on as received, also when it is below 1.
    sounds.loopCount = getIntItem(json, ALARM_EVENT_ASSETS_LOOP_COUNT, sounds.loopCount);
    bool cut = false;
    sounds.playList = buildPlayList(assetList, sounds.loopCount, pauseMs, cut);
    if (cut) {
        LOGW(
            "AlarmCorvel:onMessage:id=%s,reason=playListTooLong,limit=%d:cut after the last entry that fits",
            id.c_str(), ALARMD_MAX_PLAY_LIST);
    }
    LOGI(
        "AlarmCorvel:onMessage:id=%s, loopPauseInMilliSeconds=%d, loopPauseCount=%d :assetPlayList is %s",
        id.c_str(), pauseMs, pauseSeconds(pauseMs), sounds.playList.c_str());
    return sounds;
}

void AlarmCorvel::startDownloads(const cJSON* assets, const std::string& id) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, assets) {
        if (cJSON_IsNull(item) != 0) {
            LOGE("AlarmCorvel:onMessage:id=%s:assetItem is NULL", id.c_str());
            return;
        }
        bool given = false;
        const std::string assetId = getOptionalStringKey(item, ALARM_EVENT_ASSET_ID, given);
        const std::string url = getOptionalStringKey(item, ALARM_EVENT_ASSET_URL, given);
        if (assetId.empty() || url.empty()) {
            LOGE("AlarmCorvel:onMessage:id=%s:assetID or url is empty", id.c_str());
            return;
        }
        if (!makeAssetsDirectory()) {
            return;
        }
        try {
            startDownload(url, ALARMD_ASSETS_PATH + assetId);
        } catch (const boost::thread_resource_error& error) {
            // It rings with the default sound then; not to store it would be to lose it.
            LOGE("AlarmCorvel:onMessage:id=%s,reason=unableToStartDownload,exc=%s:", id.c_str(),
                 error.what());
            m_metrics.emitMetric(METRIC_ASSET_DOWNLOAD_FAILURE, 1, nullptr);
            return;
        }
    }
}

void AlarmCorvel::readDelete(const Directive& directive) {
    bool found = true;
    const std::string id = getRequiredStringKey(directive.json, ALARM_EVENT_ID, found);
    if (found) {
        handleDeleteTimedEvent(id, directive.voiceRequestId, directive.context);
    }
}

void AlarmCorvel::readDeleteList(const Directive& directive) {
    bool found = true;
    const std::string clientId = getRequiredStringKey(directive.json, ALARM_EVENT_CLIENT, found);
    if (found) {
        handleDeleteNotifications(getArrayItem(directive.json, ALARM_EVENT_IDS),
                                  directive.voiceRequestId, clientId, directive.context);
    }
}

void AlarmCorvel::readStop(const Directive& directive) {
    bool found = true;
    const std::string id = getRequiredStringKey(directive.json, ALARM_EVENT_ID, found);
    if (found) {
        handleStopTimedEvent(id, directive.voiceRequestId, directive.context);
    }
}

void AlarmCorvel::readList(const Directive& directive) {
    handleListTimedEvents(directive.context);
}

void AlarmCorvel::readEnable(const Directive& directive) {
    bool given = false;
    const bool enabled = getBoolItem(directive.json, CORVEL_NOTIFICATION_EARCON_ENABLED, given);
    handleMsgWaitingNotification(true, enabled || !given, ALARMD_DEFAULT_NOTICE_EARCON,
                                 directive.context);
}

void AlarmCorvel::readDisable(const Directive& directive) {
    handleMsgWaitingNotification(false, true, ALARMD_DEFAULT_NOTICE_EARCON, directive.context);
}

void AlarmCorvel::readNotify(const Directive& directive) {
    const cJSON* behavior = getItem(directive.json, CORVEL_NOTIFY_RENDER_BEHAVIOR);
    if (cJSON_IsObject(behavior) == 0) {
        LOGE(
            "AlarmCorvel:onRequestMessageFailed::Notice payload is missing 'renderBehavior', giving up.");
        return;
    }
    bool found = false;
    const bool playEarcon = getBoolItem(behavior, CORVEL_NOTIFY_PLAY_EARCON, found);
    if (!found) {
        LOGE(
            "AlarmCorvel:onRequestMessageFailed::Notice payload is missing renderBehavior::playEarcon, giving up.");
        return;
    }
    const bool displayLed = getBoolItem(behavior, CORVEL_NOTIFY_DISPLAY_LED, found);
    if (!found) {
        LOGE(
            "AlarmCorvel:onRequestMessageFailed::Notice payload is missing renderBehavior::displayLed!, giving up.");
        return;
    }
    bool fileGiven = false;
    std::string file = getOptionalStringKey(behavior, CORVEL_NOTIFY_EARCON_FILE_NAME, fileGiven);
    if (!fileGiven) {
        file = ALARMD_DEFAULT_NOTICE_EARCON;
    }
    LOGI(
        "AlarmCorvel:notificationIndicatorNotify:earconEnabled=%d,displayLed=%d,earconFileNameSpecified=%d,earconFileName=%s:",
        playEarcon, displayLed, fileGiven, file.c_str());
    handleMsgWaitingNotification(playEarcon || displayLed, playEarcon, file, directive.context);
}

// --- Handlers. Each wakes the timer thread as soon as it has changed the store, because the sends
// can take 35 s each, and again at its end. ---

void AlarmCorvel::handleSetTimedEvent(const std::string& id, const std::string& clientId,
                                      const std::string& type, const std::string& time,
                                      const std::string& alertEarcon, bool isDynamicAlert,
                                      const std::string& assetPlayList, int loopCount,
                                      const std::string& shortAlertAsset,
                                      const std::string& voiceRequestId,
                                      const MessageRequestReplyContext& context) {
    m_setBegin.emit("");
    LOGD("AlarmCorvel:handleSetTimedEvent:id=%s,client=%s,type=%s,time=%s:processed", id.c_str(),
         clientId.c_str(), type.c_str(), time.c_str());
    bool wasPlaying = false;
    const bool isSet = m_db.setEvent(id, clientId, type, time, alertEarcon, isDynamicAlert,
                                     assetPlayList, loopCount, shortAlertAsset, wasPlaying);
    m_engine.resetTimerThread();
    if (!emitSetMetrics(isSet ? METRIC_SET_SUCCESS : METRIC_SET_FAILED, type, assetPlayList,
                        time)) {
        m_metrics.emitErrorMetric(METRIC_SET_METRIC_FAILURE);
    }
    m_engine.broadcastSetTimedEvent(id, clientId, type, time, loopCount, assetPlayList);
    if (wasPlaying) {
        sendTimedEventStopNotice(id, clientId, MessageRequestReplyContext());
        silence(voiceRequestId);
    } else {
        m_engine.settleStatus();
    }
    sendTimedEventEditAcknowledged(id, clientId, isSet ? DISPOSITION_SET : DISPOSITION_FAILED,
                                   context);
    m_setEnd.emit("");
    m_engine.resetTimerThread();
}

void AlarmCorvel::handleDeleteTimedEvent(const std::string& id, const std::string& voiceRequestId,
                                         const MessageRequestReplyContext& context) {
    // A deletion shares the timers of a stop; readers of the metrics rely on it.
    m_stoppedBegin.emit("");
    LOGD("AlarmCorvel:handleDeleteTimedEvent:id=%s:processed", id.c_str());
    bool wasPlaying = false;
    // Before the deletion, so that the acknowledgement can name it.
    const std::string clientId = m_db.getClientId(id);
    const bool isDeleted = m_db.deleteEvent(id, wasPlaying);
    m_engine.resetTimerThread();
    m_engine.broadcastDeleteTimedEvents(id);
    sendTimedEventEditAcknowledged(id, clientId,
                                   isDeleted ? DISPOSITION_DELETED : DISPOSITION_FAILED, context);
    if (wasPlaying) {
        sendTimedEventStopNotice(id, clientId, MessageRequestReplyContext());
        silence(voiceRequestId);
    } else {
        m_engine.settleStatus();
    }
    m_stoppedEnd.emit("");
    m_engine.resetTimerThread();
}

void AlarmCorvel::handleStopTimedEvent(const std::string& id, const std::string& voiceRequestId,
                                       const MessageRequestReplyContext& context) {
    m_stoppedBegin.emit("");
    LOGD("AlarmCorvel:handleStopTimedEvent:id=%s:processed", id.c_str());
    bool wasPlaying = false;
    const std::string clientId = m_db.getClientId(id);
    m_db.endEvent(id, wasPlaying);
    m_engine.resetTimerThread();
    if (wasPlaying) {
        // The notice is the answer here, so it carries the directive's own context.
        sendTimedEventStopNotice(id, clientId, context);
        silence(voiceRequestId);
    } else {
        m_engine.settleStatus();
    }
    m_stoppedEnd.emit("");
    m_engine.resetTimerThread();
}

void AlarmCorvel::handleDeleteNotifications(const cJSON* notificationIds,
                                            const std::string& voiceRequestId,
                                            const std::string& clientId,
                                            const MessageRequestReplyContext& context) {
    m_stoppedBegin.emit("");
    LOGD("AlarmCorvel:handleDeleteAllNotificationEvent::processed");
    const char* disposition = DISPOSITION_FAILED;
    bool wasPlaying = false;
    std::set<std::string> ids;
    if (getIdsToDelete(notificationIds, ids)) {
        m_engine.broadcastDeleteTimedEvents(ids);
        if (m_db.deleteNotifications(ids, wasPlaying)) {
            LOGD("AlarmCorvel:handleDeleteAllNotificationEvent:processed:Notification Ids deleted");
            disposition = DISPOSITION_DELETED;
        }
        m_engine.resetTimerThread();
    }
    sendTimedEventEditAcknowledged(notificationIds, clientId, disposition, context);
    // No stop notice for a list: the assistant relies on the acknowledgement alone.
    if (wasPlaying) {
        silence(voiceRequestId);
    } else {
        m_engine.settleStatus();
    }
    m_stoppedEnd.emit("");
    m_engine.resetTimerThread();
}

void AlarmCorvel::handleListTimedEvents(const MessageRequestReplyContext& context) {
    LOGD("AlarmCorvel:handleListTimedEvents::processed");
    std::string json;
    if (m_db.jsonForAllEvents(json)) {
        sendBasicMessage(CORVEL_TIMED_LIST_RESPONSE, json, ALARM_MSG_NAMESPACE, context);
    }
}

void AlarmCorvel::handleMsgWaitingNotification(bool enable, bool earconEnabled,
                                               const std::string& earconFileName,
                                               const MessageRequestReplyContext& context) {
    m_engine.setMessageWaitingNotification(enable, earconEnabled, earconFileName);
    sendNotificationIndicatorStateChanged(enable, context);
}

void AlarmCorvel::silence(const std::string& voiceRequestId) {
    m_engine.silenceStatus();
    m_thinkingMode->endThinkingMode(voiceRequestId);
}

// --- Sending ---

bool AlarmCorvel::sendBasicMessage(const std::string& type, const std::string& body,
                                   const std::string& nameSpace,
                                   const MessageRequestReplyContext& context) {
    using namespace CorvelMessaging;
    LOGD("AlarmCorvel:sendBasicMessage:type=%s,body=%s,nameSpace=%s:", type.c_str(), body.c_str(),
         nameSpace.c_str());
    const auto message = boost::make_shared<Message>(
        MessageType(nameSpace, type), MessageBody("application/json", body), MessageAttachment(),
        MessageVoiceRequest(), context, static_cast<unsigned char>(0));
    // Empty once the engine is stopping; others may still send then.
    const auto endpoint = m_engine.corvelClient();
    int result = k_noEndpoint;
    if (endpoint) {
        result = endpoint->sendMessage(message, CorvelMessagingEndpoint::k_corveldName, false,
                                       k_sendTimeoutMs);
    }
    if (result != 0) {
        LOGE("AlarmCorvel:sendBasicMessageStr:reason=sendMessageFailed,result=%d:", result);
        return false;
    }
    return true;
}

bool AlarmCorvel::sendBasicMessage(const std::string& type, cJSON* body,
                                   const std::string& nameSpace,
                                   const MessageRequestReplyContext& context) {
    Json document(body);
    JsonText printed(cJSON_PrintUnformatted(body));
    document.reset();
    if (printed == nullptr) {
        LOGE("AlarmCorvel:sendBasicMessageJSON:msg=%s,reason=nullBodyStringFromJSON:",
             type.c_str());
        return false;
    }
    const std::string text = printed.get();
    printed.reset();
    return sendBasicMessage(type, text, nameSpace, context);
}

void AlarmCorvel::sendTimedEventStartNotice(const std::string& id, const std::string& clientId,
                                            bool isDynamicAlert) {
    Json root = makeObject({{ALARM_EVENT_ID, id.c_str()}, {ALARM_EVENT_CLIENT, clientId.c_str()}});
    if (root == nullptr) {
        LOGE("AlarmCorvel:sendTimedEventStart:reason=couldNotAllocateJSONRoot:");
        return;
    }
    if (isDynamicAlert) {
        cJSON_AddTrueToObject(root.get(), ALARM_EVENT_IS_DYNAMIC_ALERT);
    }
    sendBasicMessage(CORVEL_TIMED_STATUS_START_MSG, root.release(), ALARM_MSG_NAMESPACE,
                     MessageRequestReplyContext());
}

void AlarmCorvel::sendTimedEventStopNotice(const std::string& id, const std::string& clientId,
                                           const MessageRequestReplyContext& context) {
    Json root = makeObject({{ALARM_EVENT_ID, id.c_str()}, {ALARM_EVENT_CLIENT, clientId.c_str()}});
    if (root == nullptr) {
        LOGE("AlarmCorvel:sendTimedEventStop:reason=couldNotAllocateJSONRoot:");
        return;
    }
    sendBasicMessage(CORVEL_TIMED_STATUS_STOP_MSG, root.release(), ALARM_MSG_NAMESPACE, context);
}

void AlarmCorvel::sendTimedEventEditAcknowledged(const std::string& id, const std::string& clientId,
                                                 const std::string& disposition,
                                                 const MessageRequestReplyContext& context) {
    Json root = makeObject({{ALARM_EVENT_ID, id.c_str()},
                            {ALARM_EVENT_DISPOSITION, disposition.c_str()},
                            {ALARM_EVENT_CLIENT, clientId.c_str()}});
    if (root == nullptr) {
        LOGE("AlarmCorvel:sendTimedEventEditAcknowledged:reason=couldNotAllocateJSONRoot:");
        return;
    }
    sendBasicMessage(CORVEL_TIMED_EDITACK_MSG, root.release(), ALARM_MSG_NAMESPACE, context);
}

void AlarmCorvel::sendTimedEventEditAcknowledged(const cJSON* ids, const std::string& clientId,
                                                 const std::string& disposition,
                                                 const MessageRequestReplyContext& context) {
    Json root = makeObject({{ALARM_EVENT_CLIENT, clientId.c_str()}});
    if (root == nullptr) {
        LOGE("AlarmCorvel:sendTimedEventEditAcknowledged:reason=couldNotAllocateJSONRoot:");
        return;
    }
    if (ids != nullptr) {
        // The reference only copies the item's head; the array itself is not touched.
        cJSON_AddItemReferenceToObject(root.get(), ALARM_EVENT_IDS, const_cast<cJSON*>(ids));
    }
    cJSON_AddStringToObject(root.get(), ALARM_EVENT_DISPOSITION, disposition.c_str());
    sendBasicMessage(CORVEL_TIMED_EDITACK_MSG, root.release(), ALARM_MSG_NAMESPACE, context);
}

void AlarmCorvel::sendAlertTypeChangedEvent(const std::string& id, const std::string& clientId,
                                            AlertMode mode) {
    LOGD("AlarmCorvel:sendAlertTypeChangedEvent::processed");
    Json root = makeObject({{ALARM_EVENT_ID, id.c_str()}, {ALARM_EVENT_CLIENT, clientId.c_str()}});
    if (root == nullptr) {
        LOGE("AlarmCorvel:sendAlertTypeChangedEventFailed:reason=nullRoot,alertMode=%d:",
             static_cast<int>(mode));
        return;
    }
    if (mode != AlertMode::Long && mode != AlertMode::Short) {
        LOGE("AlarmCorvel:sendAlertTypeChangedEventFailed:reason=unknownAlertMode,alertMode=%d:",
             static_cast<int>(mode));
        return;
    }
    sendBasicMessage(
        mode == AlertMode::Long ? CORVEL_TIMED_FOREGROUNDED_MSG : CORVEL_TIMED_BACKGROUNDED_MSG,
        root.release(), ALARM_MSG_NAMESPACE, MessageRequestReplyContext());
}

void AlarmCorvel::sendNotificationIndicatorStateChanged(bool enabled,
                                                        const MessageRequestReplyContext& context) {
    Json root = makeObject({});
    if (root == nullptr) {
        // The line names the caller; readers of the log know it so.
        LOGE("AlarmCorvel:handleMsgWaitingNotification:reason=couldNotAllocateJSONRoot:");
        return;
    }
    cJSON_AddBoolToObject(root.get(), CORVEL_NOTIFICATION_ENABLED, enabled);
    sendBasicMessage(CORVEL_NOTIFICATION_STATUS_MSG, root.release(), MSG_NOTIFICATION_NAMESPAGE,
                     context);
}

void AlarmCorvel::sendStatusUpdate(int alarmVolume) {
    // The list handler's line; readers of the log know it so.
    LOGD("AlarmCorvel:handleListTimedEvents::processed");
    std::string json;
    if (m_db.jsonForActiveEvents(alarmVolume, json)) {
        sendBasicMessage(CORVEL_TIMED_STATE_UPDATE_MSG, json, ALARM_MSG_NAMESPACE,
                         MessageRequestReplyContext());
    }
}

// --- Downloads ---

void AlarmCorvel::startDownload(const std::string& url, const std::string& filePath) {
    // A thread that has ended keeps its stack until it is joined.
    m_downloads.remove_if([](Download& download) {
        if (!download.done) {
            return false;
        }
        download.thread.join();
        return true;
    });
    if (m_downloads.size() >= k_mostDownloads) {
        boost::throw_exception(boost::thread_resource_error(EAGAIN, "too many downloads"));
    }
    // Built aside, so that the list never holds a download without a thread.
    std::list<Download> started(1);
    Download& download = started.front();
    boost::thread::attributes attributes;
    attributes.set_stack_size(k_downloadStackSize);
    download.thread = boost::thread(attributes, [this, &download, url, filePath] {
        pthread_setname_np(pthread_self(), "assetDownload");
        downloadAssetFile(url, filePath);
        download.done = true;
    });
    m_downloads.splice(m_downloads.end(), started);
}

void AlarmCorvel::downloadAssetFile(std::string url, std::string filePath) {
    const std::string temporary = filePath + ALARMD_PARTIAL_APPEND;
    const otaup::FileDownloaderError result = m_downloader.download(url, temporary);
    if (result.code() != 0) {
        LOGE("AlarmCorvel:downloadAssetFile:reason=UnableToDownloadAsset=%s,CURLError=%s:",
             filePath.c_str(), result.errorString().c_str());
        m_metrics.emitMetric(METRIC_ASSET_DOWNLOAD_FAILURE, 1, nullptr);
        const int error = removeTemporary(temporary);
        if (error != 0) {
            LOGE(
                "AlarmCorvel:downloadAssetFile:reason=UnableToRemoveTempAssetFile,file=%s,errno=%d:",
                temporary.c_str(), error);
        }
        return;
    }
    if (std::rename(temporary.c_str(), filePath.c_str()) != 0) {
        // The temporary file stays; the next start removes it.
        LOGE("AlarmCorvel:downloadAssetFile:reason=UnableToRenameAssetFile,file=%s,errno=%d:",
             filePath.c_str(), errno);
        return;
    }
    LOGI("AlarmCorvel:downloadAssetFile::downloadedAsset=%s", filePath.c_str());
}

// --- Set metrics ---

bool AlarmCorvel::emitSetMetrics(std::string metricName, const std::string& type,
                                 const std::string& assetPlayList, const std::string& triggerTime) {
    const std::string deviceType = m_metrics.getDeviceTypeId();
    const std::string deviceId = m_metrics.getDeviceSerial();
    const int playListSize = static_cast<int>(assetPlayList.size());
    LOGI("AlarmCorvel:emitSetMetrics:type=%s,assetPlayOrderSize=%d,deviceType=%s,triggerTime=%s:",
         type.c_str(), playListSize, deviceType.c_str(), triggerTime.c_str());
    clearMetadata(m_metricMetadata);
    if (type.empty()) {
        LOGW(
            "AlarmCorvel:metricMetadataNotAvailable:reason=eventTypeIsEmpty,method=emitSetMetrics:eventType is not added during emit metric call");
    } else {
        putMetadata(m_metricMetadata, ALARM_EVENT_TYPE, type);
        m_metrics.emitMetric(metricName, 1, m_metricMetadata);
    }
    clearMetadata(m_metricMetadata);
    putAvailable(m_metricMetadata, METRIC_TRIGGER_TIME_KEY, triggerTime, "triggerTimeIsEmpty");
    putAvailable(m_metricMetadata, METRIC_DEVICE_TYPE_KEY, deviceType, "deviceTypeIsEmpty");
    putAvailable(m_metricMetadata, METRIC_DEVICE_ID_KEY, deviceId, "dsnIsEmpty");

    bool emitted = false;
    if (type == EVT_TYPE_TIMER || type == EVT_TYPE_ALARM) {
        // An alarm with sounds of its own counts as a reminder, and a reminder is not counted here:
        // readers of the metrics rely on it.
        const char* kind =
            type == EVT_TYPE_ALARM && !assetPlayList.empty() ? EVT_TYPE_REMINDER : type.c_str();
        emitted = m_metrics.emitMetric(metricName + METRIC_SEPARATOR + kind, 1, m_metricMetadata);
    } else {
        LOGE(
            "AlarmCorvel:emitSetMetrics:type=%s,assetPlayOrderSize=%d,deviceType=%s,triggerTime=%s:",
            type.c_str(), playListSize, deviceType.c_str(), triggerTime.c_str());
    }
    clearMetadata(m_metricMetadata);
    return emitted;
}

}  // namespace alarmd
