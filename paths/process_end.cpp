#include "paths/process_end.h"

#include "paths/platform_files.h"

namespace Vexel::Detail {

bool isProcessEnding() noexcept { return Platform().processIsEnding(); }

} // namespace Vexel::Detail
