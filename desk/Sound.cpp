#include "desk/Sound.h"

#include <unistd.h>

#include <cstdlib>

namespace desk {

namespace {

constexpr const char* k_soundCards = "/dev/snd";

/// Each plays one file, whatever its contents, and ends. The last knows no compressed sound.
constexpr const char* k_players[] = {"ffplay -nodisp -autoexit -loglevel quiet",
                                     "mpv --no-video --really-quiet", "aplay -q"};

bool isInstalled(const std::string& program) {
    return std::system(("command -v " + program + " > /dev/null").c_str()) == 0;
}

}  // namespace

Sound::Sound() {
    if (access(k_soundCards, R_OK) != 0) {
        return;
    }
    for (const std::string player : k_players) {
        if (isInstalled(player.substr(0, player.find(' ')))) {
            m_player = player;
            return;
        }
    }
}

void Sound::play(const std::vector<std::string>& files) {
    if (!available()) {
        return;
    }
    const std::string loop =
        "while :; do for file; do " + m_player + " \"$file\" || exit; done; done";
    std::vector<std::string> arguments{"sh", "-c", loop, "sh"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    m_child.start(arguments, STDERR_FILENO);
}

}  // namespace desk
