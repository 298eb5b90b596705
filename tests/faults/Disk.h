/// A disk in memory under the real store. It remembers each change, so that a power cut can be
/// played at any of them, and it fails on demand.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace faults {

using Files = std::map<std::string, std::string>;

struct Change {
    enum Kind { Write, Truncate, Sync, Delete } kind;
    std::string file;
    sqlite3_int64 offset;  ///< of a write; the new size of a truncation
    std::string data;

    void apply(Files& files) const {
        std::string& content = files[file];
        const auto at = static_cast<std::size_t>(offset);
        if (kind == Write) {
            content.resize(std::max(content.size(), at + data.size()));
            content.replace(at, data.size(), data);
        } else if (kind == Truncate) {
            content.resize(at);
        } else if (kind == Delete) {
            files.erase(file);
        }
    }
};

/// What a power cut behind the first `count` changes leaves of the files. Of the last change that
/// was not synced `last` halves are there (a torn write: one), of each other such `others`; 3: by
/// chance.
inline Files cutPower(Files files, const std::vector<Change>& changes, std::size_t count,
                      unsigned others, unsigned last, std::mt19937& random) {
    std::set<std::string> synced;
    std::vector<std::size_t> halves(count, 2);
    for (std::size_t i = count; i-- > 0;) {
        if (changes[i].kind == Change::Sync) {
            synced.insert(changes[i].file);
        } else if (synced.count(changes[i].file) == 0) {
            halves[i] = last < 3 ? last : random() % 3;
            last = others;
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        Change change = changes[i];
        change.data.resize(change.data.size() * halves[i] / 2);
        if (halves[i] != 0) {
            change.apply(files);
        }
    }
    return files;
}

/// The calls by what can keep them from being done, and what refuses which of them.
enum Call : unsigned { Look = 1, Lock = 2, Open = 4, Alter = 8, Grow = 16 };
enum class Trouble : unsigned { Full = Grow, ReadOnly = 28, Locked = Lock, All = 31, OneCall = 63 };

/// While it lives it is what SQLite uses where nothing else is asked for. There is one at a time.
class Disk {
  public:
    Disk() : m_vfs(*sqlite3_vfs_find("unix")) {
        s_disk = this;
        m_vfs.zName = "disk";
        m_vfs.szOsFile = sizeof(File);
        m_vfs.xOpen = openFile;
        m_vfs.xDelete = [](sqlite3_vfs*, const char* path, int) {
            return s_disk->change({Change::Delete, path, 0, ""});
        };
        m_vfs.xAccess = [](sqlite3_vfs*, const char* path, int, int* isThere) {
            *isThere = s_disk->files.count(path) != 0 && !s_disk->files[path].empty() ? 1 : 0;
            return s_disk->check(Look);
        };
        // Who waits for a lock need not wait here.
        m_vfs.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
        m_methods.iVersion = 1;
        m_methods.xClose = [](sqlite3_file*) { return SQLITE_OK; };
        m_methods.xRead = [](sqlite3_file* file, void* buffer, int size, sqlite3_int64 offset) {
            const std::string& content = contentOf(file);
            const auto wanted = static_cast<std::size_t>(size);
            const auto at = std::min(static_cast<std::size_t>(offset), content.size());
            std::memset(buffer, 0, wanted);
            const bool isWhole = content.copy(static_cast<char*>(buffer), wanted, at) == wanted;
            const int code = s_disk->check(Look);
            return code != SQLITE_OK || isWhole ? code : SQLITE_IOERR_SHORT_READ;
        };
        m_methods.xWrite = [](sqlite3_file* file, const void* data, int size, sqlite3_int64 at) {
            const std::string text(static_cast<const char*>(data), static_cast<unsigned>(size));
            return s_disk->change({Change::Write, nameOf(file), at, text});
        };
        m_methods.xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
            return s_disk->change({Change::Truncate, nameOf(file), size, ""});
        };
        m_methods.xSync = [](sqlite3_file* file, int) {
            return s_disk->change({Change::Sync, nameOf(file), 0, ""});
        };
        m_methods.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
            *size = static_cast<sqlite3_int64>(contentOf(file).size());
            return s_disk->check(Look);
        };
        m_methods.xLock = [](sqlite3_file*, int) { return s_disk->check(Lock); };
        m_methods.xUnlock = [](sqlite3_file*, int) { return SQLITE_OK; };
        m_methods.xCheckReservedLock = [](sqlite3_file*, int* is) { return *is = SQLITE_OK; };
        m_methods.xFileControl = [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; };
        m_methods.xDeviceCharacteristics = [](sqlite3_file*) {
            return SQLITE_IOCAP_POWERSAFE_OVERWRITE;
        };
        sqlite3_vfs_register(&m_vfs, 1);
    }
    ~Disk() { sqlite3_vfs_unregister(&m_vfs); }

    /// Makes it a sound disk of these files, without a change so far.
    void hold(const Files& contents) {
        files = contents;
        changes.clear();
        recover();
    }
    /// From that call on.
    void trouble(Trouble kind, int from) { m_trouble = kind, m_from = from, m_calls = 0; }
    void recover() { m_from = 0; }
    bool wasInTrouble() const { return m_from != 0 && m_calls >= m_from; }

    Files files;
    std::vector<Change> changes;
    std::function<void()> onChange = [] {};

  private:
    struct File : sqlite3_file {
        const char* name;  ///< SQLite keeps it as long as the file is open
    };
    static const char* nameOf(sqlite3_file* file) { return static_cast<File*>(file)->name; }
    static std::string& contentOf(sqlite3_file* file) { return s_disk->files[nameOf(file)]; }

    /// SQLite's code of a call: 0, or why it is refused.
    int check(Call call) {
        ++m_calls;
        const bool isMet = m_trouble == Trouble::OneCall ? m_calls == m_from : wasInTrouble();
        return !isMet || (static_cast<unsigned>(m_trouble) & call) == 0 ? SQLITE_OK
               : call == Lock                                           ? SQLITE_BUSY
               : call == Grow                                           ? SQLITE_FULL
                                                                        : SQLITE_IOERR;
    }
    int change(const Change& made) {
        const auto end = static_cast<std::size_t>(made.offset) + made.data.size();
        const bool grows = made.kind == Change::Write && end > files[made.file].size();
        const int code = check(grows ? Grow : Alter);
        if (code == SQLITE_OK) {
            onChange();
            changes.push_back(made);
            made.apply(files);
        }
        return code;
    }
    static int openFile(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* given) {
        const char* const name = path != nullptr ? path : "temporary";
        const bool isThere = s_disk->files.count(name) != 0;
        const int code = s_disk->check(Open);
        const bool isReadOnly = code != 0 && isThere && s_disk->m_trouble == Trouble::ReadOnly;
        file->pMethods = nullptr;
        if ((code != 0 && !isReadOnly) || (!isThere && (flags & SQLITE_OPEN_CREATE) == 0)) {
            return SQLITE_CANTOPEN;
        }
        s_disk->files[name];
        static_cast<File*>(file)->name = name;
        file->pMethods = &s_disk->m_methods;
        if (given != nullptr) {
            *given = isReadOnly ? SQLITE_OPEN_READONLY : flags;
        }
        return SQLITE_OK;
    }

    inline static Disk* s_disk = nullptr;
    Trouble m_trouble = Trouble::OneCall;
    int m_from = 0;
    int m_calls = 0;
    sqlite3_io_methods m_methods{};
    sqlite3_vfs m_vfs;
};

}  // namespace faults
