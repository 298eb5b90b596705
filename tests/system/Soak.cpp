/// One ordinary day after the other at high pace, for ALARMD_SOAK_SECONDS: each ring comes once and
/// in time, and memory, descriptors and threads do not grow. ALARMD_SOAK_CSV names a file for them.
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <set>

#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::system_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long k_growth = 1L << 30;  // a sanitizer keeps what was freed
#else
constexpr long k_growth = 2560;  // KiB; what is unused is given back when it is more than 2 MiB
#endif

/// Sounds that cannot be had: it rings with the default ones.
constexpr const char* k_sounds = R"(,"assets":[{"assetId":"s","url":"http://127.0.0.1:1/"}],)"
                                 R"("assetPlayOrder":["s"],"loopCount":0)";
const Lines k_types{"ALARM", "TIMER", "REMINDER"};
const Lines k_others{"DeleteNotifications", "ListNotification", "Notify", "enable", "Nothing"};

std::string body(const std::string& id) {
    return R"({"notificationId":")" + id + R"(","clientId":"c1"})";
}

/// The daemon beside a model of what is stored and rings. No two are due in the same second, and
/// what may begin to ring meanwhile is left alone, as is its type: so the model always knows.
class Soak : public System {
  protected:
    using One = std::pair<std::string, std::string>;  // id and type

    const std::string& any(const Lines& of) { return of[m_random() % of.size()]; }
    static std::time_t soon() { return std::time(nullptr) + 2; }
    std::string status() const { return m_isRinging ? m_rung.second : "None"; }
    /// Descriptors or threads.
    long count(const char* folder) const {
        const std::string proc = "/proc/" + std::to_string(daemon->pid());
        return std::distance(std::filesystem::directory_iterator(proc + folder), {});
    }

    void look() {
        for (Lines lines; lines = peer.timeline.find(""), !lines.empty();) {
            const Entry entry = peer.timeline.take(lines[0].substr(0, lines[0].find(' ')));
            if (entry.name == "setPlayList") {
                ASSERT_TRUE(!m_isRinging && !m_stored.empty()) << m_rung.first << " rings already";
                const auto due = system_clock::from_time_t(m_stored.begin()->first);
                EXPECT_GE(entry.at, due);
                EXPECT_LT(entry.at, std::max(due, m_free) + std::chrono::seconds(1));
                m_rung = m_stored.begin()->second;
                m_isRinging = true;
                ++m_rings;
            } else if (entry.name == "NotificationStartedEvent") {
                EXPECT_EQ(entry.text, body(m_rung.first));
            } else if (entry.name == "NotificationStoppedEvent") {
                EXPECT_EQ(m_promised.erase(entry.text), 1U) << entry.text;
            }
        }
    }
    /// Sets one, unless its type is to be left alone.
    void set(std::time_t due) {
        const One one{"n" + std::to_string(++m_last), any(k_types)};
        const auto isOfType = [&](const auto& other) { return other.second.second == one.second; };
        const auto later = m_stored.upper_bound(soon());
        if (std::find_if(m_stored.begin(), later, isOfType) != later) {
            return;
        }
        while (!m_stored.try_emplace(due, one).second) {
            ++due;
        }
        peer.deliver("SetNotification", setBody(one.first, one.second, due, k_sounds));
    }
    /// Due in a second, or at once. Nothing else happens until it rings, so nothing else can have
    /// woken the daemon.
    void setNext() {
        if (m_stored.empty() || m_stored.begin()->first > soon()) {
            m_free = system_clock::now();
            set(std::time(nullptr) + (m_random() % 8 == 0 ? 1 : -1));
            EXPECT_TRUE(await([&] { return look(), m_isRinging; })) << m_last;
        }
    }
    void setOrDelete() {
        const std::time_t due = soon() + 1 + static_cast<std::time_t>(m_random() % 30);
        const auto stored = m_stored.lower_bound(due);
        if (stored == m_stored.end() || m_stored.size() < 5) {
            set(due);
        } else {
            peer.deliver("DeleteNotification", body(stored->second.first));
            m_stored.erase(stored);
        }
    }
    /// As a person does: once it is shown what rings.
    void stopRinging() {
        if (m_isRinging && peer.get("Status") == status()) {
            m_isRinging = false;
            m_promised.insert(body(m_rung.first));
            m_stored.erase(m_stored.begin());
            acknowledge();
            m_free = system_clock::now();
        }
    }
    void connect(bool isOnline) {
        peer.provide("connectionState", isOnline ? "1" : "0");
        peer.emit("com.quintel.corveld", "connectionStateChanged", g_variant_new("(i)", isOnline));
    }
    void act() {
        const std::function<void()> actions[] = {
            [&] { setOrDelete(); },
            [&] { setNext(); },
            [&] { stopRinging(); },
            [&] { connect(m_random() % 3 != 0); },
            [&] { peer.deliver(any(k_others), body("none")); },
            [&] { peer.get("ListAlerts"); },
        };
        actions[m_random() % std::size(actions)]();
    }

    /// Once all is done, the daemon says, stores and has sent what the model does, and no thread
    /// that comes and goes is there. Returns its KiB of memory.
    long check() {
        connect(true);
        settleEvents();
        settle();
        Lines rows;
        for (const auto& [due, one] : m_stored) {
            rows.push_back(utc(due) + "|" + one.first + "|" + one.second);
        }
        EXPECT_EQ(sql("SELECT time, id, type FROM Notifications ORDER BY time"), rows);
        bool isTrue = false;  // once is enough: the next one may begin to ring right after
        EXPECT_TRUE(await([&] {
            look();
            m_idle = std::min(m_idle, count("/fd") + count("/task"));
            isTrue |= peer.get("Status") == status() && m_promised.empty()
                      && count("/fd") + count("/task") == m_idle;
            return isTrue;
        })) << status()
            << " or " << peer.get("Status") << ", " << m_promised.size() << " notices, "
            << count("/fd") << " descriptors, " << count("/task") << " threads";
        EXPECT_EQ(log.timeline.find("reason=exception"), Lines{});
        log.timeline.takeAll();
        metrics.timeline.takeAll();
        long pages = 0;
        std::ifstream("/proc/" + std::to_string(daemon->pid()) + "/statm") >> pages >> pages;
        return pages * sysconf(_SC_PAGESIZE) / 1024;
    }

    std::mt19937 m_random;
    std::map<std::time_t, One> m_stored;  // by time
    One m_rung;                           ///< the last one that began to ring
    bool m_isRinging = false;
    std::set<std::string> m_promised;  ///< the stop notices that have to come
    system_clock::time_point m_free;   ///< from when on the next one could ring
    long m_idle = 99;                  ///< descriptors and threads when nothing is under way
    int m_last = 0;
    int m_rings = 0;
};

TEST_F(Soak, LosesNothingAndDoesNotGrow) {
    const auto length = static_cast<double>(fromEnvironment("ALARMD_SOAK_SECONDS", 8));
    const auto seed = static_cast<unsigned>(fromEnvironment("ALARMD_SEED", std::random_device{}()));
    const char* file = std::getenv("ALARMD_SOAK_CSV");
    std::ofstream csv(file != nullptr ? file : "/dev/null");
    std::cout << "ALARMD_SEED=" << seed << '\n';
    m_random.seed(seed);
    start({"-f"});
    const auto begin = std::chrono::steady_clock::now();
    std::vector<long> memory;
    for (double now = 0, next = 0; now < length && !HasFailure(); act(), look()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        now = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        if (now >= next) {
            next += std::max(0.1, length / 720);
            csv << now << ',' << memory.emplace_back(check()) << ',' << count("/fd") << ','
                << count("/task") << ','
                << std::filesystem::file_size(k_folder + "alarms.db") / 1024 << std::endl;
        }
    }
    const long growth = memory.back() - memory[memory.size() / 3];
    EXPECT_LT(growth, k_growth) << "KiB";
    EXPECT_GT(m_rings, length / 2);
    std::cout << m_rings << " rings, " << m_last << " set, memory grew by " << growth << " KiB\n";
}

}  // namespace
}  // namespace harness
