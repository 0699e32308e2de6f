/// @file
/// Texts that are kept beside the tests, and the fuzzers' seeds that are replayed into them.
#ifndef KX_MP4_TESTS_GOLDEN_TEXT_H
#define KX_MP4_TESTS_GOLDEN_TEXT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

/// Compares with the kept text; KX_MP4_UPDATE_GOLDEN in the environment keeps the new one.
inline void ExpectKept(const std::string& name, const std::string& text) {
    const std::string path = std::string(KX_MP4_GOLDEN_FOLDER) + "/" + name + ".txt";
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::ostringstream kept;
    kept << std::ifstream(path).rdbuf();
    EXPECT_EQ(text, kept.str());
}

/// Replays each seed of a fuzzer, in the order of their names, into the text that is kept.
inline void ExpectReplayKept(
    const std::string& fuzzer,
    const std::function<void(std::ostream& out, const std::vector<uint8_t>& seed)>& replay) {
    std::map<std::string, std::vector<uint8_t>> seeds;
    const std::filesystem::path folder = std::string(KX_MP4_FUZZ_SEEDS) + "/" + fuzzer;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        seeds[entry.path().filename()].assign(std::istreambuf_iterator<char>(file), {});
    }
    std::ostringstream text;
    for (const auto& [name, seed] : seeds) {
        text << name << "\n";
        replay(text, seed);
    }
    ExpectKept(fuzzer, text.str());
}

#endif  // KX_MP4_TESTS_GOLDEN_TEXT_H
