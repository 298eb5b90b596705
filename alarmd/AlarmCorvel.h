/// The adapter to the cloud assistant: parses directives, applies them, and sends events.
#pragma once

#include <cjson/cJSON.h>
#include <glib.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <list>
#include <memory>
#include <string>

#include "alarmd/AlarmMetrics.h"
#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/DeviceMetrics.h"
#include "alarmd/platform/FileDownloader.h"
#include "alarmd/platform/ThinkingModeUtil.h"

struct OipcHandleStruct;

namespace alarmd {

class AlarmDB;
class AlarmEngine;

/// The alert type chosen on the device.
enum class AlertMode : int { None = 0, Long = 1, Short = 2 };

/// The text of a member of a JSON object. Absent, or no text: "", with a log line, and `found`
/// becomes false; otherwise `found` keeps its value, so that one flag sums up all required keys of
/// a directive.
std::string getRequiredStringKey(const cJSON* json, const char* key, bool& found);

/// The same, but `found` tells of this key alone and nothing is logged.
std::string getOptionalStringKey(const cJSON* json, const char* key, bool& found);

/// The paths of `assetList` (joined by ","), repeated `loopCount` times with blank earcons of
/// `pauseMs` milliseconds between the copies. A single copy (also for a count below 1) is followed
/// by its pause. `cut` tells that it was too long: it then ends with the last whole entry that
/// keeps it within ALARMD_MAX_PLAY_LIST.
std::string buildPlayList(const std::string& assetList, int loopCount, int pauseMs, bool& cut);

/// Threads: onMessage runs on the messaging worker, one message at a time; the send operations on
/// any thread; downloads on one thread each. No lock of this class is held during a call to
/// anything else.
///
/// Failure: a directive that cannot be read is logged and dropped. A send that fails is logged and
/// reported by sendBasicMessage's result alone.
class AlarmCorvel : public CorvelMessaging::CorvelMessageHandler {
  public:
    /// Both must outlive this object; neither is used before init of the engine. Removes what
    /// interrupted downloads left in the assets directory.
    AlarmCorvel(AlarmEngine& engine, AlarmDB& db);

    /// Ends and joins the downloads that run.
    ~AlarmCorvel() override;

    /// Makes the parts that need the open bus. Once, before messages arrive. Main thread.
    void initOipcUtils(OipcHandleStruct* handle);

    /// Applies one directive. Throws std::out_of_range for a dotted name shorter than its cut.
    /// Messaging worker.
    void onMessage(boost::shared_ptr<CorvelMessaging::Message> message) override;

    /// Not supported: only logs.
    void onMessageWithAttachment(
        boost::shared_ptr<CorvelMessaging::Message> message,
        boost::shared_ptr<CorvelMessaging::CorvelMessageAttachmentReader> reader) override;

    /// Logs that there is nothing to be done.
    void handleStateUpdateEvent();

    /// Sends one message to the assistant daemon and waits for it to be accepted, 35 s at most.
    /// True on success. The document form prints the document and frees it in every case. Any
    /// thread.
    bool sendBasicMessage(const std::string& type, const std::string& body,
                          const std::string& nameSpace,
                          const CorvelMessaging::MessageRequestReplyContext& context);
    bool sendBasicMessage(const std::string& type, cJSON* body, const std::string& nameSpace,
                          const CorvelMessaging::MessageRequestReplyContext& context);

    // Events to the cloud; each is one send. Any thread but under the store mutex.
    void sendTimedEventStartNotice(const std::string& id, const std::string& clientId,
                                   bool isDynamicAlert);
    void sendTimedEventStopNotice(const std::string& id, const std::string& clientId,
                                  const CorvelMessaging::MessageRequestReplyContext& context);
    void sendTimedEventEditAcknowledged(const std::string& id, const std::string& clientId,
                                        const std::string& disposition,
                                        const CorvelMessaging::MessageRequestReplyContext& context);
    /// Echoes the received array, which stays the caller's; null leaves the key out.
    void sendTimedEventEditAcknowledged(const cJSON* ids, const std::string& clientId,
                                        const std::string& disposition,
                                        const CorvelMessaging::MessageRequestReplyContext& context);
    void sendAlertTypeChangedEvent(const std::string& id, const std::string& clientId,
                                   AlertMode mode);
    void sendNotificationIndicatorStateChanged(
        bool enabled, const CorvelMessaging::MessageRequestReplyContext& context);
    void sendStatusUpdate(int alarmVolume);

  private:
    /// One directive while it is handled. The document is onMessage's.
    struct Directive {
        const cJSON* json;
        std::string voiceRequestId;
        CorvelMessaging::MessageRequestReplyContext context;
    };

    /// What a notification with custom sounds rings with.
    struct Sounds {
        std::string playList;
        std::string shortAlertAsset;
        int loopCount = 2;
    };

    /// One thread that fetches an asset. `done` is set as the last thing it does.
    struct Download {
        std::atomic<bool> done{false};
        boost::thread thread;
    };

    // Readers: one per directive. Each reads its directive's members and calls the handler, or logs
    // what is missing and drops the directive. Messaging worker, like all that they call.
    void readSet(const Directive& directive);
    void readDelete(const Directive& directive);
    void readDeleteList(const Directive& directive);
    void readStop(const Directive& directive);
    void readList(const Directive& directive);
    void readEnable(const Directive& directive);
    void readDisable(const Directive& directive);
    void readNotify(const Directive& directive);

    /// The custom sounds of a "SetNotification"; starts their downloads.
    Sounds readSounds(const cJSON* json, const std::string& id, const std::string& shortAlertAsset);
    void startDownloads(const cJSON* assets, const std::string& id);

    // Handlers: apply a directive to the store, tell the engine, answer the cloud.
    void handleSetTimedEvent(const std::string& id, const std::string& clientId,
                             const std::string& type, const std::string& time,
                             const std::string& alertEarcon, bool isDynamicAlert,
                             const std::string& assetPlayList, int loopCount,
                             const std::string& shortAlertAsset, const std::string& voiceRequestId,
                             const CorvelMessaging::MessageRequestReplyContext& context);
    void handleDeleteTimedEvent(const std::string& id, const std::string& voiceRequestId,
                                const CorvelMessaging::MessageRequestReplyContext& context);
    /// `notificationIds` may be null.
    void handleDeleteNotifications(const cJSON* notificationIds, const std::string& voiceRequestId,
                                   const std::string& clientId,
                                   const CorvelMessaging::MessageRequestReplyContext& context);
    void handleStopTimedEvent(const std::string& id, const std::string& voiceRequestId,
                              const CorvelMessaging::MessageRequestReplyContext& context);
    void handleListTimedEvents(const CorvelMessaging::MessageRequestReplyContext& context);
    void handleMsgWaitingNotification(bool enable, bool earconEnabled,
                                      const std::string& earconFileName,
                                      const CorvelMessaging::MessageRequestReplyContext& context);

    /// Publishes the end of a ring that the directive ended, and ends the thinking indication.
    void silence(const std::string& voiceRequestId);

    /// Counts one set notification, plainly and split by kind; the result of the split metric,
    /// false for a type that has none.
    bool emitSetMetrics(std::string metricName, const std::string& type,
                        const std::string& assetPlayList, const std::string& triggerTime);

    /// Fetches one asset beside its final place and moves it there whole. Download thread.
    void downloadAssetFile(std::string url, std::string filePath);
    /// Starts a thread for it, after releasing those that have ended.
    void startDownload(const std::string& url, const std::string& filePath);

    AlarmEngine& m_engine;
    AlarmDB& m_db;
    std::unique_ptr<ThinkingModeUtil> m_thinkingMode;  ///< null until initOipcUtils
    metrics::MetricTimeEvent m_setBegin{"metricNotificationSetBegin"};
    metrics::MetricTimeEvent m_stoppedBegin{"metricNotificationStoppedBegin"};
    metrics::MetricTimeEvent m_setEnd{"metricNotificationSetEnd"};
    metrics::MetricTimeEvent m_stoppedEnd{"metricNotificationStoppedEnd"};
    AlarmMetrics m_metrics;
    /// Messaging worker. Owns nothing; filled and emptied by emitSetMetrics. May be null.
    GHashTable* m_metricMetadata;
    otaup::FileDownloader m_downloader;
    std::list<Download> m_downloads;  ///< messaging worker, then the destructor
};

}  // namespace alarmd
