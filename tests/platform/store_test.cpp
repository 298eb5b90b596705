#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "alarmd/platform/SqliteUtil.h"

/// How often anything in this program was forced to disk.
std::atomic<int> g_syncs{0};
extern "C" int fsync(int fd) {
    ++g_syncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int fdatasync(int fd) {
    return fsync(fd);
}

namespace {

using Condition = SqliteUtil::Condition;
using Rows = std::vector<SqliteUtil::Row>;

Condition idIs(const std::string& id) {
    return Condition::equal("ID", id);
}

class Store : public testing::Test {
  protected:
    Store() {
        unlink(m_path.c_str());
        EXPECT_EQ(14, m_store.open(m_path, false));
        EXPECT_EQ(0, m_store.open(m_path, true));
        EXPECT_EQ(0, m_store.createTable("T", "id PRIMARY KEY, type, n INTEGER", m_error));
        EXPECT_EQ(0, m_store.createIndex("I", "T", "type, n", m_error));
        EXPECT_EQ(0, sqlite3_open(m_path.c_str(), &m_other));
    }
    ~Store() override { sqlite3_close(m_other); }
    int put(const SqliteUtil::Row& row, bool replace = true) {
        return m_store.insert("T", row, m_error, replace);
    }
    int erase(const SqliteUtil::Conditions& rows) { return m_store.deleteFrom("T", rows, m_error); }
    Rows rows(const SqliteUtil::Conditions& conditions = SqliteUtil::noConditions) {
        Rows result;
        EXPECT_EQ(0, m_store.select("T", conditions, result, m_error)) << m_error;
        return result;
    }
    void otherProgram(const char* sql) {
        EXPECT_EQ(0, sqlite3_exec(m_other, sql, nullptr, nullptr, nullptr));
    }

    const std::string m_path = testing::TempDir() + "store" + std::to_string(getpid());
    std::string m_error;
    SqliteUtil m_store;
    sqlite3* m_other = nullptr;
};

TEST_F(Store, WritesWhatIsNewAndChangesNothingWhenItFails) {
    ASSERT_EQ(0, put({"a", "x", "1"}, false));
    const int before = g_syncs;
    EXPECT_EQ(0, put({"a", "x", "1"}));
    EXPECT_EQ(before, g_syncs);
    EXPECT_EQ(0, put({"a", "x", "2"}));
    EXPECT_EQ(19, put({"a", "y", "3"}, false));
    EXPECT_EQ(1, put({"a", "too few"}));
    EXPECT_NE("", m_error);
    EXPECT_EQ(Rows({{"a", "x", "2"}}), rows());
    EXPECT_EQ("", m_error);
}

TEST_F(Store, WhateverReadsAsATextIsFoundReplacedAndDeletedByIt) {
    const std::string blob("b\0c", 3);
    const Rows hostile{{"'); DROP TABLE T; --", "\"", "`]"},
                       {blob + "d", "\xff\xfe", ""},
                       {std::string(1 << 20, 'm'), "", "abc"}};
    for (const auto& row : hostile) {
        ASSERT_EQ(0, put(row));
        EXPECT_EQ(Rows({row}), rows({idIs(row[0])}));
    }
    otherProgram(
        "INSERT INTO T VALUES (NULL, 'a', 1), (5, 'a', 2), (2.5, 'a', 3), (x'620063', 1, 2)");
    EXPECT_EQ(Rows({{blob, "1", "2"}}), rows({idIs(blob)}));
    EXPECT_EQ(0, put({"5", "b", "7"}));
    EXPECT_EQ(Rows({{"5", "b", "7"}}), rows({idIs("5")}));
    EXPECT_EQ(0, erase({idIs(""), idIs(blob), idIs("5"), idIs("2.5")}));
    EXPECT_EQ(hostile, rows());
}

TEST_F(Store, SelectsInOrderWithinTheLimitAndDeletesAHundredThousandAtOnce) {
    otherProgram(
        "WITH c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c WHERE i < 100001) "
        "INSERT INTO T SELECT i, iif(i % 2, 'A', 'B'), -i FROM c");
    const auto byN = Condition::orderBy("N");
    EXPECT_EQ(Rows({{"100000", "B", "-100000"}}),
              rows({Condition::equal("TYPE", "B"), byN, Condition::limit(1)}));
    EXPECT_EQ(Rows({{"9", "A", "-9"}, {"8", "B", "-8"}}),
              rows({idIs("7"), idIs("8"), idIs("9"), byN, Condition::limit(2)}));
    Rows none{{"left over"}};
    EXPECT_EQ(1, m_store.select("T", {Condition::equal("nowhere", "nowhere")}, none, m_error));
    EXPECT_TRUE(none.empty());
    SqliteUtil::Conditions all;
    EXPECT_EQ(0, erase(all)) << "nothing";
    for (int i = 0; i < 100000; ++i) {
        all.push_back(idIs(std::to_string(i)));
    }
    EXPECT_EQ(100000U, rows(all).size());
    EXPECT_EQ(0, erase(all));
    EXPECT_EQ(Rows({{"100001", "A", "-100001"}, {"100000", "B", "-100000"}}), rows({byN}));
}

TEST_F(Store, ServesSeveralThreads) {
    const auto work = [this](const std::string& name) {
        for (std::string id = name, error; id.size() < 10; id += name) {
            Rows found;
            EXPECT_EQ(0, m_store.insert("T", {id, "A", "1"}, error, true));
            EXPECT_EQ(0, m_store.select("T", {idIs(id), idIs("none")}, found, error));
            EXPECT_EQ(Rows({{id, "A", "1"}}), found);
        }
    };
    auto other = std::async(std::launch::async, work, "a");
    work("b");
    other.wait();
}

}  // namespace
