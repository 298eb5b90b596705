#include "device/bus/Bus.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>

#include "alarmd/Log.h"
#include "alarmd/platform/Oipc.h"
#include "device/bus/Memory.h"
#include "device/bus/Thread.h"

namespace device {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds k_firstRetry{250};
constexpr milliseconds k_lastRetry{5000};
constexpr milliseconds k_forever = milliseconds::max();
/// How long the bus itself may take to answer.
constexpr milliseconds k_busLimit{2000};
/// The bus cuts off whoever sends a message of more than 32 MiB; the header needs a little.
constexpr gsize k_largestBody = (gsize{32} << 20) - 4096;
constexpr std::size_t k_longestErrorText = 1024;

constexpr const char* k_bus = "org.freedesktop.DBus";
constexpr const char* k_busPath = "/org/freedesktop/DBus";
constexpr const char* k_introspectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* k_peer = "org.freedesktop.DBus.Peer";
constexpr const char* k_introspectionHead =
    R"(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
 <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect"><arg name="xml_data" type="s" direction="out"/></method>
 </interface>
 <interface name="org.freedesktop.DBus.Peer">
  <method name="Ping"/>
  <method name="GetMachineId"><arg name="machine_uuid" type="s" direction="out"/></method>
 </interface>)";

constexpr guint32 k_doNotQueue = 4;
constexpr guint32 k_primaryOwner = 1;
constexpr guint32 k_alreadyOwner = 4;

template <typename T>
std::shared_ptr<T> adopt(T* object) {
    return object == nullptr ? std::shared_ptr<T>() : std::shared_ptr<T>(object, g_object_unref);
}

MessagePtr newBusCall(const char* method, GVariant* arguments) {
    MessagePtr message = adopt(g_dbus_message_new_method_call(k_bus, k_busPath, k_bus, method));
    g_dbus_message_set_body(message.get(), arguments);
    return message;
}

bool isTooLarge(GDBusMessage* message) {
    GVariant* body = g_dbus_message_get_body(message);
    return body != nullptr && g_variant_get_size(body) > k_largestBody;
}

std::string eventRule(const Subscription& subscription) {
    const std::string& service = subscription.service;
    return "type='signal',sender='" + service + "',path='" + pathOf(service) + "',interface='"
           + service + "',member='" + subscription.event + "'";
}

std::string ownerRule(const std::string& service) {
    return std::string("type='signal',sender='") + k_bus + "',interface='" + k_bus
           + "',member='NameOwnerChanged',arg0='" + service + "'";
}

bool isAnswer(GDBusMessage* reply, const char* signature) {
    return reply != nullptr
           && g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN
           && std::strcmp(g_dbus_message_get_signature(reply), signature) == 0;
}

int statusOfError(const char* error) {
    static constexpr std::pair<std::string_view, int> statuses[] = {
        {"org.freedesktop.DBus.Error.ServiceUnknown", STATUS_NO_SUCH_SERVICE},
        {"org.freedesktop.DBus.Error.NameHasNoOwner", STATUS_NO_SUCH_SERVICE},
        {"org.freedesktop.DBus.Error.NoReply", STATUS_TIMED_OUT},
        {"org.freedesktop.DBus.Error.Timeout", STATUS_TIMED_OUT},
        {ERROR_UNKNOWN_PROPERTY, OIPC_NO_SUCH_PROPERTY},
    };
    for (const auto& [name, status] : statuses) {
        if (error != nullptr && name == error) {
            return status;
        }
    }
    return STATUS_REFUSED;
}

int statusOfReply(GDBusMessage* reply) {
    if (reply == nullptr) {
        return STATUS_BUS_AWAY;
    }
    return g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_ERROR
               ? statusOfError(g_dbus_message_get_error_name(reply))
               : OIPC_SUCCESS;
}

int statusOfNameReply(GDBusMessage* reply) {
    if (!isAnswer(reply, "u")) {
        return reply == nullptr ? STATUS_BUS_AWAY : STATUS_REFUSED;
    }
    guint32 result = 0;
    g_variant_get(g_dbus_message_get_body(reply), "(u)", &result);
    return result == k_primaryOwner || result == k_alreadyOwner ? int{OIPC_SUCCESS}
                                                                : int{STATUS_NAME_TAKEN};
}

/// GDBus sees to it that the fields of the header are there, not that they have their types.
bool hasReadableHeader(GDBusMessage* message) {
    const int type = g_dbus_message_get_message_type(message);  // which may be none of the enum
    const bool isSignal = type == G_DBUS_MESSAGE_TYPE_SIGNAL;
    if (!isSignal && type != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return true;
    }
    return g_dbus_message_get_path(message) != nullptr
           && g_dbus_message_get_member(message) != nullptr
           && (!isSignal
               || (g_dbus_message_get_interface(message) != nullptr
                   && g_dbus_message_get_sender(message) != nullptr));
}

}  // namespace

bool isServiceName(const std::string& name) {
    return name.find('\0') == std::string::npos && g_dbus_is_interface_name(name.c_str());
}

bool isMemberName(const std::string& name) {
    return name.find('\0') == std::string::npos && g_dbus_is_member_name(name.c_str());
}

std::string pathOf(const std::string& name) {
    std::string path = "/" + name;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

GVariant* newText(const std::string& text) {
    return g_variant_new_take_string(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
}

MessagePtr newCall(const std::string& name, const char* interface, const char* method,
                   GVariant* arguments) {
    MessagePtr message = adopt(
        g_dbus_message_new_method_call(name.c_str(), pathOf(name).c_str(), interface, method));
    g_dbus_message_set_body(message.get(), arguments);
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    return message;
}

// --- Call ---

Call::Call(ConnectionPtr connection, MessagePtr message)
    : m_connection(std::move(connection)), m_message(std::move(message)) {}

const char* Call::path() const {
    return g_dbus_message_get_path(m_message.get());
}

const char* Call::interface() const {
    const char* interface = g_dbus_message_get_interface(m_message.get());
    return interface == nullptr ? "" : interface;
}

bool Call::is(const char* interface, const char* member) const {
    return std::strcmp(g_dbus_message_get_member(m_message.get()), member) == 0
           && (*this->interface() == '\0' || std::strcmp(this->interface(), interface) == 0);
}

bool Call::hasSignature(const char* signature) const {
    return std::strcmp(g_dbus_message_get_signature(m_message.get()), signature) == 0;
}

GVariant* Call::arguments() const {
    return g_dbus_message_get_body(m_message.get());
}

void Call::reply(GVariant* results) const {
    MessagePtr reply = adopt(g_dbus_message_new_method_reply(m_message.get()));
    if (results != nullptr) {
        g_dbus_message_set_body(reply.get(), results);
    }
    if (isTooLarge(reply.get())) {
        fail(ERROR_FAILED, "The answer is too large for the bus.");
        return;
    }
    send(std::move(reply));
}

void Call::fail(const char* error, const std::string& text) const {
    // Texts repeat what the caller sent, which may be as long as a message can be.
    MessagePtr reply = adopt(g_dbus_message_new_method_error_literal(m_message.get(), error, ""));
    g_dbus_message_set_body(reply.get(),
                            g_variant_new("(@s)", newText(text.substr(0, k_longestErrorText))));
    send(std::move(reply));
}

void Call::send(MessagePtr reply) const {
    if ((g_dbus_message_get_flags(m_message.get()) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        // When the connection is lost meanwhile there is nobody left to tell.
        g_dbus_connection_send_message(m_connection.get(), reply.get(),
                                       G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
}

// --- The threads ---

Bus& Bus::instance() {
    static Bus* const bus = new Bus;
    return *bus;
}

Bus::Bus() : m_context(g_main_context_new()), m_connecting(g_cancellable_new()) {
    startThread("oipc-events", [this] { runWorker(m_events); }).detach();
    startThread("oipc-props", [this] { runWorker(m_properties); }).detach();
    startThread("oipc-link", [this] { runLink(); }).detach();
}

void Bus::runWorker(Worker& worker) {
    Guard lock(m_mutex);
    for (;;) {
        if (worker.jobs.empty()) {
            lock.unlock();
            giveBackMemory();
            lock.lock();
        }
        while (worker.jobs.empty()) {
            worker.wake.wait(lock);
        }
        const Job job = std::move(worker.jobs.front());
        worker.jobs.pop_front();
        job(lock);
    }
}

void Bus::queueForProperties(Job job) {
    m_properties.jobs.push_back(std::move(job));
    m_properties.wake.notify_one();
}

bool Bus::runCallback(Guard& lock, const void* data, const std::function<void()>& callback) {
    bool returned = false;
    const auto running = m_running.insert(data);
    lock.unlock();
    try {
        callback();
        returned = true;
    } catch (const std::exception& e) {
        LOGE("Oipc:callback:reason=exception,exc=%s:", e.what());
    } catch (...) {
        LOGE("Oipc:callback:reason=exception,exc=%s:", "unknown");
    }
    lock.lock();
    m_running.erase(running);
    m_changed.notify_all();
    return returned;
}

void Bus::revoke(Guard& lock, const void* data) {
    const auto kept = std::stable_partition(
        m_subscriptions.begin(), m_subscriptions.end(),
        [data](const auto& subscription) { return subscription->data != data; });
    const std::vector<std::shared_ptr<Subscription>> dropped(kept, m_subscriptions.end());
    m_subscriptions.erase(kept, m_subscriptions.end());
    for (const auto& subscription : dropped) {
        unsubscribe(*subscription);
    }
    while (m_running.count(data) != 0) {
        m_changed.wait(lock);
    }
}

// --- The link ---

void Bus::runLink() {
    g_main_context_push_thread_default(m_context);
    Guard lock(m_mutex);
    milliseconds delay = k_firstRetry;
    for (;;) {
        if (m_connectAsked) {
            if (m_connection == nullptr) {
                connect(lock);
            }
            m_connectAsked = false;
            m_changed.notify_all();
        } else if (isWhole()) {
            delay = k_firstRetry;
            waitOnLink(lock, k_forever);
        } else if (waitOnLink(lock, delay)) {
            delay = std::min(2 * delay, k_lastRetry);
            if (m_connection == nullptr) {
                connect(lock);
            }
            requestMissingNames();
        }
    }
}

/// Waits until the connection is lost, somebody asks for one, or the time is over: then true.
bool Bus::waitOnLink(Guard& lock, milliseconds limit) {
    bool isOver = false;
    GSource* timer = nullptr;
    if (limit != k_forever) {
        timer = g_timeout_source_new(static_cast<guint>(limit.count()));
        const auto onTimer = [](gpointer over) -> gboolean {
            *static_cast<bool*>(over) = true;
            return G_SOURCE_REMOVE;
        };
        g_source_set_callback(timer, onTimer, &isOver, nullptr);
        g_source_attach(timer, m_context);
    }
    lock.unlock();
    g_main_context_iteration(m_context, TRUE);
    lock.lock();
    if (timer != nullptr) {
        g_source_destroy(timer);
        g_source_unref(timer);
    }
    return isOver;
}

/// Whether the process is on the bus with all that it wants there.
bool Bus::isWhole() const {
    return std::all_of(m_objects.begin(), m_objects.end(),
                       [](const auto& entry) { return entry.second.owned; });
}

/// One attempt. Link thread: the connection tells the context of the thread that made it when it is
/// gone.
void Bus::connect(Guard& lock) {
    lock.unlock();
    GDBusConnection* connection = nullptr;
    if (gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)) {
        const auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                              | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        connection =
            g_dbus_connection_new_for_address_sync(address, flags, nullptr, m_connecting, nullptr);
        g_free(address);
    }
    if (connection != nullptr) {
        g_dbus_connection_set_exit_on_close(connection, FALSE);
        const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer self) {
            static_cast<Bus*>(self)->onClosed();
        };
        g_signal_connect(connection, "closed", G_CALLBACK(closed), this);
        g_dbus_connection_add_filter(connection, &Bus::filter, this, nullptr);
    }
    lock.lock();
    m_connection = adopt(connection);
    for (const auto& subscription : m_subscriptions) {
        watchOwner(subscription->service);
        sendToBus("AddMatch", g_variant_new("(s)", eventRule(*subscription).c_str()));
    }
}

/// Asks for the names that are not ours.
void Bus::requestMissingNames() {
    for (const auto& [name, object] : m_objects) {
        if (!object.owned) {
            requestName(name);
        }
    }
}

void Bus::onClosed() {
    Guard lock(m_mutex);
    m_connection.reset();
    for (auto& [name, object] : m_objects) {
        object.owned = false;
    }
    for (auto& [service, owner] : m_owners) {
        owner.clear();
    }
    for (const auto& [serial, onReply] : std::exchange(m_replies, {})) {
        onReply(nullptr);
    }
}

// --- Names and objects ---

int Bus::open(const std::string& name, Served& served) {
    if (!isServiceName(name)) {
        return STATUS_INVALID_NAME;
    }
    const std::lock_guard<std::mutex> opening(m_opening);
    Guard lock(m_mutex);
    const auto known = m_objects.find(name);
    if (known != m_objects.end()) {
        std::vector<Served*>& others = known->second.served;
        const auto isSame = [&](const Served* other) {
            return std::strcmp(other->interfaceName(), served.interfaceName()) == 0;
        };
        if (std::any_of(others.begin(), others.end(), isSame)) {
            return STATUS_NAME_TAKEN;
        }
        if (!known->second.owned) {
            return STATUS_BUS_AWAY;
        }
        others.push_back(&served);
        return OIPC_SUCCESS;
    }
    if (m_connection == nullptr && m_objects.empty()) {
        m_connectAsked = true;
        g_main_context_wakeup(m_context);
        const auto connectDeadline = std::chrono::steady_clock::now() + k_busLimit;
        while (m_connectAsked) {
            if (m_changed.wait_until(lock, connectDeadline) == std::cv_status::timeout) {
                g_cancellable_cancel(m_connecting);  // a bus that hangs; the attempt ends at once
                m_changed.wait(lock, [this] { return !m_connectAsked; });
                g_cancellable_reset(m_connecting);  // not before: the attempt may only begin now
            }
        }
    }
    // Served before the name is taken: whoever waits for the name may call at once.
    Object& object = m_objects[name];
    object.served.push_back(&served);
    requestName(name);
    const auto deadline = std::chrono::steady_clock::now() + k_busLimit;
    while (object.requestStatus == k_pending
           && m_changed.wait_until(lock, deadline) != std::cv_status::timeout) {
    }
    const int status = object.requestStatus == k_pending ? STATUS_TIMED_OUT : object.requestStatus;
    if (status != OIPC_SUCCESS) {
        m_objects.erase(name);
        sendToBus("ReleaseName", g_variant_new("(s)", name.c_str()));
    }
    return status;
}

void Bus::close(const std::string& name, Served& served) {
    Guard opening(m_opening);
    Guard lock(m_mutex);
    const auto object = m_objects.find(name);
    std::vector<Served*>& all = object->second.served;
    all.erase(std::find(all.begin(), all.end(), &served));
    if (all.empty()) {
        m_objects.erase(object);
        sendToBus("ReleaseName", g_variant_new("(s)", name.c_str()));
    }
    opening.unlock();
    while (m_running.count(&served) != 0) {
        m_changed.wait(lock);
    }
}

/// Asks for a name without waiting; its object learns the outcome.
void Bus::requestName(const std::string& name) {
    const auto onAnswer = [this, name](GDBusMessage* reply) {
        const auto found = m_objects.find(name);
        if (found == m_objects.end()) {
            return;
        }
        Object& object = found->second;
        object.requestStatus = statusOfNameReply(reply);
        m_changed.notify_all();
        if (object.requestStatus == OIPC_SUCCESS && !object.owned) {
            object.owned = true;
            for (Served* served : object.served) {
                served->onNameTaken();
            }
            g_main_context_wakeup(m_context);  // a bus that is lost again is a new loss
        }
    };
    const MessagePtr message =
        newBusCall("RequestName", g_variant_new("(su)", name.c_str(), k_doNotQueue));
    if (!request(message, onAnswer)) {
        onAnswer(nullptr);
    }
}

std::string Bus::introspect(const std::string& path) const {
    const std::string parent = path == "/" ? path : path + "/";
    std::string interfaces;
    std::set<std::string> children;
    for (const auto& [name, object] : m_objects) {
        const std::string objectPath = pathOf(name);
        if (objectPath == path) {
            for (const Served* served : object.served) {
                interfaces += served->describe();
            }
        } else if (objectPath.compare(0, parent.size(), parent) == 0) {
            const std::size_t end = objectPath.find('/', parent.size());
            children.insert(objectPath.substr(parent.size(), end - parent.size()));
        }
    }
    if (interfaces.empty() && children.empty() && path != "/") {
        return {};
    }
    std::string xml = k_introspectionHead + interfaces;
    for (const std::string& child : children) {
        xml += "\n <node name=\"" + child + "\"/>";
    }
    return xml + "\n</node>\n";
}

// --- Messages out ---

bool Bus::isConnected(const Guard& /*lock*/) const {
    return m_connection != nullptr && !g_dbus_connection_is_closed(m_connection.get());
}

/// Queues a message; 0 when it cannot leave, else its serial.
guint32 Bus::send(GDBusMessage* message) {
    guint32 serial = 0;
    if (m_connection == nullptr
        || !g_dbus_connection_send_message(m_connection.get(), message,
                                           G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr)) {
        return 0;
    }
    return serial;
}

/// Asks something of the bus whose answer does not matter.
void Bus::sendToBus(const char* method, GVariant* arguments) {
    const MessagePtr message = newBusCall(method, arguments);
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    send(message.get());
}

/// Sends a call; `onReply` is called (only) when this returns true. The reply cannot be missed: the
/// filter needs the lock to look for it.
bool Bus::request(const MessagePtr& message, OnReply onReply) {
    const guint32 serial = send(message.get());
    if (serial == 0) {
        return false;
    }
    m_replies[serial] = std::move(onReply);
    return true;
}

bool Bus::emit(const std::string& name, const char* interface, const std::string& member,
               GVariant* arguments) {
    const MessagePtr message =
        adopt(g_dbus_message_new_signal(pathOf(name).c_str(), interface, member.c_str()));
    g_dbus_message_set_body(message.get(), arguments);
    const auto object = m_objects.find(name);
    return object != m_objects.end() && object->second.owned && !isTooLarge(message.get())
           && send(message.get()) != 0;
}

Bus::Reply Bus::call(Guard& lock, const MessagePtr& message, milliseconds limit) {
    if (isTooLarge(message.get())) {
        return {STATUS_TOO_LARGE, nullptr};
    }
    std::condition_variable answered;
    int status = k_pending;
    MessagePtr reply;
    const auto onAnswer = [&](GDBusMessage* answer) {
        status = statusOfReply(answer);
        if (status == OIPC_SUCCESS) {
            reply = adopt(g_object_ref(answer));
        }
        answered.notify_one();
    };
    if (!request(message, onAnswer)) {
        return {STATUS_BUS_AWAY, nullptr};
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (status == k_pending && answered.wait_until(lock, deadline) != std::cv_status::timeout) {
    }
    if (status == k_pending) {
        m_replies.erase(g_dbus_message_get_serial(message.get()));
        status = STATUS_TIMED_OUT;
    }
    return {status, reply};
}

// --- Subscriptions ---

int Bus::subscribe(const std::shared_ptr<Subscription>& subscription) {
    Guard lock(m_mutex);
    m_subscriptions.push_back(subscription);
    m_owners.try_emplace(subscription->service);
    watchOwner(subscription->service);
    // Waiting for the answer makes "from now on" true for those who hear of it another way, too.
    const int status =
        call(lock, newBusCall("AddMatch", g_variant_new("(s)", eventRule(*subscription).c_str())),
             k_busLimit)
            .status;
    if (status != OIPC_SUCCESS) {
        const auto listed = std::find(m_subscriptions.begin(), m_subscriptions.end(), subscription);
        if (listed != m_subscriptions.end()) {  // else it has been revoked meanwhile
            m_subscriptions.erase(listed);
            unsubscribe(*subscription);
        }
    }
    return status;
}

/// Learns who owns a service's name, and then of each change. The match comes before the question,
/// and the question before the match of an event: so in the order of the bus the owner is known
/// before the first event.
void Bus::watchOwner(const std::string& service) {
    sendToBus("AddMatch", g_variant_new("(s)", ownerRule(service).c_str()));
    request(newBusCall("GetNameOwner", g_variant_new("(s)", service.c_str())),
            [this, service](GDBusMessage* reply) {
                const auto owner = m_owners.find(service);
                if (owner == m_owners.end()) {
                    return;
                }
                const char* name = "";
                if (isAnswer(reply, "s")) {
                    g_variant_get(g_dbus_message_get_body(reply), "(&s)", &name);
                }
                owner->second = name;
            });
}

/// Ends a subscription that is no longer in the list.
void Bus::unsubscribe(Subscription& subscription) {
    subscription.revoked = true;
    sendToBus("RemoveMatch", g_variant_new("(s)", eventRule(subscription).c_str()));
    sendToBus("RemoveMatch", g_variant_new("(s)", ownerRule(subscription.service).c_str()));
    const auto isOfService = [&](const std::shared_ptr<Subscription>& other) {
        return other->service == subscription.service;
    };
    if (std::none_of(m_subscriptions.begin(), m_subscriptions.end(), isOfService)) {
        m_owners.erase(subscription.service);
    }
}

// --- Messages in ---

GDBusMessage* Bus::filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                          gpointer self) {
    if (!incoming) {
        return message;
    }
    if (!hasReadableHeader(message)) {
        g_object_unref(message);
        return nullptr;
    }
    Bus* bus = static_cast<Bus*>(self);
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            if (g_strcmp0(g_dbus_message_get_interface(message), k_peer) == 0) {
                return message;  // GDBus answers these by itself, at any path.
            }
            bus->onCall(Call(adopt(g_object_ref(connection)), adopt(message)));
            return nullptr;
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            bus->onSignal(adopt(message));
            return nullptr;
        default:
            if (!bus->onReply(message)) {
                return message;
            }
            g_object_unref(message);
            return nullptr;
    }
}

bool Bus::onReply(GDBusMessage* reply) {
    Guard lock(m_mutex);
    const auto found = m_replies.extract(g_dbus_message_get_reply_serial(reply));
    if (found.empty()) {
        return false;
    }
    found.mapped()(reply);
    return true;
}

void Bus::onCall(const Call& call) {
    Guard lock(m_mutex);
    const std::string path = call.path();
    if (call.is(k_introspectable, "Introspect")) {
        const std::string xml = introspect(path);
        if (!xml.empty()) {
            call.reply(g_variant_new("(s)", xml.c_str()));
            return;
        }
    }
    const auto object = std::find_if(m_objects.begin(), m_objects.end(), [&](const auto& entry) {
        return pathOf(entry.first) == path;
    });
    if (object == m_objects.end()) {
        call.fail(ERROR_UNKNOWN_OBJECT, "There is no object at " + path + ".");
        return;
    }
    for (Served* served : object->second.served) {
        if (served->take(call, lock)) {
            return;
        }
    }
    if (*call.interface() == '\0') {
        call.fail(ERROR_UNKNOWN_METHOD, "There is no such method.");
    } else {
        call.fail(ERROR_UNKNOWN_INTERFACE,
                  std::string("There is no interface ") + call.interface() + ".");
    }
}

void Bus::onSignal(const MessagePtr& message) {
    GDBusMessage* const signal = message.get();
    const std::string sender = g_dbus_message_get_sender(signal);
    const char* const member = g_dbus_message_get_member(signal);
    Guard lock(m_mutex);
    if (sender == k_bus) {
        if (std::strcmp(member, "NameOwnerChanged") == 0
            && std::strcmp(g_dbus_message_get_signature(signal), "sss") == 0) {
            const char* name = nullptr;
            const char* owner = nullptr;
            g_variant_get(g_dbus_message_get_body(signal), "(&s&s&s)", &name, nullptr, &owner);
            const auto known = m_owners.find(name);
            if (known != m_owners.end()) {
                known->second = owner;
            }
        }
        return;
    }
    for (const auto& subscription : m_subscriptions) {
        const std::string& service = subscription->service;
        if (subscription->event == member && service == g_dbus_message_get_interface(signal)
            && pathOf(service) == g_dbus_message_get_path(signal)
            && m_owners.at(service) == sender) {
            m_events.jobs.push_back([this, subscription, message](Guard& held) {
                if (!subscription->revoked) {
                    runCallback(held, subscription->data, [&] {
                        subscription->handle(g_dbus_message_get_body(message.get()));
                    });
                }
            });
            m_events.wake.notify_one();
        }
    }
}

}  // namespace device
