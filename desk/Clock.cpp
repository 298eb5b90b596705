#include "desk/Clock.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace desk {

namespace {

std::string format(Instant instant, const char* pattern) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(instant));
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, pattern);
    return text.str();
}

/// Reads the whole text; nothing when it does not have the pattern's form.
std::optional<std::tm> parse(const std::string& text, const char* pattern) {
    std::tm parts{};
    const char* end = strptime(text.c_str(), pattern, &parts);
    return end != nullptr && *end == '\0' ? std::optional(parts) : std::nullopt;
}

int secondsOf(char unit) {
    return unit == 'h' ? 3600 : unit == 'm' ? 60 : unit == 's' ? 1 : 0;
}

}  // namespace

std::string timeOfDay(Instant instant) {
    const auto second = std::chrono::floor<std::chrono::seconds>(instant);
    const auto fraction = std::chrono::floor<std::chrono::milliseconds>(instant - second);
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(fraction.count()));
    return format(instant, "%H:%M:%S") + text.data();
}

std::string timeString(Instant instant) {
    return format(instant, "%Y-%m-%dT%H:%M:%SZ");
}

std::optional<Instant> parseTimeString(const std::string& text) {
    auto parts = parse(text, "%Y-%m-%dT%H:%M:%SZ");
    return parts ? std::optional(std::chrono::system_clock::from_time_t(timegm(&*parts)))
                 : std::nullopt;
}

std::optional<std::chrono::seconds> parseDuration(const std::string& text) {
    constexpr std::size_t k_mostDigits = 6;
    std::chrono::seconds duration{0};
    std::string digits;
    for (const char letter : text.find_first_of("hms") == std::string::npos ? text + "s" : text) {
        if (letter >= '0' && letter <= '9') {
            digits += letter;
        } else if (digits.empty() || digits.size() > k_mostDigits || secondsOf(letter) == 0) {
            return std::nullopt;
        } else {
            duration += std::chrono::seconds(std::stoi(digits)) * secondsOf(letter);
            digits.clear();
        }
    }
    const bool isWhole = digits.empty() && duration.count() > 0;
    return isWhole ? std::optional(duration) : std::nullopt;
}

std::optional<Instant> nextTimeOfDay(const std::string& text, Instant now) {
    using Days = std::chrono::duration<int, std::ratio<86400>>;
    auto parts = parse(text, "%H:%M:%S");
    parts = parts ? parts : parse(text, "%H:%M");
    if (!parts) {
        return std::nullopt;
    }
    const Instant today = std::chrono::floor<Days>(now) + std::chrono::hours(parts->tm_hour)
                          + std::chrono::minutes(parts->tm_min)
                          + std::chrono::seconds(parts->tm_sec);
    return today > now ? today : today + Days(1);
}

double milliseconds(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

}  // namespace desk
