#include "desk/Device.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "desk/Service.h"

namespace desk {

namespace {

constexpr const char* k_endThinkingMode = "endThinkingMode";
constexpr int k_deregistered = 2;
constexpr int k_registered = 1;

/// What the player plays: the files of the list, or the alert sound when it names none.
std::vector<std::string> filesOf(const std::string& playList) {
    std::vector<std::string> files;
    std::istringstream pieces(playList);
    for (std::string piece; std::getline(pieces, piece, ',');) {
        files.push_back(piece);
    }
    return files.empty() ? std::vector<std::string>{alarmd::ALARMD_ALERT_EARCON_SYMLINK_FILE}
                         : files;
}

std::string alertSound() {
    std::error_code error;
    const auto target =
        std::filesystem::read_symlink(alarmd::ALARMD_ALERT_EARCON_SYMLINK_FILE, error);
    return error ? "missing" : target.filename().string();
}

}  // namespace

Device::Device(Timeline& timeline)
    : m_timeline(timeline),
      m_player(openService(alarmd::EARCON_PLAYER_SERVICE)),
      m_control(openService(alarmd::CONTROLD_SERVICE)),
      m_authentication(openService(alarmd::AUTHENTICATION_SERVICE)),
      m_alertType(m_control, alarmd::CONTROLD_ALARM_TYPE, "none", nullptr, nullptr, false),
      m_registered(m_authentication, alarmd::AUTHENTICATION_REGISTERED_PROP, 1),
      m_volume(openService(alarmd::AUDIOD_SERVICE), alarmd::AUDIOD_ALARM_VOLUME_PROP, 50),
      m_ascending(openService(alarmd::SETTINGSD_SERVICE), alarmd::SETTINGSD_ASCENDING_ALARM_PROP,
                  alarmd::ALARMD_ASCENDING_ALARM_DISABLED, nullptr, nullptr, false),
      m_hasTime(openService(alarmd::SYSTEM_SERVICE), alarmd::SYSTEM_HAS_TIME_PROP, "true", nullptr,
                nullptr, false) {
    listenTo(m_player, alarmd::EARCON_PLAYER_PLAY_LIST_PROP);
    listenTo(m_control, alarmd::CONTROLD_NOTICES_LATCH_PROP);
    listenTo(m_control, k_endThinkingMode);
}

Device::~Device() {
    OipcRevokeCallbacks(this);
}

void Device::listenTo(OipcHandleStruct* service, const char* property) {
    const int status =
        OipcRegisterStringProperty(service, property, nullptr, &Device::onWrite, this);
    if (status != OIPC_SUCCESS) {
        throw std::runtime_error(std::string(property) + ": " + OipcGetErrorString(status));
    }
}

int Device::onWrite(OipcHandleStruct* handle, const char* property, const char* value, void* data) {
    auto* self = static_cast<Device*>(data);
    if (handle == self->m_player) {
        self->takePlayList(value);
    } else {
        self->m_timeline.add(Source::Device, property, value);
    }
    return OIPC_SUCCESS;
}

void Device::takePlayList(const std::string& playList) {
    m_timeline.add(Source::Player, alarmd::EARCON_PLAYER_PLAY_LIST_PROP,
                   playList.empty() ? "\"\", so the alert sound " + alertSound() : playList);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_playList = playList;
}

void Device::setStatus(const std::string& status) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (status == alarmd::ALARMD_STATUS_NONE) {
        m_sound.stop();
    } else {
        m_sound.play(filesOf(m_playList));
    }
}

bool Device::hasSound() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_sound.available();
}

void Device::setAscending(bool on) {
    m_ascending.set(
        on ? alarmd::ALARMD_ASCENDING_ALARM_ENABLED : alarmd::ALARMD_ASCENDING_ALARM_DISABLED, "");
}

bool Device::setAlertType(const std::string& type) {
    const bool known = type == "long" || type == "short" || type == "none";
    return known && m_alertType.set(type, "");
}

void Device::setRegistered(bool registered) {
    m_registered.set(registered ? 1 : 0);
    const int value = registered ? k_registered : k_deregistered;
    if (OipcSendIntEvent(m_authentication, alarmd::AUTHENTICATION_REGISTRATION_EVENT, value)
        == OIPC_SUCCESS) {
        m_timeline.add(Source::Device, alarmd::AUTHENTICATION_REGISTRATION_EVENT,
                       std::to_string(value));
    }
}

}  // namespace desk
