#include "sizes.h"

#include <array>
#include <cstdio>

namespace Vexel::Tool {

std::string humanSize(unsigned long long bytes) {
    constexpr unsigned long long kUnit = 1024;
    if (bytes < kUnit)
        return std::to_string(bytes) + " B";
    static constexpr std::array kUnits = {"KB", "MB", "GB", "TB", "PB", "EB"};
    auto value = static_cast<double>(bytes) / kUnit;
    std::size_t unit = 0;
    // What would be written as 1024.0 has the next unit.
    while (value >= kUnit - 0.05 && unit + 1 < kUnits.size()) {
        value /= kUnit;
        ++unit;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits[unit]);
    return text.data();
}

std::string sizeText(unsigned long long bytes, bool exact) {
    return exact ? std::to_string(bytes) : humanSize(bytes);
}

std::string counted(unsigned long long number, const char* what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

} // namespace Vexel::Tool
