#pragma once

#include <string>
#include <string_view>

namespace Vexel::Tool {

/// Text as it stands in an element or in a quoted attribute of a page. What comes from a document cannot
/// become part of the page itself.
std::string htmlText(std::string_view utf8);

/// "12.3 %", of a part of a whole; empty when there is no whole.
std::string percentText(double part, double whole);

} // namespace Vexel::Tool
