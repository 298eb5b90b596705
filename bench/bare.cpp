/// The reference: the least that a program can do which loads the same libraries as the daemon.
///   bare idle                      sleeps
///   bare serve NAME SIZE           takes a name and answers each Get with a text of SIZE bytes
///   bare ring FIRST COUNT READS    at the second FIRST + 1/2 and every second after it, COUNT
///   times:
///                                  reads READS properties and writes one
/// The first two print their process id when they are ready.
#include <cjson/cJSON.h>
#include <curl/curl.h>
#include <gio/gio.h>
#include <sqlite3.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/thread.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

/// The linker leaves out a library of which nothing is named.
template <typename Function>
void name(Function* function) {
    [[maybe_unused]] Function* volatile named = function;
}

void nameLibraries() {
    name(curl_version);
    name(cJSON_Version);
    name(sqlite3_libversion);
    name(boost::thread::hardware_concurrency);
    name<boost::filesystem::path(boost::system::error_code*)>(
        boost::filesystem::detail::current_path);
}

constexpr const char* k_properties = "org.freedesktop.DBus.Properties";

GDBusConnection* connectToBus() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) {
        std::exit(1);
    }
    return bus;
}

void call(GDBusConnection* bus, const char* service, const char* path, const char* interface,
          const char* method, GVariant* arguments) {
    GVariant* result =
        g_dbus_connection_call_sync(bus, service, path, interface, method, arguments, nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (result == nullptr) {
        std::exit(1);
    }
    g_variant_unref(result);
}

void sleepForEver() {
    std::printf("%d\n", getpid());
    std::fflush(stdout);
    for (;;) {
        pause();
    }
}

/// On the connection's own thread, as the daemon and the bench do it.
GDBusMessage* answerGet(GDBusConnection* bus, GDBusMessage* message, gboolean incoming,
                        gpointer text) {
    if (incoming == FALSE || g_strcmp0(g_dbus_message_get_member(message), "Get") != 0) {
        return message;
    }
    GDBusMessage* reply = g_dbus_message_new_method_reply(message);
    g_dbus_message_set_body(
        reply, g_variant_new("(v)", g_variant_new_string(static_cast<const char*>(text))));
    g_dbus_connection_send_message(bus, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(message);
    return nullptr;
}

void serve(const char* name, std::size_t size) {
    static const std::string text(size, 'x');
    GDBusConnection* bus = connectToBus();
    g_dbus_connection_add_filter(bus, answerGet, const_cast<char*>(text.c_str()), nullptr);
    call(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
         g_variant_new("(su)", name, 0U));
    sleepForEver();
}

/// What the daemon reads between the due time and the play list.
void read(GDBusConnection* bus, int property) {
    if (property == 0) {
        call(bus, "com.orun42.system", "/com/orun42/system", k_properties, "Get",
             g_variant_new("(ss)", "com.orun42.system", "deviceHasTime"));
    } else {
        call(bus, "com.quintel.settingsd", "/com/quintel/settingsd", k_properties, "Get",
             g_variant_new("(ss)", "com.quintel.settingsd",
                           "com_brevan_corvel_ascendingAlarmVolume"));
    }
}

void ring(std::time_t first, int count, int reads) {
    GDBusConnection* bus = connectToBus();
    for (int i = 0; i < count; ++i) {
        timespec due{};
        due.tv_sec = first + i;
        due.tv_nsec = 500000000;
        while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &due, nullptr) != 0) {
        }
        for (int property = 0; property < reads; ++property) {
            read(bus, property);
        }
        call(bus, "com.quintel.earconPlayer", "/com/quintel/earconPlayer", k_properties, "Set",
             g_variant_new("(ssv)", "com.quintel.earconPlayer", "bareRing",
                           g_variant_new_string("")));
    }
}

}  // namespace

int main(int argc, char** argv) {
    nameLibraries();
    if (argc == 2 && std::strcmp(argv[1], "idle") == 0) {
        sleepForEver();
    } else if (argc == 4 && std::strcmp(argv[1], "serve") == 0) {
        serve(argv[2], std::strtoul(argv[3], nullptr, 10));
    } else if (argc == 5 && std::strcmp(argv[1], "ring") == 0) {
        ring(std::strtoll(argv[2], nullptr, 10), std::atoi(argv[3]), std::atoi(argv[4]));
    } else {
        return 2;
    }
}
