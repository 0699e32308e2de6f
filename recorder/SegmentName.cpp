#include "SegmentName.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace kx_mp4 {
namespace {

constexpr size_t kLongest = 1024;

std::string Padded(uint64_t number, size_t digits) {
    std::string text = std::to_string(number);
    if (text.size() < digits) text.insert(0, digits - text.size(), '0');
    return text;
}

/// Replaces %i and %0Ni.
std::string InsertNumber(const std::string& pattern, uint64_t number) {
    std::string text;
    for (size_t at = 0; at < pattern.size(); ++at) {
        if (pattern[at] != '%' || at + 1 == pattern.size()) {
            text += pattern[at];
        } else if (pattern[at + 1] == 'i') {
            text += Padded(number, 1);
            at += 1;
        } else if (at + 3 < pattern.size() && pattern[at + 1] == '0' && pattern[at + 3] == 'i' &&
                   std::isdigit(static_cast<unsigned char>(pattern[at + 2])) != 0) {
            text += Padded(number, static_cast<size_t>(pattern[at + 2] - '0'));
            at += 3;
        } else {
            text += pattern.substr(at, 2);
            at += 1;
        }
    }
    return text;
}

}  // namespace

std::string ExpandName(const std::string& pattern, uint64_t number, std::time_t due) {
    const std::string format = InsertNumber(pattern, number);
    std::tm local{};
    localtime_r(&due, &local);
    std::array<char, kLongest> text{};
    return std::string(text.data(),
                       std::strftime(text.data(), text.size(), format.c_str(), &local));
}

std::string FreeName(IStorage& storage, const std::string& path) {
    const auto taken = [&storage](const std::string& name) {
        return storage.Exists(name) || storage.Exists(name + ".info");
    };
    if (!taken(path)) return path;
    const size_t slash = path.rfind('/') + 1;  // 0 without one
    const size_t dot = std::max(path.rfind('.') + 1, slash);
    const size_t end = dot > slash + 1 ? dot - 1 : path.size();
    for (uint64_t count = 2;; ++count) {
        std::string name = path.substr(0, end) + "-" + std::to_string(count) + path.substr(end);
        if (!taken(name)) return name;
    }
}

std::time_t NextWallClock(std::time_t now, uint32_t seconds) {
    std::tm local{};
    localtime_r(&now, &local);
    std::tm midnight = local;
    midnight.tm_hour = 0;
    midnight.tm_min = 0;
    midnight.tm_sec = 0;
    midnight.tm_isdst = -1;
    const std::time_t today = std::mktime(&midnight);
    midnight.tm_mday += 1;
    midnight.tm_isdst = -1;
    const std::time_t tomorrow = std::mktime(&midnight);
    const std::time_t step = seconds;
    return std::min(today + ((now - today) / step + 1) * step, tomorrow);
}

}  // namespace kx_mp4
