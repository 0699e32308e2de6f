#include "program_runner.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "scratch_folder.h"

namespace program_runner {

Outcome Execute(const std::string& command) {
    const ScratchFolder folder;
    const std::string out = folder.Path("out");
    const std::string errors = folder.Path("errors");
    const int status = std::system((command + " >" + out + " 2>" + errors).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(errors)};
}

Lines SplitLines(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string Sample(const std::string& name) {
    return std::string(KXMUX_SAMPLES "/") + name;
}

}  // namespace program_runner
