#include "html.h"

#include <array>
#include <cstdio>

namespace Vexel::Tool {

std::string htmlText(std::string_view utf8) {
    std::string result;
    result.reserve(utf8.size());
    for (const char c : utf8) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string percentText(double part, double whole) {
    if (whole <= 0)
        return {};
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %%", part / whole * 100);
    return text.data();
}

} // namespace Vexel::Tool
