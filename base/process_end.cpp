#include "base/process_end.h"

#include "base/platform.h"

namespace Vexel::Detail {

bool isProcessEnding() noexcept { return platform().processIsEnding(); }

} // namespace Vexel::Detail
