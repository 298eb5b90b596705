#include "desk/AlarmdClient.h"

#include <stdexcept>
#include <utility>

#include "alarmd/Constants.h"
#include "desk/Json.h"
#include "desk/Service.h"

namespace desk {

namespace {

constexpr const char* k_watched[] = {alarmd::ALARMD_STATUS_PROP_NAME,
                                     alarmd::ALARMD_EVENT_PROP_NAME,
                                     alarmd::ALARMD_NOTICE_PROP_NAME, alarmd::ALARMD_DND_PROP_NAME};
constexpr const char* k_changed = "Changed";

std::vector<Notification> parse(const std::string& document) {
    const Json json(cJSON_Parse(document.c_str()));
    std::vector<Notification> notifications;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(json.get(), alarmd::NOTIFICATIONS)) {
        notifications.push_back({member(item, alarmd::ALARM_EVENT_ID),
                                 member(item, alarmd::ALARM_EVENT_TYPE),
                                 member(item, alarmd::ALARM_EVENT_TIME)});
    }
    return notifications;
}

/// "t1 TIMER 2030-01-31T06:30:00Z, ..." for a document of notifications.
std::string shortForm(const std::string& document) {
    std::string text;
    for (const Notification& each : parse(document)) {
        text += (text.empty() ? "" : ", ") + each.id + " " + each.type
                + (each.time.empty() ? "" : " " + each.time);
    }
    return text.empty() ? document : text;
}

}  // namespace

AlarmdClient::AlarmdClient(Timeline& timeline, std::function<void(const std::string&)> onStatus)
    : m_timeline(timeline),
      m_onStatus(std::move(onStatus)),
      m_service(openService("com.quintel.desk")) {
    for (const char* property : k_watched) {
        const std::string event = std::string(property) + k_changed;
        const int status = OipcSubscribeExt(m_service, alarmd::ALARMD_OIPC_SERVICE, event.c_str(),
                                            &AlarmdClient::onChange, this);
        if (status != OIPC_SUCCESS) {
            throw std::runtime_error(event + ": " + OipcGetErrorString(status));
        }
    }
}

AlarmdClient::~AlarmdClient() {
    OipcRevokeCallbacks(this);
}

void AlarmdClient::onChange(OipcHandleStruct*, const char* eventName, OipcEventHandleStruct* event,
                            void* data) {
    auto* self = static_cast<AlarmdClient*>(data);
    const char* value = nullptr;
    if (OipcGetStringParam(event, &value) != OIPC_SUCCESS) {
        return;
    }
    const std::string name(eventName, std::string(eventName).rfind(k_changed));
    const bool isDocument = name == alarmd::ALARMD_EVENT_PROP_NAME;
    self->m_timeline.add(Source::Bus, name, isDocument ? shortForm(value) : value);
    if (name == alarmd::ALARMD_STATUS_PROP_NAME) {
        self->m_onStatus(value);
    }
}

void AlarmdClient::acknowledge() {
    write(alarmd::ALARMD_ACK_PROP, "stop");
}

void AlarmdClient::setDoNotDisturb(bool on) {
    write(alarmd::ALARMD_DND_PROP_NAME,
          on ? alarmd::ALARMD_DND_ENABLED_TRUE : alarmd::ALARMD_DND_ENABLED_FALSE);
}

void AlarmdClient::write(const char* property, const char* value) {
    const int status =
        OipcSetStringProperty(m_service, alarmd::ALARMD_OIPC_SERVICE, property, value);
    if (status != OIPC_SUCCESS) {
        complain(property, status);
    }
}

std::optional<std::string> AlarmdClient::property(const char* name) {
    char* text = nullptr;
    const int status = OipcGetStringProperty(m_service, alarmd::ALARMD_OIPC_SERVICE, name, &text);
    if (status != OIPC_SUCCESS) {
        complain(name, status);
        return std::nullopt;
    }
    std::string value = text;
    OipcFreeString(text);
    return value;
}

std::optional<std::vector<Notification>> AlarmdClient::list() {
    const auto document = property(alarmd::ALARMD_LIST_ALERTS_PROP);
    return document ? std::optional(parse(*document)) : std::nullopt;
}

void AlarmdClient::complain(const char* property, int status) {
    m_timeline.add(Source::Bus, std::string(property) + " of alarmd:", OipcGetErrorString(status));
}

}  // namespace desk
