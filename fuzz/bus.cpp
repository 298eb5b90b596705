/// Messages as bytes, sent to the platform layer by a bus that checks nothing. A call must be
/// answered once, and an answer is also given to a call of the platform's own.
#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "alarmd/Log.h"
#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "alarmd/platform/Olog.h"
#include "fuzz/Target.h"

namespace {

using fuzz::require;
using MessagePtr = std::shared_ptr<GDBusMessage>;

constexpr const char* k_bus = "org.freedesktop.DBus";
constexpr const char* k_properties = "org.freedesktop.DBus.Properties";
constexpr const char* k_service = "com.quintel.alarmd";
constexpr const char* k_path = "/com/quintel/alarmd";
constexpr const char* k_other = "com.quintel.otherd";
constexpr const char* k_otherPath = "/com/quintel/otherd";
constexpr const char* k_otherOwner = ":1.8";
constexpr std::chrono::seconds k_deadline(30);
constexpr std::size_t k_headLength = 16;

MessagePtr adopt(GDBusMessage* message) {
    return MessagePtr(message, [](GDBusMessage* m) {
        if (m != nullptr) {
            g_object_unref(m);
        }
    });
}

MessagePtr copyOf(const MessagePtr& message) {
    return adopt(g_dbus_message_copy(message.get(), nullptr));
}

/// The bus with one client, the platform layer of this process.
class FakeBus {
  public:
    FakeBus() {
        m_context = g_main_context_new();
        g_main_context_push_thread_default(m_context);
        GError* error = nullptr;
        gchar* const guid = g_dbus_generate_guid();
        m_server = g_dbus_server_new_sync("unix:dir=/run", G_DBUS_SERVER_FLAGS_RUN_IN_THREAD, guid,
                                          nullptr, nullptr, &error);
        g_free(guid);
        require(m_server != nullptr, "there is no bus");
        g_main_context_pop_thread_default(m_context);
        g_signal_connect(m_server, "new-connection", G_CALLBACK(onConnection), this);
        g_dbus_server_start(m_server);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", g_dbus_server_get_client_address(m_server), 1);
        std::thread([this] {
            for (;;) {
                g_main_context_iteration(m_context, TRUE);
            }
        }).detach();
    }

    /// Sends a message and waits until all that was sent has been handled. How often it was
    /// answered.
    int deliver(const MessagePtr& message) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_answers = 0;
            m_awaited = send(message);
        }
        settle();
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_answers;
    }

    /// What calls to other services are answered with.
    void setAnswer(const MessagePtr& answer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = answer;
    }

    void noteEvent() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_eventsHaveSettled = true;
        m_changed.notify_all();
    }

  private:
    guint32 send(const MessagePtr& message) {
        guint32 serial = 0;
        g_dbus_connection_send_message(m_client, message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       &serial, nullptr);
        return serial;
    }

    /// Both queues of the platform layer run what stands before this.
    void settle() {
        const MessagePtr owner =
            adopt(g_dbus_message_new_signal("/org/freedesktop/DBus", k_bus, "NameOwnerChanged"));
        g_dbus_message_set_sender(owner.get(), k_bus);
        g_dbus_message_set_body(owner.get(), g_variant_new("(sss)", k_other, "", k_otherOwner));
        const MessagePtr event = adopt(g_dbus_message_new_signal(k_otherPath, k_other, "Settled"));
        g_dbus_message_set_sender(event.get(), k_otherOwner);
        const MessagePtr read =
            adopt(g_dbus_message_new_method_call(nullptr, k_path, k_properties, "Get"));
        g_dbus_message_set_body(read.get(), g_variant_new("(ss)", k_service, "Raw"));
        std::unique_lock<std::mutex> lock(m_mutex);
        m_eventsHaveSettled = false;
        m_propertiesHaveSettled = false;
        send(owner);
        send(event);
        m_lastRead = send(read);
        require(m_changed.wait_for(lock, k_deadline,
                                   [&] { return m_eventsHaveSettled && m_propertiesHaveSettled; }),
                "the platform does not answer any more");
    }

    static gboolean onConnection(GDBusServer*, GDBusConnection* connection, gpointer self) {
        auto* const bus = static_cast<FakeBus*>(self);
        const std::lock_guard<std::mutex> lock(bus->m_mutex);
        bus->m_client = G_DBUS_CONNECTION(g_object_ref(connection));
        g_dbus_connection_add_filter(connection, onMessage, self, nullptr);
        return TRUE;
    }

    static GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                   gpointer self) {
        if (!incoming) {
            return message;
        }
        static_cast<FakeBus*>(self)->take(adopt(message));
        return nullptr;
    }

    void take(const MessagePtr& message) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (g_dbus_message_get_message_type(message.get()) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            if ((g_dbus_message_get_flags(message.get()) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED)
                == 0) {
                send(answerTo(message));
            }
            return;
        }
        const guint32 serial = g_dbus_message_get_reply_serial(message.get());
        m_answers += serial != 0 && serial == m_awaited ? 1 : 0;
        if (serial != 0 && serial == m_lastRead) {
            m_propertiesHaveSettled = true;
            m_changed.notify_all();
        }
    }

    MessagePtr answerTo(const MessagePtr& call) {
        if (g_strcmp0(g_dbus_message_get_destination(call.get()), k_bus) != 0 && m_answer) {
            const MessagePtr answer = copyOf(m_answer);
            g_dbus_message_set_reply_serial(answer.get(), g_dbus_message_get_serial(call.get()));
            return answer;
        }
        const MessagePtr answer = adopt(g_dbus_message_new_method_reply(call.get()));
        const std::string member = g_dbus_message_get_member(call.get());
        GVariant* const result = member == "Hello"          ? g_variant_new("(s)", ":1.1")
                                 : member == "GetNameOwner" ? g_variant_new("(s)", k_otherOwner)
                                 : member == "RequestName"  ? g_variant_new("(u)", 1)
                                                            : g_variant_new("()");
        g_dbus_message_set_body(answer.get(), result);
        return answer;
    }

    GMainContext* m_context;
    GDBusServer* m_server;
    std::mutex m_mutex;  ///< guards all below
    GDBusConnection* m_client = nullptr;
    std::condition_variable m_changed;
    MessagePtr m_answer;
    guint32 m_awaited = 0;
    guint32 m_lastRead = 0;
    int m_answers = 0;
    bool m_eventsHaveSettled = false;
    bool m_propertiesHaveSettled = false;
};

class Handler final : public CorvelMessaging::CorvelMessageHandler {
  public:
    void onMessage(boost::shared_ptr<CorvelMessaging::Message>) override {}
    void onMessageWithAttachment(
        boost::shared_ptr<CorvelMessaging::Message>,
        boost::shared_ptr<CorvelMessaging::CorvelMessageAttachmentReader> reader) override {
        std::uint8_t buffer[16];
        while (reader->read(buffer, sizeof buffer) != 0) {
        }
    }
};

int readRaw(OipcHandleStruct*, const char*, char* buffer, unsigned int* size, void*) {
    return std::snprintf(buffer, *size, "raw") > 0 ? OIPC_SUCCESS : OIPC_INTERNAL_ERROR;
}

int writeRaw(OipcHandleStruct*, const char*, const char* value, void*) {
    return std::strlen(value) % 2 == 0 ? OIPC_SUCCESS : OIPC_INTERNAL_ERROR;
}

void onEvent(OipcHandleStruct*, const char*, OipcEventHandleStruct* event, void*) {
    const char* text = "";
    int number = 0;
    while (OipcGetStringParam(event, &text) == 0 || OipcGetIntParam(event, &number) == 0) {
        require(std::strlen(text) < SIZE_MAX, "a text has no end");
    }
}

void onSettled(OipcHandleStruct*, const char*, OipcEventHandleStruct*, void* bus) {
    static_cast<FakeBus*>(bus)->noteEvent();
}

void onLibraryLog(const gchar*, GLogLevelFlags, const gchar* text, gpointer) {
    require(false, text);
}

/// The platform layer as the daemon uses it; it stays, like its threads.
struct Platform {
    Platform() : handle(OipcOpenEx(k_service, &status)) {
        g_log_set_default_handler(onLibraryLog, nullptr);
        OlogInitLogProperties(handle, &g_orun42_log_mask);
        text = std::make_unique<OipcProp::OipcString>(handle, "Text", "", nullptr, nullptr, false);
        number = std::make_unique<OipcProp::OipcInt>(handle, "Number", 0);
        require(status == 0 && text->isValid() && number->isValid() && endpoint.init() == 0
                    && OipcRegisterStringProperty(handle, "Raw", readRaw, writeRaw, &bus) == 0
                    && OipcSubscribeExt(handle, k_other, "Event", onEvent, &bus) == 0
                    && OipcSubscribeExt(handle, k_other, "Settled", onSettled, &bus) == 0,
                "the platform does not start");
    }

    FakeBus bus;
    int status = 0;
    OipcHandleStruct* handle;
    std::unique_ptr<OipcProp::OipcString> text;
    std::unique_ptr<OipcProp::OipcInt> number;
    Handler handler;
    CorvelMessaging::CorvelMessagingEndpoint endpoint{"com.quintel.alarmd.corvel", handler};
};

void askOthers(Platform& platform, const MessagePtr& answer) {
    platform.bus.setAnswer(answer);
    char* text = nullptr;
    int number = 0;
    const int textStatus = OipcGetStringProperty(platform.handle, k_other, "Text", &text);
    const int intStatus = OipcGetIntProperty(platform.handle, k_other, "Number", &number);
    const int setStatus = OipcSetStringProperty(platform.handle, k_other, "Text", "");
    require((textStatus == 0) == (text != nullptr), "a text that was read is missing");
    require(textStatus != 0 || intStatus != 0, "an answer is a text and a number");
    require(textStatus != 0 || setStatus == 0, "an answer is none");
    OipcFreeString(text);
    platform.bus.setAnswer(nullptr);
}

/// Makes the length of the body fit, which no mutation of the bytes would.
void fixLength(std::vector<guchar>& bytes) {
    if (bytes[0] == 'l') {
        guint32 header = 0;
        std::memcpy(&header, &bytes[12], sizeof header);
        const std::size_t start = (k_headLength + header + 7) / 8 * 8;
        const auto body = static_cast<guint32>(bytes.size() - std::min(bytes.size(), start));
        std::memcpy(&bytes[4], &body, sizeof body);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Platform* const platform = new Platform;
    g_orun42_log_mask = 0;
    std::vector<guchar> bytes(data, data + size);
    bytes.resize(std::max(size, k_headLength));
    fixLength(bytes);
    GError* error = nullptr;
    const MessagePtr message = adopt(g_dbus_message_new_from_blob(
        bytes.data(), bytes.size(), G_DBUS_CAPABILITY_FLAGS_NONE, &error));
    if (message == nullptr) {
        g_clear_error(&error);
        return 0;
    }
    const std::unique_ptr<guchar, decltype(&g_free)> fields(
        g_dbus_message_get_header_fields(message.get()), &g_free);
    if (*fields == 0) {
        return 0;  // GDBus cannot send it
    }
    // A bus fills in who sent it.
    const char* const sender = g_dbus_message_get_sender(message.get());
    if (sender != nullptr && !g_dbus_is_name(sender)) {
        g_dbus_message_set_sender(message.get(), k_otherOwner);
    }
    const int type = g_dbus_message_get_message_type(message.get());
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR) {
        askOthers(*platform, message);
    }
    // Without a readable path and member there is nobody to answer.
    const bool isCall = type == G_DBUS_MESSAGE_TYPE_METHOD_CALL
                        && g_dbus_message_get_path(message.get()) != nullptr
                        && g_dbus_message_get_member(message.get()) != nullptr;
    const bool wantsAnswer =
        (g_dbus_message_get_flags(message.get()) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    // GDBus answers pings by itself, also those that want none.
    const bool isPing =
        g_strcmp0(g_dbus_message_get_interface(message.get()), "org.freedesktop.DBus.Peer") == 0;
    const int answers = platform->bus.deliver(message);
    require(answers == (isCall && wantsAnswer ? 1 : 0) || (isPing && answers == 1),
            "a call is not answered once");
    return 0;
}
