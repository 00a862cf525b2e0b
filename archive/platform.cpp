#include "archive/platform.h"

namespace Vexel::Storage::Engine {

Platform& platform() noexcept {
    static Platform calls{&::CreateFileW, &::GetFileSizeEx,    &::GetFileTime,  &::ReadFile,
                          &::WriteFile,   &::SetFilePointerEx, &::SetEndOfFile, &::FlushFileBuffers,
                          &::MoveFileExW, &::DeleteFileW};
    return calls;
}

} // namespace Vexel::Storage::Engine
