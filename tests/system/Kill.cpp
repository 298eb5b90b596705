/// Nothing that was answered is lost, whatever happens to the process, the disk and the file.
#include <time.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>

#include "tests/harness/System.h"

namespace harness {
namespace {

namespace fs = std::filesystem;
using std::chrono::system_clock;

/// The device beside a model of what it was told and has answered. Those named "k" are due in years
/// and are set and removed by directives, those named "r" are due at once and are acknowledged.
class Kill : public System {
  protected:
    unsigned long chance(unsigned long below) { return m_random() % below; }
    std::chrono::microseconds aWhile(unsigned long milliseconds) {
        return std::chrono::microseconds(chance(milliseconds * 1000));
    }

    /// Has it set, or removed when `due` is 0; false once the daemon is dead.
    bool edit(const std::string& id, std::time_t due) {
        const char* types[] = {"ALARM", "TIMER", "REMINDER"};
        const char* removals[] = {"DeleteNotification", "DeleteNotifications", "StopNotification"};
        States& states = m_states.try_emplace(id, States{{0, ""}}).first->second;
        states.emplace_back(++m_lastSent, due == 0 ? "" : utc(due));
        const std::string body =
            setBody(id, types[chance(3)], due, R"(,"notificationIds":[")" + id + "\"]");
        return peer.deliver(due == 0 ? removals[chance(3)] : "SetNotification", body, m_lastSent)
            .empty();
    }
    /// Ends what rings by now, if anything does; false once the daemon is dead.
    bool acknowledge() {
        m_isRinging = false;
        m_ended.clear();
        m_isCutOff = !peer.set("Acknowledge", "x").empty();
        look();
        if (!m_isCutOff) {
            m_promised.insert(m_ended.begin(), m_ended.end());
        }
        return !m_isCutOff;
    }

    /// Takes in what has come.
    void look() {
        const std::string mark = "\"notificationId\":\"";
        for (const std::string& line : peer.timeline.takeAll()) {
            const std::size_t number = line.rfind(" #");
            const std::size_t at = line.find(mark) + mark.size();
            const std::string id = line.substr(std::min(at, line.size()), line.find('"', at) - at);
            EXPECT_EQ(line.find("FAILED"), std::string::npos) << line;
            if (number != std::string::npos) {
                m_lastAnswered = std::max(m_lastAnswered, std::stoi(line.substr(number + 2)));
            }
            if (line.find("NotificationStoppedEvent") == 0) {
                m_noticed.insert(id);
            } else if (line.find("setPlayList") == 0) {
                m_isRinging = true;
            } else if (line.find("NONE") != std::string::npos && id[0] == 'r') {
                m_ended.insert(id);
                m_states.erase(id);
            }
        }
    }

    /// Tells it this and that until it is dead, and stops what rings.
    void stream() {
        for (bool lives = true; lives; look()) {
            const auto later = static_cast<std::time_t>(chance(4));
            if (m_isRinging && chance(2) == 0) {
                lives = acknowledge();
            } else if (chance(3) == 0) {
                lives = edit("r" + std::to_string(m_lastSent), std::time(nullptr) - 2 + later);
            } else {
                lives = edit("k" + std::to_string(chance(8)), chance(2) == 0 ? k_far + later : 0);
            }
        }
    }

    /// What is stored is what was answered. The model learns what was still open.
    void compare() {
        std::map<std::string, States> stored;
        for (const std::string& row : sql("SELECT id, time FROM Notifications")) {
            stored[row.substr(0, row.find('|'))] = {{0, row.substr(row.find('|') + 1)}};
        }
        // An acknowledgement that was cut off may have ended what rang.
        int missing = std::exchange(m_isCutOff, false) ? 1 : 0;
        std::size_t known = 0;
        for (auto& [id, states] : m_states) {
            while (states.size() > 1 && states[1].first <= m_lastAnswered) {
                states.pop_front();
            }
            known += stored.count(id);
            const std::string found = stored.count(id) == 0 ? "" : stored[id].front().second;
            const auto isFound = [&found](const auto& state) { return state.second == found; };
            EXPECT_TRUE(std::any_of(states.begin(), states.end(), isFound)
                        || (id[0] == 'r' && found.empty() && --missing >= 0))
                << id << " is '" << found << "', not " << testing::PrintToString(states);
        }
        EXPECT_EQ(known, stored.size());
        m_states = stored;
    }
    /// All of those named "r" ring, each once, with nobody setting anything.
    void ringAll() {
        while (m_states.lower_bound("r") != m_states.end()) {
            const auto left = m_states;
            ASSERT_TRUE(await([this] { return look(), m_isRinging; })) << left.rbegin()->first;
            const std::string now = utc(system_clock::to_time_t(system_clock::now()));
            ASSERT_TRUE(acknowledge());
            ASSERT_EQ(m_ended.size(), 1U);
            EXPECT_GE(now, left.at(*m_ended.begin()).front().second) << *m_ended.begin();
        }
        EXPECT_EQ(peer.get("Status"), "None");
        look();
        EXPECT_FALSE(m_isRinging);
    }

    static constexpr std::time_t k_far = 1893456000;  // 2030-01-01T00:00:00Z
    /// The times that a notification may have, "" for none: that of the last directive that was
    /// answered, and of those that came after it, with their numbers.
    using States = std::deque<std::pair<int, std::string>>;
    std::map<std::string, States> m_states;
    std::mt19937 m_random;
    int m_lastSent = 0;
    int m_lastAnswered = 0;
    bool m_isRinging = false;
    bool m_isCutOff = false;           ///< the last acknowledgement was not answered
    std::set<std::string> m_ended;     ///< since the last acknowledgement began
    std::set<std::string> m_promised;  ///< ended by acknowledgements that were answered
    std::set<std::string> m_noticed;
};

TEST_F(Kill, LosesNothingThatWasAnswered) {
    const unsigned long seed = fromEnvironment("ALARMD_SEED", std::random_device{}());
    const unsigned long rounds = fromEnvironment("ALARMD_KILL_ROUNDS", 10);
    std::cout << "ALARMD_SEED=" << seed << " ALARMD_KILL_ROUNDS=" << rounds << '\n';
    m_random.seed(static_cast<unsigned>(seed));
    for (unsigned long round = 0;; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round << ", seed " << seed);
        if (chance(4) == 0) {
            Process starting({binary(), "-f"});
            std::this_thread::sleep_for(aWhile(100));
            starting.end(SIGKILL);
            peer.get("Status");  // fails when all that it has sent has come
        }
        peer.provide("connectionState", round == rounds || chance(2) == 0 ? "1" : "0");
        look();
        m_isRinging = false;
        start({"-f"});
        compare();
        ringAll();
        ASSERT_FALSE(HasFailure());
        if (round == rounds) {
            break;
        }
        std::thread killer([this, rest = aWhile(400)] {
            std::this_thread::sleep_for(rest);
            kill(daemon->pid(), SIGKILL);
        });
        stream();
        killer.join();
        EXPECT_EQ(daemon->end(0), -SIGKILL);
        log.timeline.takeAll();
        metrics.timeline.takeAll();
    }
    EXPECT_TRUE(await([this] {
        return look(), std::includes(m_noticed.begin(), m_noticed.end(), m_promised.begin(),
                                     m_promised.end());
    })) << m_noticed.size()
        << " stop notices for " << m_promised.size();
    EXPECT_TRUE(await([] { return sql("SELECT * FROM RetainedEvents").empty(); }));
    EXPECT_GT(m_promised.size(), rounds);
}

/// The processor time that a process has used.
double secondsUsed(pid_t pid) {
    clockid_t clock{};
    timespec used{};
    EXPECT_TRUE(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST_F(System, FullDiskStopsNoRing) {
    // A disk of its own for the daemon, in a mount namespace that ends with it.
    daemon.emplace(Lines{"unshare", "--map-current-user", "--keep-caps", "--mount", "sh", "-c",
                         "mount -t tmpfs -o size=256k tmpfs " + k_folder + " && exec \"$0\" -f",
                         binary()});
    settle();
    const std::time_t due = std::time(nullptr) + 2;
    set("a1", "ALARM", due);
    set("t1", "TIMER", due - 10);
    rings("TIMER");
    std::ofstream full("/proc/" + std::to_string(daemon->pid()) + "/root" + k_folder + "x");
    while (full << std::string(4096, 'x') << std::flush) {
    }
    const double used = secondsUsed(daemon->pid());
    peer.deliver("SetNotification", setBody(std::string(100000, 'b'), "REMINDER", due + 1000));
    peer.timeline.take("EditAcknowledged", "\"disposition\":\"FAILED\"");
    acknowledge();
    EXPECT_GE(rings("ALARM").at, system_clock::from_time_t(due));
    peer.deliver("StopNotification", R"({"notificationId":"a1"})");
    peer.timeline.take("StatusChanged", "None");
    EXPECT_LT(secondsUsed(daemon->pid()) - used, 1);
}

/// The parameter is the number of columns of the table that the daemon finds.
class OldOrHostile : public System, public testing::WithParamInterface<int> {};

TEST_P(OldOrHostile, RowsHoldUpNothing) {
    const std::time_t now = std::time(nullptr);
    const std::string due = "'" + utc(now - 5) + "'";
    const bool isKnown = GetParam() == 6 || GetParam() == 9 || GetParam() == 10;
    const std::string columns =
        ",client,type,time,earcon,is_dynamic,assetPlayOrder,"
        "durationInSeconds,shortAlertAsset,loopCount,";
    std::size_t end = 0;
    for (int i = 1; i < std::min(GetParam(), 10); ++i) {
        end = columns.find(',', end + 1);
    }
    sql("CREATE TABLE Notifications(id PRIMARY KEY" + columns.substr(0, end)
        + (GetParam() > 10 ? ",unheardOf)" : ")"));
    const std::string huge = "hex(zeroblob(500000))";
    for (const std::string& row :
         Lines{"'good', 'c1', 'ALARM', '" + utc(now + 2) + "'",
               "'old', 'c1', 'TIMER', '" + utc(now - 1805) + "'", "NULL, NULL, NULL, NULL",
               "NULL, 'c', 'TIMER', " + due, "'n', 'c', 'TIMER', NULL",
               "x'00ff', x'ff', 'TIMER', " + due, "'b', 'c', 'TIMER', x'0102'",
               "7, 8, 'REMINDER', " + due, "2.5, 8, 9, 10", "'*', 'c', 'TIMER', " + due,
               "'', '', 'ALARM', " + due, "'u', 'c', 'ALARM', 'soon'",
               "'y', 'c', 'ALARM', '1600-01-01T00:00:00Z'",
               "'z', 'c', 'ALARM', '9999-12-31T23:59:59Z'", huge + ", 'c', 'REMINDER', " + due,
               "'t', 'c', " + huge + ", " + due, "'h', 'c', 'ALARM', " + huge}) {
        sql("INSERT INTO Notifications(id, client, type, time) VALUES(" + row + ")");
    }
    write(k_folder + "alarms.txt", "a1 c1 " + utc(now + 1000) + " ALARM\n");
    const Lines before = sql("SELECT * FROM Notifications ORDER BY rowid");
    start({"-f"});
    const double used = secondsUsed(daemon->pid());
    // The files of a time before the database are older than it.
    EXPECT_FALSE(fs::exists(k_folder + "alarms.txt"));
    if (!isKnown) {
        // What is not understood is left for the version that does.
        EXPECT_EQ(peer.deliver("SetNotification", setBody("x", "ALARM", now)), "");
        peer.timeline.take("EditAcknowledged", "\"x\",\"disposition\":\"FAILED\"");
        EXPECT_EQ(sql("SELECT * FROM Notifications ORDER BY rowid"), before);
        return;
    }
    // What was due for half an hour is only reported.
    peer.timeline.take("NotificationStoppedEvent", "\"old\"");
    // The one without an identifier goes with the one whose identifier is empty.
    for (int ring = 0; ring < 5; ++ring) {
        peer.timeline.take("setPlayList");
        acknowledge();
    }
    peer.timeline.take("NotificationStoppedEvent", "\"good\"");
    EXPECT_GE(system_clock::now(), system_clock::from_time_t(now + 2));
    EXPECT_LT(secondsUsed(daemon->pid()) - used, 1);
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    EXPECT_EQ(sql("SELECT count(*) FROM Notifications"), Lines{"9"});
    EXPECT_EQ(peer.get("Status"), "None");
    EXPECT_EQ(sql("SELECT group_concat(name) || ',' FROM pragma_table_info('Notifications')"),
              Lines{"id" + columns});
}

INSTANTIATE_TEST_SUITE_P(Store, OldOrHostile, testing::Range(6, 12));

}  // namespace
}  // namespace harness
