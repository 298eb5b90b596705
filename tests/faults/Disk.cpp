#include "tests/faults/Disk.h"

#include <algorithm>
#include <cstring>

namespace faults {
namespace {

struct File {
    sqlite3_file base;
    std::string* name;
};

Disk* g_disk = nullptr;

const std::string& nameOf(sqlite3_file* file) {
    void* opened = file;
    return *static_cast<File*>(opened)->name;
}

int change(Change::Kind kind, const std::string& name, sqlite3_int64 offset, int code,
           const std::string& data = "") {
    const std::string& content = g_disk->files[name];
    const auto at = static_cast<std::size_t>(offset);
    const bool grows = kind == Change::Write && at + data.size() > content.size();
    if (g_disk->fails(grows ? Call::Grow : Call::Change)) {
        return grows ? SQLITE_FULL : code;
    }
    const Change made{kind, name, at, data};
    g_disk->onChange();
    g_disk->changes.push_back(made);
    Disk::apply(g_disk->files, made);
    return SQLITE_OK;
}

int closeFile(sqlite3_file* file) {
    void* opened = file;
    delete static_cast<File*>(opened)->name;
    return SQLITE_OK;
}

int readFile(sqlite3_file* file, void* buffer, int size, sqlite3_int64 offset) {
    if (g_disk->fails(Call::Look)) {
        return SQLITE_IOERR_READ;
    }
    const std::string& content = g_disk->files[nameOf(file)];
    std::memset(buffer, 0, static_cast<std::size_t>(size));
    const auto at = std::min(static_cast<std::size_t>(offset), content.size());
    const std::size_t copied =
        content.copy(static_cast<char*>(buffer), static_cast<std::size_t>(size), at);
    return copied == static_cast<std::size_t>(size) ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int writeFile(sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) {
    return change(Change::Write, nameOf(file), offset, SQLITE_IOERR_WRITE,
                  {static_cast<const char*>(data), static_cast<std::size_t>(size)});
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
    return change(Change::Truncate, nameOf(file), size, SQLITE_IOERR_TRUNCATE);
}

int syncFile(sqlite3_file* file, int) {
    return change(Change::Sync, nameOf(file), 0, SQLITE_IOERR_FSYNC);
}

int sizeOfFile(sqlite3_file* file, sqlite3_int64* size) {
    *size = static_cast<sqlite3_int64>(g_disk->files[nameOf(file)].size());
    return g_disk->fails(Call::Look) ? SQLITE_IOERR_FSTAT : SQLITE_OK;
}

int lockFile(sqlite3_file*, int) {
    return g_disk->fails(Call::Lock) ? SQLITE_BUSY : SQLITE_OK;
}

const sqlite3_io_methods k_methods = {
    1,
    closeFile,
    readFile,
    writeFile,
    truncateFile,
    syncFile,
    sizeOfFile,
    lockFile,
    [](sqlite3_file*, int) { return SQLITE_OK; },
    [](sqlite3_file*, int* isReserved) { return *isReserved = 0, SQLITE_OK; },
    [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; },
    [](sqlite3_file*) { return 4096; },
    [](sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; },
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr};

int openFile(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    const std::string name = path != nullptr ? path : "temporary";
    const bool isNew = g_disk->files.count(name) == 0;
    const bool isRefused = g_disk->fails(Call::Open);
    const bool isReadOnly = isRefused && g_disk->isReadOnly();
    if ((isRefused && !isReadOnly)
        || (isNew && (isReadOnly || (flags & SQLITE_OPEN_CREATE) == 0))) {
        return SQLITE_CANTOPEN;
    }
    g_disk->files[name];
    void* opened = file;
    static_cast<File*>(opened)->name = new std::string(name);
    file->pMethods = &k_methods;
    if (outFlags != nullptr) {
        *outFlags = isReadOnly ? SQLITE_OPEN_READONLY : flags;
    }
    return SQLITE_OK;
}

int deleteFile(sqlite3_vfs*, const char* path, int) {
    return g_disk->files.count(path) == 0 ? SQLITE_IOERR_DELETE_NOENT
                                          : change(Change::Delete, path, 0, SQLITE_IOERR_DELETE);
}

int accessFile(sqlite3_vfs*, const char* path, int, int* isThere) {
    const auto found = g_disk->files.find(path);
    *isThere = found != g_disk->files.end() && !found->second.empty() ? 1 : 0;
    return g_disk->fails(Call::Look) ? SQLITE_IOERR_ACCESS : SQLITE_OK;
}

int fullPath(sqlite3_vfs*, const char* path, int size, char* out) {
    return sqlite3_snprintf(size, out, "%s", path), SQLITE_OK;
}

}  // namespace

Disk::Disk() : m_vfs(*sqlite3_vfs_find("unix")) {
    m_vfs.pNext = nullptr;
    m_vfs.zName = "disk";
    m_vfs.szOsFile = sizeof(File);
    m_vfs.xOpen = openFile;
    m_vfs.xDelete = deleteFile;
    m_vfs.xAccess = accessFile;
    m_vfs.xFullPathname = fullPath;
    // Who waits for a lock need not wait here.
    m_vfs.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
    g_disk = this;
    sqlite3_vfs_register(&m_vfs, 1);
}

Disk::~Disk() {
    sqlite3_vfs_unregister(&m_vfs);
}

void Disk::hold(const Files& contents) {
    files = contents;
    changes.clear();
    recover();
}

bool Disk::fails(Call call) {
    ++m_calls;
    if (!wasInTrouble()) {
        return false;
    }
    switch (m_trouble) {
        case Trouble::OneCall:
            return m_calls == m_from;
        case Trouble::EveryCall:
            return true;
        case Trouble::Full:
            return call == Call::Grow;
        case Trouble::ReadOnly:
            return call >= Call::Open;
        case Trouble::Locked:
            return call == Call::Lock;
    }
    return false;
}

void Disk::apply(Files& files, const Change& change) {
    std::string& content = files[change.file];
    switch (change.kind) {
        case Change::Write:
            content.resize(std::max(content.size(), change.offset + change.data.size()));
            content.replace(change.offset, change.data.size(), change.data);
            break;
        case Change::Truncate:
            content.resize(change.offset);
            break;
        case Change::Sync:
            break;
        case Change::Delete:
            files.erase(change.file);
            break;
    }
}

Files cutPower(const Files& before, const std::vector<Change>& changes, std::size_t count,
               const std::function<Fate(bool isLast)>& fate) {
    std::map<std::string, std::size_t> synced;
    std::size_t last = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (changes[i].kind == Change::Sync) {
            synced[changes[i].file] = i;
        }
    }
    const auto isSafe = [&](std::size_t i) {
        return changes[i].kind == Change::Delete || i < synced[changes[i].file];
    };
    for (std::size_t i = 0; i < count; ++i) {
        last = isSafe(i) ? last : i;
    }
    Files left = before;
    for (std::size_t i = 0; i < count; ++i) {
        Change change = changes[i];
        const Fate its = isSafe(i) ? Fate::Kept : fate(i == last);
        if (its == Fate::Torn) {
            change.data.resize(change.data.size() / 2);
        }
        if (its != Fate::Dropped) {
            Disk::apply(left, change);
        }
    }
    return left;
}

}  // namespace faults
