// The engine's plain decoders are used here, not its folder decoder, because only they can be stopped after
// any number of bytes. The target is the decoder's dictionary as well: a header is unpacked only once, into
// the place where it is read.

#include "archive/header_unpacker.h"

#include "archive/header_layout.h"

#include <Alloc.h>

#include <algorithm>

namespace Vexel::Storage::Engine {

namespace {

/// Unpacked at once, so that small pieces cost nothing.
constexpr std::size_t kStep = 0x100000;

const Byte* bytesOf(std::span<const std::byte> bytes) noexcept {
    return reinterpret_cast<const Byte*>(bytes.data());
}

} // namespace

HeaderUnpacker::HeaderUnpacker(std::uint64_t method, std::span<const std::byte> packed, PageBuffer& target,
                               HeaderSource& source) noexcept
    : method_(method), packed_(packed), target_(target), source_(source){Lzma2Dec_CONSTRUCT(&lzma2_)}

      HeaderUnpacker::~HeaderUnpacker() {
    Lzma2Dec_FreeProbs(&lzma2_, &g_Alloc);
}

bool HeaderUnpacker::start(std::span<const std::byte> properties) noexcept {
    if (method_ == MethodId::kLzma) {
        if (!accept(LzmaDec_AllocateProbs(&lzma2_.decoder, bytesOf(properties),
                                          static_cast<unsigned>(properties.size()), &g_Alloc)))
            return false;
        LzmaDec_Init(&lzma2_.decoder);
    } else if (method_ == MethodId::kLzma2) {
        if (properties.size() != 1)
            return refuse(HeaderFault::Unsupported);
        if (!accept(Lzma2Dec_AllocateProbs(&lzma2_, *bytesOf(properties), &g_Alloc)))
            return false;
        Lzma2Dec_Init(&lzma2_);
    } else if (!properties.empty()) {
        return refuse(HeaderFault::Unsupported);
    }
    lzma2_.decoder.dic = reinterpret_cast<Byte*>(target_.data());
    lzma2_.decoder.dicBufSize = target_.size();
    return true;
}

bool HeaderUnpacker::accept(SRes result) noexcept {
    isOutOfMemory_ = isOutOfMemory_ || result == SZ_ERROR_MEM;
    if (result == SZ_OK)
        return true;
    return refuse(result == SZ_ERROR_UNSUPPORTED ? HeaderFault::Unsupported : HeaderFault::Unreadable);
}

bool HeaderUnpacker::supply(std::size_t count) noexcept {
    if (count <= done_)
        return true;
    const std::size_t end = (std::min)(target_.size(), (std::max)(count, done_ + kStep));
    if (fault_ != HeaderFault::None)
        return false;
    if (!target_.grow(end))
        return accept(SZ_ERROR_MEM);
    while (done_ < end) {
        if (!source_.mayGoOn())
            return refuse(HeaderFault::Input);
        if (!unpack((std::min)(end, done_ + kStep)))
            return false;
    }
    return true;
}

bool HeaderUnpacker::unpack(std::size_t end) noexcept {
    SizeT taken = packed_.size();
    const bool isLast = end == target_.size();
    if (method_ == MethodId::kCopy) {
        taken = (std::min)(taken, static_cast<SizeT>(end - done_));
        std::copy_n(packed_.begin(), taken, target_.data() + done_);
        done_ += taken;
    } else {
        ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
        const ELzmaFinishMode finish = isLast ? LZMA_FINISH_END : LZMA_FINISH_ANY;
        const SRes result =
            method_ == MethodId::kLzma
                ? LzmaDec_DecodeToDic(&lzma2_.decoder, end, bytesOf(packed_), &taken, finish, &status)
                : Lzma2Dec_DecodeToDic(&lzma2_, end, bytesOf(packed_), &taken, finish, &status);
        done_ = lzma2_.decoder.dicPos;
        if (!accept(result == SZ_OK && status == LZMA_STATUS_NEEDS_MORE_INPUT ? SZ_ERROR_INPUT_EOF : result))
            return false;
    }
    packed_ = packed_.subspan(taken);
    if (done_ < end)
        return refuse(method_ == MethodId::kCopy ? HeaderFault::Header : HeaderFault::Unreadable);
    if (isLast && !packed_.empty())
        return refuse(method_ == MethodId::kCopy ? HeaderFault::Header : HeaderFault::Unreadable);
    return true;
}

} // namespace Vexel::Storage::Engine
