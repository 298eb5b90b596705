/// Floods and sizes at their limits: what was answered is kept, what is due rings, and the daemon
/// gives back what it took.
#include <climits>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>

#include "tests/harness/Server.h"
#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

/// A sanitized daemon has one part of so many to do. Alone on its machine it rings within a second;
/// builds beside the tests stretch that.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int k_part = 10;
constexpr seconds k_soon{10};
#else
constexpr int k_part = 1;
constexpr seconds k_soon{3};
#endif
constexpr std::time_t k_later = 1893456000;

class Load : public System {
  protected:
    void SetUp() override {
        start({"-f"});
        m_before = usage();
    }
    /// All threads and descriptors are given back, and memory but for 12 MiB.
    void TearDown() override {
        settle();
        std::vector<long> after;
        EXPECT_TRUE(await([&] {
            after = usage();
            return after[0] <= m_before[0] && after[1] <= m_before[1]
                   && (k_part > 1 || after[2] <= m_before[2] + 12288);
        })) << testing::PrintToString(after)
            << " after " << testing::PrintToString(m_before);
        System::TearDown();
    }

    /// Threads, descriptors and KiB.
    std::vector<long> usage() const {
        const std::string folder = "/proc/" + std::to_string(daemon->pid());
        const auto count = [&](const char* name) {
            return std::distance(std::filesystem::directory_iterator(folder + name), {});
        };
        long pages = 0;
        std::ifstream(folder + "/statm") >> pages >> pages;
        return {count("/task"), count("/fd"), pages * (getpagesize() / 1024)};
    }
    /// What comes due just after `work` has begun rings in time, and can be stopped.
    void expectRingDuring(const std::function<void()>& work) {
        const auto due = system_clock::from_time_t(std::time(nullptr) + 3);
        set("ring", "ALARM", system_clock::to_time_t(due));
        std::this_thread::sleep_until(due - std::chrono::milliseconds(500));
        work();
        const auto late = peer.timeline.take("setPlayList").at - due;
        EXPECT_GE(late, seconds(0));
        EXPECT_LT(late, k_soon);
        std::cout << "It rang " << std::chrono::duration<double>(late).count() << " s late.\n";
        const auto asked = system_clock::now();
        acknowledge();
        EXPECT_LT(peer.timeline.take("StatusChanged", "None").at - asked, k_soon);
    }

    std::vector<long> m_before;
};

TEST_F(Load, Flood) {
    constexpr int count = 20000 / k_part;
    const auto id = [](int number) { return std::to_string(number % 101); };
    // Made here, as utc() is for one thread.
    Lines sets;
    for (int i = 0; i <= count; ++i) {
        sets.push_back(setBody(id(i), "TIMER", k_later + i));
    }
    std::atomic<int> next{0};
    std::atomic<int> edits{0};
    const auto deliver = [&] {
        Peer caller;
        for (int i; (i = ++next) <= count;) {
            const std::pair<const char*, std::string> directives[] = {
                {"SetNotification", sets[static_cast<std::size_t>(i)]},
                {"DeleteNotification", R"({"notificationId":")" + id(i) + "\"}"},
                {"SetNotification", R"({"notificationId":7,)"},
                {"Notify", R"({"renderBehavior":{"playEarcon":true,"displayLed":true}})"}};
            const auto& [name, body] = directives[i % 4];
            const std::string error = caller.deliver(name, body, i);
            edits += error.empty() && i % 4 < 2 ? 1 : 0;
            EXPECT_TRUE(error.empty() || error == "org.freedesktop.DBus.Error.LimitsExceeded");
        }
    };
    const auto emitAndRead = [&] {
        Peer caller;
        for (int i = 0; i < count / 4; ++i) {
            peer.emit("com.quintel.controld", "AlarmTypeChanged", g_variant_new("(s)", "long"));
            EXPECT_NE(caller.get(i % 2 == 0 ? "ListAlerts" : "Status"), "");
        }
    };
    std::vector<std::future<void>> flood;
    expectRingDuring([&] {
        for (int i = 0; i < 4; ++i) {
            flood.push_back(std::async(std::launch::async, deliver));
            flood.push_back(std::async(std::launch::async, emitAndRead));
        }
    });
    EXPECT_LT(next, count);
    flood.clear();
    settle();
    // Refused is what the queue does not hold; the rest was answered and is kept.
    EXPECT_TRUE(edits < count / 2 || k_part > 1);
    std::map<std::string, Lines> times;
    for (const std::string& line : peer.timeline.find("EditAcknowledged")) {
        const int i = std::stoi(line.substr(line.rfind('#') + 1));
        EXPECT_NE(line.find(i % 4 == 0 ? "\"SET\"" : "\"DELETED\""), std::string::npos) << line;
        times[id(i)] = i % 4 == 0 ? Lines{utc(k_later + i)} : Lines{};
        --edits;
    }
    EXPECT_EQ(edits, 0);
    for (const auto& [key, time] : times) {
        EXPECT_EQ(sql("SELECT time FROM Notifications WHERE id = '" + key + "'"), time) << key;
    }
}

TEST_F(Load, ManyStoredAndDeletedAtOnce) {
    constexpr int count = 100000 / k_part;
    stop();
    sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
        + std::to_string(count) + ") INSERT INTO Notifications SELECT 'n' || i, 'c1', 'TIMER', '"
        + utc(k_later) + "', 'system_alerts_melodic_02', 0, '', -1, '', 2 FROM n");
    SetUp();
    const std::string ids = sql("SELECT json_group_array(id) FROM Notifications").at(0);
    const std::string body = R"({"clientId":"c1","notificationIds":)" + ids + "}";
    expectRingDuring([&] { EXPECT_EQ(peer.deliver("DeleteNotifications", body), ""); });
    peer.timeline.take("EditAcknowledged", "\"DELETED\"");
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{});
}

/// `assets` and the pauses, each entry with a comma behind it, up to the last that 1 MiB holds.
std::string playList(const std::string& assets, int loops, int pause) {
    constexpr std::size_t most = 1U << 20U;
    std::string list;
    for (int pass = 1; pass <= std::max(loops, 1) && list.size() <= most; ++pass) {
        list += assets;
        for (int i = 0; i < pause / 1000 && list.size() <= most; ++i) {
            list += "/var/local/earcon/1000ms_blank.mp3,";
        }
    }
    list.resize(list.rfind(',', most));
    return list;
}

TEST_F(Load, LargeBodiesAndNumbersAtTheirEnds) {
    set("n1", "TIMER", k_later, R"(,"pad":")" + std::string(8U << 20U, 'x') + "\"");
    settle();
    m_before = usage();
    std::string order = R"("here")";
    std::string assets = k_folder + "assets/here,";
    for (int i = 1; i < 5000; ++i) {
        order += R"(,"here")";
        assets += k_folder + "assets/here,";
    }
    const std::pair<const char*, int> numbers[] = {
        {"-2147483648", INT_MIN}, {"2147483647", INT_MAX}, {"2.5", 2}, {"1e300", INT_MAX}};
    for (const auto& [loopText, loops] : numbers) {
        for (const auto& [pauseText, pause] : numbers) {
            set("n1", "TIMER", k_later,
                R"(,"assets":[{"assetId":"here","url":"http://127.0.0.1:1/"}],"assetPlayOrder":[)"
                    + order + R"(],"loopCount":)" + loopText + R"(,"loopPauseInMilliSeconds":)"
                    + pauseText);
            const Lines row = sql("SELECT loopCount, assetPlayOrder FROM Notifications");
            EXPECT_TRUE(row.at(0) == std::to_string(loops) + "|" + playList(assets, loops, pause))
                << loopText << " " << pauseText;
        }
    }
}

TEST_F(Load, ManyDownloadsAtOnce) {
    constexpr int count = 100;
    Server server;
    std::string assets = server.asset("s0");
    for (int i = 1; i < count; ++i) {
        assets += "," + server.asset("s" + std::to_string(i));
    }
    set("n1", "TIMER", k_later,
        R"(,"assets":[)" + assets + R"(],"assetPlayOrder":["s1"],"loopCount":1)");
    server.take(count);
    server.say("HTTP/1.0 200 OK\r\nContent-Length: 200000\r\n\r\n");
    const std::string half(100000, 'x');
    expectRingDuring([&] { server.say(half); });
    EXPECT_GE(usage()[0], count);
    server.say(half);
    for (int i = 0; i < count; ++i) {
        const std::string file = k_folder + "assets/s" + std::to_string(i);
        EXPECT_TRUE(await([&] { return std::filesystem::exists(file); })) << file;
    }
}

}  // namespace
}  // namespace harness
