/// The bus and messaging interfaces on a real private bus, against raw D-Bus connections as the
/// other processes. The bus connection belongs to the process, so the tests share one service.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <set>

#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "alarmd/platform/Olog.h"
#include "tests/harness/Process.h"

namespace {

using namespace CorvelMessaging;
using harness::Lines;
using std::string;

const string k_service = "com.quintel.busd";
const string k_path = "/com/quintel/busd";
const string k_otherService = "com.quintel.otherd";
const string k_bus = "org.freedesktop.DBus";
const string k_properties = k_bus + ".Properties";

string print(GVariant* value) {
    g_autofree gchar* text = g_variant_print(value, FALSE);
    return text;
}

/// Another process: hears the service and sends signals of its own, and answers no call.
class Other {
  public:
    Other() {
        const int flags = G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
        m_bus = g_dbus_connection_new_for_address_sync(harness::PrivateBus::k_address,
                                                       static_cast<GDBusConnectionFlags>(flags),
                                                       nullptr, nullptr, nullptr);
        g_dbus_connection_add_filter(m_bus, onMessage, this, nullptr);
        askBus("AddMatch", "(\"type='signal',sender='com.quintel.busd'\",)");
    }
    ~Other() {
        g_dbus_connection_close_sync(m_bus, nullptr, nullptr);
        g_object_unref(m_bus);
    }

    /// The printed answer, or the last word of the error's name. Arguments are in GVariant's text.
    string call(const string& interface, const string& method, const string& arguments = "()",
                const string& path = k_path, const string& service = k_service) {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) result =
            g_dbus_connection_call_sync(m_bus, service.c_str(), path.c_str(), interface.c_str(),
                                        method.c_str(), g_variant_new_parsed(arguments.c_str()),
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, 20000, nullptr, &error);
        if (result != nullptr) {
            return print(result);
        }
        const string text = error->message;
        EXPECT_LT(text.size(), 2000U) << "the caller's own text may fill a message";
        return text.substr(0, text.find(": ")).substr(text.rfind("Error.") + 6);
    }
    string askBus(const char* method, const string& arguments) {
        return call(k_bus, method, arguments, "/org/freedesktop/DBus", k_bus);
    }
    string own() { return askBus("RequestName", "('" + k_otherService + "', uint32 4)"); }
    /// Reads "Property" or writes "Property=value" of the service.
    string ask(const string& question) {
        const std::size_t end = question.find('=');
        const string value = end == string::npos ? "" : ", <" + question.substr(end + 1) + ">";
        return call(k_properties, value.empty() ? "Get" : "Set",
                    "('" + k_service + "', '" + question.substr(0, end) + "'" + value + ")");
    }
    string deliver(const string& body, const string& more = "0, @ay []") {
        return call("com.quintel.CorvelMessaging1", "Deliver",
                    "('space', 'name', 'type', '" + body + "', '', " + more + ")");
    }
    /// Sends an event as the other service, to everybody or straight to the process under test.
    void emit(const string& arguments, bool isDirect = false) {
        g_dbus_connection_emit_signal(m_bus, isDirect ? k_service.c_str() : nullptr,
                                      "/com/quintel/otherd", k_otherService.c_str(), "Said",
                                      g_variant_new_parsed(arguments.c_str()), nullptr);
    }

    harness::Timeline timeline;

  private:
    static GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                   gpointer self) {
        const GDBusMessageType type = g_dbus_message_get_message_type(message);
        const bool isCall = type == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
        if (incoming && (isCall || type == G_DBUS_MESSAGE_TYPE_SIGNAL)
            && g_dbus_message_get_sender(message) != k_bus) {
            static_cast<Other*>(self)->timeline.add(g_dbus_message_get_member(message),
                                                    print(g_dbus_message_get_body(message)));
        }
        if (incoming && isCall) {
            g_clear_object(&message);
        }
        return message;
    }

    GDBusConnection* m_bus;
};

/// The process under test, and what it hears; a property's name says what its callback does.
class BusTest : public testing::Test, public CorvelMessageHandler {
  protected:
    static void SetUpTestSuite() {
        bus = std::make_unique<harness::PrivateBus>();
        int status = 0;
        handle = OipcOpenEx(k_service.c_str(), &status);
        ASSERT_EQ(status, 0) << OipcGetErrorString(status);
    }
    static void TearDownTestSuite() { bus.reset(); }
    ~BusTest() override { revoke(); }

    int subscribe(const string& service, const char* event) {
        return OipcSubscribeExt(handle, service.c_str(), event, hear, this);
    }
    /// A raw property, which is written when its name begins with S and else read.
    void add(const char* name) {
        const bool isSet = *name == 'S';
        EXPECT_EQ(0, OipcRegisterStringProperty(handle, name, isSet ? nullptr : get,
                                                isSet ? set : nullptr, this));
    }
    void revoke() { OipcRevokeCallbacks(this); }

    static inline OipcHandleStruct* handle;
    static inline std::unique_ptr<harness::PrivateBus> bus;
    harness::Timeline timeline;
    std::promise<void> gate;
    Other other;

  private:
    static int get(OipcHandleStruct*, const char* name, char* buffer, unsigned int* size, void*) {
        const int number = std::atoi(name + 1);
        if (*name != 'G') {
            return *name == 'R' ? number : throw std::runtime_error("thrown");
        }
        const bool fits = std::exchange(*size, number + 1) > static_cast<unsigned int>(number);
        std::snprintf(buffer, fits ? *size : 0, "%0*d", number, 0);
        return fits ? OIPC_SUCCESS : OIPC_BUFFER_TOO_SMALL;
    }
    static int set(OipcHandleStruct*, const char* name, const char* value, void* self) {
        static_cast<BusTest*>(self)->timeline.add(name, value);
        return std::atoi(name + 1);
    }
    static void hear(OipcHandleStruct*, const char* event, OipcEventHandleStruct* arguments,
                     void* data) {
        auto* self = static_cast<BusTest*>(data);
        string all;
        const char* text = "";
        int number = 0;
        while (OipcGetStringParam(arguments, &text) == 0
               || OipcGetIntParam(arguments, &number) == 0) {
            all += *text != '\0' ? std::exchange(text, "") : std::to_string(number);
        }
        self->timeline.add(event, all);
        if (all == "wait") {
            self->gate.get_future().wait();
            self->timeline.add("waited", "");
            throw 1;
        }
    }
    void onMessage(boost::shared_ptr<Message> message) override {
        timeline.add("message", message->getBody().getBody(),
                     message->getRequestReplyContext().getReconciliationId());
    }
    void onMessageWithAttachment(boost::shared_ptr<Message>,
                                 boost::shared_ptr<CorvelMessageAttachmentReader> reader) override {
        std::uint8_t bytes[3];
        while (const std::size_t size = reader->read(bytes, sizeof bytes)) {
            timeline.add("attachment", string(bytes, bytes + size));
        }
    }
};

TEST_F(BusTest, CallsGetTheirAnswersAndErrors) {
    const OipcProp::OipcString text(handle, "Text", "first", nullptr, nullptr, false);
    const OipcProp::OipcInt number(handle, "Number", 5);
    EXPECT_FALSE(OipcProp::OipcInt(handle, "Number", 6).isValid());
    EXPECT_FALSE(OipcProp::OipcInt(handle, "no name", 6).isValid());
    for (const char* name : {"G255", "G99999", "R2", "R8", "Throws", "S0", "S8", "S13"}) {
        add(name);
    }
    static std::atomic<std::uint32_t> mask{0x1A};
    OlogInitLogProperties(handle, &mask);
    const string huge(1U << 20U, 'x');
    const std::pair<string, Lines> cases[] = {
        {"()", {"S0='x'", "LogMask='0xfF'"}},
        {"AccessDenied", {"S0"}},
        {"PropertyReadOnly", {"G255='x'"}},
        {"Failed", {"R2", "Throws", "S13='x'"}},
        {"UnknownProperty", {"Missing", "Missing=1", "R8", "S8='x'", huge}},
        {"InvalidArgs",
         {"S0=1", "Text=1", "Number='1'", "Number=1.5", "LogMask=''", "LogMask='0x'",
          "LogMask='x1'", "LogMask='-1'", "LogMask='+1'", "LogMask=' 1'", "LogMask='1 '",
          "LogMask='4294967296'", "LogMask='0x100000000'"}},
        {"(<'first'>,)", {"Text"}},
        {"(<5>,)", {"Number"}},
        {"(<'0xFF'>,)", {"LogMask"}},
        {"(<'" + string(255, '0') + "'>,)", {"G255"}},
        {"(<'" + string(99999, '0') + "'>,)", {"G99999"}}};
    for (const auto& [answer, questions] : cases) {
        for (const string& question : questions) {
            EXPECT_EQ(other.ask(question), answer) << question.substr(0, 99);
        }
    }
    EXPECT_EQ(other.call(k_service, "Get"), "UnknownMethod");
    EXPECT_EQ(other.call("no.such", "Get"), "UnknownInterface");
    EXPECT_EQ(other.call(k_properties, "Get", "('" + huge + "', '')"), "UnknownInterface");
    EXPECT_EQ(other.call(k_service, "Get", "()", "/" + huge), "UnknownObject");
    EXPECT_EQ(other.call(k_properties, "Get"), "InvalidArgs");
    EXPECT_EQ(other.call(k_bus + ".Peer", "Ping", "()", "/"), "()");
    const string xml = other.call(k_bus + ".Introspectable", "Introspect");
    EXPECT_NE(xml.find("\"Number\" type=\"i\" access=\"readwrite\""), string::npos) << xml;
}

TEST_F(BusTest, EveryPublicationIsTwoSignalsInTheOrderOfTheValues) {
    OipcProp::OipcString text(handle, "Text", "first", nullptr, nullptr, false);
    EXPECT_TRUE(text.set("a", "") && text.set("a", "") && text.set(string("\xff\0z", 3), ""));
    // What a process asks of its own service goes over the bus, too.
    EXPECT_EQ(OipcSetStringProperty(handle, k_service.c_str(), "Text", "n\xffw"), 0);
    EXPECT_EQ(text.get(), "n\xEF\xBF\xBDw");
    EXPECT_EQ(OipcSendIntEvent(handle, "Event", 3), 0);
    EXPECT_NE(OipcSendStringEvent(handle, "no event", "e"), 0);
    other.ask("Text");  // A round trip: all that was sent before has come.
    Lines expected;
    for (const string value : {"a", "a", "\xEF\xBF\xBD\xEF\xBF\xBDz", "n\xEF\xBF\xBDw"}) {
        expected.push_back("PropertiesChanged ('com.quintel.busd', {'Text': <'" + value
                           + "'>}, [])");
        expected.push_back("TextChanged ('" + value + "',)");
    }
    expected.push_back("Event (3,)");
    EXPECT_EQ(other.timeline.takeAll(), expected);

    const auto write = [&text](char name) {
        for (int size = 1; size <= 100; ++size) {
            text.set(string(static_cast<unsigned int>(size), name), "");
        }
    };
    auto second = std::async(std::launch::async, write, 'a');
    write('b');
    second.wait();
    other.ask("Text");
    const Lines published = other.timeline.find("TextChanged");
    ASSERT_EQ(published.size(), 200U);
    EXPECT_EQ(published.back(), "TextChanged ('" + text.get() + "',)");
}

TEST_F(BusTest, OnlyTheOwnerOfTheServiceIsHeard) {
    Other stranger;
    EXPECT_EQ(subscribe(k_otherService, "Said"), 0);
    EXPECT_NE(subscribe("no.service!", "Said"), 0);
    other.emit("('nobody owns it',)", true);
    other.own();
    stranger.emit("('stranger',)");
    stranger.emit("('stranger',)", true);
    stranger.ask("Text");
    for (const char* arguments : {"('a',)", "(3, 'b')", "()", "(uint32 1,)", "('c', 1)"}) {
        other.emit(arguments, true);
    }
    other.askBus("ReleaseName", "('" + k_otherService + "',)");
    stranger.own();
    other.emit("('no longer',)", true);
    other.ask("Text");
    stranger.emit("('owner',)");
    timeline.take("Said", "owner");
    EXPECT_EQ(timeline.takeAll(), (Lines{"Said a", "Said 3b", "Said ", "Said ", "Said c1"}));
}

TEST_F(BusTest, SlowAndFailingHandlersHoldNobodyUpButTheRevocation) {
    other.own();
    EXPECT_EQ(subscribe(k_otherService, "Said"), 0);
    add("S0");
    other.emit("('wait',)");
    other.emit("('queued',)");
    timeline.take("Said", "wait");
    EXPECT_EQ(other.ask("S0='stop'"), "()");
    timeline.take("S0", "stop");
    auto revoked = std::async(std::launch::async, [this] { revoke(); });
    EXPECT_TRUE(harness::await([&] { return other.ask("S0='x'") == "UnknownProperty"; }));
    EXPECT_EQ(revoked.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate.set_value();
    revoked.get();
    EXPECT_EQ(timeline.find("waited").size(), 1U);
    EXPECT_EQ(timeline.find("queued").size(), 0U);
}

TEST_F(BusTest, MessagesAreQueuedInOrderUpToTheLimit) {
    CorvelMessageHandlerThreaded threaded(*this);
    WorkQueue& queue = threaded.workQueue();
    // An endpoint may have the name of a service of its process.
    auto endpoint = std::make_unique<CorvelMessagingEndpoint>(k_service, threaded);
    ASSERT_EQ(endpoint->init(), 0);
    other.own();
    EXPECT_NE(CorvelMessagingEndpoint(k_service, threaded).init(), 0);
    EXPECT_NE(CorvelMessagingEndpoint(k_otherService, threaded).init(), 0);
    EXPECT_EQ(other.deliver("", "0"), "InvalidArgs");
    EXPECT_THROW(queue.requestFinish(), std::logic_error);
    EXPECT_EQ(other.deliver("", "0, [byte 65, 66, 67, 68]"), "()");
    Lines expected{"attachment ABC", "attachment D"};
    for (int i = 1; i < 4096; ++i) {
        ASSERT_EQ(other.deliver("body", std::to_string(i) + ", @ay []"), "()");
        expected.push_back("message body #" + std::to_string(i));
    }
    EXPECT_EQ(other.deliver("one too many"), "LimitsExceeded");
    queue.start();
    queue.requestFinish();
    EXPECT_EQ(other.deliver("late"), "Failed");
    queue.waitFinish();
    EXPECT_EQ(timeline.takeAll(), expected);
    endpoint.reset();
    EXPECT_EQ(other.deliver("nobody"), "UnknownInterface");
}

TEST_F(BusTest, ALostBusEndsTheCallsAndComesBackWithEverything) {
    CorvelMessagingEndpoint endpoint(k_service, *this);
    ASSERT_EQ(endpoint.init(), 0);
    OipcProp::OipcString text(handle, "Text", "before", nullptr, nullptr, false);
    EXPECT_EQ(subscribe(k_service, "TextChanged"), 0);
    other.own();
    const auto send = [&endpoint](const string& destination, int limit) {
        const auto message = boost::make_shared<Message>(
            MessageType("space", "name"), MessageBody("type", "body"), MessageAttachment(),
            MessageVoiceRequest(), MessageRequestReplyContext(7), static_cast<unsigned char>(0));
        return endpoint.sendMessage(message, destination, false, limit);
    };
    EXPECT_EQ(send(k_service, 20000), 0);
    EXPECT_EQ(timeline.take("message").id, 7);
    std::set<int> results{0, send("no.body", 20000), send(k_bus, 20000), send(k_otherService, 50)};
    other.timeline.take("Deliver");
    auto cutOff = std::async(std::launch::async, send, k_otherService, 60000);
    other.timeline.take("Deliver");
    bus->crash();
    results.insert(cutOff.get());
    EXPECT_EQ(results.size(), 5U);  // All of them differ.
    EXPECT_EQ(results.count(send(k_otherService, 60000)), 1U);
    EXPECT_FALSE(text.set("meanwhile", ""));
    bus->start();
    timeline.take("TextChanged", "meanwhile");
    EXPECT_EQ(send(k_service, 20000), 0);
}

}  // namespace
