/// Opening a service of the device bus.
#pragma once

#include <stdexcept>
#include <string>

#include "alarmd/platform/Oipc.h"

namespace desk {

/// Opens a service on the bus, or throws std::runtime_error.
inline OipcHandleStruct* openService(const char* name) {
    int status = OIPC_SUCCESS;
    OipcHandleStruct* handle = OipcOpenEx(name, &status);
    if (status != OIPC_SUCCESS) {
        throw std::runtime_error(std::string(name) + ": " + OipcGetErrorString(status));
    }
    return handle;
}

}  // namespace desk
