/// Messages to and from the cloud voice assistant, by way of the assistant daemon on the device.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace CorvelMessaging {

/// Namespace and name of a message, in this order.
class MessageType {
  public:
    MessageType(std::string nameSpace, std::string name);
    const std::string& getNamespace() const;
    const std::string& getName() const;

  private:
    std::string m_nameSpace;
    std::string m_name;
};

/// Content type ("application/json") and text of a message.
class MessageBody {
  public:
    MessageBody(std::string contentType, std::string body);
    const std::string& getContentType() const;
    const std::string& getBody() const;

  private:
    std::string m_contentType;
    std::string m_body;
};

/// Bytes beside the body; empty for most messages.
class MessageAttachment {
  public:
    MessageAttachment() = default;
    explicit MessageAttachment(std::vector<std::uint8_t> bytes);
    const std::vector<std::uint8_t>& getBytes() const;

  private:
    std::vector<std::uint8_t> m_bytes;
};

/// The voice request that caused a message, if any.
class MessageVoiceRequest {
  public:
    MessageVoiceRequest() = default;
    explicit MessageVoiceRequest(std::string identifier);
    bool isEmpty() const;
    const std::string& getVoiceRequestIdentifier() const;

  private:
    std::string m_identifier;
};

/// Ties a reply to its directive: an inbound message carries its sender's id, a reply sent with the
/// same context carries it back. Default-constructed (id 0) for what nobody asked for.
class MessageRequestReplyContext {
  public:
    MessageRequestReplyContext() = default;
    explicit MessageRequestReplyContext(int reconciliationId);
    int getReconciliationId() const;

  private:
    int m_reconciliationId = 0;
};

/// One message; immutable, so it may be read by any thread.
class Message {
  public:
    Message(MessageType type, MessageBody body, MessageAttachment attachment,
            MessageVoiceRequest voiceRequest, MessageRequestReplyContext context,
            unsigned char reserved);
    const MessageType& getType() const;
    const MessageBody& getBody() const;
    const MessageAttachment& getAttachment() const;
    const MessageVoiceRequest& getVoiceRequest() const;
    const MessageRequestReplyContext& getRequestReplyContext() const;

  private:
    MessageType m_type;
    MessageBody m_body;
    MessageAttachment m_attachment;
    MessageVoiceRequest m_voiceRequest;
    MessageRequestReplyContext m_context;
};

/// Reads an attachment from start to end. Used by one thread at a time.
class CorvelMessageAttachmentReader {
  public:
    explicit CorvelMessageAttachmentReader(boost::shared_ptr<const Message> message);

    /// Copies at most `capacity` bytes, returns how many; 0 at the end.
    std::size_t read(std::uint8_t* buffer, std::size_t capacity);

  private:
    boost::shared_ptr<const Message> m_message;
    std::size_t m_position = 0;
};

/// Takes inbound messages. Which thread calls depends on who was given the handler.
class CorvelMessageHandler {
  public:
    virtual ~CorvelMessageHandler() = default;
    CorvelMessageHandler(const CorvelMessageHandler&) = delete;
    CorvelMessageHandler& operator=(const CorvelMessageHandler&) = delete;

    virtual void onMessage(boost::shared_ptr<Message> message) = 0;
    virtual void onMessageWithAttachment(
        boost::shared_ptr<Message> message,
        boost::shared_ptr<CorvelMessageAttachmentReader> reader) = 0;

  protected:
    CorvelMessageHandler() = default;
};

/// Leaves a threaded handler whose queue is full: the sender is told, nothing else happens.
class QueueFull : public std::runtime_error {
  public:
    QueueFull() : std::runtime_error("The message queue is full.") {}
};

/// Leaves a threaded handler that is finishing: the sender is told that the message was not taken.
class QueueClosed : public std::runtime_error {
  public:
    QueueClosed() : std::runtime_error("The message queue is closed.") {}
};

/// The queue of a threaded handler and its one worker thread. Operations may be called from any
/// thread but the worker; the complaints are std::logic_error.
class WorkQueue {
  public:
    virtual ~WorkQueue() = default;

    /// Starts the worker, which handles what was queued before too.
    /// Throws "WorkQueue::start(): Already started." on a second call.
    virtual void start() = 0;

    /// Asks the worker to end once it has handled all that is queued at this moment; later messages
    /// are refused. Throws "WorkQueue::requestFinish(): Not started." or
    /// "WorkQueue::requestFinish(): Finish already requested.".
    virtual void requestFinish() = 0;

    /// Joins the worker. Throws "WorkQueue::waitFinish(): Finish not requested.".
    virtual void waitFinish() = 0;
};

/// Queues messages (4,096 at most besides the one being handled, in order of arrival) and hands
/// them to another handler one at a time on its own thread. onMessage never waits. An exception
/// that leaves the other handler ends that one message and is logged. Destroying it ends the worker
/// as requestFinish and waitFinish would, if that was not done before.
class CorvelMessageHandlerThreaded : public CorvelMessageHandler {
  public:
    /// `handler` must outlive this object.
    explicit CorvelMessageHandlerThreaded(CorvelMessageHandler& handler);
    ~CorvelMessageHandlerThreaded() override;

    /// Throws QueueFull, and QueueClosed once the finish is requested.
    void onMessage(boost::shared_ptr<Message> message) override;
    void onMessageWithAttachment(boost::shared_ptr<Message> message,
                                 boost::shared_ptr<CorvelMessageAttachmentReader> reader) override;

    WorkQueue& workQueue();

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// A named place that messages are delivered to and sent from. Safe for several threads at once.
class CorvelMessagingEndpoint {
  public:
    /// What a service appends to its name to get its endpoint's name: ".corvel".
    static const std::string k_clientNameSuffix;
    /// The assistant daemon on the device, "com.quintel.corveld".
    static const std::string k_corveldName;

    /// Nothing happens until init(). `handler` must outlive this object. It is called on the bus's
    /// own delivery thread under the library's lock, so it may only queue: give a
    /// CorvelMessageHandlerThreaded. An exception that leaves it is the sender's error.
    CorvelMessagingEndpoint(const std::string& name, CorvelMessageHandler& handler);

    /// Takes the endpoint away from the bus and waits for a delivery that runs.
    virtual ~CorvelMessagingEndpoint();
    CorvelMessagingEndpoint(const CorvelMessagingEndpoint&) = delete;
    CorvelMessagingEndpoint& operator=(const CorvelMessagingEndpoint&) = delete;

    /// Takes the name on the bus; from now on messages are delivered, and again after a lost bus.
    /// Waits 4 s at most. 0, or a non-zero status when the bus is away or the name is taken (by
    /// this object too).
    [[nodiscard]] virtual int init();

    /// Delivers a message to the endpoint `destination` and waits for the answer, `timeoutMs`
    /// milliseconds at most. 0 when it was accepted; another value for each other case (no bus, no
    /// such endpoint, refused, timed out). `flag` has no effect.
    [[nodiscard]] virtual int sendMessage(boost::shared_ptr<Message> message,
                                          const std::string& destination, bool flag, int timeoutMs);

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace CorvelMessaging
