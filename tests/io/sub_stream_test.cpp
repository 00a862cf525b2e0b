#include "support/recording_stream.h"
#include "support/scarce_memory.h"
#include "support/streams.h"

#include <vexel/sub_stream.h>

#include <climits>

using Microsoft::WRL::ComPtr;
using Support::RecordingStream;
using Vexel::Detail::adopt;
using Vexel::Storage::SubStream;

namespace {

constexpr unsigned long long kLimit = ~0ULL;

class SubStreams : public testing::Test {
protected:
    static HRESULT seek(::IStream* stream, long long move, DWORD origin = STREAM_SEEK_SET) {
        return stream->Seek({.QuadPart = move}, origin, nullptr);
    }
    static unsigned long long position(::IStream* stream) {
        ULARGE_INTEGER reached{};
        EXPECT_EQ(stream->Seek({}, STREAM_SEEK_CUR, &reached), S_OK);
        return reached.QuadPart;
    }
    ULONG read(ULONG count) {
        ULONG done = 77;
        EXPECT_EQ(range_->Read(bytes_, count, &done), base_->status);
        return done;
    }

    ComPtr<RecordingStream> base_ = adopt(new RecordingStream());
    ComPtr<SubStream> range_ = adopt(new SubStream(base_.Get(), 100, 10));
    char bytes_[64] = {};
};

TEST_F(SubStreams, ShowARangeOfRealBytes) {
    const auto base = Support::streamOf("0123456789abcdef");
    const auto range = adopt(new SubStream(base.Get(), 2, 10));
    ULONG done = 0;
    EXPECT_EQ(Support::bytesOf(range.Get()), "23456789ab");
    EXPECT_EQ(seek(range.Get(), 5), S_OK);
    ComPtr<::IStream> clone;
    EXPECT_EQ(range->Clone(&clone), S_OK);
    EXPECT_EQ(range->Write("ABCDEFGHIJKLMNOPQRST", 20, &done), S_OK);
    EXPECT_EQ(done, 5U);
    EXPECT_EQ(position(clone.Get()), 5U) << "a seek pointer of its own";
    EXPECT_EQ(clone->Read(bytes_, 50, &done), S_OK);
    EXPECT_EQ(std::string(bytes_, done), "ABCDE");
    EXPECT_EQ(Support::bytesOf(base.Get()), "0123456ABCDEcdef");
}

TEST_F(SubStreams, SeekWithinTheRange) {
    base_->status = S_FALSE;
    struct Move {
        long long move;
        DWORD origin;
        unsigned long long reached = 3; // from there
    };
    const auto moves = [this](const Move& to, HRESULT status, const std::string& calls) {
        SCOPED_TRACE(testing::Message() << to.move << " from " << to.origin);
        ASSERT_EQ(seek(range_.Get(), 3), S_FALSE);
        base_->take();
        ULARGE_INTEGER told{.QuadPart = 3};
        EXPECT_EQ(range_->Seek({.QuadPart = to.move}, to.origin, &told), status);
        EXPECT_EQ(told.QuadPart, to.reached);
        EXPECT_EQ(position(range_.Get()), to.reached);
        EXPECT_EQ(base_->take(), calls) << "asking for the position does not touch the base";
    };
    for (const Move& to :
         {Move{0, STREAM_SEEK_SET, 0}, Move{10, STREAM_SEEK_SET, 10}, Move{7, STREAM_SEEK_CUR, 10},
          Move{-3, STREAM_SEEK_CUR, 0}, Move{0, STREAM_SEEK_END, 10}, Move{-10, STREAM_SEEK_END, 0}})
        moves(to, S_FALSE, "Seek " + std::to_string(100 + to.reached) + " 0, "); // as the base answers
    for (const Move& to :
         {Move{11, STREAM_SEEK_SET}, Move{-1, STREAM_SEEK_SET}, Move{LLONG_MAX, STREAM_SEEK_SET},
          Move{8, STREAM_SEEK_CUR}, Move{LLONG_MIN, STREAM_SEEK_CUR}, Move{-11, STREAM_SEEK_END},
          Move{1, STREAM_SEEK_END}, Move{0, 3}})
        moves(to, STG_E_INVALIDFUNCTION, "");
    base_->status = STG_E_REVERTED;
    EXPECT_EQ(seek(range_.Get(), 9), STG_E_REVERTED);
    EXPECT_EQ(position(range_.Get()), 3U);

    // Near the end of what positions can express.
    const auto last = adopt(new SubStream(base_.Get(), kLimit - 4, kLimit));
    EXPECT_EQ(seek(last.Get(), 5), STG_E_INVALIDFUNCTION) << "would be before the range";
}

TEST_F(SubStreams, GoByWhatTheBaseMoves) {
    base_->most = 4;
    EXPECT_EQ(read(50), 4U);
    EXPECT_EQ(base_->take(), "Read 10, ");
    base_->status = STG_E_READFAULT;
    EXPECT_EQ(read(50), 4U) << "a failing base has moved what it says";
    EXPECT_EQ(base_->take(), "Read 6, ");
    ULONG done = 77;
    EXPECT_EQ(range_->Write(bytes_, 50, &done), STG_E_READFAULT);
    EXPECT_EQ(done, 2U);
    EXPECT_EQ(range_->Write(bytes_, 50, nullptr), STG_E_READFAULT);
    EXPECT_EQ(base_->take(), "Write 2, Write 0, ");

    base_->status = S_OK;
    base_->most = kLimit;
    base_->excess = 5;
    EXPECT_EQ(seek(range_.Get(), 4), S_OK);
    ULARGE_INTEGER copied{}, written{};
    EXPECT_EQ(range_->CopyTo(nullptr, {.QuadPart = kLimit}, &copied, &written), S_OK);
    EXPECT_EQ(base_->take(), "Seek 104 0, CopyTo 6, ");
    EXPECT_EQ(copied.QuadPart, 11U);
    EXPECT_EQ(written.QuadPart, 11U);
    EXPECT_EQ(position(range_.Get()), 10U) << "what it claims beyond the range does not wrap";
    EXPECT_EQ(seek(range_.Get(), 0), S_OK);
    EXPECT_EQ(range_->CopyTo(nullptr, {.QuadPart = 3}, nullptr, nullptr), S_OK);
    EXPECT_EQ(position(range_.Get()), 8U);
}

TEST_F(SubStreams, ChangeTheirSizeOnly) {
    EXPECT_EQ(seek(range_.Get(), 6), S_OK);
    base_->take();
    EXPECT_EQ(range_->SetSize({.QuadPart = kLimit - 99}), E_INVALIDARG);
    EXPECT_EQ(range_->SetSize({.QuadPart = kLimit - 100}), S_OK);
    EXPECT_EQ(range_->SetSize({.QuadPart = 8}), S_OK);
    EXPECT_EQ(base_->take(), "");
    EXPECT_EQ(read(50), 2U);
    EXPECT_EQ(range_->SetSize({.QuadPart = 5}), S_OK);
    EXPECT_EQ(position(range_.Get()), 8U);
    base_->take();
    EXPECT_EQ(read(50), 50U) << "beyond the new end nothing limits";
    STATSTG entry{};
    base_->status = E_FAIL;
    entry.grfMode = 77;
    EXPECT_EQ(range_->Stat(&entry, 0), E_FAIL);
    EXPECT_EQ(entry.cbSize.QuadPart, 5U) << "though the base fails";
    EXPECT_EQ(entry.grfMode, 0U);
    EXPECT_EQ(range_->Stat(nullptr, 0), E_FAIL);
}

TEST_F(SubStreams, PassTheRestOn) {
    base_->status = S_FALSE;
    Support::expectEach(S_FALSE, {range_->Commit(7), range_->Revert(),
                                  range_->LockRegion({.QuadPart = 1}, {.QuadPart = 2}, 3),
                                  range_->UnlockRegion({.QuadPart = 1}, {.QuadPart = 2}, 3)});
    EXPECT_EQ(base_->take(), "Commit 7, Revert, LockRegion 101 5, LockRegion 101 5, ") << "both lock";
    EXPECT_EQ(range_->LockRegion({.QuadPart = kLimit}, {}, 0), STG_E_INVALIDFUNCTION);
    ComPtr<IUnknown> found;
    EXPECT_EQ(range_->QueryInterface(IID_IPersist, &found), S_OK);
    EXPECT_EQ(found.Get(), static_cast<IUnknown*>(base_.Get())) << "the base's own";
    EXPECT_EQ(base_->take(), "QueryInterface, ");
}

TEST_F(SubStreams, TakeAndLetGoOfBases) {
    EXPECT_EQ(base_->numRefs(), 2U);
    const auto next = adopt(new RecordingStream());
    EXPECT_FALSE(range_->set(nullptr, 1, 2, false));
    {
        const ComPtr<::IStream> holder(range_);
        EXPECT_FALSE(range_->set(next.Get(), 1, 2, false)) << "somebody else holds it";
        EXPECT_FALSE(range_->detach());
    }
    EXPECT_EQ(read(50), 10U) << "unchanged";
    EXPECT_TRUE(range_->set(next.Get(), 1, 20, false));
    EXPECT_EQ(base_->numRefs(), 1U);
    EXPECT_TRUE(range_->set(next.Get(), 3, 4, true)) << "of the same base";
    EXPECT_EQ(next->numRefs(), 1U);
    EXPECT_EQ(next->take(), "Clone, ");
    EXPECT_EQ(read(50), 4U);
    next->status = E_ACCESSDENIED;
    EXPECT_FALSE(range_->set(next.Get(), 3, 4, true));
    EXPECT_EQ(range_->Commit(0), STG_E_INVALIDFUNCTION) << "left without a base";

    // A base that only the sub-stream holds.
    auto* const lonely = new RecordingStream();
    EXPECT_TRUE(range_->set(lonely, 0, 8, false));
    lonely->Release();
    EXPECT_TRUE(range_->set(lonely, 0, 8, true));
    EXPECT_TRUE(range_->detach());
    EXPECT_EQ(next->numRefs(), 1U);
}

TEST_F(SubStreams, TellWhyTheyHaveNoClone) {
    EXPECT_EQ(range_->Clone(nullptr), STG_E_INVALIDPOINTER);
    ::IStream* clone = range_.Get();
    base_->status = E_ACCESSDENIED;
    EXPECT_EQ(range_->Clone(&clone), E_ACCESSDENIED);
    EXPECT_EQ(clone, nullptr);
    clone = range_.Get();
    base_->status = S_OK;
    base_->take();
    AtMainAllocation(1, [] { throw std::bad_alloc(); });
    EXPECT_EQ(range_->Clone(&clone), E_OUTOFMEMORY);
    EXPECT_EQ(clone, nullptr);
}

TEST_F(SubStreams, WithoutABaseRefuseEverything) {
    const auto empty = adopt(new SubStream());
    ULONG done = 77;
    ULARGE_INTEGER copied{.QuadPart = 77}, written{.QuadPart = 77};
    STATSTG entry{};
    ::IStream* clone = base_.Get();
    void* found = bytes_;
    EXPECT_EQ(empty->QueryInterface(IID_IUnknown, &found), E_FAIL);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(empty->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    Support::expectEach(STG_E_INVALIDFUNCTION,
                        {empty->Read(bytes_, 1, &done), empty->Write(bytes_, 1, nullptr),
                         seek(empty.Get(), 0, STREAM_SEEK_CUR), empty->SetSize({.QuadPart = 1}),
                         empty->CopyTo(base_.Get(), {.QuadPart = 1}, &copied, &written), empty->Commit(0),
                         empty->Revert(), empty->LockRegion({}, {}, 0), empty->UnlockRegion({}, {}, 0),
                         empty->Stat(&entry, 0), empty->Clone(&clone)});
    EXPECT_EQ(done + copied.QuadPart + written.QuadPart, 0U);
    EXPECT_EQ(clone, nullptr);
}

} // namespace
