// Text is encoded into a buffer and written when that has grown. The first error stays: after it nothing more
// is written, so that no later piece follows a gap.

#include "io/text_encoding.h"

#include <vexel/files.h>

namespace vxio {

namespace {

constexpr std::size_t kWriteBehind = 64 * 1024;

} // namespace

TextFileWriteStream::~TextFileWriteStream() { Close(); }

bool TextFileWriteStream::Open(const WriteStreamOpenArgs& args, TextEncoding encoding, bool mark) {
    Close();
    error_ = 0;
    encoding_ = encoding;
    if (!file_.Open(args))
        return false;
    if (mark && file_.GetLength() == 0) {
        const auto bytes = Vexel::Detail::byteOrderMark(encoding);
        buffer_.assign(bytes.begin(), bytes.end());
    }
    return true;
}

bool TextFileWriteStream::WriteString(std::wstring_view text) {
    if (!file_.IsOpen() || error_)
        return false;
    Vexel::Detail::encodeText(text, encoding_, buffer_);
    return buffer_.size() < kWriteBehind || writeBuffered();
}

bool TextFileWriteStream::writeBuffered() {
    if (!error_ && file_.WriteBytes(buffer_.data(), buffer_.size()) != buffer_.size())
        error_ = file_.GetLastErrorCode() ? file_.GetLastErrorCode() : ERROR_WRITE_FAULT;
    buffer_.clear();
    return !error_;
}

bool TextFileWriteStream::Flush() {
    if (!file_.IsOpen() || !writeBuffered())
        return false;
    if (!file_.Flush())
        error_ = file_.GetLastErrorCode();
    return !error_;
}

bool TextFileWriteStream::Close() {
    const bool written = file_.IsOpen() ? writeBuffered() : !error_;
    file_.Close();
    return written;
}

} // namespace vxio
