/// The rest of the device, on one bus connection: the services that the daemon uses and the cloud's
/// side of the messaging, each behaving as the test wants, and a caller of the daemon's properties.
/// It speaks raw D-Bus and shares nothing with the daemon but the wire.
#pragma once

#include <gio/gio.h>

#include <map>

#include "tests/harness/Timeline.h"

namespace harness {

/// How a service treats a call.
enum class Manner { Absent, Answer, Hang, Refuse };

/// Calls are answered on the connection's own thread.
class Peer {
  public:
    Peer() { connect(); }
    ~Peer() { disconnect(); }

    /// Takes the same names again after a disconnection or a lost bus.
    void connect();
    void disconnect();
    /// Calls that hang are answered as soon as any service is told how to behave.
    void behave(const std::string& service, Manner manner);
    /// The value, as GVariant text, of a property of whichever service has it.
    void provide(const std::string& property, const std::string& value);
    /// Broadcasts an event of a service.
    void emit(const std::string& service, const char* event, GVariant* arguments = nullptr);

    /// Sends the daemon a message (of the voice request "v1"), or reads or writes a property. The
    /// results are "" or the name of the error; a read gives the value, or the name of the error.
    std::string deliver(const std::string& name, const std::string& body, int id = 0);
    std::string get(const std::string& property);
    std::string set(const std::string& property, const std::string& value);

    /// Property writes, cloud messages and the daemon's own events.
    Timeline timeline;

  private:
    /// Both keep the message, but receive() gives back what is not for us.
    GDBusMessage* receive(GDBusConnection* bus, GDBusMessage* message);
    void answer(GDBusConnection* bus, GDBusMessage* call);
    /// The name of the error, or the text that is the result, if it is one.
    std::string call(const std::string& service, const char* interface, const char* method,
                     GVariant* arguments);

    GDBusConnection* m_bus = nullptr;
    guint m_filter = 0;
    std::mutex m_mutex;  ///< guards what follows
    std::map<std::string, Manner> m_manners;
    std::map<std::string, std::string> m_values;
    std::vector<GDBusMessage*> m_held;
};

}  // namespace harness
