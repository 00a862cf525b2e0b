#pragma once

#include <windows.h>

#include <cstddef>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// Size of the pieces in which contents are moved.
inline constexpr std::size_t kChunkSize = 0x10000;

/// How many bytes of contents a command lets come together in memory: written and not in the file yet, or
/// read and kept by the library. One stream may be larger.
inline constexpr unsigned long long kLargestInMemory = 64ULL << 20;

/// Thrown when nobody reads standard output any more, as with `| head`: no failure, but there is nothing left
/// to do.
class ReaderGone : public std::exception {
public:
    const char* what() const noexcept override { return "nobody reads"; }
};

/// Exit status of a command whose output nobody read to the end, as shells know it.
inline constexpr int kReaderGone = 141;

/// How text looks on a console; elsewhere, and where the environment has NO_COLOR, all looks alike.
enum class Style { Plain, Storage, Good, Bad, Changed, Moved };

/// Standard output: UTF-8 text and raw bytes, untouched by the C library's text mode and by the console's
/// code page. Throws ReaderGone, and Failure when the disk is full.
class StandardOutput {
public:
    StandardOutput();
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;
    /// What a command printed before it failed is written, too; whether that works no longer matters.
    ~StandardOutput();

    /// Text is kept until `flush`, or until enough has come together.
    void text(std::string_view utf8, Style style = Style::Plain);
    void bytes(std::span<const std::byte> data);
    void flush();

private:
    struct Piece {
        Style style;
        std::string text;
    };

    void write(const Piece& piece) const;

    std::vector<Piece> pending_;
    std::size_t size_ = 0; // of the pieces
    HANDLE handle_;
    bool console_;
    WORD attributes_; // of the console when the program began; 0: no colours
};

/// Whether people read standard error as it is written.
bool errorIsConsole() noexcept;

/// Text for that console, nothing added.
void writeErrorConsole(std::wstring_view text) noexcept;

/// Standard error, one line; what cannot be written there is lost.
void printError(std::wstring_view line) noexcept;

} // namespace Vexel::Tool
