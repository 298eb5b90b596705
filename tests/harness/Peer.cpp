#include "tests/harness/Peer.h"

#include <algorithm>

#include "tests/harness/Process.h"

namespace harness {
namespace {

constexpr const char* k_bus = "org.freedesktop.DBus";
constexpr const char* k_properties = "org.freedesktop.DBus.Properties";
constexpr const char* k_messaging = "com.quintel.CorvelMessaging1";
constexpr const char* k_alarmd = "com.quintel.alarmd";

std::string pathOf(std::string service) {
    std::replace(service.begin(), service.end(), '.', '/');
    return "/" + service;
}

/// One argument of a message: a text, also one within a variant; "" for anything else.
std::string argument(GVariant* body, gsize index) {
    if (g_variant_n_children(body) <= index) {
        return "";
    }
    g_autoptr(GVariant) child = g_variant_get_child_value(body, index);
    const bool isVariant = g_variant_is_of_type(child, G_VARIANT_TYPE_VARIANT) != FALSE;
    g_autoptr(GVariant) value = isVariant ? g_variant_get_variant(child) : g_variant_ref(child);
    const bool isText = g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) != FALSE;
    return isText ? g_variant_get_string(value, nullptr) : "";
}

}  // namespace

void Peer::connect() {
    const auto manners = m_manners;
    const auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    m_bus = g_dbus_connection_new_for_address_sync(PrivateBus::k_address, flags, nullptr, nullptr,
                                                   nullptr);
    const auto filter = [](GDBusConnection* bus, GDBusMessage* message, gboolean incoming,
                           gpointer self) {
        return incoming != FALSE ? static_cast<Peer*>(self)->receive(bus, message) : message;
    };
    m_filter = g_dbus_connection_add_filter(
        m_bus, filter, this, [](gpointer self) { static_cast<Peer*>(self)->m_filter = 0; });
    call(k_bus, k_bus, "AddMatch",
         g_variant_new("(s)", "type='signal',interface='com.quintel.alarmd'"));
    for (const auto& [service, manner] : manners) {
        behave(service, manner);
    }
}

void Peer::disconnect() {
    if (m_bus == nullptr) {
        return;
    }
    g_dbus_connection_close_sync(m_bus, nullptr, nullptr);
    g_dbus_connection_remove_filter(m_bus, m_filter);
    g_clear_object(&m_bus);
    // The filter is let go of, by this thread, once it runs nowhere any more.
    while (m_filter != 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (GDBusMessage* held : std::exchange(m_held, {})) {
        g_object_unref(held);
    }
}

void Peer::behave(const std::string& service, Manner manner) {
    constexpr guint32 doNotQueue = 4;
    EXPECT_EQ(
        manner == Manner::Absent
            ? call(k_bus, k_bus, "ReleaseName", g_variant_new("(s)", service.c_str()))
            : call(k_bus, k_bus, "RequestName", g_variant_new("(su)", service.c_str(), doNotQueue)),
        "");
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_manners[service] = manner;
    for (GDBusMessage* held : std::exchange(m_held, {})) {
        answer(m_bus, held);
    }
}

void Peer::provide(const std::string& property, const std::string& value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_values[property] = value;
}

void Peer::emit(const std::string& service, const char* event, GVariant* arguments) {
    g_dbus_connection_emit_signal(m_bus, nullptr, pathOf(service).c_str(), service.c_str(), event,
                                  arguments, nullptr);
}

std::string Peer::deliver(const std::string& name, const std::string& body, int id) {
    return call("com.quintel.alarmd.corvel", k_messaging, "Deliver",
                g_variant_new("(sssssiay)", "DeviceNotifications", name.c_str(), "application/json",
                              body.c_str(), "v1", id, nullptr));
}

std::string Peer::get(const std::string& property) {
    return call(k_alarmd, k_properties, "Get", g_variant_new("(ss)", k_alarmd, property.c_str()));
}

std::string Peer::set(const std::string& property, const std::string& value) {
    return call(
        k_alarmd, k_properties, "Set",
        g_variant_new("(ssv)", k_alarmd, property.c_str(), g_variant_new_string(value.c_str())));
}

std::string Peer::call(const std::string& service, const char* interface, const char* method,
                       GVariant* arguments) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        m_bus, service.c_str(), pathOf(service).c_str(), interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, &error);
    if (reply == nullptr) {
        g_autofree gchar* name = g_dbus_error_get_remote_error(error);
        return name != nullptr ? name : error->message;
    }
    return argument(reply, 0);
}

GDBusMessage* Peer::receive(GDBusConnection* bus, GDBusMessage* message) {
    const char* name = g_dbus_message_get_interface(message);
    if (name == nullptr) {
        return message;  // an answer
    }
    const std::string interface = name;
    const std::string member = g_dbus_message_get_member(message);
    GVariant* body = g_dbus_message_get_body(message);
    if (interface == k_alarmd) {
        timeline.add(member, argument(body, 0));
    }
    if (interface != k_properties && interface != k_messaging) {
        return message;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (member == "Set") {
        timeline.add(argument(body, 1), argument(body, 2));
    } else if (member == "Deliver") {
        const std::string nameSpace = argument(body, 0);
        gint32 id = 0;
        g_variant_get_child(body, 5, "i", &id);
        timeline.add(
            (nameSpace == "DeviceNotifications" ? "" : nameSpace + ".") + argument(body, 1),
            argument(body, 3), id);
    }
    if (m_manners[g_dbus_message_get_destination(message)] == Manner::Hang) {
        m_held.push_back(message);
    } else {
        answer(bus, message);
    }
    return nullptr;
}

void Peer::answer(GDBusConnection* bus, GDBusMessage* call) {
    const bool refused = m_manners[g_dbus_message_get_destination(call)] == Manner::Refuse;
    g_autoptr(GDBusMessage) reply = refused ? g_dbus_message_new_method_error_literal(
                                        call, "org.freedesktop.DBus.Error.Failed", "refused")
                                            : g_dbus_message_new_method_reply(call);
    if (!refused && g_strcmp0(g_dbus_message_get_member(call), "Get") == 0) {
        const std::string& text = m_values[argument(g_dbus_message_get_body(call), 1)];
        g_autoptr(GVariant) value =
            g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr);
        g_dbus_message_set_body(reply, g_variant_new("(v)", value));
    }
    g_dbus_connection_send_message(bus, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(call);
}

}  // namespace harness
