/// The local side: the store wrapper, metrics, identity and downloads.
#include <algorithm>
#include <cstdio>

#include "alarmd/platform/DeviceMetrics.h"
#include "alarmd/platform/FileDownloader.h"
#include "alarmd/platform/Identity.h"
#include "tests/recording/Platform.h"

using recording::platform;
using recording::State;
using recording::Table;

struct SqliteUtil::Impl {};

static int call(const std::string& text, const std::string& table, std::string& error,
                const std::function<void(Table&)>& body) {
    const int code = platform().record(text, [&](State& state) { body(state.tables[table]); });
    error = code == 0 ? "" : "scripted failure";
    return code;
}

/// The first condition stands for all: the daemon asks for identifiers, or for a type by time.
static std::string describe(const SqliteUtil::Conditions& conditions) {
    return conditions.empty() ? "" : " " + conditions[0].column() + "=" + conditions[0].value();
}

static bool isAskedFor(const SqliteUtil::Row& row, const SqliteUtil::Conditions& conditions) {
    const auto isMet = [&](const SqliteUtil::Condition& condition) {
        return condition.kind() == SqliteUtil::Condition::Kind::Equal
               && row.at(condition.column() == "ID" ? 0 : 2) == condition.value();
    };
    return conditions.empty() || std::any_of(conditions.begin(), conditions.end(), isMet);
}

SqliteUtil::SqliteUtil() = default;
SqliteUtil::~SqliteUtil() = default;

int SqliteUtil::open(const std::string& path, bool create) {
    bool exists = create;
    const int code = platform().record(
        "open-db " + path, [&](State& state) { exists = exists || !state.tables.empty(); });
    return code == 0 && !exists ? 14 : code;  // what the daemon knows for a missing file
}

int SqliteUtil::createTable(const std::string& table, const std::string&, std::string& error) {
    return call("create " + table, table, error, [](Table&) {});
}

int SqliteUtil::createIndex(const std::string& index, const std::string& table, const std::string&,
                            std::string& error) {
    return call("index " + index, table, error, [](Table&) {});
}

int SqliteUtil::addColumns(const std::string& table, const std::vector<std::string>&,
                           std::string& error) {
    return call("add-columns " + table, table, error, [](Table&) {});
}

int SqliteUtil::userVersion(int& version, std::string&) {
    version = 0;
    return platform().record("user-version");
}

int SqliteUtil::setUserVersion(int, std::string&) {
    return platform().record("set-user-version");
}

/// As many as the daemon knows.
std::set<std::string> SqliteUtil::columnNames(const std::string&, std::string&) {
    return {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"};
}

int SqliteUtil::insert(const std::string& table, const Row& values, std::string& error, bool) {
    return call("insert " + table + " " + values[0], table, error,
                [&](Table& rows) { rows[values[0]] = values; });
}

int SqliteUtil::replaceAll(const std::string& table, const std::vector<Row>& rows,
                           std::string& error) {
    const auto failed = [&](const Row& row) { return insert(table, row, error, true) != 0; };
    return std::any_of(rows.begin(), rows.end(), failed) ? 1 : 0;
}

int SqliteUtil::visit(const std::string& table, const Conditions& conditions,
                      const Visitor& visitor, std::string& error) {
    std::vector<Row> rows;
    const int code = select(table, conditions, rows, error);
    std::for_each(rows.begin(), rows.end(), visitor);
    return code;
}

int SqliteUtil::select(const std::string& table, const Conditions& conditions,
                       std::vector<Row>& rows, std::string& error) {
    rows.clear();
    return call("select " + table + describe(conditions), table, error, [&](Table& all) {
        const bool isByTime = !conditions.empty() && conditions[0].column() == "TYPE";
        for (const auto& [id, row] : all) {
            if (isAskedFor(row, conditions)) {
                rows.push_back(row);
            }
        }
        if (isByTime) {
            std::sort(rows.begin(), rows.end(),
                      [](const Row& a, const Row& b) { return a[3] < b[3]; });
            rows.resize(std::min<std::size_t>(rows.size(), std::stoul(conditions[2].value())));
        }
    });
}

int SqliteUtil::deleteFrom(const std::string& table, const Conditions& conditions,
                           std::string& error) {
    return call("delete " + table + describe(conditions), table, error, [&](Table& rows) {
        for (const Condition& condition : conditions) {
            rows.erase(condition.value());
        }
    });
}

int SqliteUtil::deleteAllEntries(const std::string& table, std::string& error) {
    return call("delete-all " + table, table, error, [](Table& rows) { rows.clear(); });
}

// --- Metrics: "program source name=value{dimension=text}..." ---

int record_device_metric(const char* program, const char* source, const char* name, int value,
                         GHashTable* dimensions, int, int) {
    std::string call =
        std::string(program) + " " + source + " " + name + "=" + std::to_string(value);
    const auto add = [](void* key, void* text, void* all) {
        *static_cast<std::string*>(all) +=
            std::string("{") + static_cast<char*>(key) + "=" + static_cast<char*>(text) + "}";
    };
    if (dimensions != nullptr) {
        g_hash_table_foreach(dimensions, add, &call);
    }
    return platform().record(call);
}

metrics::MetricTimeEvent::MetricTimeEvent(std::string name) : m_name(std::move(name)) {}
void metrics::MetricTimeEvent::setOipcHandle(OipcHandleStruct* handle) {
    m_handle = handle;
}
void metrics::MetricTimeEvent::emit(const std::string& text) const {
    platform().record("time-event " + m_name + text + (m_handle != nullptr ? "" : " no handle"));
}

int idme_get_property(const char* key, char* buffer, unsigned int capacity) {
    std::snprintf(buffer, capacity + 1, "the %s", key);
    return 0;
}

// --- Downloads: none leaves a file ---

namespace otaup {

struct FileDownloader::Impl {};

FileDownloaderError::FileDownloaderError(int code, std::string text)
    : m_code(code), m_text(std::move(text)) {}
FileDownloader::FileDownloader() = default;
FileDownloader::~FileDownloader() = default;

FileDownloaderError FileDownloader::download(const std::string& url, const std::string& path) {
    return {platform().record("download " + url + " " + path), ""};
}

void FileDownloader::cancel() {}

}  // namespace otaup
