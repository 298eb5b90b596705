/// What is left of the notifications after a stop, a crash, a lost bus and an older version.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/harness/System.h"

namespace harness {
namespace {

namespace fs = std::filesystem;

class Restart : public System, public testing::WithParamInterface<bool> {};

TEST_P(Restart, LosesNothing) {
    start();
    const std::time_t due = std::time(nullptr) + 2;
    set("a1", "ALARM", due - 10);
    rings("ALARM");
    set("t1", "TIMER", due);
    GetParam() ? crash() : stop();
    start();
    rings("ALARM");
    acknowledge();
    EXPECT_GE(rings("TIMER").at, std::chrono::system_clock::from_time_t(due));
    acknowledge();
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{});
}

INSTANTIATE_TEST_SUITE_P(System, Restart, testing::Bool());

/// The columns that an older version had already added to the first six.
class OldFiles : public System, public testing::WithParamInterface<const char*> {};

TEST_P(OldFiles, AreUpgradedAndRing) {
    const std::time_t now = std::time(nullptr);
    sql("CREATE TABLE Notifications(id PRIMARY KEY, client NOT NULL, type NOT NULL,"
        "time NOT NULL, earcon, is_dynamic INTEGER"
        + std::string(GetParam()) + ")");
    for (const auto& [id, age] : {std::pair("old", 1805), std::pair("due", 1700)}) {
        sql("INSERT INTO Notifications(id, client, type, time, is_dynamic) VALUES('"
            + std::string(id) + "', 'c1', 'TIMER', '" + utc(now - age) + "', 0)");
    }
    write(k_folder + "alarms.txt", "a1 c1 " + utc(now + 1000) + " ALARM\n");
    start();
    // What has been due for half an hour is not rung, only reported.
    EXPECT_EQ(peer.timeline.take("NotificationStoppedEvent").text,
              R"({"notificationId":"old","clientId":"c1"})");
    // It may ring before the daemon knows that the assistant is there, so no start notice is asked
    // for.
    rings("TIMER");
    EXPECT_EQ(sql("SELECT group_concat(name) FROM pragma_table_info('Notifications')"),
              Lines{"id,client,type,time,earcon,is_dynamic,assetPlayOrder,durationInSeconds,"
                    "shortAlertAsset,loopCount"});
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{"due"});
    // Left over from a time before the file, and older than it.
    EXPECT_FALSE(fs::exists(k_folder + "alarms.txt"));
}

INSTANTIATE_TEST_SUITE_P(System, OldFiles,
                         testing::Values("",
                                         ", assetPlayOrder, durationInSeconds INTEGER, "
                                         "shortAlertAsset"));

TEST_F(System, ImportsTheFilesFromBeforeTheDatabase) {
    write(k_folder + "alarms.txt",
          "a1 c1 2030-01-01T00:00:00Z ALARM\n* * * TIMER\nr1 c2 2030-01-01T00:00:01Z REMINDER\n");
    write(k_folder + "retainedalarms.txt", "x1 c1\nx2 c2\nlone");
    peer.provide("connectionState", "0");
    start();
    EXPECT_EQ(sql("SELECT id, client, type, time FROM Notifications ORDER BY time"),
              (Lines{"a1|c1|ALARM|2030-01-01T00:00:00Z", "r1|c2|REMINDER|2030-01-01T00:00:01Z"}));
    EXPECT_EQ(sql("SELECT * FROM RetainedEvents ORDER BY id"), (Lines{"x1|c1", "x2|c2"}));
    EXPECT_FALSE(fs::exists(k_folder + "alarms.txt"));
    EXPECT_FALSE(fs::exists(k_folder + "retainedalarms.txt"));
}

class Damaged : public System, public testing::WithParamInterface<bool> {
  protected:
    static std::string content() {
        std::ifstream file(k_folder + "alarms.db", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_P(Damaged, IsLeftAlone) {
    if (GetParam()) {
        sql("CREATE TABLE Notifications(id PRIMARY KEY)");
        fs::resize_file(k_folder + "alarms.db", 5000);
    } else {
        write(k_folder + "alarms.db", "a1 c1 2030-01-01T00:00:00Z ALARM\n");
    }
    const std::string before = content();
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 1);
    log.timeline.take("", "C AlarmDB:ConstructorFailed:reason=unableToOpenExistingDB,fileName="
                              + k_folder + "alarms.db,sqlCode=" + (GetParam() ? "11:" : "26:"));
    log.timeline.take("", "reason=uncaughtException,exc=Could not open existing DB:");
    EXPECT_EQ(content(), before);
    EXPECT_FALSE(fs::exists("/run/alarmd.pid"));
}

INSTANTIATE_TEST_SUITE_P(System, Damaged, testing::Bool());

}  // namespace
}  // namespace harness
