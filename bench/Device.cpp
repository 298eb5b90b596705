#include "bench/Device.h"

#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tests/harness/System.h"

namespace bench {
namespace {

constexpr const char* k_bus = "org.freedesktop.DBus";

std::string pathOf(const std::string& service) {
    std::string path = "/" + service;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

GDBusMessage* noteNames(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                        gpointer timeline) {
    const bool isSignal = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL;
    if (incoming != FALSE && isSignal
        && g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") == 0) {
        const char* name = nullptr;
        const char* owner = nullptr;
        g_variant_get(g_dbus_message_get_body(message), "(&s&s&s)", &name, nullptr, &owner);
        if (*owner != '\0') {
            static_cast<harness::Timeline*>(timeline)->add(name, owner);
        }
    }
    return message;
}

}  // namespace

// --- Caller ---

Caller::Caller()
    : m_bus(g_dbus_connection_new_for_address_sync(
        harness::PrivateBus::k_address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr)),
      m_filter(g_dbus_connection_add_filter(m_bus, noteNames, &names, nullptr)) {
    GVariant* result = g_dbus_connection_call_sync(
        m_bus, k_bus, "/", k_bus, "AddMatch",
        g_variant_new("(s)", "type='signal',member='NameOwnerChanged',arg0namespace='com.quintel'"),
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    g_variant_unref(result);
}

Caller::~Caller() {
    g_dbus_connection_close_sync(m_bus, nullptr, nullptr);
    g_dbus_connection_remove_filter(m_bus, m_filter);
    g_object_unref(m_bus);
}

std::string Caller::get(const std::string& service, const std::string& property) {
    GError* error = nullptr;
    std::string value = read(service, property, &error);
    if (error != nullptr) {
        throw std::runtime_error(property + " of " + service + ": " + error->message);
    }
    return value;
}

std::string Caller::awaitProperty(const std::string& service, const std::string& property) {
    for (;;) {
        GError* error = nullptr;
        std::string value = read(service, property, &error);
        if (error == nullptr) {
            return value;
        }
        g_error_free(error);
    }
}

std::string Caller::read(const std::string& service, const std::string& property, GError** error) {
    GVariant* reply = g_dbus_connection_call_sync(
        m_bus, service.c_str(), pathOf(service).c_str(), "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", service.c_str(), property.c_str()), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, error);
    if (reply == nullptr) {
        return "";
    }
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    std::string text = g_variant_get_string(value, nullptr);
    g_variant_unref(value);
    g_variant_unref(reply);
    return text;
}

// --- Device ---

Device::Device() {
    setenv("TZ", "UTC", 1);
    std::filesystem::create_directories(harness::k_folder);
    for (const char* name : {"system_alerts_melodic_01.mp3", "system_alerts_melodic_01_short.wav",
                             "system_alerts_melodic_02.mp3", "system_alerts_melodic_02_short.wav",
                             "system_communications_sms_received_02.mp3"}) {
        harness::write(std::string("/var/local/earcon/") + name);
    }
    harness::write("/var/local/idme/dsn", "G0000000\n");
    harness::write("/var/local/idme/devicetype", "SPEAKER\n");
    for (const char* service :
         {"com.quintel.corveld", "com.quintel.earconPlayer", "com.quintel.audiod",
          "com.quintel.settingsd", "com.quintel.controld", "com.orun42.DeviceAuthenticationService",
          "com.orun42.system"}) {
        peer.behave(service, harness::Manner::Answer);
    }
    peer.provide("connectionState", "1");
    peer.provide("AlarmVolume", "50");
    peer.provide("com_brevan_corvel_ascendingAlarmVolume", "'disabled'");
    peer.provide("isRegistered", "1");
    peer.provide("deviceHasTime", "'true'");
}

void Device::start() {
    m_daemon.emplace(Lines{harness::binary(), "-f"});
}

void Device::settle() {
    const std::string probe = "{\"probe\":" + std::to_string(++m_probes) + "}";
    if (!harness::await([&] { return peer.deliver("probe", probe).empty(); })) {
        throw std::runtime_error("the daemon takes no messages");
    }
    log.timeline.take("", "json=" + probe + ":unknown message type");
}

void Device::stop() {
    const int status = m_daemon->end(SIGTERM);
    // It may take messages a moment before it takes the signal in good order.
    if (status != 0 && status != -SIGTERM) {
        throw std::runtime_error("the daemon ended with " + std::to_string(status));
    }
    m_daemon.reset();
}

void Device::fill(int count) {
    const std::filesystem::path file = harness::k_folder + "alarms.db";
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        std::filesystem::remove(file.string() + suffix);
    }
    // The daemon makes its tables itself, so that this knows nothing of them but the columns.
    start();
    settle();
    stop();
    harness::sql("INSERT INTO Notifications WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                 "FROM n WHERE i < "
                 + std::to_string(count)
                 + ") SELECT 'stored' || i, 'c1', "
                   "CASE i % 3 WHEN 0 THEN 'ALARM' WHEN 1 THEN 'TIMER' ELSE 'REMINDER' END, "
                   "strftime('%Y-%m-%dT%H:%M:%SZ', 1900000000 + 60 * i, 'unixepoch'), "
                   "'system_alerts_melodic_02', '0', '', '-1', '', '2' FROM n");
}

void Device::acknowledge() {
    peer.set("Acknowledge", "bench");
    peer.timeline.take("StatusChanged", "None");
}

// --- Bare ---

Lines bareCommand(const Lines& arguments) {
    Lines command{BARE_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

Bare::Bare(const Lines& arguments)
    : m_process(bareCommand(arguments)), m_pid(std::stoi(m_process.read('\n'))) {}

// --- BareStore ---

struct BareStore::Handles {
    sqlite3* file = nullptr;
    sqlite3_stmt* statement = nullptr;
};

BareStore::BareStore() : m_handles(std::make_unique<Handles>()) {
    const char* path = "/var/local/bare.db";
    std::filesystem::remove(path);
    sqlite3_open(path, &m_handles->file);
    sqlite3_exec(m_handles->file,
                 "PRAGMA journal_mode = PERSIST; PRAGMA synchronous = EXTRA;"
                 "PRAGMA journal_size_limit = 65536;"
                 "CREATE TABLE Bare (id PRIMARY KEY, client, type, time, earcon, is_dynamic,"
                 " assetPlayOrder, durationInSeconds, shortAlertAsset, loopCount)",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(m_handles->file,
                       "INSERT INTO Bare VALUES (?1, 'c1', 'TIMER', '2031-01-01T00:00:00Z', "
                       "'system_alerts_melodic_02', 0, '', -1, '', 2)",
                       -1, &m_handles->statement, nullptr);
}

BareStore::~BareStore() {
    sqlite3_finalize(m_handles->statement);
    sqlite3_close(m_handles->file);
}

void BareStore::insert(const std::string& id) {
    sqlite3_bind_text(m_handles->statement, 1, id.c_str(), -1, SQLITE_STATIC);
    if (sqlite3_step(m_handles->statement) != SQLITE_DONE) {
        throw std::runtime_error(sqlite3_errmsg(m_handles->file));
    }
    sqlite3_reset(m_handles->statement);
}

}  // namespace bench
