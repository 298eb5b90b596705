/// The process itself: command line, single instance, signals.
#include <filesystem>

#include "tests/harness/System.h"

namespace harness {
namespace {

TEST_F(System, HelpsAndRefuses) {
    const std::string usage = binary()
                              + " [options]\n\nOptions:\n"
                                "-f  --foreground   Run in the foreground\n"
                                "-d  --debug        Produce debug logs\n"
                                "-h  --help         print this message\n\n";
    for (const Lines& arguments : {Lines{"-h"}, Lines{"--help"}, Lines{"--nonsense"},
                                   Lines{"-f", "-d", "operand"}, Lines{"-c"}}) {
        Lines command{binary()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Process process(command);
        EXPECT_EQ(process.read(), usage) << arguments.back();
        EXPECT_EQ(process.end(0), 1) << arguments.back();
    }
    EXPECT_FALSE(std::filesystem::exists("/run/alarmd.pid"));
}

TEST_F(System, StartsOnce) {
    start({"--foreground", "-c", "ignored"});
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 1);
    for (int copy = 0; copy < 2; ++copy) {
        const std::string counted =
            metrics.timeline.take("", "\"name\":\"NotificationDemonCrash\",\"value\":1").text;
        EXPECT_NE(counted.find("\"deviceId\":\"G0000000\""), std::string::npos) << counted;
        EXPECT_NE(counted.find("\"deviceType\":\"SPEAKER\""), std::string::npos) << counted;
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
    std::ifstream("/run/alarmd.pid") >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), "/");
    awaitHandlers(pid);
    EXPECT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(waitFor(pid), 0);
    EXPECT_FALSE(std::filesystem::exists("/run/alarmd.pid"));
    EXPECT_EQ(log.timeline.find(": D "), Lines{});
}

TEST_F(System, EndsQuietlyWithoutABus) {
    bus.crash();
    EXPECT_EQ(Process({binary(), "-f"}).end(0), 0);
    log.timeline.take("", "E AlarmEngine:init:reason=OipcOpenFailed,status=");
    EXPECT_FALSE(std::filesystem::exists("/run/alarmd.pid"));
}

}  // namespace
}  // namespace harness
