// The byte-stream interface over SimpleFile. Its moves cannot fail visibly: they answer with the position at
// which the file stands afterwards.

#include <vexel/files.h>

namespace vxio {

namespace {

static_assert(IStream::Begin == FILE_BEGIN && IStream::Current == FILE_CURRENT && IStream::End == FILE_END);

/// The new position; the present one when the file does not move.
unsigned long long seek(SimpleFile& file, IStream::SeekPosition origin, long long offset) {
    unsigned long long position = 0;
    const bool known = origin == IStream::Begin || origin == IStream::Current || origin == IStream::End;
    return known && file.Seek(offset, static_cast<DWORD>(origin), &position) ? position : file.GetPosition();
}

} // namespace

bool FileReadStream::Open(const wchar_t* path, FileStreamProtectedType protection) {
    return file_.Open(path, FileAccess::Read, FileCreation::OpenExisting, protection);
}

unsigned long long FileReadStream::SeekToEnd() { return seek(file_, End, 0); }
void FileReadStream::SeekToBegin() { seek(file_, Begin, 0); }
unsigned long long FileReadStream::GetLength() { return file_.GetLength(); }
unsigned long long FileReadStream::Seek(SeekPosition origin, long long offset) {
    return seek(file_, origin, offset);
}
unsigned long long FileReadStream::GetPosition() const { return file_.GetPosition(); }
unsigned long long FileReadStream::ReadBytes(void* buffer, unsigned long long count) {
    return file_.Read(buffer, count);
}

bool FileWriteStream::Open(const WriteStreamOpenArgs& args) {
    if (!file_.Open(args.path, FileAccess::Write, args.creation, args.protection))
        return false;
    if (!args.append || file_.Seek(0, FILE_END, nullptr))
        return true;
    file_.Close();
    return false;
}

unsigned long long FileWriteStream::SeekToEnd() { return seek(file_, End, 0); }
void FileWriteStream::SeekToBegin() { seek(file_, Begin, 0); }
unsigned long long FileWriteStream::GetLength() { return file_.GetLength(); }
unsigned long long FileWriteStream::Seek(SeekPosition origin, long long offset) {
    return seek(file_, origin, offset);
}
unsigned long long FileWriteStream::GetPosition() const { return file_.GetPosition(); }
unsigned long long FileWriteStream::WriteBytes(const void* buffer, unsigned long long count) {
    return file_.Write(buffer, count);
}

} // namespace vxio
