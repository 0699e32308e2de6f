// The programs as a whole: what they print for the command lines of golden/command_lines.txt, which
// says how to read and to refresh it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "program_runner.h"
#include "scratch_folder.h"

using namespace program_runner;

namespace {

/// The folder of a heading, in which lines of the shell are run.
class Shell {
public:
    Shell() { Execute("ln -s '" KXMUX_SAMPLES "' " + m_folder.Path("s")); }

    /// What a line prints, as it is kept.
    std::string Run(const std::string& line) const {
        const Outcome outcome =
            Execute("export LC_ALL=C PATH=\"$(dirname '" KXMUX_PATH "'):$(dirname '" KXMAP_PATH
                    "'):$(dirname '" KXREPAIR_PATH "'):$PATH\"; cd " +
                    m_folder.Path("") + " && { " + line + "\n}");
        std::string text;
        for (const std::string& printed : SplitLines(outcome.out)) {
            const bool ofLibrary = printed.empty() || printed.rfind("BaseIO : Error", 0) == 0;
            if (!ofLibrary) text += "  " + printed + "\n";
        }
        for (const std::string& printed : SplitLines(outcome.errors))
            text += "! " + printed + "\n";
        return outcome.code == 0 ? text : text + "= " + std::to_string(outcome.code) + "\n";
    }

private:
    ScratchFolder m_folder;
};

TEST(CommandLines, PrintWhatIsKept) {
    const std::string path = KX_MP4_GOLDEN_FOLDER "/command_lines.txt";
    const Lines lines = SplitLines(ReadFile(path));
    std::string text;
    std::unique_ptr<Shell> shell;
    for (size_t i = 0; i < lines.size(); ++i) {
        text += lines[i] + "\n";
        if (lines[i].rfind("## ", 0) == 0) shell = std::make_unique<Shell>();
        if (lines[i].rfind("$ ", 0) != 0) continue;
        std::string kept;
        const std::string& line = lines[i];
        while (i + 1 < lines.size() && std::string(" !=").find(lines[i + 1][0]) < 3)
            kept += lines[++i] + "\n";
        const std::string printed = shell->Run(line.substr(2));
        EXPECT_EQ(printed, kept) << line;
        text += printed;
    }
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
}

}  // namespace
