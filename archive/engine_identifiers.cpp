// Defines the engine's interface identifiers, which its headers only declare in all other sources. The order
// counts: the platform's headers come first, or theirs would be defined, too; then what turns the
// declarations into definitions.
// clang-format off
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <propidl.h>

#include <Common/MyInitGuid.h>

#include <7zip/Archive/IArchive.h>
#include <7zip/ICoder.h>
#include <7zip/IPassword.h>
#include <7zip/IStream.h>
// clang-format on
