/// The services of the device that alarmd reads, writes and listens to.
#pragma once

#include <mutex>
#include <string>

#include "alarmd/Constants.h"
#include "alarmd/platform/Oipc.h"
#include "desk/Sound.h"
#include "desk/Timeline.h"

namespace desk {

/// Plays the sound player, audio, settings, control, authentication and system services, and shows
/// what alarmd writes to them. The setters are called by one thread at a time.
class Device {
  public:
    /// Registered, the clock known, volume 50, alarms not ascending.
    /// Throws std::runtime_error when the bus refuses a service.
    explicit Device(Timeline& timeline);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void setVolume(int volume) { m_volume.set(volume); }
    void setAscending(bool on);

    /// The alert type chosen on the device: "long", "short" or "none"; false for any other.
    bool setAlertType(const std::string& type);

    /// The customer's account goes from the device, or comes back.
    void setRegistered(bool registered);

    /// Tells the sound player alarmd's "Status". Any thread that lives as long as the desk.
    void setStatus(const std::string& status);

    /// The sound player falls silent, as when what it plays for has gone.
    void silence() { setStatus(alarmd::ALARMD_STATUS_NONE); }

    bool hasSound();

  private:
    static int onWrite(OipcHandleStruct* handle, const char* property, const char* value,
                       void* data);
    void takePlayList(const std::string& playList);
    void listenTo(OipcHandleStruct* service, const char* property);

    Timeline& m_timeline;
    OipcHandleStruct* const m_player;
    OipcHandleStruct* const m_control;
    OipcHandleStruct* const m_authentication;
    OipcProp::OipcString m_alertType;
    OipcProp::OipcInt m_registered;
    OipcProp::OipcInt m_volume;
    OipcProp::OipcString m_ascending;
    OipcProp::OipcString m_hasTime;

    std::mutex m_mutex;  // guards the two below
    Sound m_sound;
    std::string m_playList;
};

}  // namespace desk
