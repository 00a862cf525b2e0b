#include <vexel/com.h>

namespace Vexel {

template class VEXEL_API IUnknownImpl<::IStream>;

} // namespace Vexel
