#include "desk/Timeline.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace desk {

namespace {

constexpr std::size_t k_remembered = 10000;
constexpr const char* k_eraseLine = "\r\033[K";
constexpr const char* k_plain = "\033[0m";

struct Look {
    const char* name;
    const char* colour;
};

Look lookOf(const Entry& entry) {
    switch (entry.source) {
        case Source::You:
            return {"you", "\033[1;36m"};
        case Source::Cloud:
            return {"cloud", "\033[34m"};
        case Source::Player:
            return {"player", "\033[1;33m"};
        case Source::Alarmd:
            return {"alarmd log", entry.what == "E" || entry.what == "C" ? "\033[31m" : "\033[2m"};
        case Source::Bus:
            return {"bus", "\033[32m"};
        case Source::Metrics:
            return {"metrics", "\033[2m"};
        case Source::Device:
            return {"device", "\033[35m"};
        case Source::Desk:
            return {"desk", ""};
        case Source::Tour:
            break;
    }
    return {"tour", "\033[1m"};
}

}  // namespace

Timeline::Timeline()
    : m_coloured(isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_lastShown(std::chrono::system_clock::now()),
      m_printer([this] { runPrinter(); }) {}

Timeline::~Timeline() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
        m_wakePrinter.notify_one();
    }
    m_printer.join();
    close(m_wake);
}

void Timeline::add(Source source, std::string what, std::string detail, Weight weight) {
    const Instant now = std::chrono::system_clock::now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back({now, source, std::move(what), std::move(detail), weight});
    if (weight == Weight::Shown || m_verbose) {
        show(format(m_entries.back()));
    }
    if (m_entries.size() > k_remembered) {
        m_entries.pop_front();
        ++m_first;
    }
    eventfd_write(m_wake, 1);
}

void Timeline::print(const std::string& lines) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    show(lines);
}

void Timeline::setTyped(std::optional<std::string> text) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_typed = std::move(text);
    show("");
}

void Timeline::show(const std::string& lines) {
    m_output += lines;
    m_changed = true;
    m_wakePrinter.notify_one();
}

void Timeline::runPrinter() {
    bool isTypedShown = false;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_changed || !m_ending) {
        if (!m_changed) {
            m_wakePrinter.wait(lock);
            continue;
        }
        const std::string text = (isTypedShown ? k_eraseLine : "") + std::exchange(m_output, "")
                                 + (m_typed ? "> " + *m_typed : "");
        isTypedShown = m_typed.has_value();
        m_changed = false;
        lock.unlock();
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        lock.lock();
    }
}

std::string Timeline::format(const Entry& entry) {
    const Look look = lookOf(entry);
    // Entries of two threads may be printed in the other order than they were timed.
    const auto since = std::max(entry.time - m_lastShown, Instant::duration::zero());
    m_lastShown = std::max(m_lastShown, entry.time);
    std::array<char, 64> columns{};
    std::snprintf(columns.data(), columns.size(), "  +%8.3f  %-10s  ", milliseconds(since) / 1000,
                  look.name);
    std::string text = entry.detail.empty() ? entry.what : entry.what + " " + entry.detail;
    const auto isControl = [](unsigned char letter) { return std::iscntrl(letter) != 0; };
    std::replace_if(text.begin(), text.end(), isControl, ' ');
    if (m_coloured && *look.colour != '\0') {
        text = look.colour + text + k_plain;
    }
    return timeOfDay(entry.time) + columns.data() + text + "\n";
}

Timeline::Position Timeline::end() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_first + m_entries.size();
}

std::optional<Entry> Timeline::find(Position from, const Filter& filter) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto start = static_cast<std::ptrdiff_t>(from > m_first ? from - m_first : 0);
    const auto found = std::find_if(m_entries.begin() + start, m_entries.end(), filter);
    return found == m_entries.end() ? std::nullopt : std::optional<Entry>(*found);
}

int Timeline::count(Position from, const Filter& filter) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto start = static_cast<std::ptrdiff_t>(from > m_first ? from - m_first : 0);
    return static_cast<int>(std::count_if(m_entries.begin() + start, m_entries.end(), filter));
}

void Timeline::settle() {
    eventfd_t value = 0;
    eventfd_read(m_wake, &value);
}

void Timeline::setVerbose(bool verbose) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_verbose = verbose;
}

}  // namespace desk
