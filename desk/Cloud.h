/// The assistant daemon on the device, com.quintel.corveld, and the cloud behind it.
#pragma once

#include <string>

#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "desk/Clock.h"
#include "desk/Timeline.h"

namespace desk {

/// Shows each event that the daemon sends it, as "< name", and sends directives, as "> name".
/// Operations are called by one thread at a time.
class Cloud : public CorvelMessaging::CorvelMessageHandler {
  public:
    /// Connected. Throws std::runtime_error when the bus refuses the service.
    explicit Cloud(Timeline& timeline);

    /// The connection to the cloud comes or goes; the daemon hears of it. Offline the events still
    /// reach the assistant daemon, and are lost there.
    void setConnected(bool connected);

    /// Asks the daemon to report its state.
    void refresh();

    /// Sets a notification of the type "ALARM", "TIMER" or "REMINDER", or deletes one. A directive
    /// that the daemon does not take gives a line on the timeline.
    void setNotification(const std::string& id, const std::string& type, Instant due);
    void deleteNotification(const std::string& id);

    void onMessage(boost::shared_ptr<CorvelMessaging::Message> message) override;
    void onMessageWithAttachment(
        boost::shared_ptr<CorvelMessaging::Message> message,
        boost::shared_ptr<CorvelMessaging::CorvelMessageAttachmentReader> reader) override;

  private:
    void send(const std::string& name, const std::string& body);

    Timeline& m_timeline;
    OipcHandleStruct* const m_service;
    OipcProp::OipcInt m_connectionState;
    int m_lastDirective = 0;
    CorvelMessaging::CorvelMessageHandlerThreaded m_queue;
    CorvelMessaging::CorvelMessagingEndpoint m_endpoint;  // goes before the queue that it feeds
};

}  // namespace desk
