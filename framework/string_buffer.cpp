#include <vexel/framework.h>

#include <new>

// The library keeps names in bulk: a string is one pointer, and its buffer one block of memory.
static_assert(sizeof(CStringW) == sizeof(void*));

CStringW::Buffer* CStringW::create(int capacity) {
    const std::size_t bytes = sizeof(Buffer) + (static_cast<std::size_t>(capacity) + 1) * sizeof(wchar_t);
    void* memory = ::operator new(bytes, std::nothrow);
    if (!memory)
        AfxThrowMemoryException();
    auto* buffer = new (memory) Buffer{.references = 1, .length = 0, .capacity = capacity};
    buffer->text()[0] = 0;
    return buffer;
}

void CStringW::destroy(Buffer* buffer) noexcept { ::operator delete(buffer); }
