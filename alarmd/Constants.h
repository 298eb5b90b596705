/// All names and values that are shared between the daemon's sources: event types, paths, bus
/// names, message names, JSON keys and metric names.
#pragma once

namespace alarmd {

// --- Event types; compared case-sensitively ---
constexpr const char* EVT_TYPE_ALARM = "ALARM";
constexpr const char* EVT_TYPE_TIMER = "TIMER";
constexpr const char* EVT_TYPE_REMINDER = "REMINDER";
constexpr const char* EVT_TYPE_NONE = "NONE";
constexpr const char* EVT_TYPE_ASCENDING_ALARM = "ASCENDINGALARM";
/// Identifier, client, time string and type of "no event".
constexpr const char* EVT_EMPTY = "*";

// --- Files ---
constexpr const char* ALARMD_PID_FILE = "/var/run/alarmd.pid";
constexpr const char* ALARMD_DB_FILE = "/var/local/alarmd/alarms.db";
constexpr const char* ALARMD_LEGACY_STATE_FILE = "/var/local/alarmd/alarms.txt";
constexpr const char* ALARMD_LEGACY_RETAINED_FILE = "/var/local/alarmd/retainedalarms.txt";
constexpr const char* ALARMD_DND_STATE_FILE = "/var/local/alarmd/DNDEnabled";
constexpr const char* ALARMD_ALERT_EARCON_SYMLINK_FILE = "/var/local/alarmd/alertEarcon.mp3";
constexpr const char* ALARMD_SHORT_ALERT_EARCON_SYMLINK_FILE =
    "/var/local/alarmd/alertEarconShort.wav";
constexpr const char* ALARMD_REMINDER_SHORT_ALERT_EARCON_SYMLINK_FILE =
    "/var/local/alarmd/alertEarconShort";
constexpr const char* ALARMD_NOTICE_EARCON_SYMLINK_FILE = "/var/local/alarmd/noticeEarcon.mp3";
constexpr const char* ALARMD_ASSETS_PATH = "/var/local/alarmd/assets/";
constexpr const char* ALARMD_PARTIAL_APPEND = ".partial";

// --- Earcons ---
constexpr const char* ALARMD_EARCON_PATH = "/var/local/earcon/";
constexpr const char* ALARMD_LONG_ALERT_APPEND = ".mp3";
constexpr const char* ALARMD_SHORT_ALERT_APPEND = "_short.wav";
constexpr const char* ALARMD_DEFAULT_ALERT_EARCON_ALARM = "system_alerts_melodic_01";
constexpr const char* ALARMD_DEFAULT_ALERT_EARCON_TIMER = "system_alerts_melodic_02";
constexpr const char* ALARMD_DEFAULT_ALERT_EARCON_REMINDER = "system_alerts_melodic_01";
constexpr const char* ALARMD_DEFAULT_NOTICE_EARCON = "system_communications_sms_received_02.mp3";
constexpr const char* ALARMD_ONE_SECOND_IN_MILLIS_BLANK_EARCON = "1000ms_blank.mp3";
constexpr const char* ALARMD_FOUR_SECOND_IN_MILLIS_BLANK_EARCON = "4000ms_blank.mp3";
constexpr const char* ALARMD_SIX_SECOND_IN_MILLIS_BLANK_EARCON = "6000ms_blank.mp3";
/// The most bytes that a play list may have: pauses of weeks and endless loops can be sent.
constexpr int ALARMD_MAX_PLAY_LIST = 1024 * 1024;

// --- Our service on the device bus ---
constexpr const char* ALARMD_OIPC_SERVICE = "com.quintel.alarmd";
constexpr const char* ALARMD_OIPC_STATUS_PROP_NAME = "AlarmdStarted";
constexpr const char* ALARMD_OIPC_STARTED_TRUE = "true";
constexpr const char* ALARMD_STATUS_PROP_NAME = "Status";
constexpr const char* ALARMD_STATUS_NONE = "None";
constexpr const char* ALARMD_STATUS_ALARM = "ALARM";
constexpr const char* ALARMD_STATUS_TIMER = "TIMER";
constexpr const char* ALARMD_STATUS_REMINDER = "REMINDER";
constexpr const char* ALARMD_STATUS_NAMED_TIMER = "NAMEDALARMTIMER";
constexpr const char* ALARMD_EVENT_PROP_NAME = "AlertTimedEvent";
constexpr const char* ALARMD_EVENT_EMPTY = "[]";
constexpr const char* ALARMD_NOTICE_PROP_NAME = "Notices";
constexpr const char* ALARMD_NOTICE_NONE = "None";
constexpr const char* ALARMD_NOTICE_MESSAGE = "MSG_WAITING";
constexpr const char* ALARMD_NOTICE_EARCON_ENABLED_PROP_NAME = "NoticesEarconEnabled";
constexpr const char* ALARMD_NOTICE_EARCON_ENABLED_TRUE = "true";
constexpr const char* ALARMD_NOTICE_EARCON_ENABLED_FALSE = "false";
constexpr const char* ALARMD_DND_PROP_NAME = "inDND";
constexpr const char* ALARMD_DND_CHANGED_EVENT = "inDNDChanged";
constexpr const char* ALARMD_DND_ENABLED_TRUE = "true";
constexpr const char* ALARMD_DND_ENABLED_FALSE = "false";
constexpr const char* ALARMD_ACK_PROP = "Acknowledge";
constexpr const char* ALARMD_LIST_ALERTS_PROP = "ListAlerts";

// --- Other services on the device bus ---
constexpr const char* CORVELD_SERVICE = "com.quintel.corveld";
constexpr const char* CORVELD_CONNECTION_STATE_PROP = "connectionState";
constexpr const char* CORVELD_CONNECTION_STATE_EVENT = "connectionStateChanged";
constexpr const char* CORVELD_REFRESH_STATE_EVENT = "refreshCloudState";
constexpr const char* CONTROLD_SERVICE = "com.quintel.controld";
constexpr const char* CONTROLD_ALARM_TYPE = "AlarmType";
constexpr const char* CONTROLD_ALARM_TYPE_EVENT = "AlarmTypeChanged";
constexpr const char* CONTROLD_NOTICES_LATCH_PROP = "noticeslatch";
constexpr const char* AUTHENTICATION_SERVICE = "com.orun42.DeviceAuthenticationService";
constexpr const char* AUTHENTICATION_REGISTERED_PROP = "isRegistered";
constexpr const char* AUTHENTICATION_REGISTRATION_EVENT = "registrationChanged";
constexpr const char* SYSTEM_SERVICE = "com.orun42.system";
constexpr const char* SYSTEM_HAS_TIME_PROP = "deviceHasTime";
constexpr const char* AUDIOD_SERVICE = "com.quintel.audiod";
constexpr const char* AUDIOD_ALARM_VOLUME_PROP = "AlarmVolume";
constexpr const char* SETTINGSD_SERVICE = "com.quintel.settingsd";
constexpr const char* SETTINGSD_ASCENDING_ALARM_PROP = "com_brevan_corvel_ascendingAlarmVolume";
constexpr const char* ALARMD_ASCENDING_ALARM_ENABLED = "enabled";
constexpr const char* ALARMD_ASCENDING_ALARM_DISABLED = "disabled";
constexpr const char* EARCON_PLAYER_SERVICE = "com.quintel.earconPlayer";
constexpr const char* EARCON_PLAYER_PLAY_LIST_PROP = "setPlayList";

// --- JSON documents and directives ---
constexpr const char* ALARM_STATE_KEY = "key";
constexpr const char* ALARM_STATE_VAL = "TimedNotificationState";
constexpr const char* NOTIFICATIONS = "notifications";
constexpr const char* ALARM_VOLUME_KEY = "alarmVolume";
constexpr const char* ALARM_ACTIVE_EVENTS_KEY = "activeNotifications";
constexpr const char* ALARM_EVENT_ID = "notificationId";
constexpr const char* ALARM_EVENT_IDS = "notificationIds";
constexpr const char* ALARM_EVENT_CLIENT = "clientId";
constexpr const char* ALARM_EVENT_TYPE = "notificationType";
constexpr const char* ALARM_EVENT_TIME = "notificationTime";
constexpr const char* ALARM_EVENT_ALERT_EARCON = "alertEarcon";
constexpr const char* ALARM_EVENT_SHORT_ALERT_ASSET = "shortAlertAsset";
constexpr const char* ALARM_EVENT_IS_DYNAMIC_ALERT = "isDynamicAlert";
constexpr const char* ALARM_EVENT_ASSETS = "assets";
constexpr const char* ALARM_EVENT_ASSET_ID = "assetId";
constexpr const char* ALARM_EVENT_ASSET_URL = "url";
constexpr const char* ALARM_EVENT_ASSET_PLAY_ORDER = "assetPlayOrder";
constexpr const char* ALARM_EVENT_ASSETS_LOOP_COUNT = "loopCount";
constexpr const char* ALARM_EVENT_LOOP_PAUSE_IN_MILLI_SECONDS = "loopPauseInMilliSeconds";
constexpr const char* ALARM_EVENT_DISPOSITION = "disposition";
constexpr const char* DISPOSITION_SET = "SET";
constexpr const char* DISPOSITION_DELETED = "DELETED";
constexpr const char* DISPOSITION_FAILED = "FAILED";
constexpr const char* CORVEL_NOTIFY_RENDER_BEHAVIOR = "renderBehavior";
constexpr const char* CORVEL_NOTIFY_PLAY_EARCON = "playEarcon";
constexpr const char* CORVEL_NOTIFY_DISPLAY_LED = "displayLed";
constexpr const char* CORVEL_NOTIFY_EARCON_FILE_NAME = "earconFileName";
constexpr const char* CORVEL_NOTIFICATION_EARCON_ENABLED = "isEarconEnabled";
constexpr const char* CORVEL_NOTIFICATION_ENABLED = "isEnabled";

// --- Message namespaces and names ---
constexpr const char* ALARM_MSG_NAMESPACE = "DeviceNotifications";
/// The odd spelling of this name is the one that all callers know.
constexpr const char* MSG_NOTIFICATION_NAMESPAGE = "NotificationIndicator";
constexpr const char* CORVEL_TIMED_SET_MSG = "SetNotification";
constexpr const char* CORVEL_TIMED_DELETE_MSG = "DeleteNotification";
constexpr const char* CORVEL_TIMED_DELETE_LIST_MSG = "DeleteNotifications";
constexpr const char* CORVEL_TIMED_STOP_MSG = "StopNotification";
constexpr const char* CORVEL_TIMED_LIST_MSG = "ListNotification";
constexpr const char* CORVEL_NOTIFICATION_ENABLE = "enable";
constexpr const char* CORVEL_NOTIFICATION_DISABLE = "disable";
constexpr const char* CORVEL_NOTIFY = "Notify";
constexpr const char* CORVEL_TIMED_STATUS_START_MSG = "NotificationStartedEvent";
constexpr const char* CORVEL_TIMED_STATUS_STOP_MSG = "NotificationStoppedEvent";
constexpr const char* CORVEL_TIMED_EDITACK_MSG = "EditAcknowledged";
constexpr const char* CORVEL_TIMED_LIST_RESPONSE = "NotificationList";
constexpr const char* CORVEL_TIMED_STATE_UPDATE_MSG = "StateUpdate";
constexpr const char* CORVEL_TIMED_FOREGROUNDED_MSG = "NotificationEnteredForegroundEvent";
constexpr const char* CORVEL_TIMED_BACKGROUNDED_MSG = "NotificationEnteredBackgroundEvent";
constexpr const char* CORVEL_NOTIFICATION_STATUS_MSG = "stateChanged";

// --- Metrics ---
constexpr const char* METRICS_PROGRAM_NAME = "metrics-collector";
constexpr const char* METRICS_SOURCE_NAME = "alarmd";
constexpr const char* KX_FORWARDING_PROGRAM_NAME = "METRICS_KX_FORWARDING";
constexpr const char* KX_FORWARDING_SOURCE_NAME = "7d2e9a14-c35b-4f08-b1e6-3a8c5f0d2b71/1/00470000";
constexpr const char* METRIC_SEPARATOR = ".";
constexpr const char* METRIC_UNKNOWN = "UNKNOWN";
constexpr const char* METRIC_SECOND_START = "NotificationDemonCrash";
constexpr const char* METRIC_SET_SUCCESS = "NotificationSetSuccess";
constexpr const char* METRIC_SET_FAILED = "NotificationSetFailed";
constexpr const char* METRIC_SET_METRIC_FAILURE = "NotificationSetMetricFailure";
constexpr const char* METRIC_DELETE_SUCCESS = "NotificationDeleteSuccess";
constexpr const char* METRIC_DELETE_FAILED = "NotificationDeleteFailed";
constexpr const char* METRIC_DELETE_METRIC_FAILURE = "NotificationDeleteMetricFailure";
constexpr const char* METRIC_ASSET_DOWNLOAD_FAILURE = "AssetDownloadFailure";
constexpr const char* METRIC_RINGING_DEFAULT_TONE = "RingingDefaultTone";
constexpr const char* METRIC_NAMED_PREFIX = "NAMED";
constexpr const char* METRIC_RINGING_ONLINE = "NotificationRingingDeviceOnline";
constexpr const char* METRIC_RINGING_OFFLINE = "NotificationRingingDeviceOffline";
constexpr const char* METRIC_STARTED_LATE = "NotificationStartedLate";
constexpr const char* METRIC_STARTED_RINGING = "NotificationStartedRinging";
constexpr const char* METRIC_TRIGGER_TIME_KEY = "triggerTime";
constexpr const char* METRIC_ACTUAL_DELETE_TIME_KEY = "actualDeleteTime";
constexpr const char* METRIC_DEVICE_TYPE_KEY = "deviceType";
constexpr const char* METRIC_DEVICE_ID_KEY = "deviceId";
constexpr const char* METRIC_METADATA_VERSION_KEY = "NotificationMetadataVersion";
constexpr const char* METRIC_METADATA_VERSION = "2.0";

}  // namespace alarmd
