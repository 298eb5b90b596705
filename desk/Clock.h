/// Wall-clock times as the desk reads and writes them. The device's zone is UTC.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace desk {

using Instant = std::chrono::system_clock::time_point;

/// "07:30:05.120"
std::string timeOfDay(Instant instant);

/// "2030-01-31T07:30:05Z", the form of directives; and back (nothing when it is no such text).
std::string timeString(Instant instant);
std::optional<Instant> parseTimeString(const std::string& text);

/// "10s", "5m", "1h30m", or plain seconds "90"; nothing when it is no such text, or zero.
std::optional<std::chrono::seconds> parseDuration(const std::string& text);

/// The next instant after `now` at which the clock shows "7:30", "07:30" or "07:30:15"; nothing
/// when `text` is no time of day.
std::optional<Instant> nextTimeOfDay(const std::string& text, Instant now);

/// Milliseconds, with their fraction.
double milliseconds(std::chrono::nanoseconds duration);

}  // namespace desk
