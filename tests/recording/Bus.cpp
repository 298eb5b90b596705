/// The bus side: services, properties, events and the messaging endpoint.
#include <cstdlib>
#include <cstring>

#include "alarmd/platform/Olog.h"
#include "alarmd/platform/ThinkingModeUtil.h"
#include "tests/recording/Platform.h"

using recording::platform;
using recording::State;

struct OipcHandleStruct {};
struct OipcEventHandleStruct {
    const char* argument;
};

namespace {

constexpr int k_absent = 3;
OipcHandleStruct theHandle;

int toInt(const char* text, int* value) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    *value = end == text ? *value : static_cast<int>(number);
    return end == text ? k_absent : 0;
}

}  // namespace

namespace recording {

void Platform::emit(const std::string& source, const char* argument) {
    const State::Callback found = callback(source);
    OipcEventHandleStruct event{argument};
    found.handler(&theHandle, source.substr(source.find(' ') + 1).c_str(), &event, found.data);
}

int Platform::write(const std::string& property, const std::string& value) {
    const State::Callback found = callback(property);
    return found.setter(&theHandle, property.c_str(), value.c_str(), found.data);
}

int Platform::read(const std::string& property, char* buffer, unsigned int& size) {
    const State::Callback found = callback(property);
    return found.getter(&theHandle, property.c_str(), buffer, &size, found.data);
}

}  // namespace recording

OipcHandleStruct* OipcOpenEx(const char* service, int* status) {
    *status = platform().record(std::string("open ") + service);
    return &theHandle;
}

bool OipcIsOnBus(OipcHandleStruct*) {
    return true;
}

const char* OipcGetErrorString(int) {
    return "scripted failure";
}

int OipcRegisterStringProperty(OipcHandleStruct*, const char* property, OipcStringGetter getter,
                               OipcStringSetter setter, void* data) {
    return platform().record(std::string("register ") + property, [&](State& state) {
        state.callbacks[property] = {getter, setter, nullptr, data};
    });
}

int OipcSubscribeExt(OipcHandleStruct*, const char* service, const char* event,
                     OipcEventHandler handler, void* data) {
    const std::string source = std::string(service) + " " + event;
    return platform().record("subscribe " + source, [&](State& state) {
        state.callbacks[source] = {nullptr, nullptr, handler, data};
    });
}

/// Callbacks are made by the test itself, so none runs when it ends the daemon.
void OipcRevokeCallbacks(void*) {
    platform().record("revoke", [](State& state) { state.callbacks.clear(); });
}

int OipcGetStringProperty(OipcHandleStruct*, const char* service, const char* property,
                          char** value) {
    const std::string source = std::string(service) + " " + property;
    char* found = nullptr;
    const int status = platform().record("get " + source, [&](State& state) {
        const auto answer = state.answers.find(source);
        found = answer == state.answers.end() ? nullptr : strdup(answer->second.c_str());
    });
    *value = found == nullptr ? *value : found;
    return status == 0 && found == nullptr ? k_absent : status;
}

int OipcGetIntProperty(OipcHandleStruct* handle, const char* service, const char* property,
                       int* value) {
    char* text = nullptr;
    int status = OipcGetStringProperty(handle, service, property, &text);
    if (status == 0) {
        status = toInt(text, value);
        std::free(text);
    }
    return status;
}

int OipcSetStringProperty(OipcHandleStruct*, const char* service, const char* property,
                          const char* value) {
    return platform().record(std::string("put ") + service + " " + property + "=" + value);
}

void OipcFreeString(char* text) {
    std::free(text);
}

int OipcGetIntParam(OipcEventHandleStruct* event, int* value) {
    return event->argument == nullptr ? k_absent : toInt(event->argument, value);
}

int OipcGetStringParam(OipcEventHandleStruct* event, const char** value) {
    *value = event->argument == nullptr ? *value : event->argument;
    return event->argument == nullptr ? k_absent : 0;
}

namespace OipcProp {

struct OipcString::Impl {
    std::string name;
    bool isValid;
};

OipcString::OipcString(OipcHandleStruct*, const std::string& name, const std::string& initialValue,
                       Getter, Setter, bool)
    : m_impl(new Impl{name, false}) {
    const auto effect = [&](State& state) { state.published[name] = initialValue; };
    m_impl->isValid = platform().record("property " + name + "=" + initialValue, effect) == 0;
}
OipcString::~OipcString() = default;

bool OipcString::isValid() const {
    return m_impl->isValid;
}

bool OipcString::set(const std::string& value, const std::string&) {
    const auto effect = [&](State& state) { state.published[m_impl->name] = value; };
    return platform().record("publish " + m_impl->name + "=" + value, effect) == 0;
}

std::string OipcString::get() const {
    return platform().published(m_impl->name);
}

}  // namespace OipcProp

void OlogInitLogProperties(OipcHandleStruct*, std::atomic<std::uint32_t>*) {
    platform().record("log-properties");
}

ThinkingModeUtil::ThinkingModeUtil(OipcHandleStruct* handle) : m_handle(handle) {}

void ThinkingModeUtil::endThinkingMode(const std::string& voiceRequestId) {
    platform().record(m_handle == &theHandle ? "end-thinking " + voiceRequestId : "no handle");
}

namespace CorvelMessaging {

const std::string CorvelMessagingEndpoint::k_clientNameSuffix = ".corvel";
const std::string CorvelMessagingEndpoint::k_corveldName = "com.quintel.corveld";

struct CorvelMessagingEndpoint::Impl {
    std::string name;
    CorvelMessageHandler& handler;
};

CorvelMessagingEndpoint::CorvelMessagingEndpoint(const std::string& name,
                                                 CorvelMessageHandler& handler)
    : m_impl(new Impl{name, handler}) {}

CorvelMessagingEndpoint::~CorvelMessagingEndpoint() {
    platform().record("endpoint-released");
}

int CorvelMessagingEndpoint::init() {
    return platform().record("endpoint " + m_impl->name,
                             [&](State& state) { state.handler = &m_impl->handler; });
}

/// Only what is not as in every message is spelled out.
int CorvelMessagingEndpoint::sendMessage(boost::shared_ptr<Message> message,
                                         const std::string& destination, bool, int timeoutMs) {
    const int context = message->getRequestReplyContext().getReconciliationId();
    const bool usual = destination == k_corveldName && timeoutMs == 35000
                       && message->getBody().getContentType() == "application/json";
    return platform().record("send " + message->getType().getNamespace() + "."
                             + message->getType().getName() + " " + message->getBody().getBody()
                             + (context == 0 ? "" : " #" + std::to_string(context))
                             + (usual ? "" : " unusual, to " + destination));
}

}  // namespace CorvelMessaging
