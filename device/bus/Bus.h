/// The one connection of this process to the device bus. Every service and every messaging endpoint
/// of the process shares it.
///
/// GDBus carries the messages, but nothing is dispatched through its main contexts: a filter on its
/// worker thread is the one entry. It answers what needs no callback, hands a delivered message to
/// its endpoint, completes the calls that wait for a reply, and queues the rest for two threads of
/// ours: "oipc-events" runs event handlers, "oipc-props" getters and setters. So a call never needs
/// a callback thread for its answer, and a property write never waits behind a slow event. A third
/// thread, "oipc-link", does nothing but connect and hear that the connection is gone. While all is
/// well nothing wakes up.
///
/// One lock guards everything here and in the services; it is never held while a callback runs, and
/// messages are queued under it, so they leave in the order of the changes they tell of. The object
/// is never destroyed: its threads run until the process ends.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alarmd/platform/Oipc.h"

namespace device {

/// The statuses besides those of OipcResult.
enum Status : int {
    STATUS_NOT_OPEN = 100,
    STATUS_BUS_AWAY,
    STATUS_NAME_TAKEN,
    STATUS_INVALID_NAME,
    STATUS_NO_SUCH_SERVICE,
    STATUS_REFUSED,
    STATUS_TIMED_OUT,
    STATUS_WRONG_TYPE,
    STATUS_NO_MORE_PARAMETERS,
    STATUS_PROPERTY_IN_USE,
    STATUS_TOO_LARGE,
};

/// Holds the library's lock. Operations that are given one release it while they wait.
using Guard = std::unique_lock<std::mutex>;

using MessagePtr = std::shared_ptr<GDBusMessage>;
using ConnectionPtr = std::shared_ptr<GDBusConnection>;

/// The names of the errors that this platform answers with.
constexpr const char* ERROR_ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* ERROR_FAILED = "org.freedesktop.DBus.Error.Failed";
constexpr const char* ERROR_INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* ERROR_LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* ERROR_READ_ONLY = "org.freedesktop.DBus.Error.PropertyReadOnly";
constexpr const char* ERROR_UNKNOWN_INTERFACE = "org.freedesktop.DBus.Error.UnknownInterface";
constexpr const char* ERROR_UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* ERROR_UNKNOWN_OBJECT = "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* ERROR_UNKNOWN_PROPERTY = "org.freedesktop.DBus.Error.UnknownProperty";

/// Whether a service or endpoint can have this name: it is a bus name, an interface name and, with
/// slashes, an object path.
bool isServiceName(const std::string& name);

/// Whether a property or an event can have this name.
bool isMemberName(const std::string& name);

/// "a.b.c" as "/a/b/c".
std::string pathOf(const std::string& name);

/// A text for the bus, invalid UTF-8 replaced. Floating, as GLib's own constructors give it.
GVariant* newText(const std::string& text);

/// A call of `method` at the object of the service or endpoint `name`.
MessagePtr newCall(const std::string& name, const char* interface, const char* method,
                   GVariant* arguments);

/// A method call from another process, to be answered once. Bound to the connection that it came
/// by: after a lost bus its sender's name may be somebody else's.
class Call {
  public:
    Call(ConnectionPtr connection, MessagePtr message);

    const char* path() const;
    /// Empty when the caller left it out, which is allowed.
    const char* interface() const;
    bool is(const char* interface, const char* member) const;
    bool hasSignature(const char* signature) const;
    /// The arguments; null when there are none.
    GVariant* arguments() const;

    /// Answers with a tuple (consumed when floating) or with nothing.
    void reply(GVariant* results = nullptr) const;
    void fail(const char* error, const std::string& text) const;

  private:
    void send(MessagePtr reply) const;

    ConnectionPtr m_connection;
    MessagePtr m_message;
};

/// What one service or endpoint serves at its path. All operations need the lock.
class Served {
  public:
    virtual ~Served() = default;
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

    virtual const char* interfaceName() const = 0;

    /// The introspection data of the interface.
    virtual std::string describe() const = 0;

    /// Answers the call, now or later, and returns true; false when it is for another interface.
    /// GDBus's worker thread; may release the lock only when the call was taken.
    virtual bool take(const Call& call, Guard& lock) = 0;

    /// The name has been taken, for the first time or again.
    virtual void onNameTaken() {}

  protected:
    Served() = default;
};

/// One event of a service that somebody wants to hear of.
struct Subscription {
    std::string service;
    std::string event;
    const void* data;  ///< what it is revoked by
    /// Gets the signal's arguments (null when there are none); runs as a callback.
    std::function<void(GVariant*)> handle;
    bool revoked = false;
};

class Bus {
  public:
    static Bus& instance();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// The library's lock.
    Guard lock() { return Guard(m_mutex); }

    // These take the lock.

    /// Connects if nothing of the process is on the bus yet, takes the name and serves the object.
    /// One name can carry several interfaces. When it fails nothing is left that tries again.
    [[nodiscard]] int open(const std::string& name, Served& served);

    /// Whether messages can leave at this moment.
    bool isConnected(const Guard& lock) const;

    /// Takes the object off the bus and waits for its callbacks that run.
    void close(const std::string& name, Served& served);

    /// Waits until the bus has it in force.
    [[nodiscard]] int subscribe(const std::shared_ptr<Subscription>& subscription);

    // These need the lock.

    /// Sends a signal of the object `name`; false when it is not on the bus now.
    bool emit(const std::string& name, const char* interface, const std::string& member,
              GVariant* arguments);

    struct Reply {
        int status;
        MessagePtr message;  ///< set when the status is 0
    };
    /// Calls and waits for the answer.
    Reply call(Guard& lock, const MessagePtr& message, std::chrono::milliseconds limit);

    /// Drops every subscription with `data` and waits for the callbacks that run with it.
    void revoke(Guard& lock, const void* data);

    using Job = std::function<void(Guard&)>;
    /// Runs a job on the property thread, after those that are queued.
    void queueForProperties(Job job);

    /// Runs one callback with the lock released; revoke() and close() wait for it. Returns whether
    /// it returned; an exception ends it and is logged.
    bool runCallback(Guard& lock, const void* data, const std::function<void()>& callback);

  private:
    /// What the process has under one name.
    struct Object {
        std::vector<Served*> served;
        bool owned = false;             ///< the name is ours at this moment
        int requestStatus = k_pending;  ///< of the latest request for the name
    };
    static constexpr int k_pending = -1;

    /// A queue with a thread of its own.
    struct Worker {
        std::deque<Job> jobs;
        std::condition_variable wake;
    };

    /// Called once at most, with the lock held: the reply, or null when the connection is lost.
    using OnReply = std::function<void(GDBusMessage*)>;

    Bus();
    void runLink();
    void runWorker(Worker& worker);

    static GDBusMessage* filter(GDBusConnection* connection, GDBusMessage* message,
                                gboolean incoming, gpointer self);
    void onCall(const Call& call);
    void onSignal(const MessagePtr& message);
    bool onReply(GDBusMessage* reply);
    void onClosed();

    void connect(Guard& lock);
    void requestMissingNames();
    bool isWhole() const;
    bool waitOnLink(Guard& lock, std::chrono::milliseconds limit);

    guint32 send(GDBusMessage* message);
    void sendToBus(const char* method, GVariant* arguments);
    bool request(const MessagePtr& message, OnReply onReply);
    void requestName(const std::string& name);
    void watchOwner(const std::string& service);
    void unsubscribe(Subscription& subscription);
    std::string introspect(const std::string& path) const;

    std::mutex m_opening;               ///< one open() or close() at a time; taken before m_mutex
    std::mutex m_mutex;                 ///< the library's lock: guards all below
    std::condition_variable m_changed;  ///< a request was answered, a callback has ended
    GMainContext* const m_context;      ///< of the link thread
    GCancellable* const m_connecting;   ///< ends an attempt to connect
    ConnectionPtr m_connection;         ///< empty while the bus is away
    bool m_connectAsked = false;        ///< open() waits for one attempt of the link thread
    std::map<std::string, Object> m_objects;
    std::map<guint32, OnReply> m_replies;  ///< by the call's serial
    std::vector<std::shared_ptr<Subscription>> m_subscriptions;
    std::map<std::string, std::string> m_owners;  ///< of the services subscribed to; "" for none
    std::multiset<const void*> m_running;         ///< the data of the callbacks that run
    Worker m_events;
    Worker m_properties;
};

}  // namespace device
