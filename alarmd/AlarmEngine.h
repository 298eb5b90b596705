/// The daemon's centre: the timer thread that rings notifications, the service on the device bus,
/// and the retained stop notices. Owns the store and the cloud adapter.
#pragma once

#include <glib.h>

#include <atomic>
#include <boost/chrono/system_clocks.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <set>
#include <string>

#include "alarmd/AlarmCorvel.h"
#include "alarmd/AlarmDB.h"
#include "alarmd/AlarmMetrics.h"
#include "alarmd/Lock.h"
#include "alarmd/TimedEvent.h"
#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"

namespace alarmd {

/// What the ringing metrics tell; "" for what is not available.
struct NotificationMetricMetadata {
    std::string notificationId;
    std::string notificationVolume;
    std::string notificationType;
    std::string deviceState;  ///< "ONLINE" means online
    std::string scheduledTriggerTime;
    std::string actualTriggerTime;
    std::string monotonicTime;
    std::string ascendingVolume;
};

/// The type name in ringing metrics, from a play list, a stored type and a loop count. Any thread.
std::string getNotificationType(const std::string& text, const std::string& type, int count);

/// One per process. `main` constructs it, calls init, later terminate, and destroys it; the other
/// operations are for the threads named with them.
///
/// Lock order: engine mutex, stop-notice mutex, notice mutex, status mutex, store mutex, leaves.
/// The timer thread makes bus calls under the engine mutex, so no bus callback but that of the
/// alert type takes it.
class AlarmEngine {
  public:
    /// Opens the store (its exceptions pass). No thread runs and nothing is on the bus yet.
    explicit AlarmEngine(const std::string& dbPath);

    /// Revokes the bus callbacks, then ends and joins whatever thread still runs.
    ~AlarmEngine();
    AlarmEngine(const AlarmEngine&) = delete;
    AlarmEngine& operator=(const AlarmEngine&) = delete;

    /// Opens the bus and starts everything. False, logged, at the first thing that fails; what was
    /// made until then goes with the engine. Main thread, once.
    [[nodiscard]] bool init();

    /// Releases the endpoint and joins the worker, the timer, the silence and the stop-notice
    /// thread. While the device's clock is unknown it waits for that first. Throws std::logic_error
    /// on a second call and after an init that failed. Main thread.
    void terminate();

    /// The endpoint, or an empty pointer before init and after terminate. Any thread.
    boost::shared_ptr<CorvelMessaging::CorvelMessagingEndpoint> corvelClient();

    /// Makes the timer thread choose again, and sees to it that what no longer rings is silent in
    /// 2 s. Any thread; takes no lock that is held during a wait.
    void resetTimerThread();

    // What follows publishes properties, so it is for the time from a successful init on.

    /// Closes the end of a notification: publishes "None" as "Status" unless another notification
    /// rings by now. Any thread but under the store mutex.
    void silenceStatus();

    /// Publishes "None" as "Status" only if it names a ring that is over. For the end of every
    /// change that may have ended one. Any thread but under the store mutex.
    void settleStatus();

    /// Publishes a set or deleted notification in "AlertTimedEvent"; nothing, logged, when there is
    /// no memory for the document. Messaging worker and bus callbacks.
    void broadcastSetTimedEvent(const std::string& id, const std::string& client,
                                const std::string& type, const std::string& time, int loopCount,
                                const std::string& assetPlayOrder);
    void broadcastDeleteTimedEvents(const std::set<std::string>& ids);
    void broadcastDeleteTimedEvents(const std::string& id);

    /// Shows or clears the message-waiting notice; waits 2 s at most for the control daemon.
    /// Messaging worker and event thread.
    void setMessageWaitingNotification(bool indicator, bool earconEnabled,
                                       const std::string& earconFile);

    /// Keeps the stop notice of a notification that was due at `time`, rang and was ended, unless
    /// another is stored under its id by now: the cloud would take that one for stopped. Never
    /// waits for a send. Property thread.
    void retainEventForLater(const std::string& id, const std::string& client, TimePoint time);

    /// Sends the retained stop notices from a thread of its own, after the one that runs, if any:
    /// each call means one run, but for those after terminate, which mean none. Never waits for a
    /// send. Throws boost::thread_resource_error when no thread can be started. Main, timer and
    /// event thread.
    void startRetainedEventThread();

    /// Records the six metrics of one ringing. Timer thread.
    void emitNotificationRingingMetrics(const NotificationMetricMetadata& metadata, bool late);

    /// Whether every path of a ","-joined list exists; false for an empty list. Any thread.
    bool checkFilesExist(const std::string& files);

    /// Makes the links behind which the player finds the sounds; false, logged, at the first
    /// failure. The alert links: timer thread. The notice link: main thread, then under the notice
    /// mutex.
    bool updateAlertEarconSymlink(const std::string& longFile, const std::string& shortFile);
    bool updateNoticeEarconSymlink(const std::string& target);

  private:
    /// What the store chose to wait for, as getNextEvent filled it in.
    struct Selection {
        TimePoint time{};
        std::string type;
        std::string id;
        std::string client;
        std::string earcon;
        bool isDynamicAlert = false;
        std::string assetPlayOrder;
        int loopCount = 0;
        std::string shortAlertAsset;
    };

    /// How a notification sounds, and what "Status" calls it.
    struct RingSound {
        std::string playList;
        std::string shortFile;
        std::string status;
    };

    // --- Start and end; main thread ---
    [[nodiscard]] bool initEndpoint();
    [[nodiscard]] bool initProperties();
    [[nodiscard]] bool initCallbacks();
    void checkRegistration();
    void checkConnection();
    void releaseEndpoint();
    void endTimerThread();
    void endRetainedEventThread();

    /// Refreshes the time-known flag. Main thread before the timer thread starts, then that one.
    void checkTimeKnown();

    /// Stores the alert mode, after a ringing pass; true when it is another. Event thread.
    bool changeAlertMode(AlertMode mode) EXCLUDES(m_engineMutex);

    /// Publishes the "None" of a ring that has been over for 2 s. Whoever ends it does so behind a
    /// send of up to 35 s, the timer thread may be in another one, and until then it sounds on.
    void silenceThread() EXCLUDES(m_silenceMutex);

    // --- Timer thread ---
    void timeThread();
    /// One pass: choose, wait, and ring or give up. False when the thread is to end.
    bool timerPass() EXCLUDES(m_engineMutex);
    /// A start that already waits will send what this one is for.
    void startRetainedEventsIfPending();
    bool isTooOldOrTimeUnknown(const Selection& selection);
    void ring(const Selection& selection, const TimedEvent& ringing) REQUIRES(m_engineMutex);
    std::string readAscendingSetting();
    RingSound chooseSound(const TimedEvent& ringing, bool filesExist, const std::string& ascending);
    bool stillRings(const TimedEvent& ringing);
    void giveUp(const Selection& selection) REQUIRES(m_engineMutex);
    void publishRingStatus(const TimedEvent& ringing, const std::string& status);
    int readAlarmVolume();

    /// Whether the store's current event rings, and whether "Status" names a ring that is over. Any
    /// thread but under the store mutex.
    bool isRinging();
    bool isSilenceOwed();

    // --- Stop notices ---
    void noteRetained(const std::string& id) REQUIRES(m_stopNoticeMutex);
    bool isRetainedStartWaiting() EXCLUDES(m_workerMutex);
    void launchRetainedEventThread() REQUIRES(m_workerMutex);
    void retainedEventThread();
    void sendAnyRetainedEvents();
    void sendStopNotices(const AlarmDB::StopNotices& notices) EXCLUDES(m_stopNoticeMutex);
    /// Tells the cloud of one that has ended, unless it was set anew. Stop-notice thread and
    /// property thread.
    void sendStopNotice(const std::string& id, const std::string& client);
    /// The saved notices that were not sent in this run; false when they could not be read.
    [[nodiscard]] bool readUnsentNotices(AlarmDB::StopNotices& unsent) REQUIRES(m_stopNoticeMutex);

    /// Whether what is sent now can leave: the endpoint is not released and the bus is there; and
    /// whether it can arrive: the assistant is connected too. Any thread.
    bool canSend() { return corvelClient() != nullptr && OipcIsOnBus(m_oipcHandle); }
    bool isConnected() { return m_connectionState != 0 && canSend(); }

    // --- Bus callbacks; `data` is the engine ---
    static int getAllAlerts(OipcHandleStruct* handle, const char* property, char* buffer,
                            unsigned int* size, void* data);
    static int acknowledgeEvent(OipcHandleStruct* handle, const char* property, const char* value,
                                void* data);
    static void setDNDNotificationUpdateEvent(OipcHandleStruct* handle, const char* eventName,
                                              OipcEventHandleStruct* event, void* data);
    static void corvelStatusEvent(OipcHandleStruct* handle, const char* eventName,
                                  OipcEventHandleStruct* event, void* data);
    static void corvelStateUpdateEvent(OipcHandleStruct* handle, const char* eventName,
                                       OipcEventHandleStruct* event, void* data);
    static void alarmTypeUpdateEvent(OipcHandleStruct* handle, const char* eventName,
                                     OipcEventHandleStruct* event, void* data);
    static void registrationEventHandler(OipcHandleStruct* handle, const char* eventName,
                                         OipcEventHandleStruct* event, void* data);

    // The members stand in the order in which they are built; they go in the reverse one, after the
    // destructor has ended everything that uses them.
    OipcHandleStruct* m_oipcHandle = nullptr;  ///< owned by the library, never closed
    AlarmDB m_db;
    AlarmCorvel m_corvel;
    CorvelMessaging::CorvelMessageHandlerThreaded m_threadedHandler;
    bool m_workQueueRuns = false;  ///< main thread

    Mutex m_clientMutex{LockRank::Leaf};
    boost::shared_ptr<CorvelMessaging::CorvelMessagingEndpoint> m_corvelClient
        GUARDED_BY(m_clientMutex);

    boost::shared_ptr<boost::thread> m_timerThread;  ///< main thread
    Mutex m_workerMutex{LockRank::Leaf};             ///< start and end of the stop-notice thread
    boost::shared_ptr<boost::thread> m_retainedThread GUARDED_BY(m_workerMutex);
    bool m_retainedThreadRuns GUARDED_BY(m_workerMutex) = false;
    bool m_retainedThreadHasEnded GUARDED_BY(m_workerMutex) = false;  ///< for good
    unsigned m_retainedStartsWaiting GUARDED_BY(m_workerMutex) = 0;

    WakeCondition m_timerCondition;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_timeKnown{false};
    boost::chrono::steady_clock::time_point m_timerThreadStart;  ///< timer thread

    WakeCondition m_silenceCondition;
    Mutex m_silenceMutex{LockRank::Leaf};  ///< held by its thread to wait, guards nothing
    boost::thread m_silenceThread;         ///< main thread

    Mutex m_engineMutex{LockRank::Engine};
    Mutex m_stopNoticeMutex{LockRank::StopNotice};
    /// Ids of the saved notices that the running stop-notice thread has sent or is about to.
    std::set<std::string> m_sentNotices GUARDED_BY(m_stopNoticeMutex);

    boost::shared_ptr<OipcProp::OipcString> m_statusProp;
    boost::shared_ptr<OipcProp::OipcString> m_eventProp;
    boost::shared_ptr<OipcProp::OipcString> m_noticeProp;
    boost::shared_ptr<OipcProp::OipcString> m_noticeEarconEnabledProp;
    boost::shared_ptr<OipcProp::OipcString> m_dndProp;
    boost::shared_ptr<OipcProp::OipcString> m_startedProp;

    Mutex m_connectionMutex{LockRank::Leaf};  ///< writers of the connection state
    bool m_connectionHeard GUARDED_BY(m_connectionMutex) = false;
    std::atomic<int> m_connectionState{0};
    AlertMode m_alertMode GUARDED_BY(m_engineMutex) = AlertMode::None;
    std::atomic<bool> m_retainedEventsPending{false};
    AlarmMetrics m_metrics;
    GHashTable* m_metricMetadata = nullptr;  ///< timer thread

    Mutex m_statusMutex{LockRank::Status};
    Mutex m_noticeMutex{LockRank::Notice};
    std::atomic<bool> m_messageWaiting{false};
    std::string m_noticeEarcon GUARDED_BY(m_noticeMutex);
};

}  // namespace alarmd
