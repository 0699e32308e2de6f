// The programs as a whole: what they print for the command lines of golden/command_lines.txt, which
// says how to read and to refresh it.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "golden_text.h"
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
    std::unique_ptr<Shell> shell;
    ExpectLinesKept("command_lines", [&shell](const std::string& line) {
        if (line[0] == '#') shell = std::make_unique<Shell>();
        return line[0] == '#' ? std::string() : shell->Run(line.substr(2));
    });
}

}  // namespace
