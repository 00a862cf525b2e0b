#pragma once

#include "io/text_encoding.h"

#include <windows.h>

/// Writing a whole file so that readers, a crash and a full disk meet the old contents or the new.
namespace Vexel::Detail {

enum class WholeFile {
    Written,
    NotOpened, ///< the file cannot be written
    Failed,    ///< it could be opened, but not be filled
};

/// Writes a file beside the old one, by a name of its own, and puts it in its place with the old one's
/// attributes. When it can be made but not filled, the old one stays. Where that cannot be done (the folder
/// takes no file, a reader holds the old one, it is a link, has several names, is encrypted or no file of a
/// disk) the contents are written into the old one. Waits, up to a second, for others that do the same at the
/// time. `error` is the system's code. Throws std::bad_alloc.
WholeFile writeWholeFile(const wchar_t* path, Bytes contents, DWORD& error);

} // namespace Vexel::Detail
