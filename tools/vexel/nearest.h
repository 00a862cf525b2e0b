#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace Vexel::Tool {

/// Finds what somebody may have meant who wrote a word, or a path joined by "/", that there is not. Few
/// letters that differ are near, a third of them at most; letters that differ in case alone are nearer than
/// others, and so is the same name in another place.
class Nearest {
public:
    explicit Nearest(std::wstring_view wanted);

    void offer(std::wstring_view candidate);
    /// The nearest of what was offered, the first one of several that are as near; none when nothing was
    /// near.
    const std::optional<std::wstring>& found() const noexcept { return found_; }

private:
    std::wstring wanted_;
    std::optional<std::wstring> found_;
    std::size_t distance_ = std::numeric_limits<std::size_t>::max();
};

} // namespace Vexel::Tool
