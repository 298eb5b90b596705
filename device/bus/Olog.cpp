#include "alarmd/platform/Olog.h"

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "device/bus/Service.h"

namespace {

std::string format(std::uint32_t mask) {
    char text[sizeof "0xFFFFFFFF"];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned int>(mask));
    return text;
}

bool parse(std::string_view text, std::uint32_t& mask) {
    const bool isHexadecimal = text.substr(0, 2) == "0x";
    text.remove_prefix(isHexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, mask, isHexadecimal ? 16 : 10);
    return error == std::errc() && stop == end;
}

}  // namespace

void OlogInitLogProperties(OipcHandleStruct* handle, std::atomic<std::uint32_t>* mask) {
    device::Property property;
    property.read = [mask] { return format(mask->load(std::memory_order_relaxed)); };
    property.write = [mask](const std::string& text) {
        std::uint32_t written = 0;
        const bool isMask = parse(text, written);
        if (isMask) {
            mask->store(written, std::memory_order_relaxed);
        }
        return isMask;
    };
    // There is no result to hand on: without an open service there is nobody to change the mask.
    static_cast<void>(handle->add("LogMask", std::move(property)));
}
