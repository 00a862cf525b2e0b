// The file is read into a buffer ahead of the lines. Lines are found in the bytes and only then decoded,
// because the position that callers ask for counts bytes of the file.

#include "base/text.h"
#include "io/encoding_guess.h"
#include "io/text_encoding.h"

#include <vexel/files.h>

#include <algorithm>

namespace vxio {

using Vexel::Detail::Bytes;

namespace {

constexpr std::size_t kReadAhead = 64 * 1024;
constexpr std::size_t kLongestLine = std::size_t{1} << 30;
constexpr std::size_t kNone = ~std::size_t{0};

/// Whether the unit is a line feed or zero, in either byte order.
bool endsLine(const unsigned char* unit, std::size_t size, bool bigEndian) noexcept {
    for (std::size_t i = 0; i < size; ++i)
        if (unit[i] != 0 && (unit[i] != '\n' || i != (bigEndian ? size - 1 : 0)))
            return false;
    return true;
}

} // namespace

TextFileReadStream::TextFileReadStream() noexcept = default;
TextFileReadStream::~TextFileReadStream() = default;

bool TextFileReadStream::Open(const wchar_t* path, FileStreamProtectedType protection, TextEncoding encoding,
                              bool binary) {
    Close();
    if (!file_.Open(path, FileAccess::Read, FileCreation::OpenExisting, protection))
        return false;
    binary_ = binary;
    hasReplaced_ = false;
    fill();
    encoding_ = encoding == TextEncoding::Detect ? detect() : encoding;
    if (file_.GetLastErrorCode()) {
        Close();
        return false;
    }
    unit_ = Vexel::Detail::unitSize(encoding_);
    const Bytes mark = Vexel::Detail::byteOrderMark(encoding_);
    if (buffer_.size() >= mark.size() && std::equal(mark.begin(), mark.end(), buffer_.begin()))
        start_ = mark.size();
    position_ = start_;
    return true;
}

void TextFileReadStream::Close() noexcept {
    file_.Close();
    buffer_.clear();
    start_ = 0;
    position_ = 0;
}

/// By all of the file, where it can be read twice; the buffer holds its start.
TextEncoding TextFileReadStream::detect() {
    if (const TextEncoding marked = Vexel::Detail::markedEncoding(buffer_); marked != TextEncoding::Detect)
        return marked;
    std::vector<unsigned char> more;
    if (buffer_.size() == kReadAhead && GetFileType(file_.GetHandle()) == FILE_TYPE_DISK)
        more.resize(kReadAhead);
    const auto forEachPart = [&](auto& guess) {
        guess.add(buffer_);
        if (more.empty())
            return;
        unsigned long long at = buffer_.size();
        std::size_t came = 0;
        do {
            came = readFully(more.data(), more.size(), at);
            guess.add(Bytes(more).first(came));
            at += came;
        } while (came == more.size());
        file_.Seek(static_cast<long long>(buffer_.size()), FILE_BEGIN, nullptr);
    };
    const bool isWhole = buffer_.size() < kReadAhead || !more.empty();
    return Vexel::Detail::guessEncoding(forEachPart, isWhole);
}

/// Reads the file from where it stands, which is at `at`. Less comes only at the end and on an error: a file
/// whose end cannot be had must not pass for a shorter one. The end is where it was when it was met first,
/// for someone may be appending for ever.
std::size_t TextFileReadStream::readFully(unsigned char* bytes, std::size_t count, unsigned long long at) {
    auto done = static_cast<std::size_t>(file_.Read(bytes, count));
    if (done == count || file_.GetLastErrorCode() || GetFileType(file_.GetHandle()) != FILE_TYPE_DISK)
        return done;
    const unsigned long long length = file_.GetLength();
    while (!file_.GetLastErrorCode() && done < count && at + done < length) {
        const auto more = static_cast<std::size_t>(file_.Read(bytes + done, count - done));
        if (more == 0 && !file_.GetLastErrorCode())
            file_.Fail(ERROR_READ_FAULT);
        done += more;
    }
    return done;
}

/// Reads more behind what is there; false when that is the end, and on an error.
bool TextFileReadStream::fill() {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
    const std::size_t before = buffer_.size();
    const std::size_t room = (std::max)(before, kReadAhead);
    buffer_.resize(before + room);
    const std::size_t came = readFully(buffer_.data() + before, room, position_ + before);
    buffer_.resize(before + came);
    return came == room;
}

/// The offset behind `start_` of the first unit from there on that ends a line.
std::size_t TextFileReadStream::findLineEnd(std::size_t from) const noexcept {
    const unsigned char* const bytes = buffer_.data() + start_;
    const std::size_t size = buffer_.size() - start_;
    if (unit_ == 1) {
        const auto* const end = std::find_if(bytes + from, bytes + size,
                                             [](unsigned char byte) { return byte == '\n' || byte == 0; });
        return end == bytes + size ? kNone : static_cast<std::size_t>(end - bytes);
    }
    const bool bigEndian = Vexel::Detail::isBigEndian(encoding_);
    for (; from + unit_ <= size; from += unit_)
        if (endsLine(bytes + from, unit_, bigEndian))
            return from;
    return kNone;
}

void TextFileReadStream::decode(const unsigned char* bytes, std::size_t size, CStringW& line) {
    hasReplaced_ = !Vexel::Detail::decodeText({bytes, size}, encoding_, text_) || hasReplaced_;
    line = Vexel::Detail::stringOf({text_.data(), text_.size()});
}

bool TextFileReadStream::ReadString(CStringW& line) {
    line.Empty();
    std::size_t looked = 0;
    for (bool isMore = true;;) {
        const std::size_t size = findLineEnd(looked);
        if (size != kNone) {
            decode(buffer_.data() + start_, size, line);
            const bool byLineFeed =
                !std::all_of(buffer_.data() + start_ + size, buffer_.data() + start_ + size + unit_,
                             [](unsigned char byte) { return byte == 0; });
            if (!binary_ && byLineFeed && line.GetLength() && line[line.GetLength() - 1] == L'\r')
                line.Truncate(line.GetLength() - 1);
            start_ += size + unit_;
            position_ += size + unit_;
            return true;
        }
        const std::size_t buffered = buffer_.size() - start_;
        looked = buffered / unit_ * unit_;
        if (buffered > kLongestLine)
            return file_.Fail(ERROR_FILE_TOO_LARGE);
        if (isMore) {
            isMore = fill();
            continue;
        }
        if (file_.GetLastErrorCode() || buffered == 0)
            return false;
        decode(buffer_.data(), buffered, line); // the last line has no end
        start_ = buffered;
        position_ += buffered;
        return true;
    }
}

} // namespace vxio
