/// Play lists: "loop count, pause, list" into their building and into the look for their files.
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "alarmd/AlarmEngine.h"
#include "alarmd/Constants.h"
#include "fuzz/Device.h"

namespace {

using namespace alarmd;
using fuzz::require;

int toInt(const std::string& text) {
    return static_cast<int>(
        std::clamp(std::strtoll(text.c_str(), nullptr, 10), INT_MIN + 0LL, INT_MAX + 0LL));
}

/// Whether `list` is what there is when the copies, each with its pause, follow each other; a list
/// that was cut ends in front of a ",".
bool isRepetition(const std::string& list, const std::string& copy, bool isCut) {
    std::size_t i = 0;
    for (; i < list.size(); ++i) {
        const std::size_t at = i % (copy.size() + 1);
        if (list[i] != (at == copy.size() ? ',' : copy[at])) {
            return false;
        }
    }
    const std::size_t next = i % (copy.size() + 1);
    return !isCut || list.empty() || next == copy.size() || copy[next] == ',';
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::emptyDevice();
    const std::string input = fuzz::toText(data, size);
    const auto numbers = fuzz::split(input, ' ');
    const int count = toInt(numbers[0]);
    const int pause = numbers.size() > 1 ? toInt(numbers[1]) : 0;
    const std::string list = input.substr(std::min(input.size(), input.rfind(' ') + 1));

    bool isCopyCut = false;
    bool isCut = false;
    const std::string copy = buildPlayList(list, 1, pause, isCopyCut);
    const std::string built = buildPlayList(list, count, pause, isCut);
    require(std::max(copy.size(), built.size()) <= std::size_t{ALARMD_MAX_PLAY_LIST},
            "a play list is too long");
    require(isCopyCut || copy.compare(0, list.size(), list) == 0, "the sounds are not in front");
    require(isCopyCut ? count < 2 || isCut : isRepetition(built, copy, isCut),
            "a play list is no repetition");
    if (!isCut && count > 1) {
        const std::size_t whole = static_cast<std::size_t>(count - 1) * (copy.size() + 1);
        require(built.size() == whole + list.size(), "a play list has another number of copies");
    }

    static AlarmEngine* const engine = new AlarmEngine(ALARMD_DB_FILE);
    const auto files = fuzz::split(list, ',');
    const bool allExist =
        !list.empty() && std::all_of(files.begin(), files.end(), [](const std::string& file) {
            return access(file.c_str(), F_OK) == 0;
        });
    require(engine->checkFilesExist(list) == allExist, "a missing file is not seen");
    return 0;
}
