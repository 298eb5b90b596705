/// The recording platform as each input finds it, for the targets that link it.
#pragma once

#include "alarmd/Log.h"
#include "fuzz/Target.h"
#include "tests/recording/Platform.h"

namespace fuzz {

/// An empty device that logs everything.
inline recording::Platform& emptyDevice() {
    emptyFolders();
    g_orun42_log_mask = 0xFFFFFFFF;
    recording::platform().reset();
    return recording::platform();
}

}  // namespace fuzz
