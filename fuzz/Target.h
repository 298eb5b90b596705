/// What the fuzz targets share. An input is handled, or the process ends.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

/// Handles one input; 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline void require(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "Broken: %s.\n", property);
        std::abort();
    }
}

/// Empties the folders of the daemon.
inline void emptyFolders() {
    require(std::getenv("ALARMD_SANDBOX") != nullptr, "it wipes /var/local/alarmd: use a sandbox");
    for (const char* folder : {"/var/local/alarmd", "/var/local/earcon"}) {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder + std::string("/assets"));
    }
}

/// The pieces between the separators, empty ones too.
inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text + separator);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

inline std::string toText(const std::uint8_t* data, std::size_t size) {
    return std::string(data, data + size);
}

}  // namespace fuzz
