#include "alarmd/Log.h"

static_assert(sizeof(g_orun42_log_mask) == sizeof(std::uint32_t),
              "the logging library takes the mask for one 32-bit word");

std::atomic<std::uint32_t> g_orun42_log_mask{0};
