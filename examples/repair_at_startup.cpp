// An application repairs at start-up what an earlier run left unfinished: every recording beside
// which there is still a repair info file.
//
//   repair_at_startup FOLDER

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kx_mp4/repair.h"

namespace {

const std::string kInfoExtension = ".info";

std::vector<std::string> UnfinishedRecordings(const std::filesystem::path& folder) {
    std::vector<std::string> recordings;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::filesystem::path& path = entry.path();
        if (path.extension() == kInfoExtension)
            recordings.push_back((path.parent_path() / path.stem()).string());
    }
    return recordings;
}

void RepairOne(const std::string& recording) {
    kx_mp4::RepairOptions options;
    // No second copy of hours of video. The repair info file goes when every byte of the recording
    // is explained; otherwise it stays, and the next start says the same again.
    options.in_place = true;
    options.progress = [](const kx_mp4::RepairProgress& progress) {
        std::printf("  %llu of %llu bytes\n", static_cast<unsigned long long>(progress.done),
                    static_cast<unsigned long long>(progress.total));
        return true;  // false would leave the recording as it is
    };
    const kx_mp4::RepairReport report = kx_mp4::Repair(recording, options);
    switch (report.outcome) {
        case kx_mp4::RepairOutcome::kWhole:
            std::printf("%s: nothing is lost\n", recording.c_str());
            break;
        case kx_mp4::RepairOutcome::kLoss:
            std::printf("%s: from %llu ms on: %s\n", recording.c_str(),
                        static_cast<unsigned long long>(report.reason_time_ms),
                        report.reason.c_str());
            break;
        case kx_mp4::RepairOutcome::kFailed:
            std::printf("%s: left as it is: %s\n", recording.c_str(), report.reason.c_str());
            break;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: repair_at_startup FOLDER\n");
        return 2;
    }
    try {
        for (const std::string& recording : UnfinishedRecordings(argv[1]))
            RepairOne(recording);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "repair_at_startup: %s\n", error.what());
        return 1;
    }
    return 0;
}
