/// The bus and messaging interfaces on a real private bus, against raw D-Bus connections as the
/// other processes. The bus connection belongs to the process, so the tests share one service.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <cstring>
#include <future>
#include <set>

#include "alarmd/Log.h"
#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "alarmd/platform/Olog.h"
#include "tests/harness/Process.h"

namespace {

using namespace CorvelMessaging;
using harness::Lines;
using std::string;

const string k_service = "com.quintel.busd";
const string k_otherService = "com.quintel.otherd";
const string k_bus = "org.freedesktop.DBus";
const string k_properties = k_bus + ".Properties";
const string k_messaging = "com.quintel.CorvelMessaging1";

string pathOf(const string& name) {
    string path = "/" + name;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

string print(GVariant* value) {
    const std::unique_ptr<gchar, decltype(&g_free)> text(g_variant_print(value, FALSE), g_free);
    return text.get();
}

/// Another process: hears all signals of the service, and sends those of its own.
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
    string call(const string& service, const string& path, const string& interface,
                const char* method, const string& arguments = "()") {
        GError* error = nullptr;
        GVariant* result =
            g_dbus_connection_call_sync(m_bus, service.c_str(), path.c_str(), interface.c_str(),
                                        method, g_variant_new_parsed(arguments.c_str()), nullptr,
                                        G_DBUS_CALL_FLAGS_NONE, 20000, nullptr, &error);
        string text = result != nullptr ? print(result) : error->message;
        if (error != nullptr) {
            text = text.substr(0, text.find(": ")).substr(text.rfind("Error.") + 6);
            g_error_free(error);
        } else {
            g_variant_unref(result);
        }
        return text;
    }
    string askBus(const char* method, const string& arguments) {
        return call(k_bus, pathOf(k_bus), k_bus, method, arguments);
    }
    string own() { return askBus("RequestName", "('" + k_otherService + "', uint32 4)"); }
    /// Reads "Property" or writes "Property=value" of the service.
    string ask(const string& question) {
        const std::size_t end = question.find('=');
        const string property = "('" + k_service + "', '" + question.substr(0, end) + "'";
        return call(
            k_service, pathOf(k_service), k_properties, end == string::npos ? "Get" : "Set",
            property + (end == string::npos ? ")" : ", <" + question.substr(end + 1) + ">)"));
    }
    string deliver(const string& endpoint, const string& body, const string& more = "0, @ay []") {
        return call(endpoint, pathOf(endpoint), k_messaging, "Deliver",
                    "('space', 'name', 'type', '" + body + "', '', " + more + ")");
    }
    /// Sends an event as the other service, to everybody or straight to the process under test.
    void emit(const string& arguments, bool isDirect = false) {
        g_dbus_connection_emit_signal(m_bus, isDirect ? k_service.c_str() : nullptr,
                                      pathOf(k_otherService).c_str(), k_otherService.c_str(),
                                      "Said", g_variant_new_parsed(arguments.c_str()), nullptr);
    }

    harness::Timeline timeline;
    std::atomic<bool> isHanging{false};  ///< calls are swallowed; else GDBus refuses them

  private:
    static GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                   gpointer self) {
        auto* other = static_cast<Other*>(self);
        const GDBusMessageType type = g_dbus_message_get_message_type(message);
        if (incoming && type == G_DBUS_MESSAGE_TYPE_SIGNAL
            && g_dbus_message_get_sender(message) != k_bus) {
            other->timeline.add(g_dbus_message_get_member(message),
                                print(g_dbus_message_get_body(message)));
        }
        if (incoming && type == G_DBUS_MESSAGE_TYPE_METHOD_CALL && other->isHanging) {
            g_object_unref(message);
            return nullptr;
        }
        return message;
    }

    GDBusConnection* m_bus;
};

/// What the process under test hears; a property's name says what its callback does.
struct Callbacks : CorvelMessageHandler {
    harness::Timeline timeline;
    std::promise<void> gate;

    static int get(OipcHandleStruct*, const char* name, char* buffer, unsigned int* size, void*) {
        const auto number = static_cast<unsigned int>(std::strtoul(name + 1, nullptr, 10));
        if (*name == 'T') {
            throw std::runtime_error("thrown");
        }
        if (*name == 'R') {
            return static_cast<int>(number);
        }
        if (number + 1 > *size) {
            *size = number + 1;
            return OIPC_BUFFER_TOO_SMALL;
        }
        std::memset(buffer, 'x', number);
        buffer[number] = '\0';
        return OIPC_SUCCESS;
    }
    static int set(OipcHandleStruct*, const char* name, const char* value, void* data) {
        static_cast<Callbacks*>(data)->timeline.add(name, value);
        return std::atoi(name + 1);
    }
    static void hear(OipcHandleStruct*, const char* event, OipcEventHandleStruct* arguments,
                     void* data) {
        auto* self = static_cast<Callbacks*>(data);
        const char* text = "-";
        int number = 0;
        if (OipcGetStringParam(arguments, &text) != 0 && OipcGetIntParam(arguments, &number) == 0) {
            EXPECT_EQ(OipcGetStringParam(arguments, &text), 0);
        }
        const bool isAtEnd = OipcGetIntParam(arguments, &number) != 0;
        self->timeline.add(event, text + (isAtEnd ? std::to_string(number) : " and more"));
        if (string(text) == "wait") {
            self->gate.get_future().wait();
            self->timeline.add("waited", "");
        }
        if (string(text) == "throw") {
            throw 1;
        }
    }
    void onMessage(boost::shared_ptr<Message> message) override {
        const string& body = message->getBody().getBody();
        timeline.add("message", body, message->getRequestReplyContext().getReconciliationId());
        if (body == "throw") {
            throw std::runtime_error("thrown");
        }
    }
    void onMessageWithAttachment(boost::shared_ptr<Message>,
                                 boost::shared_ptr<CorvelMessageAttachmentReader> reader) override {
        std::uint8_t bytes[3];
        while (const std::size_t size = reader->read(bytes, sizeof bytes)) {
            timeline.add("attachment", string(bytes, bytes + size));
        }
    }
};

class BusTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        g_orun42_log_mask = alarmd::LOG_BIT_ERROR;
        setenv("DBUS_SYSTEM_BUS_ADDRESS", harness::PrivateBus::k_address, 1);
        int status = 0;
        OipcOpenEx(k_service.c_str(), &status);
        EXPECT_NE(status, 0);  // There is no bus yet.
        log = std::make_unique<harness::Datagrams>("/run/log.sock");
        bus = std::make_unique<harness::PrivateBus>();
        handle = OipcOpenEx(k_service.c_str(), &status);
        ASSERT_EQ(status, 0) << OipcGetErrorString(status);
    }
    static void TearDownTestSuite() {
        bus.reset();
        log.reset();
    }
    ~BusTest() override { OipcRevokeCallbacks(&callbacks); }

    int subscribe(const string& service, const char* event) {
        return OipcSubscribeExt(handle, service.c_str(), event, Callbacks::hear, &callbacks);
    }
    int addRaw(const char* name, OipcStringGetter getter, OipcStringSetter setter) {
        return OipcRegisterStringProperty(handle, name, getter, setter, &callbacks);
    }

    static inline OipcHandleStruct* handle;
    static inline std::unique_ptr<harness::Datagrams> log;
    static inline std::unique_ptr<harness::PrivateBus> bus;
    Callbacks callbacks;
    Other other;
};

TEST_F(BusTest, CallsGetTheirAnswersAndErrors) {
    const OipcProp::OipcString text(handle, "Text", "first", nullptr, nullptr, false);
    const OipcProp::OipcInt number(handle, "Number", 5);
    EXPECT_FALSE(OipcProp::OipcInt(handle, "Number", 6).isValid());
    EXPECT_FALSE(OipcProp::OipcInt(handle, "no name", 6).isValid());
    for (const char* name : {"G255", "G256", "G99999", "R2", "R8", "Throws"}) {
        EXPECT_EQ(addRaw(name, Callbacks::get, nullptr), 0);
    }
    for (const char* name : {"S0", "S8", "S13"}) {
        EXPECT_EQ(addRaw(name, nullptr, Callbacks::set), 0);
    }
    for (const std::size_t size : {255U, 256U, 99999U}) {
        EXPECT_EQ(other.ask("G" + std::to_string(size)), "(<'" + string(size, 'x') + "'>,)");
    }
    for (const string asked :
         {"Text (<'first'>,)", "Number (<5>,)", "Missing UnknownProperty", "R2 Failed",
          "R8 UnknownProperty", "Throws Failed", "S0 AccessDenied", "S0='x' ()", "S13='x' Failed",
          "S8='x' UnknownProperty", "S0=1 InvalidArgs", "Missing=1 UnknownProperty",
          "G255='x' PropertyReadOnly", "Text=1 InvalidArgs", "Number='1' InvalidArgs",
          "Number=1.5 InvalidArgs"}) {
        const std::size_t end = asked.find(' ');
        EXPECT_EQ(other.ask(asked.substr(0, end)), asked.substr(end + 1)) << asked;
    }
    log->timeline.take("", "E Oipc:callback:reason=exception,exc=thrown:");
    const string path = pathOf(k_service);
    EXPECT_EQ(other.call(k_service, path, k_service, "Get"), "UnknownMethod");
    EXPECT_EQ(other.call(k_service, path, "no.such", "Get"), "UnknownInterface");
    EXPECT_EQ(other.call(k_service, "/com/no", k_service, "Get"), "UnknownObject");
    EXPECT_EQ(other.call(k_service, path, k_properties, "Get"), "InvalidArgs");
    EXPECT_EQ(other.call(k_service, "/", k_bus + ".Peer", "Ping"), "()");
    const string introspectable = k_bus + ".Introspectable";
    string xml = other.call(k_service, "/com", introspectable, "Introspect");
    EXPECT_NE(xml.find("<node name=\"quintel\"/>"), string::npos) << xml;
    xml = other.call(k_service, path, introspectable, "Introspect");
    EXPECT_NE(xml.find("\"Number\" type=\"i\" access=\"readwrite\""), string::npos) << xml;
}

TEST_F(BusTest, EveryPublicationIsTwoSignalsInTheOrderOfTheValues) {
    OipcProp::OipcString text(handle, "Text", "first", nullptr, nullptr, false);
    OipcProp::OipcInt number(handle, "Number", 5);
    EXPECT_TRUE(text.set("a", "") && text.set("a", "") && text.set(string("\xff\0z", 3), ""));
    EXPECT_EQ(other.ask("Text='written'"), "()");
    EXPECT_EQ(text.get(), "written");
    EXPECT_EQ(OipcSendIntEvent(handle, "Event", 3), 0);
    EXPECT_NE(OipcSendStringEvent(handle, "no event", "e"), 0);
    other.ask("Text");  // A round trip: all that was sent before has come.
    Lines expected;
    for (const string value : {"a", "a", "\xEF\xBF\xBD\xEF\xBF\xBDz", "written"}) {
        expected.push_back("PropertiesChanged ('com.quintel.busd', {'Text': <'" + value
                           + "'>}, [])");
        expected.push_back("TextChanged ('" + value + "',)");
    }
    expected.push_back("Event (3,)");
    EXPECT_EQ(other.timeline.takeAll(), expected);

    std::vector<std::thread> writers;
    for (int writer = 0; writer < 3; ++writer) {
        writers.emplace_back([&number, writer] {
            for (int i = 0; i < 100; ++i) {
                number.set(writer * 1000 + i);
            }
        });
    }
    std::for_each(writers.begin(), writers.end(), [](std::thread& writer) { writer.join(); });
    other.ask("Text");
    const Lines published = other.timeline.find("NumberChanged");
    ASSERT_EQ(published.size(), 300U);
    EXPECT_EQ(published.back(), "NumberChanged (" + std::to_string(number.get()) + ",)");
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
    callbacks.timeline.take("Said", "owner");
    EXPECT_EQ(callbacks.timeline.takeAll(),
              (Lines{"Said a0", "Said b3", "Said -0", "Said -0", "Said c and more"}));
}

TEST_F(BusTest, SlowAndFailingHandlersHoldNobodyUpButTheRevocation) {
    other.own();
    EXPECT_EQ(subscribe(k_otherService, "Said"), 0);
    EXPECT_EQ(addRaw("S0", nullptr, Callbacks::set), 0);
    for (const char* arguments : {"('throw',)", "('wait',)", "('queued',)"}) {
        other.emit(arguments);
    }
    callbacks.timeline.take("Said", "wait");
    log->timeline.take("", "E Oipc:callback:reason=exception,exc=unknown:");
    EXPECT_EQ(other.ask("S0='stop'"), "()");
    callbacks.timeline.take("S0", "stop");
    auto revoked = std::async(std::launch::async, [this] { OipcRevokeCallbacks(&callbacks); });
    EXPECT_TRUE(harness::await([&] { return other.ask("S0='x'") == "UnknownProperty"; }));
    EXPECT_EQ(revoked.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    callbacks.gate.set_value();
    revoked.get();
    EXPECT_EQ(callbacks.timeline.find("waited").size(), 1U);
    EXPECT_EQ(callbacks.timeline.find("queued").size(), 0U);
}

TEST_F(BusTest, PropertiesOfOthersAreReadAndWrittenInTime) {
    OipcProp::OipcString text(handle, "Text", "own", nullptr, nullptr, false);
    char* read = nullptr;
    ASSERT_EQ(OipcGetStringProperty(handle, k_service.c_str(), "Text", &read), 0);
    EXPECT_STREQ(read, "own");
    OipcFreeString(read);
    EXPECT_EQ(OipcSetStringProperty(handle, k_service.c_str(), "Text", "n\xffw"), 0);
    EXPECT_EQ(text.get(), "n\xEF\xBF\xBDw");
    other.own();
    other.isHanging = true;
    std::set<int> statuses{0};
    for (const string asked : {"com.quintel.busd Text", "com.quintel.busd Missing", "\xff Text",
                               "com.nobody Text", "com.quintel.otherd Text"}) {
        const std::size_t end = asked.find(' ');
        int number = 17;
        const int status = OipcGetIntProperty(handle, asked.substr(0, end).c_str(),
                                              asked.substr(end + 1).c_str(), &number);
        EXPECT_TRUE(statuses.insert(status).second) << asked << status;
        EXPECT_STRNE(OipcGetErrorString(status), OipcGetErrorString(12345));
        EXPECT_EQ(number, 17);
    }
}

TEST_F(BusTest, LogMaskIsReadAndWritten) {
    static std::atomic<std::uint32_t> mask{0x1A};
    OlogInitLogProperties(handle, &mask);
    EXPECT_EQ(other.ask("LogMask"), "(<'0x1A'>,)");
    for (const string text : {"0 0", "4294967295 FFFFFFFF", "0xfF FF", "0x07800000 7800000"}) {
        const std::size_t end = text.find(' ');
        EXPECT_EQ(other.ask("LogMask='" + text.substr(0, end) + "'"), "()") << text;
        EXPECT_EQ(mask, std::stoul(text.substr(end), nullptr, 16));
        EXPECT_EQ(other.ask("LogMask"), "(<'0x" + text.substr(end + 1) + "'>,)");
    }
    for (const string text :
         {"", "0x", "x1", "-1", "+1", " 1", "1 ", "4294967296", "0x100000000"}) {
        EXPECT_EQ(other.ask("LogMask='" + text + "'"), "InvalidArgs") << text;
    }
    EXPECT_EQ(mask, 0x7800000U);
}

TEST_F(BusTest, MessagesAreQueuedInOrderUpToTheLimit) {
    CorvelMessageHandlerThreaded threaded(callbacks);
    WorkQueue& queue = threaded.workQueue();
    // An endpoint may have the name of a service of its process.
    auto endpoint = std::make_unique<CorvelMessagingEndpoint>(k_service, threaded);
    ASSERT_EQ(endpoint->init(), 0);
    other.own();
    EXPECT_NE(CorvelMessagingEndpoint(k_service, threaded).init(), 0);
    EXPECT_NE(CorvelMessagingEndpoint(k_otherService, threaded).init(), 0);
    EXPECT_EQ(other.call(k_service, pathOf(k_service), k_messaging, "Deliver"), "InvalidArgs");
    EXPECT_THROW(queue.requestFinish(), std::logic_error);
    EXPECT_EQ(other.deliver(k_service, "throw"), "()");
    EXPECT_EQ(other.deliver(k_service, "", "0, [byte 65, 66, 67, 68]"), "()");
    Lines expected{"message throw", "attachment ABC", "attachment D"};
    for (int i = 2; i < 4096; ++i) {
        ASSERT_EQ(other.deliver(k_service, "body", std::to_string(i) + ", @ay []"), "()");
        expected.push_back("message body #" + std::to_string(i));
    }
    EXPECT_EQ(other.deliver(k_service, "one too many"), "LimitsExceeded");
    queue.start();
    EXPECT_THROW(queue.start(), std::logic_error);
    EXPECT_THROW(queue.waitFinish(), std::logic_error);
    queue.requestFinish();
    EXPECT_THROW(queue.requestFinish(), std::logic_error);
    EXPECT_EQ(other.deliver(k_service, "late"), "Failed");
    queue.waitFinish();
    EXPECT_EQ(callbacks.timeline.takeAll(), expected);
    log->timeline.take("", "E CorvelMessaging:onMessage:reason=exception,exc=thrown:");
    endpoint.reset();
    EXPECT_EQ(other.deliver(k_service, "nobody"), "UnknownInterface");
}

TEST_F(BusTest, ALostBusComesBackWithEverything) {
    const string name = "com.quintel.busd.corvel";
    CorvelMessagingEndpoint endpoint(name, callbacks);
    ASSERT_EQ(endpoint.init(), 0);
    OipcProp::OipcString text(handle, "Text", "before", nullptr, nullptr, false);
    EXPECT_EQ(subscribe(k_service, "TextChanged"), 0);
    EXPECT_EQ(subscribe(k_otherService, "Said"), 0);
    other.own();
    const auto send = [&endpoint](const string& destination, int limit) {
        const auto message = boost::make_shared<Message>(
            MessageType("space", "name"), MessageBody("type", "body"), MessageAttachment(),
            MessageVoiceRequest(), MessageRequestReplyContext(7), static_cast<unsigned char>(0));
        return endpoint.sendMessage(message, destination, false, limit);
    };
    EXPECT_EQ(send(name, 20000), 0);
    EXPECT_EQ(callbacks.timeline.take("message").id, 7);
    std::set<int> results{0, send("com.nobody", 20000), send(k_otherService, 20000)};
    other.isHanging = true;
    results.insert(send(k_otherService, 50));
    auto cutOff = std::async(std::launch::async, send, k_otherService, 60000);
    bus->crash();
    results.insert(cutOff.get());
    EXPECT_EQ(results.size(), 5U);  // All of them differ.
    EXPECT_EQ(results.count(send(k_otherService, 60000)), 1U);
    EXPECT_FALSE(text.set("meanwhile", ""));
    int status = 0;
    OipcOpenEx("com.quintel.late", &status);
    EXPECT_NE(status, 0);

    bus->start();
    callbacks.timeline.take("TextChanged", "meanwhile");
    Other newOther;
    EXPECT_EQ(newOther.own(), "(1,)");
    EXPECT_EQ(newOther.ask("Text"), "(<'meanwhile'>,)");
    newOther.emit("('hello',)");
    callbacks.timeline.take("Said", "hello");
    EXPECT_TRUE(harness::await([&] { return newOther.deliver(name, "again") == "()"; }));
    callbacks.timeline.take("message", "again");
    EXPECT_TRUE(text.set("after", ""));
}

}  // namespace
