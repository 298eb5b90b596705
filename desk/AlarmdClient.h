/// What another service of the device sees of alarmd, and what it may ask of it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "alarmd/platform/Oipc.h"
#include "desk/Timeline.h"

namespace desk {

/// One notification in alarmd's own list; the texts as alarmd gives them.
struct Notification {
    std::string id;
    std::string type;
    std::string time;
};

/// Shows each change of alarmd's properties. Operations may be called by any thread; each waits for
/// alarmd's answer, 2 s at most.
class AlarmdClient {
  public:
    /// `onStatus` is called with each new "Status", on the bus library's event thread.
    /// Throws std::runtime_error when the bus refuses the service.
    AlarmdClient(Timeline& timeline, std::function<void(const std::string&)> onStatus);
    ~AlarmdClient();
    AlarmdClient(const AlarmdClient&) = delete;
    AlarmdClient& operator=(const AlarmdClient&) = delete;

    // Each operation leaves a line on the timeline when alarmd cannot be reached.

    /// Stops what rings, as the device's action button does.
    void acknowledge();
    void setDoNotDisturb(bool on);

    /// A text property of alarmd, or nothing when alarmd cannot be reached.
    std::optional<std::string> property(const char* name);

    /// All notifications that wait, or nothing when alarmd cannot be reached.
    std::optional<std::vector<Notification>> list();

  private:
    static void onChange(OipcHandleStruct* handle, const char* eventName,
                         OipcEventHandleStruct* event, void* data);
    void write(const char* property, const char* value);
    void complain(const char* property, int status);

    Timeline& m_timeline;
    const std::function<void(const std::string&)> m_onStatus;
    OipcHandleStruct* const m_service;
};

}  // namespace desk
