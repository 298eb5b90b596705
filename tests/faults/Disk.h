/// A disk in memory under the real store. It remembers each change, so that a power cut can be
/// played at any of them, and it fails on demand.
#pragma once

#include <sqlite3.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace faults {

using Files = std::map<std::string, std::string>;

struct Change {
    enum Kind { Write, Truncate, Sync, Delete } kind;
    std::string file;
    std::size_t offset;  ///< of a write; the new size of a truncation
    std::string data;
};

/// What a power cut made of a change that was not synced. A torn write is there by half.
enum class Fate { Kept, Dropped, Torn };

/// What the disk refuses from its call number `from` on.
enum class Trouble { OneCall, EveryCall, Full, ReadOnly, Locked };

/// The calls of SQLite by what can keep them from being done.
enum class Call { Look, Lock, Open, Change, Grow };

/// While it lives it is what SQLite uses where nothing else is asked for. There is one at a time.
class Disk {
  public:
    Disk();
    ~Disk();
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    /// A disk of these files that has seen no change.
    void hold(const Files& contents);
    void trouble(Trouble kind, int from) { m_trouble = kind, m_from = from, m_calls = 0; }
    void recover() { m_from = 0; }
    /// Whether the trouble was met.
    bool wasInTrouble() const { return m_from != 0 && m_calls >= m_from; }

    Files files;
    std::vector<Change> changes;
    std::function<void()> onChange = [] {};

    /// For the functions that SQLite calls.
    bool fails(Call call);
    bool isReadOnly() const { return m_trouble == Trouble::ReadOnly; }
    static void apply(Files& files, const Change& change);

  private:
    Trouble m_trouble = Trouble::OneCall;
    int m_from = 0;
    int m_calls = 0;
    sqlite3_vfs m_vfs;
};

/// What a power cut behind the first `count` changes leaves of the files. `fate` is asked for each
/// change that was not synced, and told whether it is the last such one.
Files cutPower(const Files& before, const std::vector<Change>& changes, std::size_t count,
               const std::function<Fate(bool isLast)>& fate);

}  // namespace faults
