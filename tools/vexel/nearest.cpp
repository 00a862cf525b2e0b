#include "nearest.h"

#include <windows.h>

#include <algorithm>
#include <vector>

namespace Vexel::Tool {
namespace {

// A letter that differs counts as much; one in case alone, and a name in another place, less than any of
// these.
constexpr std::size_t kLetter = 4;
constexpr std::size_t kElsewhere = 3;
constexpr std::size_t kCaseAlone = 1;

std::wstring lowered(std::wstring_view text) {
    std::wstring result(text);
    CharLowerBuffW(result.data(), static_cast<DWORD>(result.size()));
    return result;
}

std::wstring_view nameOf(std::wstring_view path) { return path.substr(path.rfind(L'/') + 1); }

// Letters to put in, leave out, replace or swap with their neighbour: the rows of a table of all beginnings,
// of which the last three are kept.
std::size_t lettersBetween(std::wstring_view a, std::wstring_view b) {
    std::vector<std::size_t> beforeLast(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
    }
    return row[b.size()];
}

} // namespace

Nearest::Nearest(std::wstring_view wanted) : wanted_(lowered(wanted)) {}

void Nearest::offer(std::wstring_view candidate) {
    const std::wstring text = lowered(candidate);
    const std::size_t most = std::max<std::size_t>(1, wanted_.size() / 3);
    std::size_t distance = kCaseAlone;
    if (text != wanted_) {
        const std::size_t apart =
            std::max(text.size(), wanted_.size()) - std::min(text.size(), wanted_.size());
        const std::size_t letters = apart > most ? apart : lettersBetween(wanted_, text);
        distance = letters > most ? distance_ : letters * kLetter;
        if (nameOf(text) == nameOf(wanted_))
            distance = std::min(distance, kElsewhere);
    }
    if (distance >= distance_)
        return;
    distance_ = distance;
    found_ = candidate;
}

} // namespace Vexel::Tool
