#include "desk/Cloud.h"

#include <boost/make_shared.hpp>
#include <stdexcept>

#include "alarmd/Constants.h"
#include "desk/Json.h"
#include "desk/Service.h"

namespace desk {

using namespace CorvelMessaging;

namespace {
constexpr int k_sendLimitMs = 2000;
}

Cloud::Cloud(Timeline& timeline)
    : m_timeline(timeline),
      m_service(openService(alarmd::CORVELD_SERVICE)),
      m_connectionState(m_service, alarmd::CORVELD_CONNECTION_STATE_PROP, 1),
      m_queue(*this),
      m_endpoint(CorvelMessagingEndpoint::k_corveldName, m_queue) {
    if (m_endpoint.init() != 0) {
        throw std::runtime_error("the assistant's endpoint cannot be opened");
    }
    m_queue.workQueue().start();
}

void Cloud::setConnected(bool connected) {
    m_timeline.add(Source::Cloud, connected ? "is online" : "is offline");
    m_connectionState.set(connected ? 1 : 0);
}

void Cloud::refresh() {
    if (OipcSendIntEvent(m_service, alarmd::CORVELD_REFRESH_STATE_EVENT, 1) == OIPC_SUCCESS) {
        m_timeline.add(Source::Cloud, "asks for the state:", alarmd::CORVELD_REFRESH_STATE_EVENT);
    }
}

void Cloud::setNotification(const std::string& id, const std::string& type, Instant due) {
    const Json body(cJSON_CreateObject());
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_ID, id.c_str());
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_CLIENT, "desk");
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_TYPE, type.c_str());
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_TIME, timeString(due).c_str());
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_ALERT_EARCON,
                            type == alarmd::EVT_TYPE_TIMER
                                ? alarmd::ALARMD_DEFAULT_ALERT_EARCON_TIMER
                                : alarmd::ALARMD_DEFAULT_ALERT_EARCON_ALARM);
    send(alarmd::CORVEL_TIMED_SET_MSG, print(body));
}

void Cloud::deleteNotification(const std::string& id) {
    const Json body(cJSON_CreateObject());
    cJSON_AddStringToObject(body.get(), alarmd::ALARM_EVENT_ID, id.c_str());
    send(alarmd::CORVEL_TIMED_DELETE_MSG, print(body));
}

void Cloud::send(const std::string& name, const std::string& body) {
    m_timeline.add(Source::Cloud, "> " + name, body);
    const auto message = boost::make_shared<Message>(
        MessageType(alarmd::ALARM_MSG_NAMESPACE, name), MessageBody("application/json", body),
        MessageAttachment(), MessageVoiceRequest(), MessageRequestReplyContext(++m_lastDirective),
        static_cast<unsigned char>(0));
    const int result = m_endpoint.sendMessage(
        message, alarmd::ALARMD_OIPC_SERVICE + CorvelMessagingEndpoint::k_clientNameSuffix, false,
        k_sendLimitMs);
    if (result != 0) {
        m_timeline.add(Source::Cloud, "alarmd did not take " + name + ", result",
                       std::to_string(result));
    }
}

void Cloud::onMessage(boost::shared_ptr<Message> message) {
    const std::string lost = m_connectionState.get() == 0 ? "  (offline: lost)" : "";
    m_timeline.add(Source::Cloud, "< " + message->getType().getName(),
                   message->getBody().getBody() + lost);
}

void Cloud::onMessageWithAttachment(boost::shared_ptr<Message> message,
                                    boost::shared_ptr<CorvelMessageAttachmentReader>) {
    onMessage(message);
}

}  // namespace desk
