/// The device IPC bus: services, their properties, and their events.
///
/// A service "a.b.c" has properties (text or int) and sends events. A process may open several
/// services; they share one connection. A lost bus is not an error of this interface: the library
/// connects again by itself (forever), takes the names, subscribes and publishes the current values
/// again. Until then every call fails at once.
///
/// Threads. Every operation may be called from any thread, also from inside a callback, except
/// where it says otherwise. Event handlers run on one thread of the library and property callbacks
/// on a second one, each in the order in which the bus delivered them, so a property write never
/// waits behind a slow event. No lock of the library is held while a callback runs. An exception
/// that leaves a callback ends that callback alone and is logged.
///
/// Failure. Operations return 0 for success and another status otherwise; OipcGetErrorString gives
/// its text. Nothing here throws, std::bad_alloc aside.
///
/// Text is UTF-8. Invalid bytes are replaced by U+FFFD on the way out.
#pragma once

#include <memory>
#include <string>

/// One open service. Owned by the library, which never closes it.
struct OipcHandleStruct;

/// One event while its handler runs. Owned by the library.
struct OipcEventHandleStruct;

/// The results of property callbacks, which are also statuses.
enum OipcResult : int {
    OIPC_SUCCESS = 0,
    OIPC_INTERNAL_ERROR = 2,
    OIPC_NO_SUCH_PROPERTY = 8,
    OIPC_BUFFER_TOO_SMALL = 10,
};

/// Fills `buffer` with the property's text and its terminating zero. `*size` is the buffer's size
/// in bytes; when it is too small the getter stores the size it needs there, leaves the buffer
/// alone and returns OIPC_BUFFER_TOO_SMALL: the library calls again with a buffer of that size.
using OipcStringGetter = int (*)(OipcHandleStruct* handle, const char* property, char* buffer,
                                 unsigned int* size, void* data);

/// Takes a value that another service wrote. `value` is only valid during the call.
using OipcStringSetter = int (*)(OipcHandleStruct* handle, const char* property, const char* value,
                                 void* data);

/// Handles one event of a service subscribed to. `event` is only valid during the call.
using OipcEventHandler = void (*)(OipcHandleStruct* handle, const char* eventName,
                                  OipcEventHandleStruct* event, void* data);

/// Connects, when this is the first service of the process, and takes the service's name; waits 2 s
/// at most for each, and never for another owner of the name to let it go. The handle is never
/// null, but is of use only when `*status` is 0: non-zero means that the bus cannot be reached or
/// does not answer, or that the name is taken.
OipcHandleStruct* OipcOpenEx(const char* service, int* status);

/// Whether the bus is there at this moment. Never waits.
bool OipcIsOnBus(OipcHandleStruct* handle);

/// A readable text for any status; never null, owned by the library.
const char* OipcGetErrorString(int status);

/// Adds a property whose reads call `getter` and whose writes call `setter`; either may be null,
/// which makes the property write-only or read-only. `data` is handed to both.
[[nodiscard]] int OipcRegisterStringProperty(OipcHandleStruct* handle, const char* property,
                                             OipcStringGetter getter, OipcStringSetter setter,
                                             void* data);

/// Calls `handler` with `data` for each event `event` that `service` sends from now on. The service
/// need not be there yet. A signal of a process that does not own the service's name at that moment
/// is no event of the service. One round trip, waiting 2 s at most.
[[nodiscard]] int OipcSubscribeExt(OipcHandleStruct* handle, const char* service, const char* event,
                                   OipcEventHandler handler, void* data);

/// Sends one event of this service with one text or one int argument. Returns as soon as it is
/// queued.
[[nodiscard]] int OipcSendStringEvent(OipcHandleStruct* handle, const char* event,
                                      const std::string& value);
[[nodiscard]] int OipcSendIntEvent(OipcHandleStruct* handle, const char* event, int value);

/// Drops every property callback and subscription that was registered with `data`, then waits for
/// those that run. After it returns nothing calls with `data` any more, so `data` may die; what
/// other processes ask of a dropped property is answered as an unknown property. Not to be called
/// from a callback, nor under a lock that a callback takes.
void OipcRevokeCallbacks(void* data);

/// Reads or writes a property of another service: one round trip, waiting 2 s at most. A service
/// that is absent, a property that is unknown, a value of another type and a time-out are all
/// non-zero.
/// `*value` is untouched on failure. The text is the caller's, to be freed with OipcFreeString.
[[nodiscard]] int OipcGetStringProperty(OipcHandleStruct* handle, const char* service,
                                        const char* property, char** value);
[[nodiscard]] int OipcGetIntProperty(OipcHandleStruct* handle, const char* service,
                                     const char* property, int* value);
[[nodiscard]] int OipcSetStringProperty(OipcHandleStruct* handle, const char* service,
                                        const char* property, const char* value);
void OipcFreeString(char* text);

/// Reads the next argument of an event. Non-zero, and nothing consumed, when it has another type or
/// there is none left. The text is the event's and is not freed.
[[nodiscard]] int OipcGetIntParam(OipcEventHandleStruct* event, int* value);
[[nodiscard]] int OipcGetStringParam(OipcEventHandleStruct* event, const char** value);

namespace OipcProp {

/// What all published text properties share.
class OipcStringBase {
  public:
    virtual ~OipcStringBase() = default;
    OipcStringBase(const OipcStringBase&) = delete;
    OipcStringBase& operator=(const OipcStringBase&) = delete;

    /// Stores and publishes a value: listeners see the standard property change and the event
    /// "<name>Changed", also when the value is the one it had. Never waits for a listener. The
    /// order of publication is the order of the values. False when the bus is away: the value is
    /// kept and published once it is back. The second text is reserved; pass "".
    virtual bool set(const std::string& value, const std::string& reserved) = 0;

    /// A copy of the current value.
    virtual std::string get() const = 0;

  protected:
    OipcStringBase() = default;
};

/// A text property that the library keeps and publishes. Other services read it, and (it having no
/// callbacks) may write it: that stores and publishes too. Lives until this object is destroyed, by
/// its owner, who makes sure that nobody uses it then.
class OipcString : public OipcStringBase {
  public:
    using Getter = OipcStringGetter;
    using Setter = OipcStringSetter;

    /// Adds the property with its first value, which is not published. `getter` and `setter`
    /// replace the library's own and are null here; `flag` is reserved, pass false.
    OipcString(OipcHandleStruct* handle, const std::string& name, const std::string& initialValue,
               Getter getter, Setter setter, bool flag);
    ~OipcString() override;

    /// False when the property could not be added (no open service, an invalid name, or
    /// one that is in use).
    bool isValid() const;

    bool set(const std::string& value, const std::string& reserved) override;
    std::string get() const override;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The same for an int; its event "<name>Changed" carries an int. For services that publish
/// numbers.
class OipcInt {
  public:
    OipcInt(OipcHandleStruct* handle, const std::string& name, int initialValue);
    ~OipcInt();
    OipcInt(const OipcInt&) = delete;
    OipcInt& operator=(const OipcInt&) = delete;

    bool isValid() const;
    bool set(int value);
    int get() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace OipcProp
