// `vexel gunzip FILE NODE`. The library inflates what it can and only logs that the trailer does not agree;
// so this command watches the log to know whether to fail.

#include "command.h"
#include "document.h"
#include "output.h"
#include "progress.h"
#include "stopping.h"
#include "text.h"

#include <vexel/compressed_stream.h>
#include <vexel/diagnostics.h>

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string node;
    std::string output;
    bool force = false;
};

/// Notes whether the library has logged an error; passes all on.
class ErrorWatch {
public:
    ErrorWatch() {
        next_ = VxLog_SetSink(
            [](int level, const wchar_t* message, void* context) {
                auto& watch = *static_cast<ErrorWatch*>(context);
                watch.seen_ = watch.seen_ || level >= VxLog_Error;
                if (watch.next_)
                    watch.next_(level, message, watch.nextContext_);
            },
            this, &nextContext_);
    }
    ErrorWatch(const ErrorWatch&) = delete;
    ErrorWatch& operator=(const ErrorWatch&) = delete;
    ~ErrorWatch() { VxLog_SetSink(next_, nextContext_); }

    bool seen() const noexcept { return seen_; }

private:
    VxLogSink next_ = nullptr;
    void* nextContext_ = nullptr;
    bool seen_ = false;
};

/// The end of a gzip stream says how long its contents are, modulo 2^32.
unsigned long storedSize(StreamRef& stream) {
    unsigned char bytes[4]{};
    stream.Seek(vxio::IReadStream::End, -4);
    stream.ReadBytes(bytes, sizeof bytes);
    stream.SeekToBegin();
    unsigned long size = 0;
    for (unsigned i = 0; i < 4; ++i)
        size |= static_cast<unsigned long>(bytes[i]) << 8 * i;
    return size;
}

/// How many bytes it inflates to, for progress: what is stored, and as often 2^32 more as the stream could
/// not be as long else.
unsigned long long likelySize(unsigned long stored, unsigned long long packed) {
    unsigned long long size = stored;
    while (size + size / 1000 + 64 < packed)
        size += 1ULL << 32;
    return size;
}

bool isGzip(StreamRef& stream) {
    unsigned char magic[2]{};
    return stream.ReadBytes(magic, sizeof magic) == sizeof magic && magic[0] == 0x1F && magic[1] == 0x8B;
}

void run(const Arguments& arguments) {
    const NodePath path = NodePath::parse(toUtf16(arguments.node));
    const std::wstring file = toUtf16(arguments.file);
    Output output(arguments.output, file, arguments.force);
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    StreamRef stream = document.openStream(path);
    if (!isGzip(stream))
        throw Failure(L"cannot inflate", document.label(path), STG_E_INVALIDHEADER,
                      L"this is no gzip stream");
    const unsigned long size = storedSize(stream);
    progress().expect(likelySize(size, stream.size()));

    // The library reads what there is; whether that was all shows in its log and at the stream's end.
    const ErrorWatch errors;
    COleStreamCompressFile inflated(true);
    inflated.SetIgnoreEndOfFile(true);
    unsigned long done = 0;
    if (inflated.OpenStream(stream)) {
        std::vector<std::byte> buffer(kChunkSize);
        while (const auto count = inflated.ReadBytes(buffer.data(), buffer.size())) {
            checkStop();
            output.bytes(std::span(buffer).first(static_cast<std::size_t>(count)));
            progress().add(count);
            done += static_cast<unsigned long>(count);
        }
        inflated.CloseCompression();
    }
    if (errors.seen() || done != size)
        throw Failure(L"damaged gzip data:", document.label(path), STG_E_DOCFILECORRUPT);
    output.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.node(arguments->node);
    command.output(arguments->output, arguments->force);
    command.examples("vexel gunzip hall.cfb Drawing -o drawing", "vexel gunzip hall.cfb Old/Layers | more");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("gunzip", "Write the inflated bytes of a gzip stream to standard output or a file", add);

} // namespace
} // namespace Vexel::Tool
