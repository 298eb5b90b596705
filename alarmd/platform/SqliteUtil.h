/// The device's SQLite wrapper: tables of text.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// One database file. Every value crosses as text and is bound, never pasted into SQL; NULL reads
/// as the empty string. One object serves several threads at once (one lock of its own, taken
/// inside each operation and never held outside). A write that has returned success survives power
/// loss; one that failed has changed nothing. Results are SQLite result codes, 0 for success;
/// `error` gets SQLite's text and is emptied on success.
class SqliteUtil {
  public:
    using Row = std::vector<std::string>;

    /// One piece of a selection. Pieces in one list: any number of equal() on the same column,
    /// which are joined by "or"; at most one orderBy(), at most one limit().
    class Condition {
      public:
        enum class Kind { Equal, OrderBy, Limit };

        static Condition equal(const std::string& column, const std::string& value) {
            return {Kind::Equal, column, value};
        }
        /// Ascending.
        static Condition orderBy(const std::string& column) { return {Kind::OrderBy, column, ""}; }
        static Condition limit(std::size_t rows) { return {Kind::Limit, "", std::to_string(rows)}; }

        Kind kind() const { return m_kind; }
        const std::string& column() const { return m_column; }
        const std::string& value() const { return m_value; }

      private:
        Condition(Kind kind, std::string column, std::string value)
            : m_kind(kind), m_column(std::move(column)), m_value(std::move(value)) {}
        Kind m_kind;
        std::string m_column;
        std::string m_value;
    };
    using Conditions = std::vector<Condition>;

    /// Selects every row.
    static inline const Conditions noConditions;

    SqliteUtil();
    /// Closes the file.
    ~SqliteUtil();
    SqliteUtil(const SqliteUtil&) = delete;
    SqliteUtil& operator=(const SqliteUtil&) = delete;

    /// Opens `path`, creating the file only when `create`. Proves that the file can be used: 14 it
    /// does not exist (or cannot be opened at all), 26 not a database, 11 corrupt, 5 locked by
    /// another process for more than 2 s. A file that is refused is left untouched. To be called
    /// before anything else and, until it succeeds, again.
    [[nodiscard]] int open(const std::string& path, bool create);

    /// Makes the table from SQL column definitions; leaves one that exists alone.
    [[nodiscard]] int createTable(const std::string& table, const std::string& schema,
                                  std::string& error);

    /// Makes an index over `columns` ("a, b") of the table; leaves one that exists alone.
    [[nodiscard]] int createIndex(const std::string& index, const std::string& table,
                                  const std::string& columns, std::string& error);

    /// Adds the columns in this order, all of them or, on failure, none. An empty list is a
    /// success.
    [[nodiscard]] int addColumns(const std::string& table, const std::vector<std::string>& columns,
                                 std::string& error);

    /// A number that the file keeps for its user; 0 in a new file.
    [[nodiscard]] int userVersion(int& version, std::string& error);
    [[nodiscard]] int setUserVersion(int version, std::string& error);

    /// The table's column names; empty on failure, with `error` set.
    std::set<std::string> columnNames(const std::string& table, std::string& error);

    /// Adds one row, its values in the table's column order. With `replace` a row with the same
    /// primary key is replaced; a row that is stored already just as given counts as written.
    /// Without, it is an error.
    [[nodiscard]] int insert(const std::string& table, const Row& values, std::string& error,
                             bool replace);

    /// The same with `replace` for several rows, in one step.
    [[nodiscard]] int replaceAll(const std::string& table, const std::vector<Row>& rows,
                                 std::string& error);

    /// Shows the selected rows one after the other, all columns in table order, and keeps none of
    /// them. Other threads wait meanwhile, so the visitor has to be quick, and it must not use this
    /// object. After a failure it has seen some of them, or none.
    using Visitor = std::function<void(const Row&)>;
    [[nodiscard]] int visit(const std::string& table, const Conditions& conditions,
                            const Visitor& visitor, std::string& error);

    /// The selected rows; all columns in table order. `rows` is empty on failure.
    [[nodiscard]] int select(const std::string& table, const Conditions& conditions,
                             std::vector<Row>& rows, std::string& error);

    /// Deletes the rows equal to the conditions in one step, any number of values; none selected is
    /// a success. With no conditions at all nothing is deleted.
    [[nodiscard]] int deleteFrom(const std::string& table, const Conditions& conditions,
                                 std::string& error);

    [[nodiscard]] int deleteAllEntries(const std::string& table, std::string& error);

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
