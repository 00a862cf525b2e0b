#pragma once

#include <map>
#include <string>
#include <vector>

/// The files that there are: bytes in memory, by path. A target puts some there and looks at what becomes of
/// them.
namespace Vexel::Fuzz {

std::map<std::wstring, std::vector<unsigned char>>& files();

} // namespace Vexel::Fuzz
