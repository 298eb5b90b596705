/// The local side: the store wrapper, metrics, identity and downloads.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>

#include "alarmd/platform/DeviceMetrics.h"
#include "alarmd/platform/FileDownloader.h"
#include "alarmd/platform/Identity.h"
#include "tests/recording/Platform.h"

using recording::platform;
using recording::State;
using recording::Table;

// --- Tables of text; the first column is the primary key ---

struct SqliteUtil::Impl {
    std::string file;

    int call(const std::string& text, const std::string& table, std::string& error,
             const std::function<void(Table&)>& body) const {
        const int code =
            platform().record(text, [&](State& state) { body(state.files[file][table]); });
        error = code == 0 ? "" : "scripted failure";
        return code;
    }
};

namespace {

std::string describe(const SqliteUtil::Conditions& conditions) {
    std::string text;
    for (const auto& condition : conditions) {
        text += " " + condition.column() + "=" + condition.value();
    }
    return text;
}

const std::string& cell(const Table& table, const SqliteUtil::Row& row, const std::string& column) {
    std::size_t index = 0;
    while (strcasecmp(table.columns.at(index).c_str(), column.c_str()) != 0) {
        ++index;
    }
    return row.at(index);
}

bool equalsOne(const Table& table, const SqliteUtil::Row& row,
               const SqliteUtil::Conditions& conditions) {
    return std::any_of(conditions.begin(), conditions.end(), [&](const auto& condition) {
        return condition.kind() == SqliteUtil::Condition::Kind::Equal
               && cell(table, row, condition.column()) == condition.value();
    });
}

}  // namespace

SqliteUtil::Condition::Condition(Kind kind, std::string column, std::string value)
    : m_kind(kind), m_column(std::move(column)), m_value(std::move(value)) {}
SqliteUtil::Condition SqliteUtil::Condition::equal(const std::string& column,
                                                   const std::string& value) {
    return {Kind::Equal, column, value};
}
SqliteUtil::Condition SqliteUtil::Condition::orderBy(const std::string& column) {
    return {Kind::OrderBy, column, ""};
}
SqliteUtil::Condition SqliteUtil::Condition::limit(std::size_t rows) {
    return {Kind::Limit, "", std::to_string(rows)};
}

const SqliteUtil::Conditions SqliteUtil::noConditions;
SqliteUtil::SqliteUtil() : m_impl(new Impl) {}
SqliteUtil::~SqliteUtil() = default;

int SqliteUtil::open(const std::string& path, bool create) {
    bool exists = create;
    const int code = platform().record(
        "open-db " + path, [&](State& state) { exists = exists || state.files.count(path) != 0; });
    m_impl->file = path;
    constexpr int cannotOpen = 14;
    return code == 0 && !exists ? cannotOpen : code;
}

int SqliteUtil::createTable(const std::string& table, const std::string& schema,
                            std::string& error) {
    return m_impl->call("create " + table, table, error, [&](Table& content) {
        std::istringstream definitions(content.columns.empty() ? schema : "");
        for (std::string column; definitions >> column;) {
            content.columns.push_back(column.substr(0, column.find(',')));
            if (column.find(',') == std::string::npos) {
                std::getline(definitions, column, ',');
            }
        }
    });
}

int SqliteUtil::createIndex(const std::string& index, const std::string& table, const std::string&,
                            std::string& error) {
    return m_impl->call("index " + index, table, error, [](Table&) {});
}

int SqliteUtil::addColumns(const std::string& table, const std::vector<std::string>& columns,
                           std::string& error) {
    for (const std::string& column : columns) {
        const int status =
            m_impl->call("add-column " + table + " " + column, table, error, [&](Table& content) {
                content.columns.push_back(column);
                for (Row& row : content.rows) {
                    row.emplace_back();
                }
            });
        if (status != 0) {
            return status;
        }
    }
    return 0;
}

int SqliteUtil::userVersion(int& version, std::string&) {
    return platform().record("user-version",
                             [&](State& state) { version = state.userVersions[m_impl->file]; });
}

int SqliteUtil::setUserVersion(int version, std::string&) {
    return platform().record("set-user-version",
                             [&](State& state) { state.userVersions[m_impl->file] = version; });
}

std::set<std::string> SqliteUtil::columnNames(const std::string& table, std::string& error) {
    std::set<std::string> names;
    static_cast<void>(m_impl->call("columns " + table, table, error, [&](Table& content) {
        names.insert(content.columns.begin(), content.columns.end());
    }));
    return names;
}

int SqliteUtil::insert(const std::string& table, const Row& values, std::string& error, bool) {
    return m_impl->call("insert " + table + " " + values[0], table, error, [&](Table& content) {
        auto& rows = content.rows;
        if (std::find(rows.begin(), rows.end(), values) == rows.end()) {
            rows.erase(std::remove_if(rows.begin(), rows.end(),
                                      [&](const Row& row) { return row[0] == values[0]; }),
                       rows.end());
            rows.push_back(values);
        }
    });
}

int SqliteUtil::select(const std::string& table, const Conditions& conditions,
                       std::vector<Row>& rows, std::string& error) {
    rows.clear();
    return m_impl->call("select " + table + describe(conditions), table, error, [&](Table& all) {
        std::copy_if(
            all.rows.begin(), all.rows.end(), std::back_inserter(rows),
            [&](const Row& row) { return conditions.empty() || equalsOne(all, row, conditions); });
        for (const Condition& condition : conditions) {
            if (condition.kind() == Condition::Kind::OrderBy) {
                std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
                    return cell(all, a, condition.column()) < cell(all, b, condition.column());
                });
            } else if (condition.kind() == Condition::Kind::Limit) {
                rows.resize(std::min<std::size_t>(rows.size(), std::stoul(condition.value())));
            }
        }
    });
}

int SqliteUtil::deleteFrom(const std::string& table, const Conditions& conditions,
                           std::string& error) {
    return m_impl->call("delete " + table + describe(conditions), table, error, [&](Table& all) {
        const auto end = std::remove_if(all.rows.begin(), all.rows.end(), [&](const Row& row) {
            return equalsOne(all, row, conditions);
        });
        all.rows.erase(end, all.rows.end());
    });
}

int SqliteUtil::deleteAllEntries(const std::string& table, std::string& error) {
    return m_impl->call("delete-all " + table, table, error, [](Table& all) { all.rows.clear(); });
}

// --- Metrics: "program source name=value{dimensions in ascending order}" ---

int record_device_metric(const char* program, const char* source, const char* name, int value,
                         GHashTable* dimensions, int, int) {
    std::set<std::string> sorted;
    const auto collect = [](void* key, void* text, void* set) {
        static_cast<std::set<std::string>*>(set)->insert(std::string(static_cast<char*>(key)) + "="
                                                         + static_cast<char*>(text));
    };
    if (dimensions != nullptr) {
        g_hash_table_foreach(dimensions, collect, &sorted);
    }
    std::string text;
    for (const std::string& dimension : sorted) {
        text += (text.empty() ? "{" : ",") + dimension;
    }
    return platform().record(std::string(program) + " " + source + " " + name + "="
                             + std::to_string(value) + text + (text.empty() ? "" : "}"));
}

metrics::MetricTimeEvent::MetricTimeEvent(std::string name) : m_name(std::move(name)) {}
void metrics::MetricTimeEvent::setOipcHandle(OipcHandleStruct* handle) {
    m_handle = handle;
}
void metrics::MetricTimeEvent::emit(const std::string& text) const {
    platform().record("time-event " + m_name + text + (m_handle != nullptr ? "" : " no handle"));
}

int idme_get_property(const char* key, char* buffer, unsigned int capacity) {
    const std::string source = std::string("identity ") + key;
    std::string value;
    platform().record(source, [&](State& state) { value = state.answers[source]; });
    if (value.empty() || value.size() > capacity) {
        return 1;
    }
    std::memcpy(buffer, value.c_str(), value.size() + 1);
    return 0;
}

// --- Downloads: the file holds its address ---

namespace otaup {

struct FileDownloader::Impl {
    std::atomic<bool> isCancelled{false};
};

FileDownloaderError::FileDownloaderError(int code, std::string text)
    : m_code(code), m_text(std::move(text)) {}
FileDownloader::FileDownloader() : m_impl(new Impl) {}
FileDownloader::~FileDownloader() = default;

FileDownloaderError FileDownloader::download(const std::string& url, const std::string& path) {
    const int code = platform().record("download " + url + " " + path);
    const bool done = code == 0 && !m_impl->isCancelled && (std::ofstream(path) << url).flush();
    return {done ? 0 : 1, done ? "" : "scripted failure"};
}

void FileDownloader::cancel() {
    m_impl->isCancelled = true;
    platform().record("cancel-downloads");
}

}  // namespace otaup
