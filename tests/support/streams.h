#pragma once

#include "base/com_pointer.h"

#include <vexel/memory_streams.h>

#include <windows.h>

#include <objbase.h>
#include <shlwapi.h>
#include <wrl/client.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <vector>

/// Memory streams with given bytes, and the bytes of any stream.
namespace Support {

/// All of these calls, in their order, give this status.
inline void expectEach(HRESULT status, std::initializer_list<HRESULT> given) {
    EXPECT_EQ(std::vector(given), std::vector(given.size(), status));
}

/// All interfaces of a COM object are one object, and others are not there.
inline void expectInterfaces(IUnknown* object, const std::vector<GUID>& there, const GUID& missing) {
    Microsoft::WRL::ComPtr<IUnknown> identity;
    EXPECT_EQ(object->QueryInterface(IID_IUnknown, &identity), S_OK);
    for (const GUID& iid : there) {
        Microsoft::WRL::ComPtr<IUnknown> face, back;
        ASSERT_EQ(object->QueryInterface(iid, &face), S_OK);
        EXPECT_EQ(face->QueryInterface(IID_IUnknown, &back), S_OK);
        EXPECT_EQ(back.Get(), identity.Get());
    }
    void* found = identity.Get();
    EXPECT_EQ(object->QueryInterface(missing, &found), E_NOINTERFACE);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(object->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
}

/// Bytes that do not pack, the same for each size.
inline std::string noise(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

/// A stream of these bytes that fails where it is told to. Its clones count and fail with it.
class FaultyStream final : public Vexel::Storage::InMemoryIStream {
public:
    enum Call { Nothing, Reading, Writing, Seeking, Resizing, Cloning };
    struct Plan {
        Call call = Nothing;
        HRESULT status = S_OK;
        unsigned skipped = 0; ///< calls of the kind that do not fail, before the one that does
        bool forGood = false;
        bool hit = false;
    };

    explicit FaultyStream(std::string_view bytes = {}, std::shared_ptr<Plan> shared = nullptr)
        : plan(shared ? std::move(shared) : std::make_shared<Plan>()) {
        write(bytes.data(), bytes.size());
        rewind();
    }
    const std::shared_ptr<Plan> plan;

    HRESULT STDMETHODCALLTYPE Read(void* data, ULONG size, ULONG* done) noexcept override {
        if (!strikes(Reading))
            return InMemoryIStream::Read(data, size, done);
        if (plan->status == S_OK && done)
            *done = size + 1;
        return plan->status;
    }
    HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG size, ULONG* done) noexcept override {
        return strikes(Writing) ? plan->status : InMemoryIStream::Write(data, size, done);
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER to, DWORD origin, ULARGE_INTEGER* at) noexcept override {
        return strikes(Seeking) ? plan->status : InMemoryIStream::Seek(to, origin, at);
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) noexcept override {
        return strikes(Resizing) ? plan->status : InMemoryIStream::SetSize(size);
    }
    HRESULT STDMETHODCALLTYPE Clone(::IStream** clone) noexcept override {
        const bool isStruck = strikes(Cloning);
        *clone = isStruck ? nullptr : new (std::nothrow) FaultyStream(*this);
        return isStruck ? plan->status : S_OK;
    }

private:
    FaultyStream(const FaultyStream&) = default; // shares the memory

    bool strikes(Call made) const {
        if (made != plan->call || (plan->hit && !plan->forGood))
            return false;
        if (plan->skipped > 0 && plan->skipped--)
            return false;
        return plan->hit = true;
    }
};

/// A stream that is an ILockBytes too, as those of the system's are.
class StreamOfLockedBytes : public Vexel::Storage::InMemoryIStream {
public:
    /// `locked`: its lock bytes, if they are not to be these bytes.
    explicit StreamOfLockedBytes(std::string_view bytes, ILockBytes* locked = nullptr) : bytes_(locked) {
        write(bytes.data(), bytes.size());
        if (locked)
            return;
        const HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, bytes.size());
        std::copy(bytes.begin(), bytes.end(), static_cast<char*>(GlobalLock(memory)));
        GlobalUnlock(memory);
        EXPECT_EQ(CreateILockBytesOnHGlobal(memory, TRUE, &bytes_), S_OK);
    }
    STDMETHODIMP QueryInterface(const GUID& iid, void** ppv) noexcept override {
        return iid == IID_ILockBytes ? bytes_.CopyTo(reinterpret_cast<ILockBytes**>(ppv))
                                     : InMemoryIStream::QueryInterface(iid, ppv);
    }

private:
    Microsoft::WRL::ComPtr<ILockBytes> bytes_;
};

/// Our own, at its start.
inline Microsoft::WRL::ComPtr<Vexel::Storage::InMemoryIStream> streamOf(std::string_view bytes) {
    auto stream = Vexel::Detail::adopt(new Vexel::Storage::InMemoryIStream());
    EXPECT_EQ(stream->write(bytes.data(), bytes.size()), bytes.size());
    stream->rewind();
    return stream;
}

/// The system's, at its start.
inline Microsoft::WRL::ComPtr<IStream> systemStream(std::string_view bytes = {}) {
    auto stream = Vexel::Detail::adopt(SHCreateMemStream(nullptr, 0));
    EXPECT_EQ(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), S_OK);
    EXPECT_EQ(stream->Seek({}, STREAM_SEEK_SET, nullptr), S_OK);
    return stream;
}

/// All bytes of a stream from its beginning on; it stands at their end afterwards.
inline std::string bytesOf(IStream* stream) {
    STATSTG entry{};
    EXPECT_EQ(stream->Stat(&entry, STATFLAG_NONAME), S_OK);
    std::string bytes(entry.cbSize.QuadPart, '\0');
    ULONG count = 0;
    EXPECT_EQ(stream->Seek({}, STREAM_SEEK_SET, nullptr), S_OK);
    EXPECT_EQ(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &count), S_OK);
    bytes.resize(count);
    return bytes;
}

} // namespace Support
