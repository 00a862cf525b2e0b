// Path names in documents: here, above the streams and handles that hold them.

#include "base/text.h"
#include "paths/path_name_table.h"
#include "storage/handles/stream_lock.h"

#include <vexel/path_name.h>
#include <vexel/storage.h>
#include <vexel/strings.h>

#include <cstdint>

using Vexel::Detail::StreamLock;

namespace {

// The first documents whose hashes were worked out as they are now.
constexpr unsigned kHashTrustedVersion = 3688;

} // namespace

void SharedPathName::attach(const CString& text, unsigned hash, bool caseSensitive) {
    clear();
    if (text.IsEmpty())
        return;
    entry_ = Vexel::Detail::internPathName(Vexel::Detail::viewOf(text), hash, caseSensitive);
}

template <class ReadHash>
void SharedPathName::become(const CString& text, bool hashFollows, unsigned fileVersion, bool caseSensitive,
                            ReadHash readHash) {
    if (!hashFollows) {
        *this = SharedPathName(text, caseSensitive, false);
        return;
    }
    clear();
    if (text.IsEmpty())
        return;
    const std::uint32_t hash = readHash();
    if (fileVersion >= kHashTrustedVersion)
        attach(text, hash, caseSensitive);
    else
        *this = SharedPathName(text, caseSensitive, false);
}

void SharedPathName::write(CArchive& archive) const {
    if (archive.IsLoading())
        AfxThrowArchiveException(CArchiveException::readOnly, archive.m_strFileName);
    archive << asCString();
    if (entry_)
        archive << entry_->hash;
}

void SharedPathName::write(vxio::IWriteStream& stream, unsigned fileVersion, unsigned hashVersion) const {
    VxwWriteString(stream, asCString());
    if (entry_ && fileVersion >= hashVersion)
        stream.WriteBytes(&entry_->hash, sizeof entry_->hash);
}

void SharedPathName::write(::IStream* stream) const {
    if (!stream)
        return;
    VxwWriteUniString(stream, asCString());
    if (entry_)
        stream->Write(&entry_->hash, sizeof entry_->hash, nullptr);
}

void SharedPathName::write(const StreamRef& stream) const {
    const StreamLock lock(stream);
    write(stream.stream());
}

void SharedPathName::read(CArchive& archive, unsigned fileVersion, unsigned hashVersion,
                          Vexel::FlagSet<ReadFlag> flags) {
    CString text;
    archive >> text;
    become(text, fileVersion >= hashVersion, fileVersion, flags.has(ReadFlag::CaseSensitive), [&] {
        std::uint32_t hash = 0;
        archive >> hash;
        return hash;
    });
}

void SharedPathName::read(vxio::IReadStream& stream, unsigned fileVersion, unsigned hashVersion,
                          Vexel::FlagSet<ReadFlag> flags) {
    CString text;
    if (flags.has(ReadFlag::CArchiveString))
        VxwReadCArchiveString(stream, text);
    else
        VxwReadUniString(stream, text);
    become(text, fileVersion >= hashVersion, fileVersion, flags.has(ReadFlag::CaseSensitive), [&] {
        std::uint32_t hash = 0;
        return stream.ReadBytes(&hash, sizeof hash) == sizeof hash ? hash : 0;
    });
}

void SharedPathName::read(::IStream* stream, unsigned fileVersion, unsigned hashVersion,
                          Vexel::FlagSet<ReadFlag> flags) {
    if (!stream)
        return;
    CString text;
    VxwReadUniString(stream, text);
    const bool hashFollows = fileVersion >= hashVersion;
    // Without a hash, names are read without regard to case here, unlike in the other readers: kept, because
    // documents of that age were always read so.
    become(text, hashFollows, fileVersion, hashFollows && flags.has(ReadFlag::CaseSensitive), [&] {
        std::uint32_t hash = 0;
        ULONG done = 0;
        stream->Read(&hash, sizeof hash, &done);
        return done == sizeof hash ? hash : 0;
    });
}

void SharedPathName::read(const StreamRef& stream, unsigned fileVersion, unsigned hashVersion,
                          Vexel::FlagSet<ReadFlag> flags) {
    const StreamLock lock(stream);
    if (!flags.has(ReadFlag::CArchiveString)) {
        read(stream.stream(), fileVersion, hashVersion, flags);
        return;
    }
    if (!stream.stream())
        return;
    StreamRef reader = stream; // shares the position
    read(static_cast<vxio::IReadStream&>(reader), fileVersion, hashVersion, flags);
}
