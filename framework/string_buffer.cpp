// Where strings have their memory from: the heap, unless their maker brings a manager of its own.

#include <vexel/framework.h>

#include <cstring>
#include <new>

// The library keeps names in bulk: a string is one pointer, and its buffer one block of memory.
static_assert(sizeof(CStringW) == sizeof(void*));

namespace {

std::size_t textBytes(int length, int characterSize) noexcept {
    return (static_cast<std::size_t>(length) + 1) * static_cast<std::size_t>(characterSize);
}

class Heap final : public IAtlStringMgr {
public:
    CStringData* Allocate(int length, int characterSize) noexcept override {
        void* memory = ::operator new(sizeof(CStringData) + textBytes(length, characterSize), std::nothrow);
        if (!memory)
            return nullptr;
        auto* data = new (memory)
            CStringData{.pStringMgr = this, .nDataLength = 0, .nAllocLength = length, .nRefs = 1};
        std::memset(data->data(), 0, static_cast<std::size_t>(characterSize));
        return data;
    }
    void Free(CStringData* data) noexcept override { ::operator delete(data); }
    CStringData* Reallocate(CStringData* data, int length, int characterSize) noexcept override {
        CStringData* moved = Allocate(length, characterSize);
        if (!moved)
            return nullptr;
        std::memcpy(moved->data(), data->data(), textBytes(data->nDataLength, characterSize));
        moved->nDataLength = data->nDataLength;
        Free(data);
        return moved;
    }
    CStringData* GetNilString() noexcept override { return &nil_; }
    IAtlStringMgr* Clone() noexcept override { return this; }

private:
    struct Nil : CStringData {
        wchar_t zero = 0;
    };
    Nil nil_{{.pStringMgr = this, .nDataLength = 0, .nAllocLength = 0, .nRefs = 2}};
};

constinit Heap theHeap;

} // namespace

IAtlStringMgr& CStringW::heap() noexcept { return theHeap; }

CStringData* CStringW::create(int capacity, IAtlStringMgr& manager) {
    CStringData* buffer = manager.Allocate(capacity, sizeof(wchar_t));
    if (!buffer)
        AfxThrowMemoryException();
    return buffer;
}
