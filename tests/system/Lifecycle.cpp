/// The process itself: command line, single instance, signals.
#include <filesystem>

#include "tests/harness/System.h"

namespace harness {
namespace {

namespace fs = std::filesystem;

constexpr const char* k_pidFile = "/run/alarmd.pid";

TEST_F(System, HelpsAndRefuses) {
    const std::string usage = binary()
                              + " [options]\n\nOptions:\n"
                                "-f  --foreground   Run in the foreground\n"
                                "-d  --debug        Produce debug logs\n"
                                "-h  --help         print this message\n\n";
    for (const char* last : {"-h", "--help", "--nonsense", "operand", "-c"}) {
        Process process({binary(), "-f", "-d", last});
        EXPECT_EQ(process.read(), usage) << last;
        EXPECT_EQ(process.end(0), 1) << last;
    }
    EXPECT_FALSE(fs::exists(k_pidFile));
}

TEST_F(System, StartsOnce) {
    start({"--foreground", "-c", "ignored"});
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 1);
    const Entry counted = metrics.timeline.take("", R"("name":"NotificationDemonCrash","value":1)");
    for (const char* identity : {R"("deviceId":"G0000000")", R"("deviceType":"SPEAKER")"}) {
        EXPECT_NE(counted.text.find(identity), std::string::npos) << counted.text;
    }
    settle();
    stop(SIGINT);
    start();
}

TEST_F(System, RunsInTheBackground) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    start({});
    EXPECT_EQ(daemon->end(0), 0);
    daemon.reset();
    settle();
    pid_t pid = 0;
    std::ifstream(k_pidFile) >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), "/");
    awaitHandlers(pid);
    kill(pid, SIGTERM);
    EXPECT_EQ(waitFor(pid), 0);
    EXPECT_FALSE(fs::exists(k_pidFile));
    EXPECT_EQ(log.timeline.find(": D "), Lines{});
}

TEST_F(System, EndsWithoutAStoreOrABus) {
    const std::string path = k_folder + "alarms.db";
    const std::string text = "a1 c1 2030-01-01T00:00:00Z ALARM\n";
    write(path, text);
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 1);
    log.timeline.take("", "C AlarmDB:ConstructorFailed:reason=unableToOpenExistingDB,fileName="
                              + path + ",sqlCode=26:");
    log.timeline.take("", "reason=uncaughtException,exc=Could not open existing DB:");
    std::string left;
    std::getline(std::ifstream(path), left, '\0');
    EXPECT_EQ(left, text);
    fs::remove(path);
    bus.crash();
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 0);
    log.timeline.take("", "E AlarmEngine:init:reason=OipcOpenFailed,status=");
    EXPECT_FALSE(fs::exists(k_pidFile));
}

}  // namespace
}  // namespace harness
