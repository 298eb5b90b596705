/// What happens on the device, in order: printed line by line as it happens, and remembered so that
/// others can wait for something to have happened. A thread of its own prints, because nobody who
/// answers alarmd may wait for a slow terminal.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "desk/Clock.h"

namespace desk {

/// Who did or said it; each has its own name and colour in the second column.
enum class Source { You, Cloud, Player, Alarmd, Bus, Metrics, Device, Desk, Tour };

/// Whether a line is always printed, or only when the timeline is verbose.
enum class Weight { Shown, Quiet };

/// One thing that happened: what (a message, a property, a severity letter) and with which value.
struct Entry {
    Instant time;
    Source source;
    std::string what;
    std::string detail;
    Weight weight;
};

/// Every operation may be called by any thread, and none waits. Only this class writes to standard
/// output.
class Timeline {
  public:
    using Position = std::uint64_t;
    using Filter = std::function<bool(const Entry&)>;

    Timeline();

    /// Prints what is left.
    ~Timeline();
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    /// Adds what happened just now.
    void add(Source source, std::string what, std::string detail = "",
             Weight weight = Weight::Shown);

    /// Prints whole lines that are no part of what happens: a table, a help text.
    void print(const std::string& lines);

    /// The position that the next entry will have: where to look from for what is about to happen.
    Position end() const;

    /// The first entry from `from` on that passes, if any. The last 10,000 entries are remembered.
    std::optional<Entry> find(Position from, const Filter& filter) const;

    /// How many entries from `from` on pass.
    int count(Position from, const Filter& filter) const;

    /// Readable once an entry was added, until settle(). For the one thread that waits for entries.
    int wakeDescriptor() const { return m_wake; }
    void settle();

    void setVerbose(bool verbose);

    /// Shows `text` as the line being typed, below all entries, from now on; nothing: no such line.
    void setTyped(std::optional<std::string> text);

  private:
    std::string format(const Entry& entry);
    void show(const std::string& lines);
    void runPrinter();

    const bool m_coloured;
    const int m_wake;

    mutable std::mutex m_mutex;  // guards all below but the thread
    std::deque<Entry> m_entries;
    Position m_first = 0;  // the position of the first entry remembered
    Instant m_lastShown;
    bool m_verbose = false;
    std::string m_output;                // to be printed
    std::optional<std::string> m_typed;  // to be shown below it
    bool m_changed = false;              // either of the two
    bool m_ending = false;
    std::condition_variable m_wakePrinter;  // m_changed or m_ending
    std::thread m_printer;
};

}  // namespace desk
