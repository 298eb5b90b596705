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

static OipcHandleStruct theHandle;

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

int OipcRegisterStringProperty(OipcHandleStruct*, const char* property, OipcStringGetter,
                               OipcStringSetter setter, void* data) {
    return platform().record(std::string("register ") + property, [&](State& state) {
        state.callbacks[property] = [=](const char* value) {
            return setter(&theHandle, property, value, data);
        };
    });
}

int OipcSubscribeExt(OipcHandleStruct*, const char* service, const char* event,
                     OipcEventHandler handler, void* data) {
    const std::string source = std::string(service) + " " + event;
    return platform().record("subscribe " + source, [&](State& state) {
        state.callbacks[source] = [=](const char* argument) {
            OipcEventHandleStruct sent{argument};
            return handler(&theHandle, event, &sent, data), 0;
        };
    });
}

/// Callbacks are made by the test itself, so none runs when it ends the daemon.
void OipcRevokeCallbacks(void*) {}

int OipcGetStringProperty(OipcHandleStruct*, const char* service, const char* property,
                          char** value) {
    const std::string source = std::string(service) + " " + property;
    platform().record("get " + source, [&](State& state) {
        const auto answer = state.answers.find(source);
        *value = answer == state.answers.end() ? nullptr : strdup(answer->second.c_str());
    });
    return *value == nullptr ? 3 : 0;
}

int OipcGetIntProperty(OipcHandleStruct* handle, const char* service, const char* property,
                       int* value) {
    char* text = nullptr;
    const int status = OipcGetStringProperty(handle, service, property, &text);
    *value = status == 0 ? std::atoi(text) : *value;
    std::free(text);
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
    *value = std::atoi(event->argument);
    return 0;
}

int OipcGetStringParam(OipcEventHandleStruct* event, const char** value) {
    *value = event->argument;
    return 0;
}

namespace OipcProp {

struct OipcString::Impl {
    const std::string name;
    bool isValid;
};

OipcString::OipcString(OipcHandleStruct*, const std::string& name, const std::string& initialValue,
                       Getter, Setter, bool)
    : m_impl(new Impl{name, false}) {
    m_impl->isValid = OipcString::set(initialValue, "");
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

void OlogInitLogProperties(OipcHandleStruct*, std::atomic<std::uint32_t>*) {}

ThinkingModeUtil::ThinkingModeUtil(OipcHandleStruct* handle) : m_handle(handle) {}

void ThinkingModeUtil::endThinkingMode(const std::string& voiceRequestId) {
    platform().record((m_handle != nullptr ? "end-thinking " : "no handle ") + voiceRequestId);
}

namespace CorvelMessaging {

const std::string CorvelMessagingEndpoint::k_clientNameSuffix = ".corvel";
const std::string CorvelMessagingEndpoint::k_corveldName = "com.quintel.corveld";

struct CorvelMessagingEndpoint::Impl {};

CorvelMessagingEndpoint::CorvelMessagingEndpoint(const std::string&,
                                                 CorvelMessageHandler& handler) {
    platform().record("open-endpoint", [&](State& state) { state.handler = &handler; });
}
CorvelMessagingEndpoint::~CorvelMessagingEndpoint() = default;

int CorvelMessagingEndpoint::init() {
    return platform().record("endpoint");
}

int CorvelMessagingEndpoint::sendMessage(boost::shared_ptr<Message> message, const std::string&,
                                         bool, int) {
    return platform().record("send " + message->getType().getNamespace() + "."
                             + message->getType().getName() + " " + message->getBody().getBody());
}

}  // namespace CorvelMessaging
