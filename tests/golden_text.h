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

/// For a kept text in which each line that begins with "$" is followed by what comes of it, in
/// lines that begin with " ", "!" or "=": runs those lines again, and is told the headings ("##
/// ...") too.
inline void ExpectLinesKept(const std::string& name,
                            const std::function<std::string(const std::string& line)>& run) {
    const std::string path = std::string(KX_MP4_GOLDEN_FOLDER) + "/" + name + ".txt";
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        text += line + "\n";
        if (line.rfind("## ", 0) == 0) run(line);
        if (line[0] != '$') continue;
        SCOPED_TRACE(line);
        std::string kept;
        while (i + 1 < lines.size() && std::string(" !=").find(lines[i + 1][0]) < 3)
            kept += lines[++i] + "\n";
        const std::string found = run(line);
        EXPECT_EQ(found, kept);
        text += found;
    }
    EXPECT_FALSE(text.empty()) << path;
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
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
