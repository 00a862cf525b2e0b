// Strings on the COM stream behind a handle: here, where handles are known.

#include <vexel/storage.h>
#include <vexel/strings.h>

void VxwReadUniString(const StreamRef& stream, CStringW& text) { VxwReadUniString(stream.stream(), text); }

void VxwWriteUniString(const StreamRef& stream, const CStringW& text) {
    VxwWriteUniString(stream.stream(), text);
}
