#pragma once

#include <string>

namespace Vexel::Tool {

/// A number of bytes for people: "88 B", "4.0 KB", "81.5 KB", "1.2 GB"; a KB is 1024 bytes.
std::string humanSize(unsigned long long bytes);

/// The same, or all digits: "83456".
std::string sizeText(unsigned long long bytes, bool exact);

/// "1 node", "2 nodes".
std::string counted(unsigned long long number, const char* what);

} // namespace Vexel::Tool
