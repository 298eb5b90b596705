/// The end by SIGTERM or SIGINT, whatever the daemon is doing.
#include <filesystem>
#include <random>

#include "tests/harness/Server.h"
#include "tests/harness/System.h"

namespace harness {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// From the first instruction of a life to after its last one, while it rings, handles a flood of
/// directives and fetches sounds from a server that says nothing.
TEST_F(System, EndsInGoodOrderAtAnyMoment) {
    const Server server;
    const std::string sound =
        R"(,"assets":[)" + server.asset("s") + R"(],"assetPlayOrder":["s"],"loopCount":1)";
    const auto begin = steady_clock::now();
    start();
    const auto life = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin);
    set("a1", "ALARM", std::time(nullptr) - 5);
    rings("ALARM");
    stop();
    std::atomic<bool> floods{true};
    std::thread flood([&] {
        for (int i = 0; floods; ++i) {
            peer.deliver("SetNotification",
                         setBody("f" + std::to_string(i % 9), "TIMER", 1893456000, sound));
            peer.deliver("DeleteNotification",
                         R"({"notificationId":"f)" + std::to_string(i % 7) + "\"}");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pause = [&](microseconds most) {
        std::this_thread::sleep_for(microseconds(
            std::uniform_int_distribution<microseconds::rep>(0, most.count())(random)));
    };
    const auto enough = steady_clock::now() + seconds(10);
    for (int round = 0; round < 100 && steady_clock::now() < enough; ++round) {
        const int signal = round % 2 == 0 ? SIGTERM : SIGINT;
        Process process({binary(), "-f"});
        pause(3 * life);
        const bool isCaught = catchesSignals(process.pid());
        kill(process.pid(), signal);
        pause(life / 4);
        const auto asked = steady_clock::now();
        const int status = process.end(SIGTERM + SIGINT - signal);
        EXPECT_LT(steady_clock::now() - asked, seconds(10));
        // While a thread is being made both may be kept back, and then either is the first.
        EXPECT_TRUE(status == 0 || ((status == -SIGTERM || status == -SIGINT) && !isCaught))
            << status << " after " << signal << (isCaught ? ", caught" : "");
        EXPECT_TRUE(status != 0 || !std::filesystem::exists("/run/alarmd.pid"));
    }
    floods = false;
    flood.join();

    // A message under way is given its time, and what is stored is still there.
    start();
    rings("ALARM");
    peer.behave("com.quintel.corveld", Manner::Hang);
    set("t1", "TIMER", 1893456000);
    kill(daemon->pid(), SIGTERM);
    log.timeline.take("", "AlarmEngine:terminate::ending corvel handler thread");
    peer.behave("com.quintel.corveld", Manner::Answer);
    EXPECT_EQ(daemon->end(0), 0);
    daemon.reset();
    EXPECT_EQ(sql("SELECT id FROM Notifications WHERE id IN ('a1', 't1') ORDER BY id"),
              (Lines{"a1", "t1"}));
}

}  // namespace
}  // namespace harness
