#pragma once

#include <vexel/framework.h>

#include <optional>
#include <string_view>

/// Numbers as settings files spell them.
namespace Vexel::Detail {

std::wstring_view trimmed(std::wstring_view text) noexcept;

std::optional<int> parseInt(std::wstring_view text) noexcept;
std::optional<double> parseDouble(std::wstring_view text);

CStringW formatInt(int value);
CStringW formatDouble(double value);

} // namespace Vexel::Detail
