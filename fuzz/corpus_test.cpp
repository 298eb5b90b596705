/// Runs the corpus of a target as a test, with any compiler.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>

#include "fuzz/Target.h"

TEST(Corpus, IsHandled) {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(CORPUS)) {
        files.insert(entry.path());
    }
    EXPECT_FALSE(files.empty());
    for (const auto& path : files) {
        std::printf("%s\n", path.filename().c_str());
        std::fflush(stdout);
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> text(std::istreambuf_iterator<char>(file), {});
        const std::vector<std::uint8_t> bytes(text.begin(), text.end());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
}
