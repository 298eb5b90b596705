#include <algorithm>
#include <utility>

#include "alarmd/platform/CorvelMessaging.h"

namespace CorvelMessaging {

MessageType::MessageType(std::string nameSpace, std::string name)
    : m_nameSpace(std::move(nameSpace)), m_name(std::move(name)) {}
const std::string& MessageType::getNamespace() const {
    return m_nameSpace;
}
const std::string& MessageType::getName() const {
    return m_name;
}

MessageBody::MessageBody(std::string contentType, std::string body)
    : m_contentType(std::move(contentType)), m_body(std::move(body)) {}
const std::string& MessageBody::getContentType() const {
    return m_contentType;
}
const std::string& MessageBody::getBody() const {
    return m_body;
}

MessageAttachment::MessageAttachment(std::vector<std::uint8_t> bytes) : m_bytes(std::move(bytes)) {}
const std::vector<std::uint8_t>& MessageAttachment::getBytes() const {
    return m_bytes;
}

MessageVoiceRequest::MessageVoiceRequest(std::string identifier)
    : m_identifier(std::move(identifier)) {}
bool MessageVoiceRequest::isEmpty() const {
    return m_identifier.empty();
}
const std::string& MessageVoiceRequest::getVoiceRequestIdentifier() const {
    return m_identifier;
}

MessageRequestReplyContext::MessageRequestReplyContext(int reconciliationId)
    : m_reconciliationId(reconciliationId) {}
int MessageRequestReplyContext::getReconciliationId() const {
    return m_reconciliationId;
}

Message::Message(MessageType type, MessageBody body, MessageAttachment attachment,
                 MessageVoiceRequest voiceRequest, MessageRequestReplyContext context,
                 unsigned char /*reserved*/)
    : m_type(std::move(type)),
      m_body(std::move(body)),
      m_attachment(std::move(attachment)),
      m_voiceRequest(std::move(voiceRequest)),
      m_context(context) {}
const MessageType& Message::getType() const {
    return m_type;
}
const MessageBody& Message::getBody() const {
    return m_body;
}
const MessageAttachment& Message::getAttachment() const {
    return m_attachment;
}
const MessageVoiceRequest& Message::getVoiceRequest() const {
    return m_voiceRequest;
}
const MessageRequestReplyContext& Message::getRequestReplyContext() const {
    return m_context;
}

CorvelMessageAttachmentReader::CorvelMessageAttachmentReader(
    boost::shared_ptr<const Message> message)
    : m_message(std::move(message)) {}

std::size_t CorvelMessageAttachmentReader::read(std::uint8_t* buffer, std::size_t capacity) {
    const std::vector<std::uint8_t>& bytes = m_message->getAttachment().getBytes();
    const std::size_t size = std::min(capacity, bytes.size() - m_position);
    std::copy_n(bytes.data() + m_position, size, buffer);
    m_position += size;
    return size;
}

}  // namespace CorvelMessaging
