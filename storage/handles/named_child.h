#pragma once

#include "base/status_guard.h"
#include "storage/tree/element_name.h"

#include <vexel/storage.h>

namespace Vexel::Detail {

/// Opens or makes the child of `parent` with the name `text`, by `call(name)`. The name takes memory; where
/// that is missing, too, the handle is null afterwards.
template <class Handle, class Text, class Call>
long withName(Handle& handle, const StorageRef& parent, const Text& text, const Call& call) {
    if (parent.null())
        return STG_E_INVALIDPARAMETER;
    const long status = withStatus([&] { return call(elementName(text)); });
    if (FAILED(status))
        handle.close();
    return status;
}

} // namespace Vexel::Detail
