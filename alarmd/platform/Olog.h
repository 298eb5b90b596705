/// The logging library's hold on the process-wide log mask.
#pragma once

#include <atomic>
#include <cstdint>

struct OipcHandleStruct;

/// Publishes the mask as the text property "LogMask" of the open service: read as "0x" and
/// upper-case hexadecimal digits; written as a decimal or "0x" hexadecimal 32-bit number, from then
/// on by any service at any time. Anything else that is written is refused and changes nothing.
/// `mask` must live as long as the process.
void OlogInitLogProperties(OipcHandleStruct* handle, std::atomic<std::uint32_t>* mask);
