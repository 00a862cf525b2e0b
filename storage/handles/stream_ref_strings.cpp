// Strings on the COM stream behind a handle: here, where handles are known.

#include "storage/handles/stream_lock.h"

#include <vexel/strings.h>

using Vexel::Detail::StreamLock;

void VxwReadUniString(const StreamRef& stream, CStringW& text) {
    const StreamLock lock(stream);
    VxwReadUniString(stream.stream(), text);
}

void VxwWriteUniString(const StreamRef& stream, const CStringW& text) {
    const StreamLock lock(stream);
    VxwWriteUniString(stream.stream(), text);
}
