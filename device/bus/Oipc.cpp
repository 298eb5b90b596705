#include "alarmd/platform/Oipc.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "device/bus/Service.h"

using device::Bus;
using device::Call;
using device::Guard;
using device::Property;
using device::Value;

/// The arguments of an event and how far they were read.
struct OipcEventHandleStruct {
    GVariant* arguments;  ///< null when there are none
    gsize next = 0;
};

namespace {

constexpr std::chrono::milliseconds k_propertyLimit{2000};
constexpr std::size_t k_firstBufferSize = 256;
/// What a getter may ask for at most: more would not fit into a message.
constexpr std::size_t k_largestBufferSize = std::size_t{32} << 20;
constexpr const char* k_properties = "org.freedesktop.DBus.Properties";

GVariant* toVariant(const Value& value) {
    const std::string* text = std::get_if<std::string>(&value);
    return text != nullptr ? device::newText(*text) : g_variant_new_int32(std::get<int>(value));
}

std::optional<Value> toValue(GVariant* variant) {
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_STRING)) {
        return std::string(g_variant_get_string(variant, nullptr));
    }
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_INT32)) {
        return g_variant_get_int32(variant);
    }
    return std::nullopt;
}

const char* signatureOf(const Value& value) {
    return std::holds_alternative<std::string>(value) ? "s" : "i";
}

Value currentValue(const Property& property) {
    return property.read ? Value(property.read()) : property.value;
}

void failCallback(const Call& call, int result, const std::string& name) {
    if (result == OIPC_NO_SUCH_PROPERTY) {
        call.fail(device::ERROR_UNKNOWN_PROPERTY, "There is no property " + name + ".");
    } else {
        call.fail(device::ERROR_FAILED,
                  "Property " + name + ": " + OipcGetErrorString(result) + ".");
    }
}

std::string orEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// Never destroyed: callbacks may run until the process ends. Guarded by the library's lock.
std::map<std::string, OipcHandleStruct*>& allServices() {
    static auto* const services = new std::map<std::string, OipcHandleStruct*>;
    return *services;
}

}  // namespace

// --- The service as the bus sees it ---

OipcHandleStruct::OipcHandleStruct(std::string service) : m_service(std::move(service)) {}

OipcHandleStruct* OipcHandleStruct::find(const std::string& service) {
    const Guard lock = Bus::instance().lock();
    OipcHandleStruct*& handle = allServices()[service];
    if (handle == nullptr) {
        handle = new OipcHandleStruct(service);
    }
    return handle;
}

void OipcHandleStruct::revoke(const void* data) {
    for (const auto& [service, handle] : allServices()) {
        auto& properties = handle->m_properties;
        for (auto it = properties.begin(); it != properties.end();) {
            it = it->second.isRaw && it->second.data == data ? properties.erase(it) : std::next(it);
        }
    }
}

int OipcHandleStruct::open() {
    if (openStatus() == OIPC_SUCCESS) {
        return OIPC_SUCCESS;
    }
    const int status = Bus::instance().open(m_service, *this);
    const Guard lock = Bus::instance().lock();
    m_isOpen = m_isOpen || status == OIPC_SUCCESS;
    return m_isOpen ? int{OIPC_SUCCESS} : status;  // another thread may have opened it meanwhile
}

int OipcHandleStruct::openStatus() const {
    const Guard lock = Bus::instance().lock();
    return m_isOpen ? int{OIPC_SUCCESS} : int{device::STATUS_NOT_OPEN};
}

int OipcHandleStruct::add(const std::string& name, Property property) {
    const Guard lock = Bus::instance().lock();
    if (!m_isOpen) {
        return device::STATUS_NOT_OPEN;
    }
    // Its event must have a name that fits, too.
    if (!device::isMemberName(name + "Changed")) {
        return device::STATUS_INVALID_NAME;
    }
    const bool isNew = m_properties.emplace(name, std::move(property)).second;
    return isNew ? int{OIPC_SUCCESS} : int{device::STATUS_PROPERTY_IN_USE};
}

void OipcHandleStruct::remove(const std::string& name) {
    const Guard lock = Bus::instance().lock();
    m_properties.erase(name);
}

bool OipcHandleStruct::set(const std::string& name, const Value& value) {
    const Guard lock = Bus::instance().lock();
    Property& property = m_properties.at(name);
    property.value = value;
    return publish(name, property);
}

Value OipcHandleStruct::get(const std::string& name) const {
    const Guard lock = Bus::instance().lock();
    return m_properties.at(name).value;
}

int OipcHandleStruct::send(const std::string& event, const Value& value) {
    if (!device::isMemberName(event)) {
        return device::STATUS_INVALID_NAME;
    }
    const Guard lock = Bus::instance().lock();
    if (!m_isOpen) {
        return device::STATUS_NOT_OPEN;
    }
    GVariant* argument = toVariant(value);
    const bool isSent = Bus::instance().emit(m_service, m_service.c_str(), event,
                                             g_variant_new_tuple(&argument, 1));
    return isSent ? int{OIPC_SUCCESS} : int{device::STATUS_BUS_AWAY};
}

/// Both signals of one publication. They leave in the order of the values, because value and
/// signals are set and queued under the same lock.
bool OipcHandleStruct::publish(const std::string& name, const Property& property) {
    const Value value = currentValue(property);
    Bus& bus = Bus::instance();
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", name.c_str(), toVariant(value));
    const bool isChangeSent =
        bus.emit(m_service, k_properties, "PropertiesChanged",
                 g_variant_new("(sa{sv}as)", m_service.c_str(), &changed, nullptr));
    GVariant* argument = toVariant(value);
    return bus.emit(m_service, m_service.c_str(), name + "Changed",
                    g_variant_new_tuple(&argument, 1))
           && isChangeSent;
}

void OipcHandleStruct::onNameTaken() {
    for (const auto& [name, property] : m_properties) {
        if (!property.isRaw) {
            publish(name, property);
        }
    }
}

std::string OipcHandleStruct::describe() const {
    std::string xml = "\n <interface name=\"" + m_service + "\">";
    for (const auto& [name, property] : m_properties) {
        const std::string type = std::string("type=\"") + signatureOf(property.value) + "\"";
        const bool isReadable = !property.isRaw || property.getter != nullptr;
        const bool isWritable = !property.isRaw || property.setter != nullptr;
        xml += "\n  <property name=\"" + name + "\" " + type + " access=\""
               + (isReadable ? "read" : "") + (isWritable ? "write" : "") + "\"/>";
        if (!property.isRaw) {
            xml += "\n  <signal name=\"" + name + "Changed\"><arg name=\"value\" " + type
                   + "/></signal>";
        }
    }
    return xml + R"(
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg name="interface_name" type="s" direction="in"/>
   <arg name="property_name" type="s" direction="in"/>
   <arg name="value" type="v" direction="out"/>
  </method>
  <method name="GetAll">
   <arg name="interface_name" type="s" direction="in"/>
   <arg name="properties" type="a{sv}" direction="out"/>
  </method>
  <method name="Set">
   <arg name="interface_name" type="s" direction="in"/>
   <arg name="property_name" type="s" direction="in"/>
   <arg name="value" type="v" direction="in"/>
  </method>
  <signal name="PropertiesChanged">
   <arg name="interface_name" type="s"/>
   <arg name="changed_properties" type="a{sv}"/>
   <arg name="invalidated_properties" type="as"/>
  </signal>
 </interface>)";
}

bool OipcHandleStruct::take(const Call& call, Guard& /*lock*/) {
    struct Method {
        const char* name;
        const char* signature;
        void (OipcHandleStruct::*answer)(const Call&);
    };
    static constexpr Method methods[] = {
        {"Get", "ss", &OipcHandleStruct::answerGet},
        {"GetAll", "s", &OipcHandleStruct::answerGetAll},
        {"Set", "ssv", &OipcHandleStruct::answerSet},
    };
    for (const Method& method : methods) {
        if (!call.is(k_properties, method.name)) {
            continue;
        }
        if (!call.hasSignature(method.signature)) {
            call.fail(device::ERROR_INVALID_ARGS, "The arguments have other types.");
            return true;
        }
        // An empty interface name asks for a property of whatever interface.
        const char* interface = nullptr;
        g_variant_get_child(call.arguments(), 0, "&s", &interface);
        if (*interface != '\0' && m_service != interface) {
            call.fail(device::ERROR_UNKNOWN_INTERFACE,
                      std::string("There are no properties of ") + interface + ".");
        } else {
            (this->*method.answer)(call);
        }
        return true;
    }
    if (call.interface() == m_service || std::strcmp(call.interface(), k_properties) == 0) {
        call.fail(device::ERROR_UNKNOWN_METHOD, "There is no such method.");
        return true;
    }
    return false;
}

Property* OipcHandleStruct::findProperty(const std::string& name) {
    const auto property = m_properties.find(name);
    return property == m_properties.end() ? nullptr : &property->second;
}

void OipcHandleStruct::answerGet(const Call& call) {
    const char* argument = nullptr;
    g_variant_get_child(call.arguments(), 1, "&s", &argument);
    const std::string name = argument;
    const Property* property = findProperty(name);
    if (property == nullptr) {
        failCallback(call, OIPC_NO_SUCH_PROPERTY, name);
    } else if (!property->isRaw) {
        call.reply(g_variant_new("(v)", toVariant(currentValue(*property))));
    } else if (property->getter == nullptr) {
        call.fail(device::ERROR_ACCESS_DENIED, "Property " + name + " cannot be read.");
    } else {
        Bus::instance().queueForProperties([this, call, name](Guard& held) {
            std::string text;
            const int result = callGetter(held, name, text);
            if (result == OIPC_SUCCESS) {
                call.reply(g_variant_new("(v)", device::newText(text)));
            } else {
                failCallback(call, result, name);
            }
        });
    }
}

/// What cannot be read is left out. The published values are taken last, so that the answer holds
/// none that is older than a publication sent before it.
void OipcHandleStruct::answerGetAll(const Call& call) {
    Bus::instance().queueForProperties([this, call](Guard& held) {
        std::vector<std::string> rawNames;
        for (const auto& [name, property] : m_properties) {
            if (property.getter != nullptr) {
                rawNames.push_back(name);
            }
        }
        GVariantBuilder all;
        g_variant_builder_init(&all, G_VARIANT_TYPE_VARDICT);
        for (const std::string& name : rawNames) {
            std::string text;
            if (callGetter(held, name, text) == OIPC_SUCCESS) {
                g_variant_builder_add(&all, "{sv}", name.c_str(), device::newText(text));
            }
        }
        for (const auto& [name, property] : m_properties) {
            if (!property.isRaw) {
                g_variant_builder_add(&all, "{sv}", name.c_str(),
                                      toVariant(currentValue(property)));
            }
        }
        call.reply(g_variant_new("(a{sv})", &all));
    });
}

void OipcHandleStruct::answerSet(const Call& call) {
    const char* argument = nullptr;
    GVariant* written = nullptr;
    g_variant_get(call.arguments(), "(&s&sv)", nullptr, &argument, &written);
    const std::optional<Value> value = toValue(written);
    g_variant_unref(written);
    const std::string name = argument;
    Property* property = findProperty(name);
    if (property == nullptr) {
        failCallback(call, OIPC_NO_SUCH_PROPERTY, name);
    } else if (property->isRaw && property->setter == nullptr) {
        call.fail(device::ERROR_READ_ONLY, "Property " + name + " cannot be written.");
    } else if (!value || value->index() != property->value.index()) {
        call.fail(device::ERROR_INVALID_ARGS, "Property " + name + " has another type.");
    } else if (!property->isRaw) {
        writePublished(call, name, *value);
    } else {
        const std::string text = std::get<std::string>(*value);
        Bus::instance().queueForProperties([this, call, name, text](Guard& held) {
            const int result = callSetter(held, name, text);
            if (result == OIPC_SUCCESS) {
                call.reply();
            } else {
                failCallback(call, result, name);
            }
        });
    }
}

void OipcHandleStruct::writePublished(const Call& call, const std::string& name,
                                      const Value& value) {
    Property& property = m_properties.at(name);
    if (property.write && !property.write(std::get<std::string>(value))) {
        call.fail(device::ERROR_INVALID_ARGS, "This is no value of property " + name + ".");
        return;
    }
    property.value = value;
    publish(name, property);
    call.reply();
}

/// The property is looked up again before each call: between being queued and being called, and
/// between two calls, it may have been revoked.
int OipcHandleStruct::callGetter(Guard& lock, const std::string& name, std::string& text) {
    std::vector<char> buffer(k_firstBufferSize);
    for (;;) {
        const Property* found = findProperty(name);
        if (found == nullptr || found->getter == nullptr) {
            return OIPC_NO_SUCH_PROPERTY;
        }
        const Property property = *found;
        auto size = static_cast<unsigned int>(buffer.size());
        int result = OIPC_INTERNAL_ERROR;
        Bus::instance().runCallback(lock, property.data, [&] {
            result = property.getter(this, name.c_str(), buffer.data(), &size, property.data);
        });
        if (result == OIPC_SUCCESS) {
            text.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
        }
        if (result != OIPC_BUFFER_TOO_SMALL || size <= buffer.size()
            || size > k_largestBufferSize) {
            return result;
        }
        buffer.assign(size, '\0');
    }
}

int OipcHandleStruct::callSetter(Guard& lock, const std::string& name, const std::string& text) {
    const Property* found = findProperty(name);
    if (found == nullptr || found->setter == nullptr) {
        return OIPC_NO_SUCH_PROPERTY;
    }
    const Property property = *found;
    int result = OIPC_INTERNAL_ERROR;
    Bus::instance().runCallback(lock, property.data, [&] {
        result = property.setter(this, name.c_str(), text.c_str(), property.data);
    });
    return result;
}

// --- The operations of the library ---

OipcHandleStruct* OipcOpenEx(const char* service, int* status) {
    OipcHandleStruct* handle = OipcHandleStruct::find(orEmpty(service));
    *status = handle->open();
    return handle;
}

bool OipcIsOnBus(OipcHandleStruct* /*handle*/) {
    const Guard lock = Bus::instance().lock();
    return Bus::instance().isConnected(lock);
}

const char* OipcGetErrorString(int status) {
    switch (status) {
        case OIPC_SUCCESS:
            return "Success";
        case OIPC_INTERNAL_ERROR:
            return "Internal error";
        case OIPC_NO_SUCH_PROPERTY:
            return "No such property";
        case OIPC_BUFFER_TOO_SMALL:
            return "Buffer too small";
        case device::STATUS_NOT_OPEN:
            return "The service is not open";
        case device::STATUS_BUS_AWAY:
            return "The bus cannot be reached";
        case device::STATUS_NAME_TAKEN:
            return "The name is taken";
        case device::STATUS_INVALID_NAME:
            return "Invalid name";
        case device::STATUS_NO_SUCH_SERVICE:
            return "No such service";
        case device::STATUS_REFUSED:
            return "Refused by the service";
        case device::STATUS_TIMED_OUT:
            return "No answer in time";
        case device::STATUS_WRONG_TYPE:
            return "The value has another type";
        case device::STATUS_NO_MORE_PARAMETERS:
            return "No more parameters";
        case device::STATUS_PROPERTY_IN_USE:
            return "The property is there already";
        case device::STATUS_TOO_LARGE:
            return "Too large for a message";
        default:
            return "Unknown error";
    }
}

int OipcRegisterStringProperty(OipcHandleStruct* handle, const char* property,
                               OipcStringGetter getter, OipcStringSetter setter, void* data) {
    Property raw;
    raw.isRaw = true;
    raw.getter = getter;
    raw.setter = setter;
    raw.data = data;
    return handle->add(orEmpty(property), std::move(raw));
}

int OipcSubscribeExt(OipcHandleStruct* handle, const char* service, const char* event,
                     OipcEventHandler handler, void* data) {
    const int status = handle->openStatus();
    if (status != OIPC_SUCCESS) {
        return status;
    }
    const auto subscription = std::make_shared<device::Subscription>();
    subscription->service = orEmpty(service);
    subscription->event = orEmpty(event);
    subscription->data = data;
    if (!device::isServiceName(subscription->service)
        || !device::isMemberName(subscription->event)) {
        return device::STATUS_INVALID_NAME;
    }
    subscription->handle = [handle, handler, data,
                            name = subscription->event](GVariant* arguments) {
        OipcEventHandleStruct received{arguments};
        handler(handle, name.c_str(), &received, data);
    };
    return Bus::instance().subscribe(subscription);
}

int OipcSendStringEvent(OipcHandleStruct* handle, const char* event, const std::string& value) {
    return handle->send(orEmpty(event), value);
}

int OipcSendIntEvent(OipcHandleStruct* handle, const char* event, int value) {
    return handle->send(orEmpty(event), value);
}

void OipcRevokeCallbacks(void* data) {
    Guard lock = Bus::instance().lock();
    OipcHandleStruct::revoke(data);
    Bus::instance().revoke(lock, data);
}

namespace {

/// Writes a property of another service when there is a value, else reads it.
Bus::Reply callProperties(OipcHandleStruct* handle, const std::string& service,
                          const std::string& property, const std::optional<std::string>& value) {
    const int status = handle->openStatus();
    if (status != OIPC_SUCCESS) {
        return {status, nullptr};
    }
    if (!device::isServiceName(service) || !device::isMemberName(property)) {
        return {device::STATUS_INVALID_NAME, nullptr};
    }
    GVariant* const arguments =
        value ? g_variant_new("(ssv)", service.c_str(), property.c_str(), device::newText(*value))
              : g_variant_new("(ss)", service.c_str(), property.c_str());
    const device::MessagePtr call =
        device::newCall(service, k_properties, value ? "Set" : "Get", arguments);
    Guard lock = Bus::instance().lock();
    return Bus::instance().call(lock, call, k_propertyLimit);
}

int readProperty(OipcHandleStruct* handle, const char* service, const char* property,
                 std::optional<Value>& value) {
    const Bus::Reply reply =
        callProperties(handle, orEmpty(service), orEmpty(property), std::nullopt);
    if (reply.status != OIPC_SUCCESS) {
        return reply.status;
    }
    if (std::strcmp(g_dbus_message_get_signature(reply.message.get()), "v") != 0) {
        return device::STATUS_WRONG_TYPE;
    }
    GVariant* content = nullptr;
    g_variant_get(g_dbus_message_get_body(reply.message.get()), "(v)", &content);
    value = toValue(content);
    g_variant_unref(content);
    return value ? int{OIPC_SUCCESS} : int{device::STATUS_WRONG_TYPE};
}

}  // namespace

int OipcGetStringProperty(OipcHandleStruct* handle, const char* service, const char* property,
                          char** value) {
    std::optional<Value> read;
    const int status = readProperty(handle, service, property, read);
    if (status != OIPC_SUCCESS) {
        return status;
    }
    const std::string* text = std::get_if<std::string>(&*read);
    if (text == nullptr) {
        return device::STATUS_WRONG_TYPE;
    }
    char* const copy = strdup(text->c_str());
    if (copy == nullptr) {
        return OIPC_INTERNAL_ERROR;
    }
    *value = copy;
    return OIPC_SUCCESS;
}

int OipcGetIntProperty(OipcHandleStruct* handle, const char* service, const char* property,
                       int* value) {
    std::optional<Value> read;
    const int status = readProperty(handle, service, property, read);
    if (status != OIPC_SUCCESS) {
        return status;
    }
    const int* number = std::get_if<int>(&*read);
    if (number == nullptr) {
        return device::STATUS_WRONG_TYPE;
    }
    *value = *number;
    return OIPC_SUCCESS;
}

int OipcSetStringProperty(OipcHandleStruct* handle, const char* service, const char* property,
                          const char* value) {
    return callProperties(handle, orEmpty(service), orEmpty(property), orEmpty(value)).status;
}

void OipcFreeString(char* text) {
    std::free(text);
}

namespace {

/// Reads the next argument when it has the type.
int readParameter(OipcEventHandleStruct* event, const char* type, void* value) {
    if (event->arguments == nullptr || event->next >= g_variant_n_children(event->arguments)) {
        return device::STATUS_NO_MORE_PARAMETERS;
    }
    GVariant* const argument = g_variant_get_child_value(event->arguments, event->next);
    const bool hasType = g_variant_is_of_type(argument, G_VARIANT_TYPE(type));
    g_variant_unref(argument);
    if (!hasType) {
        return device::STATUS_WRONG_TYPE;
    }
    // "&" lends the text, which lives as long as the arguments.
    const char* const format = *type == 's' ? "&s" : type;
    g_variant_get_child(event->arguments, event->next, format, value);
    ++event->next;
    return OIPC_SUCCESS;
}

}  // namespace

int OipcGetIntParam(OipcEventHandleStruct* event, int* value) {
    return readParameter(event, "i", value);
}

int OipcGetStringParam(OipcEventHandleStruct* event, const char** value) {
    return readParameter(event, "s", value);
}

namespace OipcProp {
namespace {

/// What a published property of either type is made of.
class Published {
  public:
    Published(OipcHandleStruct* service, std::string name, const Value& initialValue)
        : m_service(service), m_name(std::move(name)) {
        Property property;
        property.value = initialValue;
        m_isValid = m_service->add(m_name, std::move(property)) == OIPC_SUCCESS;
    }
    ~Published() {
        if (m_isValid) {
            m_service->remove(m_name);
        }
    }
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    bool isValid() const { return m_isValid; }
    bool set(const Value& value) { return m_isValid && m_service->set(m_name, value); }
    template <typename T>
    T get() const {
        return m_isValid ? std::get<T>(m_service->get(m_name)) : T{};
    }

  private:
    OipcHandleStruct* m_service;
    std::string m_name;
    bool m_isValid = false;
};

}  // namespace

struct OipcString::Impl : Published {
    using Published::Published;
};

OipcString::OipcString(OipcHandleStruct* handle, const std::string& name,
                       const std::string& initialValue, Getter /*getter*/, Setter /*setter*/,
                       bool /*flag*/)
    : m_impl(std::make_unique<Impl>(handle, name, initialValue)) {}
OipcString::~OipcString() = default;

bool OipcString::isValid() const {
    return m_impl->isValid();
}

bool OipcString::set(const std::string& value, const std::string& /*reserved*/) {
    return m_impl->set(value);
}

std::string OipcString::get() const {
    return m_impl->get<std::string>();
}

struct OipcInt::Impl : Published {
    using Published::Published;
};

OipcInt::OipcInt(OipcHandleStruct* handle, const std::string& name, int initialValue)
    : m_impl(std::make_unique<Impl>(handle, name, initialValue)) {}
OipcInt::~OipcInt() = default;

bool OipcInt::isValid() const {
    return m_impl->isValid();
}

bool OipcInt::set(int value) {
    return m_impl->set(value);
}

int OipcInt::get() const {
    return m_impl->get<int>();
}

}  // namespace OipcProp
