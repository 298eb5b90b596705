/// The real store on a disk that loses power, fails, or holds something else than expected.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>

#include "alarmd/AlarmDB.h"
#include "alarmd/Constants.h"
#include "tests/faults/Disk.h"

namespace alarmd {
namespace {

using namespace faults;

/// Sanitized programs look at a sample of the power cuts and of the damaged files.
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
    Faults() { std::filesystem::create_directories("/var/local/alarmd"); }

    void open() {
        m_db.reset();
        m_db = std::make_unique<AlarmDB>(k_path);
    }
    /// Whether the daemon would run.
    bool opens() {
        try {
            open();
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }
    bool set(const std::string& id, const std::string& type, const std::string& time,
             const std::string& client = "c") {
        return m_db->setEvent(id, client, type, time, "", false, "", 2, "", m_flag);
    }
    bool remove(const std::string& id) { return m_db->deleteEvent(id, m_flag); }
    /// The identifier of what is to be waited for, or "".
    std::string next() {
        std::string id;
        std::string text;
        int count = 0;
        return m_db->getNextEvent(m_time, text, id, text, text, m_flag, text, count, text) ? id
                                                                                           : "";
    }
    bool rings(const std::string& id) {
        return next() == id && m_db->playingCurrentEvent(id, m_time).matches(id);
    }
    /// Rings and ends all that is due, as long as there is some: their identifiers.
    std::vector<std::string> ringAll() {
        std::vector<std::string> ended;
        for (std::string id; ended.size() < 99 && !(id = next()).empty() && m_time <= now();) {
            m_db->playingCurrentEvent(id, m_time);
            ended.push_back(m_db->deleteCurrentEvent().getId());
        }
        return ended;
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
    /// Runs SQL as another program would; the last value.
    static std::string sql(const std::string& text) {
        sqlite3* file = nullptr;
        std::string answer;
        const auto read = [](void* result, int, char** cells, char**) {
            *static_cast<std::string*>(result) = cells[0];
            return 0;
        };
        EXPECT_EQ(SQLITE_OK, sqlite3_open(k_path.c_str(), &file));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(file, text.c_str(), read, &answer, nullptr))
            << sqlite3_errmsg(file);
        sqlite3_close(file);
        return answer;
    }
    /// A file as the version of six columns left it, with one notification.
    void makeOldFile() {
        m_disk.hold({});
        sql("CREATE TABLE Notifications(id PRIMARY KEY, client NOT NULL, type NOT NULL,"
            "time NOT NULL, earcon, is_dynamic INTEGER); INSERT INTO Notifications "
            "VALUES('a', 'c', 'ALARM', '"
            + k_time + "', '', 0)");
        m_disk.hold(m_disk.files);
    }

    Disk m_disk;
    std::unique_ptr<AlarmDB> m_db;
    TimePoint m_time;
    bool m_flag = false;
    /// Another one with ALARMD_SEED.
    const char* const m_given = std::getenv("ALARMD_SEED");
    const unsigned long m_seed = m_given != nullptr ? std::stoul(m_given) : 1;
    std::mt19937 m_random{static_cast<unsigned>(m_seed)};
};

class PowerCut : public Faults, public testing::WithParamInterface<bool> {
  protected:
    void writeLegacyFiles() {
        std::ofstream(ALARMD_LEGACY_STATE_FILE)
            << "a c " << k_time << " ALARM\n* * * TIMER\nb c " << k_time << " REMINDER\n";
        std::ofstream(ALARMD_LEGACY_RETAINED_FILE) << "n1 c\nn2 c\n";
    }
    static bool exist(const char* file) { return std::filesystem::exists(file); }
    void answer(bool result) {
        EXPECT_TRUE(result);
        m_answers.emplace_back(m_disk.changes.size(), state());
    }
    void live() {
        open();
        answer(true);
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
        answer(true);
        answer(next().empty());
    }
    /// What may be found when the power goes behind the first `count` changes: what had been
    /// answered, the next step too, or both: a stop notice is kept before its row is deleted.
    bool isPossible(const State& found, std::size_t count) const {
        auto after = m_answers.begin() + 1;
        while (after != m_answers.end() - 1 && after->first <= count) {
            ++after;
        }
        State both = std::prev(after)->second;
        both.insert(after->second.begin(), after->second.end());
        return found == std::prev(after)->second || found == after->second || found == both;
    }

    std::vector<std::pair<std::size_t, State>> m_answers;
};

TEST_P(PowerCut, LosesNothingThatWasAnswered) {
    const bool isNew = GetParam();
    isNew ? writeLegacyFiles() : makeOldFile();
    const Files before = m_disk.files;
    std::vector<std::pair<bool, bool>> legacy;
    m_disk.onChange = [&] {
        legacy.emplace_back(exist(ALARMD_LEGACY_STATE_FILE), exist(ALARMD_LEGACY_RETAINED_FILE));
    };
    live();
    m_disk.onChange = [] {};
    legacy.emplace_back(false, false);
    const std::vector<Change> changes = m_disk.changes;
    // None of them is on disk until it is synced. The last of them may be there by half, alone or
    // with all the others, or chance decides.
    const std::function<Fate(bool)> fates[] = {
        [](bool) { return Fate::Kept; }, [](bool) { return Fate::Dropped; },
        [](bool isLast) { return isLast ? Fate::Torn : Fate::Kept; },
        [](bool isLast) { return isLast ? Fate::Torn : Fate::Dropped; },
        [this](bool) { return static_cast<Fate>(m_random() % 3); }};
    for (std::size_t count = m_random() % k_step; count <= changes.size(); count += k_step) {
        for (std::size_t way = 0; way < std::size(fates); ++way) {
            m_db.reset();
            m_disk.hold(cutPower(before, changes, count, fates[way]));
            // Their removal is never synced, so it may be undone.
            if (isNew && (way == 1 || legacy[count].second)) {
                writeLegacyFiles();
            }
            if (isNew && way != 1 && !legacy[count].first) {
                std::filesystem::remove(ALARMD_LEGACY_STATE_FILE);
            }
            ASSERT_TRUE(opens()) << count;
            const State found = state();
            EXPECT_TRUE(isPossible(found, count))
                << "after " << count << " changes of " << changes.size() << ", cut " << way
                << ", seed " << m_seed << ": " << testing::PrintToString(found);
            EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
            EXPECT_EQ(sql("SELECT count(*) FROM pragma_table_info('Notifications')"), "10");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Store, PowerCut, testing::Bool());

class Trouble : public Faults, public testing::WithParamInterface<faults::Trouble> {
  protected:
    Trouble() {
        m_disk.hold({});
        open();
        EXPECT_TRUE(set("expired", "REMINDER", in(-2000)) && set("due", "TIMER", in(-2))
                    && set("kept", "ALARM", in(1000)) && set("doomed", "REMINDER", in(3000)));
        m_image = m_disk.files;
    }
    static bool has(const State& state, const std::string& entry) {
        return state.count(entry) != 0;
    }
    /// Whether what would ring, one after the other, is what is stored.
    void expectArmedIsStored() {
        for (auto stored = m_db->getAllAlerts(); !stored.empty(); stored = m_db->getAllAlerts()) {
            const auto first = std::min_element(
                stored.begin(), stored.end(),
                [](const auto& a, const auto& b) { return a.getTime() < b.getTime(); });
            ASSERT_EQ(next(), first->getId());
            ASSERT_EQ(m_time, first->getTime());
            ASSERT_TRUE(remove(first->getId()));
        }
        EXPECT_EQ(next(), "");
    }

    Files m_image;
};

TEST_P(Trouble, LosesNothingAndEndsWithIt) {
    const std::string sooner = m_db->readAlertById("kept").getTimeStr();
    const std::string later = in(2000);
    bool reached = true;
    for (int from = 1; reached; ++from) {
        SCOPED_TRACE(from);
        m_db.reset();
        m_disk.hold(m_image);
        open();
        const State before = state();
        m_disk.trouble(GetParam(), from);
        EXPECT_EQ(next(), "expired");
        EXPECT_TRUE(m_db->giveUpCurrentEvent("expired", "c", m_time));
        EXPECT_TRUE(rings("due"));
        const bool isNew = set("new", "REMINDER", in(500), std::string(50000, 'n'));
        const bool isMoved = set("kept", "ALARM", later);
        const bool isDeleted = remove("doomed");
        EXPECT_TRUE(m_db->deleteCurrentEvent().matches("due"));
        EXPECT_EQ(ringAll(), std::vector<std::string>{});
        reached = m_disk.wasInTrouble();
        m_disk.recover();

        EXPECT_TRUE(set("first", "TIMER", in(5)));
        EXPECT_EQ(ringAll(), std::vector<std::string>{});
        const State after = state();
        const Files files = m_disk.files;
        expectArmedIsStored();
        m_db.reset();
        m_disk.hold(files);
        open();
        EXPECT_EQ(state(), after);
        EXPECT_EQ(next(), "first");
        EXPECT_TRUE(has(after, "expired")) << "its stop notice";
        EXPECT_TRUE(m_db->readAlertById("expired").matches("*")
                    && m_db->readAlertById("due").matches("*"));
        // What was refused may have been done: the last step may be what failed.
        EXPECT_TRUE(!isNew || m_db->readAlertById("new").matches("new"));
        const std::string kept = m_db->readAlertById("kept").getTimeStr();
        EXPECT_TRUE(kept == later || (!isMoved && kept == sooner)) << kept;
        EXPECT_TRUE(!isDeleted || m_db->readAlertById("doomed").matches("*"));
    }
}

TEST_P(Trouble, AtTheStartLosesNothingEither) {
    const State all = (open(), state());
    makeOldFile();
    for (const Files& image : {m_image, m_disk.files}) {
        bool reached = true;
        for (int from = 1; reached; ++from) {
            SCOPED_TRACE(from);
            m_db.reset();
            m_disk.hold(image);
            m_disk.trouble(GetParam(), from);
            const bool runs = opens();
            reached = m_disk.wasInTrouble();
            const std::string chosen = image == m_image ? "expired" : "a";
            if (runs && GetParam() == faults::Trouble::ReadOnly) {
                EXPECT_EQ(next(), chosen);
            }
            m_disk.recover();
            if (runs) {
                EXPECT_EQ(next(), chosen);
            }
            open();
            EXPECT_EQ(next(), chosen);
            EXPECT_EQ(state(), image == m_image ? all : State{"a " + k_time});
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Store, Trouble,
                         testing::Values(faults::Trouble::OneCall, faults::Trouble::EveryCall,
                                         faults::Trouble::Full, faults::Trouble::ReadOnly,
                                         faults::Trouble::Locked));

TEST_F(Faults, DamagedFileIsRefusedAsItIsOrServes) {
    m_disk.hold({});
    open();
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(set("a" + std::to_string(i), "TIMER", in(i - 20), std::string(300, 'c')));
    }
    m_db.reset();
    const std::string whole = m_disk.files[k_path];
    const std::size_t cuts = whole.size() / 512;
    int served = 0;
    int lost = 0;
    for (std::size_t round = 0; round < cuts + 500; round += k_step) {
        SCOPED_TRACE(testing::Message() << "round " << round << ", seed " << m_seed);
        std::string damaged = whole.substr(0, round < cuts ? 1 + round * 512 : whole.size());
        for (std::size_t flips = round < cuts ? 0 : 1 + m_random() % 20; flips > 0; --flips) {
            // Mostly where the pages keep their structure.
            const std::size_t page = m_random() % (whole.size() / 4096) * 4096;
            damaged[page + m_random() % (flips % 4 == 0 ? 4096 : 100)] =
                static_cast<char>(m_random());
        }
        m_db.reset();
        m_disk.hold({{k_path, damaged}});
        if (!opens()) {
            EXPECT_EQ(m_disk.files[k_path], damaged);
            continue;
        }
        ++served;
        std::vector<std::string> rang = ringAll();
        const bool isSet = set("good", "ALARM", in(-100));
        for (const std::string& id : ringAll()) {
            rang.push_back(id);
        }
        EXPECT_LT(rang.size(), 99U);
        lost += isSet && std::count(rang.begin(), rang.end(), "good") != 1 ? 1 : 0;
        EXPECT_EQ(ringAll(), std::vector<std::string>{});
    }
    // A file may be damaged so that it takes a row and gives back others, without any error.
    EXPECT_LE(lost * 100, served) << "of " << served << ", seed " << m_seed;
    EXPECT_GT(served, 10);
}

}  // namespace
}  // namespace alarmd
