#include "alarmd/platform/DeviceMetrics.h"

#include <cjson/cJSON.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

namespace {

constexpr const char* k_collectorSocket = "/var/run/metrics-collector.sock";

struct DeleteJson {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

/// The collector reads UTF-8 only; names can come from a directive.
void addText(cJSON* object, const char* key, const char* value) {
    const std::unique_ptr<char, decltype(&g_free)> text(g_utf8_make_valid(value, -1), g_free);
    cJSON_AddStringToObject(object, key, text.get());
}

void addDimension(gpointer key, gpointer value, gpointer object) {
    const std::unique_ptr<char, decltype(&g_free)> name(
        g_utf8_make_valid(static_cast<const char*>(key), -1), g_free);
    addText(static_cast<cJSON*>(object), name.get(), static_cast<const char*>(value));
}

/// Sends one datagram without waiting. 0, or an error number.
int sendToCollector(const cJSON* json) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json),
                                                            cJSON_free);
    if (!text) {
        return ENOMEM;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, k_collectorSocket, sizeof(address.sun_path) - 1);
    const void* to = &address;
    const ssize_t sent =
        sendto(fd, text.get(), std::strlen(text.get()), MSG_DONTWAIT | MSG_NOSIGNAL,
               static_cast<const sockaddr*>(to), sizeof(address));
    const int error = sent < 0 ? errno : 0;
    close(fd);
    return error;
}

}  // namespace

int record_device_metric(const char* program, const char* source, const char* name, int value,
                         GHashTable* dimensions, int /*reserved1*/, int /*reserved2*/) {
    const Json json(cJSON_CreateObject());
    addText(json.get(), "program", program);
    addText(json.get(), "source", source);
    addText(json.get(), "name", name);
    cJSON_AddNumberToObject(json.get(), "value", value);
    cJSON* object = cJSON_AddObjectToObject(json.get(), "dimensions");
    if (object != nullptr && dimensions != nullptr) {
        g_hash_table_foreach(dimensions, addDimension, object);
    }
    return sendToCollector(json.get());
}

namespace metrics {

MetricTimeEvent::MetricTimeEvent(std::string name) : m_name(std::move(name)) {}

void MetricTimeEvent::setOipcHandle(OipcHandleStruct* handle) {
    m_handle = handle;
}

void MetricTimeEvent::emit(const std::string& text) const {
    if (m_handle == nullptr) {
        return;
    }
    using std::chrono::milliseconds;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const Json json(cJSON_CreateObject());
    addText(json.get(), "timer", m_name.c_str());
    cJSON_AddNumberToObject(
        json.get(), "monotonicMs",
        static_cast<double>(std::chrono::duration_cast<milliseconds>(now).count()));
    addText(json.get(), "text", text.c_str());
    static_cast<void>(sendToCollector(json.get()));
}

}  // namespace metrics
