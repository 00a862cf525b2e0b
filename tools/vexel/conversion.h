#pragma once

#include <string>

namespace Vexel::Tool {

/// Makes a package of a document of any format, with the same names, types, contents and class identifiers,
/// and compares the two before the package gets its name. The document stays as it is, and nothing half-made
/// stands under the package's name. Progress is shown. Throws Failure; for a file that is there already
/// unless `force`.
void convertDocument(const std::wstring& from, const std::wstring& to, bool force);

} // namespace Vexel::Tool
