/// The wall clock: steps while something is armed, what is late, and a clock that is not known.
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/harness/Stepped.h"

namespace harness {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr hours k_days{72};

TEST_F(Stepped, RingsOnceAtItsTimeHoweverTheClockGoes) {
    startStepped();
    // Returns when the armed wait has seen the clock as it is now.
    const auto settleClock = [this] {
        settle();
        const std::int64_t looks = clock.looks;
        EXPECT_TRUE(await([&] { return clock.looks > looks + 1; }));
    };
    const std::time_t due = now() + std::time_t{(k_days + hours(1)) / seconds(1)} + 3;
    set("a1", "ALARM", due);
    settleClock();
    const std::int64_t waits = clock.waits;
    for (const hours by : {hours(1), hours(-1), k_days, -k_days, hours(1), k_days}) {
        step(by);
        settleClock();
        EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{}) << by.count();
    }
    EXPECT_EQ(clock.waits, waits) << "it polls";
    const auto rang = rings("ALARM").at + offset();
    EXPECT_GE(rang, system_clock::from_time_t(due));
    EXPECT_LT(rang, system_clock::from_time_t(due) + seconds(1));

    // Its time comes a second time, and it is stopped before: then it is over.
    step(hours(-1));
    acknowledge();
    set("t1", "TIMER", now() + minutes(100) / seconds(1));
    settleClock();
    step(hours(1));
    settleClock();
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    // Stepped over, but not by half an hour: it rings at once.
    const auto stepped = system_clock::now();
    step(hours(1));
    EXPECT_LT(rings("TIMER").at, stepped + seconds(1));
    acknowledge();
    peer.timeline.take("NotificationStoppedEvent", "t1");
    set("r1", "REMINDER", now() + minutes(10) / seconds(1));
    step(k_days);
    peer.timeline.take("NotificationStoppedEvent", "r1");
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{});
}

TEST_F(Stepped, GivesUpOnWhatIsHalfAnHourLate) {
    const std::time_t fixed = std::time(nullptr);
    clock.fixed = std::chrono::nanoseconds(seconds(fixed)).count();
    peer.provide("connectionState", "0");
    sql("CREATE TABLE Notifications(id PRIMARY KEY, client, type, time, earcon, is_dynamic);"
        "WITH RECURSIVE late(s) AS (SELECT 1799 UNION ALL SELECT s + 1 FROM late WHERE s < 1849)"
        "INSERT INTO Notifications SELECT 'x' || s, 'c1', 'ALARM',"
        "strftime('%Y-%m-%dT%H:%M:%SZ', "
        + std::to_string(fixed) + " - s, 'unixepoch'), '', 0 FROM late");
    startStepped();
    rings("ALARM");
    EXPECT_EQ(sql("SELECT id FROM Notifications"), Lines{"x1799"});
    EXPECT_EQ(sql("SELECT count(*), min(id), max(id) FROM RetainedEvents"),
              Lines{"50|x1800|x1849"});
    peer.emit("com.quintel.corveld", "connectionStateChanged", g_variant_new("(i)", 1));
    for (int late = 1800; late < 1850; ++late) {
        peer.timeline.take("NotificationStoppedEvent", "\"x" + std::to_string(late) + "\"");
    }
    acknowledge();
    peer.timeline.take("NotificationStoppedEvent", "x1799");
    set("n1", "TIMER", fixed - 1800);
    peer.timeline.take("NotificationStoppedEvent", "n1");
    set("n1", "TIMER", fixed - 1799);
    rings("TIMER");
    EXPECT_EQ(peer.timeline.find("NotificationStoppedEvent"), Lines{});
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
    EXPECT_TRUE(await([] { return sql("SELECT * FROM RetainedEvents").empty(); }));
}

TEST_F(System, RingsOnlyWhenTheTimeIsKnown) {
    peer.provide("deviceHasTime", "1");
    start();
    log.timeline.take("", "E AlarmEngine:checkTimeKnown:reason=OipcGetStringPropertyFailed");
    set("t1", "TIMER", std::time(nullptr) - 1850);
    set("a1", "ALARM", std::time(nullptr) - 5);
    settle();
    const auto known = system_clock::now();
    peer.provide("deviceHasTime", "' true\\n'");
    EXPECT_GE(rings("ALARM").at, known);
    peer.timeline.take("NotificationStoppedEvent", "t1");
    acknowledge();
    peer.timeline.take("NotificationStoppedEvent", "a1");
    // A clock that cannot be asked when the time has come is not to be trusted either.
    for (const char* unreadable : {"1", "'false'"}) {
        peer.provide("deviceHasTime", unreadable);
        set("a2", "ALARM", std::time(nullptr) - 5);
        peer.timeline.take("NotificationStoppedEvent", "a2");
    }
    EXPECT_EQ(peer.timeline.find("setPlayList"), Lines{});
}

/// A step ends this wait, or prolongs it, because the kernel knows the time itself.
TEST_F(System, LetsTheKernelWaitForTheWallClock) {
    constexpr long futexTime64 = 422;
    constexpr unsigned long privateBitsetWaitOnTheRealClock = 9 | 128 | 256;
    start();
    const std::time_t due = std::time(nullptr) + 60;
    set("t1", "TIMER", due);
    const std::string tasks = "/proc/" + std::to_string(daemon->pid()) + "/task";
    EXPECT_TRUE(await([&] {
        const auto waits = [&](const fs::path& thread) {
            std::ifstream call(thread / "syscall");
            long number = 0;
            unsigned long word = 0, operation = 0, value = 0, timeout = 0;
            call >> number >> std::hex >> word >> operation >> value >> timeout;
            const int memory = open((thread / "mem").c_str(), O_RDONLY | O_CLOEXEC);
            std::int64_t until[2] = {};
            const ssize_t size = pread(memory, until, sizeof until, static_cast<off_t>(timeout));
            close(memory);
            return size == sizeof until && (number == SYS_futex || number == futexTime64)
                   && operation == privateBitsetWaitOnTheRealClock && until[0] == due
                   && until[1] == 0;
        };
        return std::any_of(fs::directory_iterator(tasks), fs::directory_iterator(), waits);
    }));
}

}  // namespace
}  // namespace harness
