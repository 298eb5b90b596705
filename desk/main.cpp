// The desk: one program that plays the rest of the device around alarmd, on a bus of its own.
//   desk            takes commands from standard input
//   desk --tour     goes on the guided tour; status 0 when everything came as it should
//   --debug         has alarmd write all its log lines
//   --alarmd PATH   runs this daemon, not the one beside the desk

#include <getopt.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "alarmd/platform/Singleton.h"
#include "desk/AlarmdClient.h"
#include "desk/Cloud.h"
#include "desk/Collectors.h"
#include "desk/Commands.h"
#include "desk/Device.h"
#include "desk/Earcons.h"
#include "desk/Input.h"
#include "desk/Supervisor.h"
#include "desk/Timeline.h"
#include "desk/Tour.h"

namespace {

constexpr const char* k_guard = "/run/desk.pid";
constexpr std::chrono::milliseconds k_forever{-1};

struct Options {
    bool tour = false;
    bool debug = false;
    std::string alarmd = std::filesystem::read_symlink("/proc/self/exe").replace_filename("alarmd");
};

Options parseOptions(int argc, char** argv) {
    static const std::array<option, 4> k_options{{{"tour", no_argument, nullptr, 't'},
                                                  {"debug", no_argument, nullptr, 'd'},
                                                  {"alarmd", required_argument, nullptr, 'a'},
                                                  {nullptr, 0, nullptr, 0}}};
    Options options;
    int code = 0;
    while ((code = getopt_long(argc, argv, "td", k_options.data(), nullptr)) != -1) {
        if (code == 't') {
            options.tour = true;
        } else if (code == 'd') {
            options.debug = true;
        } else if (code == 'a') {
            options.alarmd = optarg;
        } else {
            throw std::invalid_argument("usage: desk [--tour] [--debug] [--alarmd PATH]");
        }
    }
    return options;
}

/// The desk writes below /var/local and /run: never into the machine's own.
void requireSandbox() {
    if (std::getenv("ALARMD_SANDBOX") == nullptr) {
        throw std::runtime_error("this only runs inside tools/sandbox; see ./run");
    }
    if (orun42_daemon_checksingleton(k_guard) < 0) {
        throw std::runtime_error("another desk runs on the same state");
    }
}

void takeCommands(desk::Timeline& timeline, desk::Supervisor& supervisor,
                  desk::Commands& commands) {
    desk::Input input(timeline);
    while (!commands.quitRequested() && !supervisor.quitRequested() && !input.ended()) {
        if (!supervisor.wait(k_forever, STDIN_FILENO)) {
            continue;
        }
        for (const std::string& line : input.read()) {
            if (!commands.quitRequested()) {
                commands.run(line);
            }
        }
    }
}

bool runDesk(const Options& options) {
    desk::Timeline timeline;
    desk::Supervisor supervisor(timeline, options.alarmd, options.debug);
    const desk::Collectors collectors(timeline);
    supervisor.startBus();
    desk::Cloud cloud(timeline);
    desk::Device device(timeline);
    desk::AlarmdClient alarmd(timeline,
                              [&device](const std::string& status) { device.setStatus(status); });
    timeline.add(desk::Source::Desk, device.hasSound()
                                         ? "rings can be heard"
                                         : "no sound card or no player: rings are only shown");
    if (options.tour) {
        return desk::Tour(timeline, supervisor, cloud, alarmd).run();
    }
    timeline.add(desk::Source::Desk, "times are UTC; help lists the commands, quit ends");
    supervisor.startDaemon();
    desk::Commands commands(timeline, supervisor, cloud, device, alarmd);
    takeCommands(timeline, supervisor, commands);
    return supervisor.stopDaemon();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = parseOptions(argc, argv);
        requireSandbox();
        desk::blockSignals();
        setenv("TZ", "UTC", 1);
        openlog("desk", LOG_PID, LOG_LOCAL0);
        g_orun42_log_mask =
            alarmd::LOG_BIT_CRITICAL | alarmd::LOG_BIT_ERROR | alarmd::LOG_BIT_WARNING;
        desk::installImage();
        return runDesk(options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "desk: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
