#include "desk/Earcons.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alarmd/Constants.h"

namespace desk {

namespace {

namespace fs = std::filesystem;

constexpr int k_rate = 16000;
constexpr int k_loudness = 9000;
constexpr int k_fade = k_rate / 100;  // no click at either end of a tone

/// One tone, or silence (0 Hz).
struct Tone {
    int hertz;
    int milliseconds;
};
using Melody = std::vector<Tone>;

Melody repeated(const Melody& melody, int times) {
    Melody all;
    for (int i = 0; i < times; ++i) {
        all.insert(all.end(), melody.begin(), melody.end());
    }
    return all;
}

std::string little(std::uint32_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return text;
}

/// The samples, 16 bits, one channel.
std::string samplesOf(const Melody& melody) {
    const double twoPi = 2 * std::acos(-1.0);
    std::string samples;
    for (const Tone& tone : melody) {
        const int count = k_rate / 1000 * tone.milliseconds;
        for (int i = 0; i < count; ++i) {
            const int fromEdge = std::min(i, count - i);
            const double loudness = k_loudness * std::min(1.0, 1.0 * fromEdge / k_fade);
            const double sample = loudness * std::sin(twoPi * tone.hertz * i / k_rate);
            samples += little(static_cast<std::uint32_t>(std::lround(sample)), 2);
        }
    }
    return samples;
}

std::string waveFile(const Melody& melody) {
    const std::string samples = samplesOf(melody);
    const auto size = static_cast<std::uint32_t>(samples.size());
    return "RIFF" + little(36 + size, 4) + "WAVEfmt " + little(16, 4) + little(1, 2) + little(1, 2)
           + little(k_rate, 4) + little(2 * k_rate, 4) + little(2, 2) + little(16, 2) + "data"
           + little(size, 4) + samples;
}

/// Writes a file that is not there yet; it appears whole or not at all.
void put(const fs::path& path, const std::string& contents) {
    if (fs::exists(path)) {
        return;
    }
    fs::create_directories(path.parent_path());
    const fs::path partial = path.string() + ".new";
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(partial, std::ios::binary);
    file << contents;
    file.close();
    fs::rename(partial, path);
}

void putSound(const std::string& name, const Melody& melody) {
    put(alarmd::ALARMD_EARCON_PATH + name, waveFile(melody));
}

void putAlert(const std::string& name, const Melody& melody) {
    putSound(name + alarmd::ALARMD_LONG_ALERT_APPEND, repeated(melody, 4));
    putSound(name + alarmd::ALARMD_SHORT_ALERT_APPEND, melody);
}

}  // namespace

void installImage() {
    putAlert(alarmd::ALARMD_DEFAULT_ALERT_EARCON_ALARM,
             {{523, 200}, {659, 200}, {784, 300}, {0, 300}});
    putAlert(alarmd::ALARMD_DEFAULT_ALERT_EARCON_TIMER,
             {{880, 120}, {0, 80}, {880, 120}, {0, 80}, {1047, 250}, {0, 350}});
    putSound(alarmd::ALARMD_DEFAULT_NOTICE_EARCON, {{784, 150}, {1047, 300}});
    putSound(alarmd::ALARMD_ONE_SECOND_IN_MILLIS_BLANK_EARCON, {{0, 1000}});
    putSound(alarmd::ALARMD_FOUR_SECOND_IN_MILLIS_BLANK_EARCON, {{0, 4000}});
    putSound(alarmd::ALARMD_SIX_SECOND_IN_MILLIS_BLANK_EARCON, {{0, 6000}});
    put("/var/local/idme/dsn", "DESK00000001\n");
    put("/var/local/idme/devicetype", "DESK\n");
    fs::create_directories(fs::path(alarmd::ALARMD_DB_FILE).parent_path());
}

}  // namespace desk
