#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "alarmd/platform/CorvelMessaging.h"
#include "device/bus/Bus.h"

namespace CorvelMessaging {
namespace {

using device::Bus;
using device::Call;
using device::Guard;

constexpr const char* k_interface = "com.quintel.CorvelMessaging1";
constexpr const char* k_deliver = "Deliver";
constexpr const char* k_signature = "sssssiay";

boost::shared_ptr<Message> toMessage(GVariant* arguments) {
    const char* nameSpace = nullptr;
    const char* name = nullptr;
    const char* contentType = nullptr;
    const char* body = nullptr;
    const char* voiceRequest = nullptr;
    gint32 reconciliationId = 0;
    GVariant* attachment = nullptr;
    g_variant_get(arguments, "(&s&s&s&s&si@ay)", &nameSpace, &name, &contentType, &body,
                  &voiceRequest, &reconciliationId, &attachment);
    gsize size = 0;
    const auto* bytes =
        static_cast<const std::uint8_t*>(g_variant_get_fixed_array(attachment, &size, 1));
    std::vector<std::uint8_t> copy;
    if (size != 0) {
        copy.assign(bytes, bytes + size);
    }
    g_variant_unref(attachment);
    return boost::shared_ptr<Message>(
        new Message(MessageType(nameSpace, name), MessageBody(contentType, body),
                    MessageAttachment(std::move(copy)), MessageVoiceRequest(voiceRequest),
                    MessageRequestReplyContext(reconciliationId), 0));
}

GVariant* toArguments(const Message& message) {
    const std::vector<std::uint8_t>& bytes = message.getAttachment().getBytes();
    GVariant* const arguments[] = {
        device::newText(message.getType().getNamespace()),
        device::newText(message.getType().getName()),
        device::newText(message.getBody().getContentType()),
        device::newText(message.getBody().getBody()),
        device::newText(message.getVoiceRequest().getVoiceRequestIdentifier()),
        g_variant_new_int32(message.getRequestReplyContext().getReconciliationId()),
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1),
    };
    return g_variant_new_tuple(arguments, std::size(arguments));
}

void handOver(CorvelMessageHandler& handler, const boost::shared_ptr<Message>& message) {
    if (message->getAttachment().getBytes().empty()) {
        handler.onMessage(message);
    } else {
        handler.onMessageWithAttachment(message, boost::shared_ptr<CorvelMessageAttachmentReader>(
                                                     new CorvelMessageAttachmentReader(message)));
    }
}

}  // namespace

const std::string CorvelMessagingEndpoint::k_clientNameSuffix = ".corvel";
const std::string CorvelMessagingEndpoint::k_corveldName = "com.quintel.corveld";

struct CorvelMessagingEndpoint::Impl final : device::Served {
    Impl(std::string endpoint, CorvelMessageHandler& messageHandler)
        : name(std::move(endpoint)), handler(messageHandler) {}

    const char* interfaceName() const override { return k_interface; }
    std::string describe() const override;
    bool take(const Call& call, Guard& lock) override;

    const std::string name;
    CorvelMessageHandler& handler;
    bool isOpen = false;  ///< written by init(), read by the destructor
};

std::string CorvelMessagingEndpoint::Impl::describe() const {
    return std::string("\n <interface name=\"") + k_interface + R"(">
  <method name="Deliver">
   <arg name="nameSpace" type="s" direction="in"/>
   <arg name="name" type="s" direction="in"/>
   <arg name="contentType" type="s" direction="in"/>
   <arg name="body" type="s" direction="in"/>
   <arg name="voiceRequestId" type="s" direction="in"/>
   <arg name="reconciliationId" type="i" direction="in"/>
   <arg name="attachment" type="ay" direction="in"/>
  </method>
 </interface>)";
}

bool CorvelMessagingEndpoint::Impl::take(const Call& call, Guard& /*lock*/) {
    if (!call.is(k_interface, k_deliver)) {
        if (std::strcmp(call.interface(), k_interface) != 0) {
            return false;
        }
        call.fail(device::ERROR_UNKNOWN_METHOD, "There is no such method.");
        return true;
    }
    if (!call.hasSignature(k_signature)) {
        call.fail(device::ERROR_INVALID_ARGS, "The arguments have other types.");
        return true;
    }
    // Under the lock, which whatever the message leads to has to wait for: so the answer leaves
    // first.
    try {
        handOver(handler, toMessage(call.arguments()));
        call.reply();
    } catch (const QueueFull& e) {
        call.fail(device::ERROR_LIMITS_EXCEEDED, e.what());
    } catch (const std::exception& e) {
        call.fail(device::ERROR_FAILED, e.what());
    }
    return true;
}

CorvelMessagingEndpoint::CorvelMessagingEndpoint(const std::string& name,
                                                 CorvelMessageHandler& handler)
    : m_impl(std::make_unique<Impl>(name, handler)) {}

CorvelMessagingEndpoint::~CorvelMessagingEndpoint() {
    if (m_impl->isOpen) {
        Bus::instance().close(m_impl->name, *m_impl);
    }
}

int CorvelMessagingEndpoint::init() {
    const int status = Bus::instance().open(m_impl->name, *m_impl);
    m_impl->isOpen = m_impl->isOpen || status == 0;
    return status;
}

int CorvelMessagingEndpoint::sendMessage(boost::shared_ptr<Message> message,
                                         const std::string& destination, bool /*flag*/,
                                         int timeoutMs) {
    if (!device::isServiceName(destination)) {
        return device::STATUS_INVALID_NAME;
    }
    const device::MessagePtr call =
        device::newCall(destination, k_interface, k_deliver, toArguments(*message));
    Guard lock = Bus::instance().lock();
    return Bus::instance().call(lock, call, std::chrono::milliseconds(timeoutMs)).status;
}

}  // namespace CorvelMessaging
