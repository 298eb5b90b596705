// The file keeps a rollback journal in PERSIST mode. A write-ahead log would be several times
// faster (see docs/choices.md), but its file cannot even be read when the disk is full or
// read-only, and a daemon that starts then must still ring what is stored. The journal that stays
// in place also lets a deletion succeed on a full disk.
#include "alarmd/platform/SqliteUtil.h"

#include <sqlite3.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace {

using Values = std::vector<std::string_view>;

constexpr int k_busyTimeoutMs = 2000;

struct CloseDatabase {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// Makes a kept statement ready for its next use; its locks and the bound texts are given up.
struct ResetStatement {
    void operator()(sqlite3_stmt* statement) const {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
};

/// Rolls back a transaction that is still open; some failures have done so already.
struct EndTransaction {
    void operator()(sqlite3* database) const {
        if (sqlite3_get_autocommit(database) == 0) {
            sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
};

std::string quoted(const std::string& identifier) {
    std::string result = "\"";
    for (char c : identifier) {
        result.append(c == '"' ? 2 : 1, c);
    }
    return result + '"';
}

/// Overwrites `row`, so that its memory serves for the next one again.
void readRow(sqlite3_stmt* statement, SqliteUtil::Row& row) {
    row.resize(static_cast<std::size_t>(sqlite3_column_count(statement)));
    int column = 0;
    for (std::string& value : row) {
        // In this order: the first call converts to text, the second measures the result.
        const void* text = sqlite3_column_text(statement, column);
        const int size = sqlite3_column_bytes(statement, column);
        if (text != nullptr) {
            value.assign(static_cast<const char*>(text), static_cast<std::size_t>(size));
        } else {
            value.clear();
        }
        ++column;
    }
}

SqliteUtil::Visitor appendTo(std::vector<SqliteUtil::Row>& rows) {
    return [&rows](const SqliteUtil::Row& row) { rows.push_back(row); };
}

/// The conditions of one operation, sorted by kind. Refers to them.
struct Selection {
    explicit Selection(const SqliteUtil::Conditions& conditions) {
        using Kind = SqliteUtil::Condition::Kind;
        for (const SqliteUtil::Condition& condition : conditions) {
            switch (condition.kind()) {
                case Kind::Equal:
                    column = condition.column();
                    values.emplace_back(condition.value());
                    break;
                case Kind::OrderBy:
                    orderBy = condition.column();
                    break;
                case Kind::Limit:
                    limit = condition.value();
                    break;
            }
        }
    }

    /// The ways in which a row can meet the "equal to" conditions: its value is one of the texts,
    /// or a number, blob or NULL of another program that reads as one, so that whatever a selection
    /// returns can be found and deleted again. The ways exclude each other, and each is a range of
    /// an index.
    std::array<std::string, 4> ways() const {
        const std::string name = quoted(column);
        const std::string isWanted =
            values.size() == 1 ? " = ?1" : " IN (SELECT value FROM temp.wanted)";
        const std::string readsAsWanted = " AND CAST(" + name + " AS TEXT)" + isWanted;
        return {name + isWanted + " AND typeof(" + name + ") = 'text'",
                name + " < ''" + readsAsWanted,    // numbers sort before all texts
                name + " >= x''" + readsAsWanted,  // blobs sort after all texts
                name + " IS NULL AND ''" + isWanted};
    }

    std::string column;
    Values values;
    std::string orderBy;
    std::string limit;
};

}  // namespace

/// All but the mutex is only used with the mutex held. Each operation leaves SQLite's text of its
/// failure in `error`.
struct SqliteUtil::Impl {
    int open(const std::string& path, bool create);
    int columnNames(const std::string& table, std::vector<Row>& names);
    /// The name of the first column, which is the primary key of these tables; "" when there is no
    /// such table.
    int keyColumn(const std::string& table, std::string& name);
    int insert(const std::string& table, const Row& row);
    int replace(const std::string& table, const Row& row);
    int replaceAll(const std::string& table, const std::vector<Row>& rows);
    int select(const std::string& table, const Selection& selection, const Visitor& visitor);
    int deleteFrom(const std::string& table, const Selection& selection);

    /// Runs one statement. `values` has a value for each parameter, or more; the visitor, if any,
    /// is shown the rows.
    int run(const std::string& sql, const Values& values = {}, const Visitor& visitor = nullptr);

    /// Runs `body` (an int()) with the effect of all of it or none.
    template <typename Body>
    int transact(const Body& body);

    /// Runs a statement whose text has the ways of `selection`.
    int runSelection(const std::string& sql, const Selection& selection, const Visitor& visitor);

    int prepare(const std::string& sql, sqlite3_stmt*& statement);
    int fail(int status);

    /// One public operation: `operation` (an int(Impl&)) under the lock.
    template <typename Operation>
    int perform(std::string& text, const Operation& operation) {
        const std::lock_guard<std::mutex> lock(mutex);
        error.clear();
        const int status = operation(*this);
        text = error;
        return status;
    }

    std::mutex mutex;
    std::unique_ptr<sqlite3, CloseDatabase> database;
    /// By SQL text: a handful, as no text depends on values or their number.
    std::unordered_map<std::string, std::unique_ptr<sqlite3_stmt, FinalizeStatement>> statements;
    std::unordered_map<std::string, std::string> keyColumns;  ///< by table
    std::string error;
};

int SqliteUtil::Impl::fail(int status) {
    error = database ? sqlite3_errmsg(database.get()) : sqlite3_errstr(status);
    return status;
}

int SqliteUtil::Impl::prepare(const std::string& sql, sqlite3_stmt*& statement) {
    auto& kept = statements[sql];
    if (!kept) {
        const int status = sqlite3_prepare_v3(database.get(), sql.c_str(), -1,
                                              SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (status != SQLITE_OK) {
            statements.erase(sql);
            return status;
        }
        kept.reset(statement);
    }
    statement = kept.get();
    return SQLITE_OK;
}

int SqliteUtil::Impl::run(const std::string& sql, const Values& values, const Visitor& visitor) {
    if (!database) {
        return fail(SQLITE_MISUSE);
    }
    sqlite3_stmt* statement = nullptr;
    int status = prepare(sql, statement);
    if (status != SQLITE_OK) {
        return fail(status);
    }
    const std::unique_ptr<sqlite3_stmt, ResetStatement> inUse(statement);
    const int parameters = sqlite3_bind_parameter_count(statement);
    for (int i = 0; i < parameters; ++i) {
        const std::string_view value = values[static_cast<std::size_t>(i)];
        status = sqlite3_bind_text64(statement, i + 1, value.data(), value.size(), SQLITE_STATIC,
                                     SQLITE_UTF8);
        if (status != SQLITE_OK) {
            return fail(status);
        }
    }
    Row row;
    while ((status = sqlite3_step(statement)) == SQLITE_ROW) {
        if (visitor) {
            readRow(statement, row);
            visitor(row);
        }
    }
    return status == SQLITE_DONE ? SQLITE_OK : fail(status);
}

template <typename Body>
int SqliteUtil::Impl::transact(const Body& body) {
    int status = run("BEGIN");
    if (status == SQLITE_OK) {
        const std::unique_ptr<sqlite3, EndTransaction> transaction(database.get());
        status = body();
        if (status == SQLITE_OK) {
            status = run("COMMIT");
        }
    }
    return status;
}

int SqliteUtil::Impl::runSelection(const std::string& sql, const Selection& selection,
                                   const Visitor& visitor) {
    if (selection.values.size() <= 1) {
        return run(sql, {selection.values.empty() ? "" : selection.values[0], selection.limit},
                   visitor);
    }
    return transact([&] {
        for (const std::string_view& value : selection.values) {
            const int status = run("INSERT OR IGNORE INTO temp.wanted VALUES (?1)", {value});
            if (status != SQLITE_OK) {
                return status;
            }
        }
        const int status = run(sql, {"", selection.limit}, visitor);
        return status == SQLITE_OK ? run("DELETE FROM temp.wanted") : status;
    });
}

int SqliteUtil::Impl::open(const std::string& path, bool create) {
    statements.clear();
    keyColumns.clear();
    sqlite3* opened = nullptr;
    int status = sqlite3_open_v2(
        path.c_str(), &opened,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0), nullptr);
    database.reset(opened);
    if (status == SQLITE_OK) {
        sqlite3_busy_timeout(opened, k_busyTimeoutMs);
        // A log that another program left beside the file stays as it is when the file is refused.
        sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        // Else a quoted column that does not exist would be taken for a text.
        sqlite3_db_config(opened, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
        sqlite3_db_config(opened, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
        status = run("SELECT name FROM sqlite_master");
    }
    if (status == SQLITE_OK) {
        // Only a file that another program has open with a write-ahead log stays in that mode;
        // EXTRA makes writes durable in either.
        run("PRAGMA journal_mode = PERSIST");
        for (const char* sql : {"PRAGMA synchronous = EXTRA", "PRAGMA journal_size_limit = 65536",
                                "PRAGMA cache_size = -512", "PRAGMA temp_store = MEMORY",
                                "CREATE TEMP TABLE wanted (value PRIMARY KEY) WITHOUT ROWID"}) {
            status = status == SQLITE_OK ? run(sql) : status;
        }
    }
    if (status != SQLITE_OK) {
        statements.clear();
        database.reset();
    }
    return status;
}

int SqliteUtil::Impl::columnNames(const std::string& table, std::vector<Row>& names) {
    return run("SELECT name FROM pragma_table_info(?1)", {table}, appendTo(names));
}

int SqliteUtil::Impl::keyColumn(const std::string& table, std::string& name) {
    const auto known = keyColumns.find(table);
    if (known != keyColumns.end()) {
        name = known->second;
        return SQLITE_OK;
    }
    std::vector<Row> names;
    const int status = columnNames(table, names);
    if (status == SQLITE_OK && !names.empty()) {
        name = keyColumns[table] = names.front().front();
    }
    return status;
}

int SqliteUtil::Impl::insert(const std::string& table, const Row& row) {
    std::string parameters;
    for (std::size_t i = 0; i < row.size(); ++i) {
        parameters += i == 0 ? "?" : ",?";
    }
    return run("INSERT INTO " + quoted(table) + " VALUES (" + parameters + ")",
               Values(row.begin(), row.end()));
}

int SqliteUtil::Impl::replace(const std::string& table, const Row& row) {
    std::string column;
    int status = keyColumn(table, column);
    if (status != SQLITE_OK) {
        return status;
    }
    if (column.empty() || row.empty()) {
        return insert(table, row);  // which says what is wrong
    }
    const Conditions key{Condition::equal(column, row.front())};
    std::vector<Row> stored;
    status = select(table, Selection(key), appendTo(stored));
    if (status != SQLITE_OK || (stored.size() == 1 && stored.front() == row)) {
        return status;
    }
    return replaceAll(table, {row});
}

int SqliteUtil::Impl::replaceAll(const std::string& table, const std::vector<Row>& rows) {
    std::string column;
    int status = keyColumn(table, column);
    if (status != SQLITE_OK) {
        return status;
    }
    return transact([&] {
        for (const Row& row : rows) {
            const Conditions key{Condition::equal(column, row.front())};
            status = column.empty() ? SQLITE_OK : deleteFrom(table, Selection(key));
            status = status == SQLITE_OK ? insert(table, row) : status;
            if (status != SQLITE_OK) {
                break;
            }
        }
        return status;
    });
}

int SqliteUtil::Impl::select(const std::string& table, const Selection& selection,
                             const Visitor& visitor) {
    // A union and not "or", so that the rows of one value come from an index in the order asked
    // for.
    std::string sql = "SELECT * FROM " + quoted(table);
    if (!selection.values.empty()) {
        std::string all;
        for (const std::string& way : selection.ways()) {
            all += (all.empty() ? "" : " UNION ALL ") + sql + " WHERE " + way;
        }
        sql = all;
    }
    if (!selection.orderBy.empty()) {
        sql += " ORDER BY " + quoted(selection.orderBy);
    }
    if (!selection.limit.empty()) {
        sql += " LIMIT CAST(?2 AS INTEGER)";
    }
    return runSelection(sql, selection, visitor);
}

int SqliteUtil::Impl::deleteFrom(const std::string& table, const Selection& selection) {
    if (selection.values.empty()) {
        return SQLITE_OK;
    }
    std::string any;
    for (const std::string& way : selection.ways()) {
        any += (any.empty() ? "(" : " OR (") + way + ")";
    }
    return runSelection("DELETE FROM " + quoted(table) + " WHERE " + any, selection, nullptr);
}

SqliteUtil::SqliteUtil() : m_impl(std::make_unique<Impl>()) {}

SqliteUtil::~SqliteUtil() = default;

int SqliteUtil::open(const std::string& path, bool create) {
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->open(path, create);
}

int SqliteUtil::createTable(const std::string& table, const std::string& schema,
                            std::string& error) {
    return m_impl->perform(error, [&](Impl& impl) {
        return impl.run("CREATE TABLE IF NOT EXISTS " + quoted(table) + " (" + schema + ")");
    });
}

int SqliteUtil::createIndex(const std::string& index, const std::string& table,
                            const std::string& columns, std::string& error) {
    return m_impl->perform(error, [&](Impl& impl) {
        return impl.run("CREATE INDEX IF NOT EXISTS " + quoted(index) + " ON " + quoted(table)
                        + " (" + columns + ")");
    });
}

int SqliteUtil::addColumns(const std::string& table, const std::vector<std::string>& columns,
                           std::string& error) {
    return m_impl->perform(error, [&](Impl& impl) {
        return impl.transact([&] {
            int status = SQLITE_OK;
            for (const std::string& column : columns) {
                status =
                    status == SQLITE_OK
                        ? impl.run("ALTER TABLE " + quoted(table) + " ADD COLUMN " + quoted(column))
                        : status;
            }
            return status;
        });
    });
}

int SqliteUtil::userVersion(int& version, std::string& error) {
    std::vector<Row> rows;
    const int status = m_impl->perform(
        error, [&](Impl& impl) { return impl.run("PRAGMA user_version", {}, appendTo(rows)); });
    if (status == SQLITE_OK) {
        version = std::atoi(rows.front().front().c_str());
    }
    return status;
}

int SqliteUtil::setUserVersion(int version, std::string& error) {
    return m_impl->perform(error, [&](Impl& impl) {
        return impl.run("PRAGMA user_version = " + std::to_string(version));
    });
}

std::set<std::string> SqliteUtil::columnNames(const std::string& table, std::string& error) {
    std::vector<Row> rows;
    const int status =
        m_impl->perform(error, [&](Impl& impl) { return impl.columnNames(table, rows); });
    std::set<std::string> names;
    if (status == SQLITE_OK) {
        for (const Row& row : rows) {
            names.insert(row.front());
        }
    }
    return names;
}

int SqliteUtil::insert(const std::string& table, const Row& values, std::string& error,
                       bool replace) {
    return m_impl->perform(error, [&](Impl& impl) {
        return replace ? impl.replace(table, values) : impl.insert(table, values);
    });
}

int SqliteUtil::replaceAll(const std::string& table, const std::vector<Row>& rows,
                           std::string& error) {
    return m_impl->perform(error, [&](Impl& impl) { return impl.replaceAll(table, rows); });
}

int SqliteUtil::visit(const std::string& table, const Conditions& conditions,
                      const Visitor& visitor, std::string& error) {
    return m_impl->perform(
        error, [&](Impl& impl) { return impl.select(table, Selection(conditions), visitor); });
}

int SqliteUtil::select(const std::string& table, const Conditions& conditions,
                       std::vector<Row>& rows, std::string& error) {
    rows.clear();
    const int status = visit(table, conditions, appendTo(rows), error);
    if (status != SQLITE_OK) {
        rows.clear();
    }
    return status;
}

int SqliteUtil::deleteFrom(const std::string& table, const Conditions& conditions,
                           std::string& error) {
    return m_impl->perform(
        error, [&](Impl& impl) { return impl.deleteFrom(table, Selection(conditions)); });
}

int SqliteUtil::deleteAllEntries(const std::string& table, std::string& error) {
    return m_impl->perform(error,
                           [&](Impl& impl) { return impl.run("DELETE FROM " + quoted(table)); });
}
