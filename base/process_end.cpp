// The question goes through the table of system calls, which is why this is no inline function: the locks are
// inline and must not drag the table's header into every source.

#include "base/process_end.h"

#include "base/platform.h"

namespace Vexel::Detail {

bool isProcessEnding() noexcept { return platform().processIsEnding(); }

} // namespace Vexel::Detail
