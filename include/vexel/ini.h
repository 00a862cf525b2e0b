#pragma once

/// Settings files of the classic form: sections in brackets, and lines of key and value.
///
///     [Window]
///     ; a comment
///     Width = 800
///     Title = ' in blanks '
///
/// In memory, sections and keys keep the order in which they were first added, and the spelling; they are
/// found without regard to case, as the C library's `_wcsnicmp` compares. Values are text, and numbers only
/// on access. Objects are copied by value, and belong to one thread at a time. Exhausted memory throws
/// (std::bad_alloc, CMemoryException*) and, except in Load, leaves what was there.
///
/// Reading a file, line by line, in any encoding of files.h. Without a byte-order mark it is the one that the
/// contents are guessed to have, or else the first in which they are sections and entries:
///  - White space at both ends of a line does not count. Empty lines and those that begin with ";" are
///    skipped; a ";" further on is part of the text.
///  - "[name]" begins or continues a section; the name is all between the brackets, which must not be empty.
///  - Other lines hold a key, "=" and a value, without the white space around the "=". The key must not be
///    empty. A pair of equal quotes, ' or ", around the value is removed.
///  - Of equal keys in a section the first gives the spelling and the last the value.
///  - A line that is none of these makes reading fail, and so does an entry before the first section.
///
/// Writing: UTF-8 without a byte-order mark, or UTF-16 with one where there is a lone surrogate, which UTF-8
/// cannot hold; lines ended by a line feed. Comments and empty lines are not kept. What is written is not
/// quoted, so these do not come back as they were: keys and values with white space at an end; values in
/// quotes; keys that hold "=" or begin with ";". And these make a file that cannot be read: sections and keys
/// without a name; keys that begin with "["; names and values with line feeds or zeros in them, unless what
/// follows happens to be a line as above.

#include <vexel/export.h>
#include <vexel/framework.h>

#include <cstddef>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vxio {

/// The places of names in a list, by a hash that does not tell upper from lower case; empty while they are
/// not known. For the library's own use.
using NamePlaces = std::unordered_multimap<std::size_t, std::size_t>;

/// A section: entries of key and value. References and iterators hold until an entry is added or removed.
class VEXEL_API IniFileSection {
public:
    using Entries = std::vector<std::pair<CStringW, CStringW>>;

    const Entries& GetEntries() const noexcept { return entries_; }
    Entries::const_iterator begin() const noexcept { return entries_.begin(); }
    Entries::const_iterator end() const noexcept { return entries_.end(); }
    bool IsEmpty() const noexcept { return entries_.empty(); }

    /// Replaces the value of the key, or appends the entry.
    IniFileSection& SetString(std::wstring_view key, const CStringW& value);
    IniFileSection& SetString(const CStringW& key, const CStringW& value);
    /// This overload is there because a literal would fit the two others equally well. It is the same with
    /// the overloads for pointers further on.
    IniFileSection& SetString(const wchar_t* key, const CStringW& value) {
        return SetString(std::wstring_view(key), value);
    }
    IniFileSection& SetInt(std::wstring_view key, int value);
    /// Stores the shortest text that reads back to the same value, or "nan", "inf" and "-inf".
    IniFileSection& SetDouble(std::wstring_view key, double value);
    IniFileSection& Remove(std::wstring_view key);

    CStringW GetString(std::wstring_view key, std::wstring_view fallback) const;
    CStringW GetString(std::wstring_view key, const CStringW& fallback) const;
    CStringW GetString(std::wstring_view key, const wchar_t* fallback) const {
        return GetString(key, std::wstring_view(fallback));
    }
    /// A number is decimal; it may have white space around it and a sign. A value that is no number, or does
    /// not fit an `int`, counts as missing.
    int GetInt(std::wstring_view key, int fallback) const;
    /// As GetInt. The number may also have a fraction and an exponent, or be "inf", "infinity" or "nan" in
    /// upper or lower case. A value that is too large or too small for a `double` counts as missing.
    double GetDouble(std::wstring_view key, double fallback) const;
    std::optional<CStringW> TryGetString(std::wstring_view key) const;
    std::optional<int> TryGetInt(std::wstring_view key) const;
    std::optional<double> TryGetDouble(std::wstring_view key) const;

private:
    friend class IniFile;

    void setString(std::wstring_view key, const CStringW& value);
    void setString(const CStringW& key, const CStringW& value);
    const CStringW* find(std::wstring_view key) const;

    Entries entries_;
    mutable NamePlaces places_;
};

/// A whole settings file. The static functions load the file, do the one thing and, where it changes
/// something, save it.
class VEXEL_API IniFile {
public:
    using Sections = std::vector<std::pair<CStringW, IniFileSection>>;

    /// Reads the file. The result is false, and the object is empty, when the file could not be opened or
    /// read to its end, or has a line that makes reading fail. Others may not write the file meanwhile. What
    /// has no length, as a pipe, is not read.
    /// Exhausted memory leaves the object empty, too.
    bool Load(const wchar_t* path);
    /// Writes a new file beside the old one and puts it in the old one's place, with its attributes, so that
    /// a failure leaves the old one whole. Access rights that were given to the old file itself, and streams
    /// beside its contents, do not come along. Where no file can be made beside the old one, or the old one
    /// cannot be replaced (someone reads it, it is a link or has other names), the contents are written into
    /// it instead. Threads and processes may save one file at the same time; the contents of the last one
    /// stay.
    ///
    /// False, with the file as it was, when the file cannot be opened for writing, even after a while;
    /// or when the file that was loaded into this object had bytes that are no text in its encoding, by the
    /// byte-order mark or as it was guessed, which saving would lose. Failures to write are logged and do not
    /// make the result false: callers cannot mend them.
    bool Save(const wchar_t* path) const;

    bool IsEmpty() const noexcept { return sections_.empty(); }
    const Sections& GetSections() const noexcept { return sections_; }
    Sections::const_iterator begin() const noexcept { return sections_.begin(); }
    Sections::const_iterator end() const noexcept { return sections_.end(); }

    // Pointers and references hold until a section is added.

    /// Null when there is none.
    const IniFileSection* GetSection(std::wstring_view name) const;
    IniFileSection& GetOrCreateSection(std::wstring_view name);
    /// Replaces the section's contents, or appends it.
    void SetSection(std::wstring_view name, IniFileSection&& section);

    // These do what the section's functions do. A key in a section that is missing is missing.

    IniFile& SetString(std::wstring_view section, std::wstring_view key, const CStringW& value);
    IniFile& SetInt(std::wstring_view section, std::wstring_view key, int value);
    IniFile& SetDouble(std::wstring_view section, std::wstring_view key, double value);
    CStringW GetString(std::wstring_view section, std::wstring_view key, std::wstring_view fallback) const;
    CStringW GetString(std::wstring_view section, std::wstring_view key, const CStringW& fallback) const;
    CStringW GetString(std::wstring_view section, std::wstring_view key, const wchar_t* fallback) const {
        return GetString(section, key, std::wstring_view(fallback));
    }
    int GetInt(std::wstring_view section, std::wstring_view key, int fallback) const;
    double GetDouble(std::wstring_view section, std::wstring_view key, double fallback) const;
    std::optional<CStringW> TryGetString(std::wstring_view section, std::wstring_view key) const;
    std::optional<int> TryGetInt(std::wstring_view section, std::wstring_view key) const;
    std::optional<double> TryGetDouble(std::wstring_view section, std::wstring_view key) const;

    // These work straight on a file.
    //
    // Setting begins with the settings that are in the file. It begins with none when there is no file, and
    // also when the file has a line that makes Load fail: then all its settings are lost, which is logged.
    // The result is false for a null or empty path, when the file is there but cannot be opened or read, and
    // when it cannot be told whether there is one, as where its folder is not found; otherwise it is that of
    // Save. Of two callers that set at the same time, one may undo what the other has
    // set.
    //
    // Getting finds nothing in a file for which Load fails.

    static bool SetString(std::wstring_view section, std::wstring_view key, const CStringW& value,
                          const wchar_t* path);
    static bool SetInt(std::wstring_view section, std::wstring_view key, int value, const wchar_t* path);
    static bool SetDouble(std::wstring_view section, std::wstring_view key, double value,
                          const wchar_t* path);
    static bool SetSection(std::wstring_view name, IniFileSection&& section, const wchar_t* path);
    static CStringW GetString(std::wstring_view section, std::wstring_view key, std::wstring_view fallback,
                              const wchar_t* path);
    static CStringW GetString(std::wstring_view section, std::wstring_view key, const CStringW& fallback,
                              const wchar_t* path);
    static CStringW GetString(std::wstring_view section, std::wstring_view key, const wchar_t* fallback,
                              const wchar_t* path) {
        return GetString(section, key, std::wstring_view(fallback), path);
    }
    static int GetInt(std::wstring_view section, std::wstring_view key, int fallback, const wchar_t* path);
    static double GetDouble(std::wstring_view section, std::wstring_view key, double fallback,
                            const wchar_t* path);
    static std::optional<CStringW> TryGetString(std::wstring_view section, std::wstring_view key,
                                                const wchar_t* path);
    static std::optional<int> TryGetInt(std::wstring_view section, std::wstring_view key,
                                        const wchar_t* path);
    static std::optional<double> TryGetDouble(std::wstring_view section, std::wstring_view key,
                                              const wchar_t* path);
    static std::optional<IniFileSection> TryGetSection(std::wstring_view name, const wchar_t* path);

private:
    /// Does what Load does, and returns the system's code: ERROR_INVALID_DATA for a file that is no settings
    /// file.
    unsigned long load(const wchar_t* path);
    template <class Change>
    static bool changeFile(const wchar_t* path, const Change& change);

    Sections sections_;
    mutable NamePlaces places_;
    bool hasReplaced_ = false; // the file that was loaded had bytes that are no text
};

} // namespace vxio
