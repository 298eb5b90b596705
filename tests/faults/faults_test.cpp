/// The real store on a disk that loses power or fails.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>

#include "alarmd/AlarmDB.h"
#include "alarmd/Constants.h"
#include "tests/faults/Disk.h"

namespace alarmd {
namespace {

using namespace faults;

/// Sanitized programs look at a sample of the power cuts and of the refused calls.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t k_step = 7;
#else
constexpr std::size_t k_step = 1;
#endif

const std::string k_path = "/disk/alarms.db";
const std::string k_time = "2030-01-01T00:00:00Z";

/// What is stored, "id time", and the identifiers of the stop notices.
using State = std::set<std::string>;

std::string in(Seconds seconds) {
    return timeInStringFormat(toSeconds(now()) + seconds);
}

class Faults : public testing::Test {
  protected:
    /// Whether the daemon would run.
    bool opens() {
        m_db.reset();
        try {
            m_db = std::make_unique<AlarmDB>(k_path);
        } catch (const std::runtime_error&) {
        }
        return m_db != nullptr;
    }
    bool opens(const Files& files) {
        m_db.reset();
        m_disk.hold(files);
        return opens();
    }
    /// As the version of six columns left the file: id, client, type, time, earcon, is_dynamic.
    Files old(const std::vector<SqliteUtil::Row>& rows) {
        SqliteUtil file;
        EXPECT_EQ(0, file.open(k_path, true));
        EXPECT_EQ(
            0, file.createTable(AlarmDB::k_alarmTableName,
                                "id PRIMARY KEY, client, type, time, earcon, is_dynamic", m_text));
        for (const auto& row : rows) {
            EXPECT_EQ(0, file.insert(AlarmDB::k_alarmTableName, row, m_text, false));
        }
        return m_disk.files;
    }
    bool set(const std::string& id, const std::string& type, const std::string& time,
             const std::string& client = "c") {
        return m_db->setEvent(id, client, type, time, "", false, "", 2, "", m_flag);
    }
    bool remove(const std::string& id) { return m_db->deleteEvent(id, m_flag); }
    /// The identifier of what is to be waited for, or "".
    std::string next() {
        std::string id;
        const bool isThere =
            m_db->getNextEvent(m_time, m_text, id, m_text, m_text, m_flag, m_text, m_count, m_text);
        return isThere ? id : "";
    }
    bool isDue() { return !next().empty() && m_time <= now(); }
    bool rings(const std::string& id) {
        return next() == id && m_db->playingCurrentEvent(id, m_time).matches(id);
    }
    State state() {
        State stored;
        for (const TimedEvent& event : m_db->getAllAlerts()) {
            stored.insert(event.getId() + " " + event.getTimeStr());
        }
        AlarmDB::StopNotices notices;
        EXPECT_TRUE(m_db->getSavedStopNotices(notices));
        for (const auto& notice : notices) {
            stored.insert(notice.first);
        }
        return stored;
    }

    Disk m_disk;
    std::unique_ptr<AlarmDB> m_db;
    TimePoint m_time;
    std::string m_text;
    int m_count = 0;
    bool m_flag = false;
    std::mt19937 m_random;  ///< the same chance each time
};

/// Whether it begins with the files of the version before the database, or else with old columns.
class PowerCut : public Faults, public testing::WithParamInterface<bool> {};

TEST_P(PowerCut, LosesNothingThatWasAnswered) {
    std::filesystem::create_directories("/var/local/alarmd");
    const auto writeLegacyFiles = [] {
        std::ofstream(ALARMD_LEGACY_STATE_FILE)
            << "a c " << k_time << " ALARM\n* * * TIMER\nb c " << k_time << " REMINDER\n";
        std::ofstream(ALARMD_LEGACY_RETAINED_FILE) << "n1 c\nn2 c\n";
    };
    const Files before = GetParam() ? Files{} : old({{"a", "c", "ALARM", k_time, "", "0"}});
    m_disk.hold(before);
    std::size_t imported = 0;
    if (GetParam()) {
        writeLegacyFiles();
        m_disk.onChange = [&] {
            imported += std::filesystem::exists(ALARMD_LEGACY_RETAINED_FILE) ? 1 : 0;
        };
    }
    std::vector<std::pair<std::size_t, State>> answers;
    const auto answer = [&](bool result) {
        EXPECT_TRUE(result);
        answers.emplace_back(m_disk.changes.size(), state());
    };
    answer(opens());
    answer(set("t", "TIMER", in(-2)));
    answer(set("u", "TIMER", in(50), std::string(9000, 'u')));
    answer(rings("t"));
    answer(set("a", "ALARM", in(-2000)));
    answer(remove("u"));
    answer(m_db->deleteCurrentEvent().matches("t"));
    answer(next() == "a");
    answer(m_db->giveUpCurrentEvent("a", "c", m_time));
    answer(m_db->retainEventForLaterStopNotice("n3", "c"));
    answer(set("v", "REMINDER", in(70)));
    answer(set("w", "TIMER", in(80)));
    answer(m_db->deleteNotifications({"v", "x"}, m_flag));
    m_db->deleteSavedStopNotices();
    answer(true);
    m_db->deleteAllAlarmsAndTimers();
    answer(next().empty());
    m_disk.onChange = [] {};
    const std::vector<Change> changes = m_disk.changes;
    auto done = answers.begin();
    for (std::size_t count = 0; count <= changes.size(); count += k_step) {
        while (std::next(done, 2) != answers.end() && std::next(done)->first <= count) {
            ++done;
        }
        // What had been answered, the next step too, or both: a stop notice is kept before its row
        // is deleted.
        const State& answered = done->second;
        const State& begun = std::next(done)->second;
        State both = answered;
        both.insert(begun.begin(), begun.end());
        // What was not synced is lost or there, without the half of its last change, or as chance
        // decides.
        for (const auto& [others, last] :
             {std::pair{0U, 0U}, {2U, 2U}, {2U, 1U}, {0U, 1U}, {3U, 3U}}) {
            // Nobody syncs the removal of the legacy files, so it may be undone.
            if (GetParam() && (last == 0 || count < imported)) {
                writeLegacyFiles();
            }
            ASSERT_TRUE(opens(cutPower(before, changes, count, others, last, m_random)));
            const State found = state();
            EXPECT_TRUE(found == answered || found == begun || found == both)
                << "after " << count << " changes of " << changes.size() << ", cut " << others
                << last << ": " << testing::PrintToString(found);
            SqliteUtil file;
            std::vector<SqliteUtil::Row> rows;
            EXPECT_EQ(0, file.open(k_path, false));
            EXPECT_EQ(10U, file.columnNames(AlarmDB::k_alarmTableName, m_text).size());
            EXPECT_EQ(0, file.select("pragma_integrity_check", {}, rows, m_text));
            EXPECT_EQ(rows, std::vector<SqliteUtil::Row>{{"ok"}});
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Store, PowerCut, testing::Bool());

/// The trouble, and whether it meets a file of the earlier version while that is opened.
class InTrouble : public Faults, public testing::WithParamInterface<std::tuple<Trouble, bool>> {};

TEST_P(InTrouble, LosesNothingAndEndsWithIt) {
    const std::string soon = in(1000), later = in(2000);
    const auto [trouble, isOld] = GetParam();
    const Files earlier = old({{"expired", "c", "REMINDER", in(-2000), "", "0"},
                               {"due", "c", "TIMER", in(-2), "", "0"},
                               {"kept", "c", "ALARM", k_time, "", "0"},
                               {"doomed", "c", "REMINDER", k_time, "", "0"}});
    EXPECT_TRUE(opens());
    const State before = state();
    const Files start = isOld ? earlier : m_disk.files;
    bool isReached = true;
    for (int from = 1; isReached; from += static_cast<int>(k_step)) {
        SCOPED_TRACE(from);
        m_db.reset();
        m_disk.hold(start);
        m_disk.trouble(trouble, from);
        const bool runs = opens();
        if (m_disk.wasInTrouble()) {
            EXPECT_TRUE(trouble != Trouble::ReadOnly || (runs ? next() == "expired" : isOld));
            m_disk.recover();
            EXPECT_TRUE(!runs || next() == "expired");
            ASSERT_TRUE(opens());
            EXPECT_EQ(next(), "expired");
            EXPECT_EQ(state(), before);
            continue;
        }
        EXPECT_EQ(next(), "expired");
        EXPECT_TRUE(m_db->giveUpCurrentEvent("expired", "c", m_time));
        EXPECT_TRUE(rings("due"));
        const bool isNew = set("new", "REMINDER", later, std::string(50000, 'n'));
        const bool isMoved = set("kept", "ALARM", later);
        const bool isDeleted = remove("doomed");
        EXPECT_TRUE(m_db->deleteCurrentEvent().matches("due"));
        EXPECT_FALSE(isDue());
        isReached = m_disk.wasInTrouble() && !isOld;
        m_disk.recover();

        EXPECT_TRUE(set("first", "TIMER", soon));
        EXPECT_FALSE(isDue());
        const State after = state();
        const Files files = m_disk.files;
        State armed{"expired"};
        for (std::string id; !(id = next()).empty();) {
            ASSERT_TRUE(armed.insert(id + " " + timeInStringFormat(toSeconds(m_time))).second
                        && remove(id));
        }
        EXPECT_EQ(armed, after);
        ASSERT_TRUE(opens(files));
        State found = state();
        EXPECT_EQ(found, after);
        EXPECT_EQ(next(), "first");
        // What was refused may have been done: the last step may be what failed.
        EXPECT_TRUE(found.erase("new " + later) != 0 || !isNew);
        EXPECT_TRUE(found.erase("kept " + later) != 0
                    || (!isMoved && found.erase("kept " + k_time) != 0));
        EXPECT_TRUE(found.erase("doomed " + k_time) == 0 || !isDeleted);
        EXPECT_EQ(found, (State{"expired", "first " + soon})) << "the stop notice and the last one";
    }
}

INSTANTIATE_TEST_SUITE_P(Store, InTrouble,
                         testing::Combine(testing::Values(Trouble::OneCall, Trouble::All,
                                                          Trouble::Full, Trouble::ReadOnly,
                                                          Trouble::Locked),
                                          testing::Bool()));

}  // namespace
}  // namespace alarmd
