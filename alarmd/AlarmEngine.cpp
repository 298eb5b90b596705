#include "alarmd/AlarmEngine.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "alarmd/platform/Olog.h"

namespace alarmd {

namespace {

constexpr useconds_t CLOCK_POLL_INTERVAL_US = 500000;
constexpr Seconds AGE_LIMIT_SECONDS = 1800;
constexpr double LATE_SECONDS = 30.0;
constexpr boost::chrono::seconds STORE_RETRY(5);
constexpr boost::chrono::seconds SILENCE_DELAY(2);
constexpr int TIMER_DEFAULT_VOLUME = -1;
constexpr int STATE_UPDATE_DEFAULT_VOLUME = 25;
constexpr int NAMED_TIMER_LOOP_COUNT = -1;
constexpr int REMINDER_LOOP_COUNT = 2;
constexpr const char* DEVICE_STATE_ONLINE = "ONLINE";
constexpr const char* DEVICE_STATE_OFFLINE = "OFFLINE";
constexpr const char* METRIC_RINGING_TYPE_KEY = "NotificationType";
constexpr int DEREGISTERED = 2;
constexpr int DEREGISTERED_BY_CLOUD = 4;

using MessageContext = CorvelMessaging::MessageRequestReplyContext;

AlarmEngine& engineOf(void* data) {
    return *static_cast<AlarmEngine*>(data);
}

std::string trim(const std::string& text) {
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    const auto begin = std::find_if_not(text.begin(), text.end(), isSpace);
    const auto end =
        std::find_if_not(text.rbegin(), std::string::const_reverse_iterator(begin), isSpace);
    return std::string(begin, end.base());
}

/// Reads a text property of another service; `text` is untouched on failure.
int readStringProperty(OipcHandleStruct* handle, const char* service, const char* property,
                       std::string& text) {
    char* value = nullptr;
    const int status = OipcGetStringProperty(handle, service, property, &value);
    if (status == OIPC_SUCCESS) {
        text = value;
        OipcFreeString(value);
    }
    return status;
}

/// Removes a link; one that does not exist is as good.
bool removeLink(const char* link) {
    return unlink(link) == 0 || errno == ENOENT;
}

bool logLinkFailure(const char* operation, const char* reason) {
    const int error = errno;
    LOGE("AlarmEngine:%s:reason=%s,errno=%d:%s", operation, reason, error, std::strerror(error));
    return false;
}

void putDimension(GHashTable* table, const char* key, const char* value) {
    if (table != nullptr) {
        g_hash_table_insert(table, const_cast<char*>(key), const_cast<char*>(value));
    }
}

void clearDimensions(GHashTable* table) {
    if (table != nullptr) {
        g_hash_table_remove_all(table);
    }
}

}  // namespace

// --- Construction, start and end ---

AlarmEngine::AlarmEngine(const std::string& dbPath)
    : m_db(dbPath),
      m_corvel(*this, m_db),
      m_threadedHandler(m_corvel),
      m_metricMetadata(g_hash_table_new(g_str_hash, g_str_equal)) {
    if (m_metricMetadata == nullptr) {
        LOGE("AlarmEngine:createAlarmMetricsFailed:reason=newHashTableCreationFailed:");
    }
}

AlarmEngine::~AlarmEngine() {
    // The handle stays open, so the bus could go on calling: close the gate before anything dies.
    OipcRevokeCallbacks(this);
    // After terminate nothing is left to end here; an exception on the way may have left all of it.
    releaseEndpoint();
    if (m_workQueueRuns) {
        m_threadedHandler.workQueue().requestFinish();
        m_threadedHandler.workQueue().waitFinish();
    }
    endTimerThread();
    endRetainedEventThread();
    if (m_metricMetadata != nullptr) {
        g_hash_table_destroy(m_metricMetadata);
    }
}

bool AlarmEngine::init() {
    int status = OIPC_SUCCESS;
    m_oipcHandle = OipcOpenEx(ALARMD_OIPC_SERVICE, &status);
    if (status != OIPC_SUCCESS) {
        LOGE("AlarmEngine:init:reason=OipcOpenFailed,status=%s:Failed to create OIPC handle",
             OipcGetErrorString(status));
        return false;
    }
    OlogInitLogProperties(m_oipcHandle, &g_orun42_log_mask);
    updateNoticeEarconSymlink(std::string(ALARMD_EARCON_PATH) + ALARMD_DEFAULT_NOTICE_EARCON);
    m_corvel.initOipcUtils(m_oipcHandle);
    if (!initEndpoint() || !initProperties() || !initCallbacks()) {
        return false;
    }
    checkRegistration();
    checkTimeKnown();
    {
        Lock lock(m_stopNoticeMutex);
        m_db.moveExpiredEventsForLaterStopNotice(m_timeKnown);
    }
    m_running = true;
    m_silenceThread = boost::thread([this] { silenceThread(); });
    m_timerThread = boost::make_shared<boost::thread>([this] { timeThread(); });
    checkConnection();
    m_threadedHandler.workQueue().start();
    m_workQueueRuns = true;
    return true;
}

bool AlarmEngine::initEndpoint() {
    const auto endpoint = boost::make_shared<CorvelMessaging::CorvelMessagingEndpoint>(
        ALARMD_OIPC_SERVICE + CorvelMessaging::CorvelMessagingEndpoint::k_clientNameSuffix,
        m_threadedHandler);
    {
        Lock lock(m_clientMutex);
        m_corvelClient = endpoint;
    }
    if (endpoint->init() != 0) {
        LOGE("AlarmEngine:init:reason=%s,status=%s:", "failedToinitCorvelEndpoint", "failed");
        return false;
    }
    return true;
}

bool AlarmEngine::initProperties() {
    const auto create = [this](boost::shared_ptr<OipcProp::OipcString>& property, const char* name,
                               const char* value, const char* failure) {
        property = boost::make_shared<OipcProp::OipcString>(m_oipcHandle, name, value, nullptr,
                                                            nullptr, false);
        if (!property->isValid()) {
            LOGE("AlarmEngine:init:reason=%s,status=%s:", failure, "failed");
            return false;
        }
        return true;
    };
    // "AlertTimedEvent" fails under the reason of "Status": log readers know the two by one word.
    if (!create(m_startedProp, ALARMD_OIPC_STATUS_PROP_NAME, ALARMD_OIPC_STARTED_TRUE,
                "failedToCreateHasAlarmdStartedOIPCProp")
        || !create(m_statusProp, ALARMD_STATUS_PROP_NAME, ALARMD_STATUS_NONE,
                   "failedToCreateStatusOIPCProp")
        || !create(m_eventProp, ALARMD_EVENT_PROP_NAME, ALARMD_EVENT_EMPTY,
                   "failedToCreateStatusOIPCProp")
        || !create(m_noticeProp, ALARMD_NOTICE_PROP_NAME, ALARMD_NOTICE_NONE,
                   "failedToCreateNoticeOIPCProp")
        || !create(m_noticeEarconEnabledProp, ALARMD_NOTICE_EARCON_ENABLED_PROP_NAME,
                   ALARMD_NOTICE_EARCON_ENABLED_TRUE,
                   "failedToCreateNoticesEarconEnabledOIPCProp")) {
        return false;
    }
    const char* inDND = ALARMD_DND_ENABLED_TRUE;
    struct stat file {};
    if (stat(ALARMD_DND_STATE_FILE, &file) != 0) {
        const int error = errno;
        inDND = ALARMD_DND_ENABLED_FALSE;
        if (error == ENOENT) {
            LOGD("AlarmEngine:init:reason=%s,status=%s,result=%s,errorCode=%d,error=%s:",
                 "DNDFileDoesNotExist", "warning", "settingInDNDFlagToFalse", error,
                 std::strerror(error));
        } else {
            LOGW("AlarmEngine:init:reason=%s,status=%s,result=%s,errorCode=%d,error=%s:",
                 "unableToGetDNDFileDetails", "warning", "settingInDNDFlagToFalse", error,
                 std::strerror(error));
        }
    }
    return create(m_dndProp, ALARMD_DND_PROP_NAME, inDND, "failedToCreateIsDNDEnabledProp");
}

bool AlarmEngine::initCallbacks() {
    int status =
        OipcRegisterStringProperty(m_oipcHandle, ALARMD_ACK_PROP, nullptr, acknowledgeEvent, this);
    if (status != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:acknowledgePropRegister:reason=OipcRegisterStringPropFailed,reason=%s,source=%s,prop=%s:Could not register timer event handler",
            OipcGetErrorString(status), ALARMD_OIPC_SERVICE, ALARMD_ACK_PROP);
        return false;
    }
    status = OipcRegisterStringProperty(m_oipcHandle, ALARMD_LIST_ALERTS_PROP, getAllAlerts,
                                        nullptr, this);
    if (status != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:initFailed:reason=OipcRegisterStringPropFailed,reason=%s,source=%s,prop=%s:Could not register get all alerts event handler",
            OipcGetErrorString(status), ALARMD_OIPC_SERVICE, ALARMD_LIST_ALERTS_PROP);
        return false;
    }
    const auto subscribe = [this, &status](const char* service, const char* event,
                                           OipcEventHandler handler) {
        status = OipcSubscribeExt(m_oipcHandle, service, event, handler, this);
        return status == OIPC_SUCCESS;
    };
    // Some of these lines name the property instead of the event; log readers rely on the texts.
    if (!subscribe(ALARMD_OIPC_SERVICE, ALARMD_DND_CHANGED_EVENT, setDNDNotificationUpdateEvent)) {
        LOGE(
            "AlarmEngine:alarmStatusEventRegister:reason=OipcSubscribeExtFailed,reason=%s,source=%s,event=%s:Could not register alarmd DND status event handler",
            OipcGetErrorString(status), ALARMD_OIPC_SERVICE, ALARMD_DND_PROP_NAME);
        return false;
    }
    if (!subscribe(CORVELD_SERVICE, CORVELD_CONNECTION_STATE_EVENT, corvelStatusEvent)) {
        LOGE(
            "AlarmEngine:corvelStatusEventRegister:reason=OipcSubscribeExtFailed,reason=%s,source=%s,event=%s:Could not register corvel connection status event handler",
            OipcGetErrorString(status), CORVELD_SERVICE, CORVELD_CONNECTION_STATE_EVENT);
        return false;
    }
    if (!subscribe(CORVELD_SERVICE, CORVELD_REFRESH_STATE_EVENT, corvelStateUpdateEvent)) {
        LOGE(
            "AlarmEngine:corvelStatusEventRegister:reason=OipcSubscribeExtFailed,reason=%s,source=%s,event=%s:Could not register corvel state update event handler",
            OipcGetErrorString(status), CORVELD_SERVICE, CORVELD_REFRESH_STATE_EVENT);
        return false;
    }
    if (!subscribe(CONTROLD_SERVICE, CONTROLD_ALARM_TYPE_EVENT, alarmTypeUpdateEvent)) {
        LOGE(
            "AlarmEngine:timedEventRegisterFailed:reason=OipcSubscribeExtFailed,status=%s,source=%s,event=%s:Could not register corvel state update event handler",
            OipcGetErrorString(status), CONTROLD_SERVICE, CONTROLD_ALARM_TYPE);
        return false;
    }
    if (!subscribe(AUTHENTICATION_SERVICE, AUTHENTICATION_REGISTRATION_EVENT,
                   registrationEventHandler)) {
        LOGE(
            "AlarmEngine:registrationEventsSubscribeFailed:reason=OipcSubscribeExtFailed,status=%s,source=%s,event=%s:Could not register for device registration event",
            OipcGetErrorString(status), AUTHENTICATION_SERVICE, AUTHENTICATION_REGISTRATION_EVENT);
        return false;
    }
    return true;
}

void AlarmEngine::checkRegistration() {
    int registered = 0;
    if (OipcGetIntProperty(m_oipcHandle, AUTHENTICATION_SERVICE, AUTHENTICATION_REGISTERED_PROP,
                           &registered)
            != OIPC_SUCCESS
        || registered != 0) {
        return;
    }
    if (m_db.isPlayingEvent()) {
        m_db.deleteCurrentEvent();
        silenceStatus();
    }
    m_db.deleteAllAlarmsAndTimers();
    m_db.deleteSavedStopNotices();
}

void AlarmEngine::checkConnection() {
    int state = 0;
    const int status =
        OipcGetIntProperty(m_oipcHandle, CORVELD_SERVICE, CORVELD_CONNECTION_STATE_PROP, &state);
    if (status != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:checkCorvelConnection:reason=OipcGetIntPropertyFailed,reason=%s,source=%s,event=%s:Could not register corvel state update event handler",
            OipcGetErrorString(status), CORVELD_SERVICE, CORVELD_CONNECTION_STATE_PROP);
        return;
    }
    {
        Lock lock(m_connectionMutex);
        if (!m_connectionHeard) {  // an event that came meanwhile is newer than the answer
            m_connectionState = state;
        }
    }
    if (state != 0) {
        startRetainedEventThread();
    }
}

void AlarmEngine::checkTimeKnown() {
    std::string value = "false";
    const int status =
        readStringProperty(m_oipcHandle, SYSTEM_SERVICE, SYSTEM_HAS_TIME_PROP, value);
    if (status != OIPC_SUCCESS) {
        LOGE("AlarmEngine:checkTimeKnown:reason=OipcGetStringPropertyFailed,error=%d:", status);
    }
    m_timeKnown = trim(value) == "true";
}

void AlarmEngine::terminate() {
    LOGD("AlarmEngine:terminate::stopping corvel endpoint");
    releaseEndpoint();
    LOGD("AlarmEngine:terminate::aborting main loop");
    m_threadedHandler.workQueue().requestFinish();
    LOGD("AlarmEngine:terminate::ending corvel handler thread");
    m_workQueueRuns = false;
    m_threadedHandler.workQueue().waitFinish();
    endTimerThread();
    endRetainedEventThread();
    LOGD("AlarmEngine:terminate::done.");
}

void AlarmEngine::releaseEndpoint() {
    boost::shared_ptr<CorvelMessaging::CorvelMessagingEndpoint> released;
    Lock lock(m_clientMutex);
    released.swap(m_corvelClient);
}

void AlarmEngine::endTimerThread() {
    const bool runs = m_timerThread && m_timerThread->joinable();
    if (runs) {
        LOGD("AlarmEngine:terminate::ending timer thread");
    }
    m_running = false;
    resetTimerThread();
    if (runs) {
        m_timerThread->join();
    }
    if (m_silenceThread.joinable()) {
        m_silenceThread.join();
    }
}

void AlarmEngine::endRetainedEventThread() {
    boost::shared_ptr<boost::thread> thread;
    {
        Lock lock(m_workerMutex);
        m_retainedThreadHasEnded = true;  // two threads must not join it at once
        thread = m_retainedThread;
    }
    if (thread && thread->joinable()) {
        LOGD("AlarmEngine:terminate::ending stop notice thread");
        thread->join();
    }
}

boost::shared_ptr<CorvelMessaging::CorvelMessagingEndpoint> AlarmEngine::corvelClient() {
    Lock lock(m_clientMutex);
    return m_corvelClient;
}

void AlarmEngine::resetTimerThread() {
    m_timerCondition.notifyAll();
    m_silenceCondition.notifyAll();
}

// --- "Status" ---

bool AlarmEngine::isRinging() {
    const TimedEvent current = m_db.getCurrentEvent();
    return current.played() && !current.matches(EVT_EMPTY);
}

void AlarmEngine::silenceStatus() {
    Lock lock(m_statusMutex);
    if (!isRinging()) {
        m_statusProp->set(ALARMD_STATUS_NONE, "");
    }
}

void AlarmEngine::settleStatus() {
    Lock lock(m_statusMutex);
    if (isSilenceOwed()) {
        m_statusProp->set(ALARMD_STATUS_NONE, "");
    }
}

bool AlarmEngine::isSilenceOwed() {
    return m_statusProp->get() != ALARMD_STATUS_NONE && !isRinging();
}

void AlarmEngine::publishRingStatus(const TimedEvent& ringing, const std::string& status) {
    // Whoever ends the ring does so in the store first and publishes under this mutex afterwards,
    // so what is published last is true. A player that got its list too late hears "None" behind
    // it.
    Lock lock(m_statusMutex);
    m_statusProp->set(stillRings(ringing) ? status : ALARMD_STATUS_NONE, "");
}

void AlarmEngine::silenceThread() {
    pthread_setname_np(pthread_self(), "alarm-silence");
    TimePoint deadline = AlarmDB::max_time();
    while (m_running) {
        const WakeCondition::Ticket ticket = m_silenceCondition.ticket();
        if (!isSilenceOwed()) {
            deadline = AlarmDB::max_time();
        } else if (deadline == AlarmDB::max_time()) {
            deadline = now() + SILENCE_DELAY;
        } else if (now() >= deadline) {
            settleStatus();
            continue;
        }
        Lock lock(m_silenceMutex);
        if (deadline == AlarmDB::max_time()) {
            m_silenceCondition.wait(m_silenceMutex, ticket);
        } else {
            m_silenceCondition.waitUntil(m_silenceMutex, ticket, deadline);
        }
    }
}

bool AlarmEngine::stillRings(const TimedEvent& ringing) {
    const TimedEvent current = m_db.getCurrentEvent();
    return current.played() && current.matches(ringing.getId());
}

// --- Timer thread ---

void AlarmEngine::timeThread() {
    pthread_setname_np(pthread_self(), "alarm-timer");
    // Wake-ups are not to be gathered with others: one that waits for a ring is worth its own.
    prctl(PR_SET_TIMERSLACK, 1UL);
    LOGI("AlarmEngine:timeThread::timer thread begins");
    // A ring at an unknown time would be a wrong ring, so even the end of the daemon waits for the
    // clock.
    while (!m_timeKnown) {
        usleep(CLOCK_POLL_INTERVAL_US);
        checkTimeKnown();
    }
    m_timerThreadStart = boost::chrono::steady_clock::now();
    while (timerPass()) {
    }
}

bool AlarmEngine::timerPass() {
    const WakeCondition::Ticket ticket = m_timerCondition.ticket();
    if (!m_running) {
        return false;
    }
    Selection next;
    startRetainedEventsIfPending();

    Lock lock(m_engineMutex);
    const bool hasEvent = m_db.getNextEvent(next.time, next.type, next.id, next.client, next.earcon,
                                            next.isDynamicAlert, next.assetPlayOrder,
                                            next.loopCount, next.shortAlertAsset);
    // A store that cannot be read may hide an earlier event, so it is asked again before long.
    const TimePoint askAgain = m_db.isChoiceComplete() ? AlarmDB::max_time() : now() + STORE_RETRY;
    if (!hasEvent) {
        LOGD("AlarmEngine:timeThread::no event, waiting");
        if (askAgain == AlarmDB::max_time()) {
            m_timerCondition.wait(m_engineMutex, ticket);
        } else {
            m_timerCondition.waitUntil(m_engineMutex, ticket, askAgain);
        }
        LOGD("AlarmEngine:timerThreadLoopWake::wokenForNonTimeout");
        return true;
    }
    const auto expiry = static_cast<long long>(toSeconds(next.time));
    LOGD("AlarmEngine:timerThreadLoop:expiry=%s(%lld),currtime=%lld:waiting for event",
         formattedTime(expiry).c_str(), expiry, static_cast<long long>(std::time(nullptr)));
    const bool notified =
        m_timerCondition.waitUntil(m_engineMutex, ticket, std::min(next.time, askAgain));
    LOGD("AlarmEngine:timerThreadLoop:expiry=%s(%lld),currtime=%lld:event expires",
         formattedTime(expiry).c_str(), expiry, static_cast<long long>(std::time(nullptr)));
    if (notified || askAgain < next.time) {
        LOGD("AlarmEngine:timerThreadLoopWake::wokenForNonTimeout");
        return true;
    }
    if (isTooOldOrTimeUnknown(next)) {
        giveUp(next);
        return true;
    }
    // A ring that is over may not have been closed yet: whoever ends it may still be sending.
    settleStatus();
    const TimedEvent ringing = m_db.playingCurrentEvent(next.id, next.time);
    if (!ringing.matches(EVT_EMPTY)) {
        ring(next, ringing);
    }
    return true;
}

void AlarmEngine::startRetainedEventsIfPending() {
    if (!m_retainedEventsPending || isRetainedStartWaiting()) {
        return;
    }
    try {
        startRetainedEventThread();
    } catch (const boost::thread_resource_error& error) {
        // The notices stay saved and the next pass tries again; rings must go on meanwhile.
        LOGE("AlarmEngine:timeThread:reason=startRetainedEventThreadFailed,exc=%s:", error.what());
    }
}

bool AlarmEngine::isTooOldOrTimeUnknown(const Selection& selection) {
    checkTimeKnown();
    const bool tooOld = now() - boost::chrono::seconds(AGE_LIMIT_SECONDS) >= selection.time;
    if (!tooOld && m_timeKnown) {
        return false;
    }
    const auto expiry = static_cast<long long>(toSeconds(selection.time));
    // "timeknown" is always 0 and "old" is the wrong way round; log readers have learnt to live
    // with it.
    LOGI(
        "AlarmEngine:timerThreadLoopTimeKnownCheck:expiry=%s(%lld),currtime=%lld,timeknown=%d,old=%d:event ignored - too old or clock time unknown",
        formattedTime(expiry).c_str(), expiry, static_cast<long long>(std::time(nullptr)), 0,
        tooOld ? 0 : 1);
    return true;
}

void AlarmEngine::ring(const Selection& selection, const TimedEvent& ringing) {
    const bool filesExist = checkFilesExist(ringing.getAssetPlayOrder());
    const std::string ascending = readAscendingSetting();
    const RingSound sound = chooseSound(ringing, filesExist, ascending);
    updateAlertEarconSymlink(ringing.getAlertEarconFileLong(), sound.shortFile);
    // An absent player is no reason to stop: the other daemons still learn that it rings.
    (void)OipcSetStringProperty(m_oipcHandle, EARCON_PLAYER_SERVICE, EARCON_PLAYER_PLAY_LIST_PROP,
                                sound.playList.c_str());
    publishRingStatus(ringing, sound.status);

    const TimePoint threadStart = now()
                                  + boost::chrono::duration_cast<boost::chrono::nanoseconds>(
                                      m_timerThreadStart - boost::chrono::steady_clock::now());
    const int volume = readAlarmVolume();
    clearDimensions(m_metricMetadata);
    const TimePoint rangAt = now();
    const boost::chrono::duration<double> lateness = rangAt - ringing.getTime();
    const bool online = m_connectionState != 0;
    // Behind its stop notice a start notice would let the cloud believe that it rings on.
    if (online && stillRings(ringing)) {
        m_corvel.sendTimedEventStartNotice(selection.id, selection.client,
                                           selection.isDynamicAlert);
    }
    const NotificationMetricMetadata metadata{
        selection.id,
        std::to_string(volume),
        getNotificationType(selection.assetPlayOrder, selection.type, ringing.getLoopCount()),
        online ? DEVICE_STATE_ONLINE : DEVICE_STATE_OFFLINE,
        formattedTime(toSeconds(ringing.getTime())),
        formattedTime(toSeconds(rangAt)),
        formattedTime(toSeconds(threadStart)),
        ascending};
    emitNotificationRingingMetrics(metadata, lateness.count() > LATE_SECONDS);
}

std::string AlarmEngine::readAscendingSetting() {
    std::string setting = ALARMD_ASCENDING_ALARM_DISABLED;
    (void)readStringProperty(m_oipcHandle, SETTINGSD_SERVICE, SETTINGSD_ASCENDING_ALARM_PROP,
                             setting);
    return setting;
}

AlarmEngine::RingSound AlarmEngine::chooseSound(const TimedEvent& ringing, bool filesExist,
                                                const std::string& ascending) {
    RingSound sound{ringing.getAssetPlayOrder(), ringing.getAlertEarconFileShort(),
                    ringing.getType()};
    const int loopCount = ringing.getLoopCount();
    if (filesExist) {
        sound.shortFile = ringing.getShortAlertAsset();
        if (loopCount > 0) {
            sound.status = ALARMD_STATUS_REMINDER;
        } else if (loopCount == NAMED_TIMER_LOOP_COUNT) {
            sound.status = ALARMD_STATUS_NAMED_TIMER;
        }
        return sound;
    }
    const std::string defaultTone = std::string(METRIC_SEPARATOR) + METRIC_RINGING_DEFAULT_TONE;
    if (loopCount > 0 && !sound.playList.empty()) {
        // A reminder whose sounds are missing rings as a plain alarm.
        sound.status = ALARMD_STATUS_ALARM;
        m_metrics.emitMetric(EVT_TYPE_REMINDER + defaultTone, 1, nullptr);
    } else if (loopCount == NAMED_TIMER_LOOP_COUNT) {
        m_metrics.emitMetric(METRIC_NAMED_PREFIX + sound.status + defaultTone, 1, nullptr);
    } else if (sound.status == EVT_TYPE_ALARM && ascending == ALARMD_ASCENDING_ALARM_ENABLED) {
        sound.status = EVT_TYPE_ASCENDING_ALARM;
        m_metrics.emitMetric(EVT_TYPE_ASCENDING_ALARM, 1, nullptr);
        LOGI("AlarmEngine:Set ascending alarm :status=%s:", ascending.c_str());
    }
    sound.playList.clear();
    return sound;
}

int AlarmEngine::readAlarmVolume() {
    int volume = TIMER_DEFAULT_VOLUME;
    const int status =
        OipcGetIntProperty(m_oipcHandle, AUDIOD_SERVICE, AUDIOD_ALARM_VOLUME_PROP, &volume);
    if (status != OIPC_SUCCESS) {
        LOGW(
            "AlarmEngine:timerThreadLoop:reason=OipcGetIntFailed,status=%s,source=%s,prop=%s,default=%d:Failed to get int OIPC property",
            OipcGetErrorString(status), AUDIOD_SERVICE, AUDIOD_ALARM_VOLUME_PROP, volume);
    }
    return volume;
}

// --- Bus callbacks ---

int AlarmEngine::getAllAlerts(OipcHandleStruct*, const char* property, char* buffer,
                              unsigned int* size, void* data) {
    if (std::strcmp(property, ALARMD_LIST_ALERTS_PROP) != 0) {
        LOGE("AlarmEngine:getAllAlertsFailed:reason=UnknownPropName,prop=%s:", property);
        return OIPC_NO_SUCH_PROPERTY;
    }
    std::string json;
    if (!engineOf(data).m_db.jsonForAllEvents(json)) {
        LOGE("AlarmEngine:getAllAlertsFailed:reason=jsonForAllEventsFailed:");
        return OIPC_INTERNAL_ERROR;
    }
    const auto needed = static_cast<unsigned int>(json.size() + 1);
    if (*size < needed) {
        LOGD("AlarmEngine:getAllAlerts:reason=bufferTooSmall,suppliedSize=%u,newSize=%u:", *size,
             needed);
        *size = needed;
        return OIPC_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, json.c_str(), needed);
    return OIPC_SUCCESS;
}

int AlarmEngine::acknowledgeEvent(OipcHandleStruct*, const char*, const char*, void* data) {
    AlarmEngine& engine = engineOf(data);
    if (!engine.m_db.isPlayingEvent()) {
        return OIPC_SUCCESS;
    }
    const TimedEvent ended = engine.m_db.deleteCurrentEvent();
    if (!ended.matches(EVT_EMPTY)) {
        // The next one may be due, and the stop notice can take 35 s.
        engine.resetTimerThread();
        engine.broadcastDeleteTimedEvents(ended.getId());
        if (engine.isConnected()) {
            engine.sendStopNotice(ended.getId(), ended.getClient());
        } else {
            engine.retainEventForLater(ended.getId(), ended.getClient(), ended.getTime());
        }
    }
    engine.silenceStatus();
    engine.resetTimerThread();
    return OIPC_SUCCESS;
}

void AlarmEngine::setDNDNotificationUpdateEvent(OipcHandleStruct*, const char*,
                                                OipcEventHandleStruct* event, void* data) {
    const char* inDND = nullptr;
    const int status = OipcGetStringParam(event, &inDND);
    if (status != OIPC_SUCCESS) {
        LOGW("AlarmEngine:SetDNDNotificationUpdateEventWarn:reason=getDNDStateFailed,error=%d:",
             status);
        engineOf(data).m_dndProp->set(ALARMD_DND_ENABLED_FALSE, "");
        return;
    }
    // The file is what the next start reads the state from.
    struct stat file {};
    const bool exists = stat(ALARMD_DND_STATE_FILE, &file) == 0;
    const bool enabled = std::strcmp(inDND, ALARMD_DND_ENABLED_TRUE) == 0;
    bool stored = true;
    if (enabled && !exists) {
        stored = std::ofstream(ALARMD_DND_STATE_FILE, std::ios::trunc).is_open();
    } else if (!enabled && exists) {
        stored = std::remove(ALARMD_DND_STATE_FILE) == 0;
    }
    if (!stored) {
        LOGW("AlarmEngine:SetDNDNotificationUpdateEventWarn:reason=storeDNDStateFailed,error=%d:",
             errno);
    }
}

void AlarmEngine::corvelStatusEvent(OipcHandleStruct*, const char*, OipcEventHandleStruct* event,
                                    void* data) {
    AlarmEngine& engine = engineOf(data);
    int connected = 0;
    if (OipcGetIntParam(event, &connected) != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:corvelStatusEventFailed:reason=Error retrieving connected parameter from event:");
        return;
    }
    {
        Lock lock(engine.m_connectionMutex);
        engine.m_connectionHeard = true;
        engine.m_connectionState = connected;
    }
    if (connected != 0) {
        engine.startRetainedEventThread();
    }
}

void AlarmEngine::corvelStateUpdateEvent(OipcHandleStruct* handle, const char*,
                                         OipcEventHandleStruct*, void* data) {
    int volume = STATE_UPDATE_DEFAULT_VOLUME;
    const int status =
        OipcGetIntProperty(handle, AUDIOD_SERVICE, AUDIOD_ALARM_VOLUME_PROP, &volume);
    if (status != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:corvelStateUpdateEvent:reason=OipcGetIntFailed,status=%s,source=%s,prop=%s,default=%d:Failed to get int OIPC property",
            OipcGetErrorString(status), AUDIOD_SERVICE, AUDIOD_ALARM_VOLUME_PROP, volume);
    }
    engineOf(data).m_corvel.sendStatusUpdate(volume);
}

void AlarmEngine::alarmTypeUpdateEvent(OipcHandleStruct*, const char*, OipcEventHandleStruct* event,
                                       void* data) {
    AlarmEngine& engine = engineOf(data);
    const char* text = nullptr;
    const int status = OipcGetStringParam(event, &text);
    if (status != OIPC_SUCCESS) {
        LOGE("AlarmEngine:alarmTypeUpdateEventFailed:reason=missingAlertState,status=%s:",
             OipcGetErrorString(status));
        return;
    }
    const std::string chosen = text;
    AlertMode mode = AlertMode::None;
    if (chosen == "long") {
        mode = AlertMode::Long;
    } else if (chosen == "short") {
        mode = AlertMode::Short;
    } else if (chosen != "none") {
        LOGW("AlarmEngine:alarmTypeUpdateEventWarn:reason=invalidAlertState,status=%s:", text);
        return;
    }
    if (!engine.changeAlertMode(mode) || mode == AlertMode::None) {
        return;
    }
    // Not under the engine mutex: a send of 35 s would keep the timer thread from ringing.
    const TimedEvent current = engine.m_db.getCurrentEvent();
    engine.m_corvel.sendAlertTypeChangedEvent(current.getId(), current.getClient(), mode);
}

bool AlarmEngine::changeAlertMode(AlertMode mode) {
    Lock lock(m_engineMutex);
    const bool changed = mode != m_alertMode;
    m_alertMode = mode;
    return changed;
}

void AlarmEngine::registrationEventHandler(OipcHandleStruct*, const char*,
                                           OipcEventHandleStruct* event, void* data) {
    AlarmEngine& engine = engineOf(data);
    int registration = 0;
    const int status = OipcGetIntParam(event, &registration);
    if (status != OIPC_SUCCESS) {
        LOGE(
            "AlarmEngine:registrationEventHandlerFailed:reason=missingRegistrationEvent,status=%s:",
            OipcGetErrorString(status));
        return;
    }
    if (registration != DEREGISTERED && registration != DEREGISTERED_BY_CLOUD) {
        return;
    }
    LOGI("AlarmEngine:registrationEventHandler:DeviceDeregistered,ClearingAllAlarmsAndTimers:");
    if (engine.m_db.isPlayingEvent()) {
        engine.m_db.deleteCurrentEvent();
        engine.resetTimerThread();
        engine.silenceStatus();
    }
    engine.m_db.deleteAllAlarmsAndTimers();
    engine.m_db.deleteSavedStopNotices();
    engine.settleStatus();  // a ring that began in between went with all the others
    engine.resetTimerThread();
    engine.setMessageWaitingNotification(false, false, ALARMD_DEFAULT_NOTICE_EARCON);
}

// --- State broadcasts and earcon links ---

void AlarmEngine::broadcastSetTimedEvent(const std::string& id, const std::string& client,
                                         const std::string& type, const std::string& time,
                                         int loopCount, const std::string& assetPlayOrder) {
    // The cloud sends named timers and reminders as alarms; the other daemons want the real kind.
    std::string broadcastType = type;
    if (loopCount == NAMED_TIMER_LOOP_COUNT && type == EVT_TYPE_ALARM) {
        LOGI("AlarmEngine:broadcastSetTimedEvent:Named timer override:");
        broadcastType = ALARMD_STATUS_TIMER;
    } else if (!assetPlayOrder.empty() && loopCount > 0 && type == EVT_TYPE_ALARM) {
        LOGI("AlarmEngine:broadcastSetTimedEvent:Reminder override:");
        broadcastType = ALARMD_STATUS_REMINDER;
    }
    std::string json;
    if (!m_db.jsonForTimedEvent(json, id, client, broadcastType, time)) {
        LOGE("AlarmEngine:broadcastTimedEvent:failed to create json:");
        return;
    }
    m_eventProp->set(json, "");
}

void AlarmEngine::broadcastDeleteTimedEvents(const std::set<std::string>& ids) {
    std::string json;
    if (!m_db.jsonForDeleteTimedEvents(json, ids)) {
        LOGE("AlarmEngine:broadcastDeleteTimedEvents:failed to create json:");
        return;
    }
    m_eventProp->set(json, "");
}

void AlarmEngine::broadcastDeleteTimedEvents(const std::string& id) {
    broadcastDeleteTimedEvents(std::set<std::string>{id});
}

bool AlarmEngine::updateAlertEarconSymlink(const std::string& longFile,
                                           const std::string& shortFile) {
    const char* operation = "updateAlertEarconSymlinkFailed";
    if (!removeLink(ALARMD_ALERT_EARCON_SYMLINK_FILE)) {
        return logLinkFailure(operation, "deleteLongAlertSymlinkFailed");
    }
    if (!removeLink(ALARMD_SHORT_ALERT_EARCON_SYMLINK_FILE)) {
        return logLinkFailure(operation, "deleteShortAlertSymlinkFailed");
    }
    if (symlink(longFile.c_str(), ALARMD_ALERT_EARCON_SYMLINK_FILE) != 0) {
        return logLinkFailure(operation, "createLongAlertSymlinkFailed");
    }
    if (shortFile.find(".wav") != std::string::npos) {
        if (symlink(shortFile.c_str(), ALARMD_SHORT_ALERT_EARCON_SYMLINK_FILE) != 0) {
            return logLinkFailure(operation, "createShortAlertSymlinkFailed");
        }
        return true;
    }
    // The link without an extension goes only when it is remade: the player tells the two apart.
    if (!removeLink(ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE)) {
        return logLinkFailure(operation, "deleteReminderShortAlertSymlinkFailed");
    }
    if (symlink(shortFile.c_str(), ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE) != 0) {
        return logLinkFailure(operation, "createReminderShortAlertSymlinkFailed");
    }
    return true;
}

bool AlarmEngine::updateNoticeEarconSymlink(const std::string& target) {
    const char* operation = "updateNoticeEarconSymlinkFailed";
    struct stat file {};
    if (stat(target.c_str(), &file) != 0) {
        return logLinkFailure(operation, "linkTargetDoesNotExist");
    }
    if ((file.st_mode & (S_IFREG | S_IFCHR)) == 0) {
        LOGE(
            "AlarmEngine:updateNoticeEarconSymlinkFailedWrongMode:reason=linkTargetIsNotAFile,mode=%#x:",
            static_cast<unsigned int>(file.st_mode));
        return false;
    }
    // The reasons are the long alert link's: log readers know them.
    if (!removeLink(ALARMD_NOTICE_EARCON_SYMLINK_FILE)) {
        return logLinkFailure(operation, "deleteLongAlertSymlinkFailed");
    }
    if (symlink(target.c_str(), ALARMD_NOTICE_EARCON_SYMLINK_FILE) != 0) {
        return logLinkFailure(operation, "createLongAlertSymlinkFailed");
    }
    return true;
}

bool AlarmEngine::checkFilesExist(const std::string& files) {
    if (files.empty()) {
        return false;
    }
    std::size_t begin = 0;
    while (true) {
        const std::size_t comma = files.find(',', begin);
        const std::string path = files.substr(begin, comma - begin);
        struct stat file {};
        if (stat(path.c_str(), &file) != 0) {
            LOGE("AlarmEngine:checkFilesExist:File doesn't exist=%s:", path.c_str());
            return false;
        }
        if (comma == std::string::npos) {
            return true;
        }
        begin = comma + 1;
    }
}

// --- Retained stop notices and the message-waiting notice ---

void AlarmEngine::retainEventForLater(const std::string& id, const std::string& client,
                                      TimePoint time) {
    LOGI("AlarmEngine:retainEventForLater:reason=invoked,id=%s,client=%s:retaining", id.c_str(),
         client.c_str());
    Lock lock(m_stopNoticeMutex);
    if (m_db.retainEndedEvent(id, client, time)) {
        noteRetained(id);
    }
}

void AlarmEngine::giveUp(const Selection& selection) {
    LOGI("AlarmEngine:retainEventForLater:reason=invoked,id=%s,client=%s:retaining",
         selection.id.c_str(), selection.client.c_str());
    Lock lock(m_stopNoticeMutex);
    if (m_db.giveUpCurrentEvent(selection.id, selection.client, selection.time)) {
        noteRetained(selection.id);
    }
}

void AlarmEngine::noteRetained(const std::string& id) {
    // One that is retained again while the first is being sent is to be sent again.
    m_sentNotices.erase(id);
    m_retainedEventsPending = true;
}

void AlarmEngine::startRetainedEventThread() {
    Lock lock(m_workerMutex);
    if (m_retainedThreadHasEnded) {
        return;  // what is saved is for the next life
    }
    if (m_retainedThread) {
        LOGD("AlarmEngine:startRetainedEventThread::joining previous stop notice thread");
        if (m_retainedThreadRuns) {
            // It may wait 35 s for each notice, and the caller may be the thread that rings: the
            // run asked for takes place when this one has ended.
            ++m_retainedStartsWaiting;
            return;
        }
        m_retainedThread->join();
    }
    launchRetainedEventThread();
}

bool AlarmEngine::isRetainedStartWaiting() {
    Lock lock(m_workerMutex);
    return m_retainedStartsWaiting != 0;
}

void AlarmEngine::launchRetainedEventThread() {
    LOGD("AlarmEngine:startRetainedEventThread::initiating stop notice thread");
    m_retainedThread = boost::make_shared<boost::thread>([this] { retainedEventThread(); });
    m_retainedThreadRuns = true;
}

void AlarmEngine::retainedEventThread() {
    pthread_setname_np(pthread_self(), "stop-notices");
    while (true) {
        sendAnyRetainedEvents();
        Lock lock(m_workerMutex);
        if (m_retainedStartsWaiting == 0) {
            m_retainedThreadRuns = false;
            return;
        }
        --m_retainedStartsWaiting;
        LOGD("AlarmEngine:startRetainedEventThread::initiating stop notice thread");
    }
}

void AlarmEngine::sendAnyRetainedEvents() {
    LOGI(
        "AlarmEngine:sendAnyRetainedEvents:reason=invoked:offline stopped event notification thread begins");
    {
        Lock lock(m_stopNoticeMutex);
        m_sentNotices.clear();
    }
    AlarmDB::StopNotices unsent;
    bool isRead = m_db.getSavedStopNotices(unsent);
    if (isConnected()) {
        m_corvel.sendNotificationIndicatorStateChanged(m_messageWaiting, MessageContext());
    }
    while (isRead && isConnected()) {
        sendStopNotices(unsent);
        if (!canSend()) {
            break;  // the end or a lost bus came between: nothing tells which of them went out
        }
        // Retaining went on meanwhile: what came in between is sent too before all are deleted.
        Lock lock(m_stopNoticeMutex);
        isRead = readUnsentNotices(unsent);
        if (isRead && unsent.empty()) {
            m_db.deleteSavedStopNotices();
            m_retainedEventsPending = false;
            LOGI(
                "AlarmEngine:sendAnyRetainedEvents:reason=finished:offline stopped event notification thread ends");
            return;
        }
    }
    if (isRead) {
        LOGI(
            "AlarmEngine:sendAnyRetainedEvents:reason=exitingNoAction:Exiting, Corvel not connected. No action taken");
    }
}

void AlarmEngine::sendStopNotices(const AlarmDB::StopNotices& notices) {
    {
        Lock lock(m_stopNoticeMutex);
        for (const auto& notice : notices) {
            m_sentNotices.insert(notice.first);
        }
    }
    for (const auto& [id, client] : notices) {
        sendStopNotice(id, client);
    }
}

void AlarmEngine::sendStopNotice(const std::string& id, const std::string& client) {
    // A directive may have set it while this notice waited: behind its answer the cloud would take
    // the new one for stopped.
    if (!m_db.isSet(id)) {
        m_corvel.sendTimedEventStopNotice(id, client, MessageContext());
    }
}

bool AlarmEngine::readUnsentNotices(AlarmDB::StopNotices& unsent) {
    AlarmDB::StopNotices saved;
    unsent.clear();
    if (!m_db.getSavedStopNotices(saved)) {
        return false;
    }
    for (const auto& notice : saved) {
        if (m_sentNotices.count(notice.first) == 0) {
            unsent.push_back(notice);
        }
    }
    return true;
}

void AlarmEngine::setMessageWaitingNotification(bool indicator, bool earconEnabled,
                                                const std::string& earconFile) {
    Lock lock(m_noticeMutex);
    if (!earconEnabled) {
        m_noticeEarconEnabledProp->set(ALARMD_NOTICE_EARCON_ENABLED_FALSE, "");
    } else {
        if (earconFile != m_noticeEarcon) {
            const std::string directory = ALARMD_EARCON_PATH;
            if (!updateNoticeEarconSymlink(directory + earconFile)) {
                updateNoticeEarconSymlink(directory + ALARMD_DEFAULT_NOTICE_EARCON);
            }
            m_noticeEarcon = earconFile;  // also after a failure: the same name would fail again
        }
        m_noticeEarconEnabledProp->set(ALARMD_NOTICE_EARCON_ENABLED_TRUE, "");
    }
    if (!indicator) {
        m_noticeProp->set(ALARMD_NOTICE_NONE, "");
    } else {
        (void)OipcSetStringProperty(m_oipcHandle, CONTROLD_SERVICE, CONTROLD_NOTICES_LATCH_PROP,
                                    ALARMD_NOTICE_NONE);
        m_noticeProp->set(ALARMD_NOTICE_MESSAGE, "");
    }
    m_messageWaiting = indicator;
}

// --- Ringing metrics ---

void AlarmEngine::emitNotificationRingingMetrics(const NotificationMetricMetadata& metadata,
                                                 bool late) {
    GHashTable* dimensions = m_metricMetadata;
    clearDimensions(dimensions);
    putDimension(dimensions, METRIC_METADATA_VERSION_KEY, METRIC_METADATA_VERSION);

    std::string suffix = METRIC_SEPARATOR;
    if (metadata.notificationType.empty()) {
        LOGW(
            "AlarmEngine:metricMetadataNotAvailable:reason=notificationTypeIsEmpty,method=emitNotificationRingingMetrics:default notification type is added.");
        putDimension(dimensions, METRIC_RINGING_TYPE_KEY, EVT_TYPE_NONE);
        suffix += METRIC_UNKNOWN;
    } else {
        putDimension(dimensions, METRIC_RINGING_TYPE_KEY, metadata.notificationType.c_str());
        suffix += metadata.notificationType;
    }

    struct Dimension {
        const char* key;
        const std::string& value;
        const char* missing;   ///< reason and remark of the warning
        const char* fallback;  ///< null: the key is left out
    };
    const Dimension others[] = {
        {"isAscending", metadata.ascendingVolume,
         "ascendingVolumeIsEmpty,method=emitNotificationRingingMetrics:ascendingVolume value is not added.",
         nullptr},
        {"NotificationId", metadata.notificationId,
         "notificationIdIsEmpty,method=emitNotificationRingingMetrics:notificationId is not added.",
         nullptr},
        {"NotificationVolume", metadata.notificationVolume,
         "notificationVolumeIsEmpty,method=emitNotificationRingingMetrics:notificationVolume is not added.",
         nullptr},
        {"DeviceState", metadata.deviceState,
         "deviceStateIsNotAvailable,method=emitNotificationRingingMetrics:Default deviceState is added.",
         METRIC_UNKNOWN},
        {"ScheduledTriggerTime", metadata.scheduledTriggerTime,
         "scheduledTriggerTimeIsEmpty,method=emitNotificationRingingMetrics:scheduledTriggerTime is not added.",
         nullptr},
        {"ActualTriggerTime", metadata.actualTriggerTime,
         "actualTriggerTimeIsEmpty,method=emitNotificationRingingMetrics:actualTriggerTime is not added.",
         nullptr},
        {"MonotonicTime", metadata.monotonicTime,
         "monotonicTimeIsEmpty,method=emitNotificationRingingMetrics:monotonicTime is not added.",
         nullptr},
    };
    for (const Dimension& dimension : others) {
        if (!dimension.value.empty()) {
            putDimension(dimensions, dimension.key, dimension.value.c_str());
            continue;
        }
        LOGW("AlarmEngine:metricMetadataNotAvailable:reason=%s", dimension.missing);
        if (dimension.fallback != nullptr) {
            putDimension(dimensions, dimension.key, dimension.fallback);
        }
    }

    const auto record = [this, &suffix, dimensions](const std::string& name, int value) {
        m_metrics.emitMetric(name, value, dimensions);
        m_metrics.emitMetric(name + suffix, value, dimensions);
    };
    record(metadata.deviceState == DEVICE_STATE_ONLINE ? METRIC_RINGING_ONLINE
                                                       : METRIC_RINGING_OFFLINE,
           1);
    record(METRIC_STARTED_LATE, late ? 1 : 0);
    record(METRIC_STARTED_RINGING, 1);
    clearDimensions(dimensions);
}

std::string getNotificationType(const std::string& text, const std::string& type, int count) {
    if (type.empty()) {
        LOGW(
            "AlarmEngine:getNotificationType:reason=notificationTypeIsEmpty:returnedNotificationType=UNKNOWN");
    }
    if (type == EVT_TYPE_TIMER) {
        return EVT_TYPE_TIMER;
    }
    if (type == EVT_TYPE_ALARM) {
        // Two characters are an empty list in brackets.
        if (count == NAMED_TIMER_LOOP_COUNT && text.size() > 2) {
            return EVT_TYPE_TIMER;
        }
        if (count == REMINDER_LOOP_COUNT && !text.empty()) {
            return EVT_TYPE_REMINDER;
        }
        return EVT_TYPE_ALARM;
    }
    LOGW(
        "AlarmEngine:getNotificationType:reason=notificationTypeIsUnknown:returnedNotificationType=UNKNOWN,actualNotificationType=%s",
        type.c_str());
    return METRIC_UNKNOWN;
}

}  // namespace alarmd
