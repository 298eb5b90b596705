/// One open service: its properties as they are served on the bus.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <variant>

#include "alarmd/platform/Oipc.h"
#include "device/bus/Bus.h"

namespace device {

/// The value of a property: text or int.
using Value = std::variant<std::string, int>;

/// A property is one of three: a value that the library keeps and publishes; one that lives
/// elsewhere in the process and is published (`read` is set, and `write`); or a raw one, whose
/// reads and writes are callbacks.
struct Property {
    Value value;

    std::function<std::string()> read = nullptr;
    /// False when the text is no value of the property. Neither takes a lock.
    std::function<bool(const std::string&)> write = nullptr;

    bool isRaw = false;
    OipcStringGetter getter = nullptr;
    OipcStringSetter setter = nullptr;
    void* data = nullptr;
};

}  // namespace device

/// Owned by the library for the life of the process. Constant but for what the library's lock
/// guards.
struct OipcHandleStruct final : device::Served {
    explicit OipcHandleStruct(std::string service);

    /// The service of this name in this process, made when there is none. Takes the lock.
    static OipcHandleStruct* find(const std::string& service);

    /// Drops the raw properties with `data` of every service. Needs the lock.
    static void revoke(const void* data);

    /// These take the lock.
    [[nodiscard]] int open();
    /// 0 when it is open, else the status that says so.
    [[nodiscard]] int openStatus() const;
    [[nodiscard]] int add(const std::string& name, device::Property property);
    void remove(const std::string& name);
    bool set(const std::string& name, const device::Value& value);
    device::Value get(const std::string& name) const;
    [[nodiscard]] int send(const std::string& event, const device::Value& value);

    const char* interfaceName() const override { return m_service.c_str(); }
    std::string describe() const override;
    bool take(const device::Call& call, device::Guard& lock) override;
    void onNameTaken() override;

  private:
    // All that follows needs the lock.

    /// Answer a read, a read of all, a write: at once or from the property thread.
    void answerGet(const device::Call& call);
    void answerGetAll(const device::Call& call);
    void answerSet(const device::Call& call);
    void writePublished(const device::Call& call, const std::string& name,
                        const device::Value& value);

    /// Run the callback of a raw property. Property thread.
    int callGetter(device::Guard& lock, const std::string& name, std::string& text);
    int callSetter(device::Guard& lock, const std::string& name, const std::string& text);

    device::Property* findProperty(const std::string& name);
    bool publish(const std::string& name, const device::Property& property);

    const std::string m_service;
    bool m_isOpen = false;
    std::map<std::string, device::Property> m_properties;
};
