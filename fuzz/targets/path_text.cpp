// The functions on the text of paths: results lie within the text, and what brings a text into a form leaves
// one that has it as it is.

#include "paths/path_text.h"

#include "fuzz/targets/input.h"

#include <vexel/paths.h>

#include <set>

using namespace Vexel::Fuzz;

namespace {

void checkParts(std::wstring_view path, std::wstring_view other) {
    for (const bool choice : {false, true}) {
        const std::size_t name = Vexel::FindFileName(path, choice);
        REQUIRE(name <= path.size());
        REQUIRE(path.ends_with(Vexel::GetFileName(path, true)));
        REQUIRE(path.ends_with(Vexel::GetFileExtension(path, choice)));
        Vexel::GetFileName(path, choice);
        for (const auto type : {Vexel::PathType::FileSystem, Vexel::PathType::Document})
            Vexel::ValidatePath(path, type, choice);
    }
    const std::size_t dot = Vexel::FindFileExtension(path);
    REQUIRE(dot == std::wstring_view::npos || (dot > 0 && dot < path.size() && path[dot] == L'.'));
    const bool endsDirectory = path.ends_with(L'\\') || path.ends_with(L'/');
    REQUIRE(Vexel::IsSubPath(path, path) == endsDirectory);
    if (Vexel::IsSubPath(path, other))
        REQUIRE(path.size() > other.size() || other.empty() || other.ends_with(L'\\') ||
                other.ends_with(L'/'));
    const std::wstring_view bare = Vexel::RemoveTrailingPathSeparators(path);
    REQUIRE(path.starts_with(bare) && Vexel::RemoveTrailingPathSeparators(bare) == bare);
    REQUIRE(Vexel::Detail::drivePrefixLength(path) <= path.size());
    Vexel::Detail::protectedRootLength(path);
    Vexel::Detail::isSurelyCanonical(path);
}

void checkChanges(std::wstring_view path, std::wstring_view extension) {
    std::wstring canonical(path);
    Vexel::CanonicalizeFileSystemPath(&canonical);
    std::wstring again = canonical;
    REQUIRE(Vexel::CanonicalizeFileSystemPath(&again) == canonical);
    REQUIRE(canonical.size() <= path.size() || canonical == L".");
    CString framework(path.data(), static_cast<int>(path.size()));
    Vexel::CanonicalizeFileSystemPath(&framework);
    REQUIRE(std::wstring_view(framework.GetString(), static_cast<std::size_t>(framework.GetLength())) ==
            canonical);

    std::wstring changed(path);
    Vexel::ChangeFileExtension(&changed, extension);
    std::wstring own(path); // the new one is part of the old text
    Vexel::ChangeFileExtension(&own, std::wstring_view(own).substr(own.size() / 2));
    std::wstring copy(path);
    REQUIRE(own == Vexel::ChangeFileExtension(&copy, path.substr(path.size() / 2)));
    std::wstring cut(path);
    Vexel::RemoveTrailingPathSeparators(&cut);
    REQUIRE(cut == Vexel::RemoveTrailingPathSeparators(path));
}

void checkNames(std::wstring_view path) {
    CString name(path.data(), static_cast<int>(path.size()));
    VxwNameHasExt(name);
    VxwIsThisAPath(name);
    CString extended = name;
    VxwAddExt(extended, L".ext");
    VxwReplaceExt(extended, L".new");
}

/// The name that is found is one that was asked for and called free.
void checkUnique(std::wstring_view path, bool bracketStyle, bool stripCounter) {
    CString name(path.data(), static_cast<int>(path.size()));
    unsigned asked = 0;
    CString last;
    const auto probe = [&](const CString& candidate) {
        last = candidate;
        return ++asked < 4 ? std::make_error_code(std::errc::file_exists) : std::error_code();
    };
    const CString before = name;
    if (vxio::MakeFileNameUnique(name, probe, bracketStyle, stripCounter))
        REQUIRE(name == last);
    else
        REQUIRE(name == before);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t choices = input.byte();
    const std::vector<wchar_t> first = input.text(input.byte() % 64);
    const std::vector<wchar_t> second = input.text(512);
    const std::wstring_view other(first.data(), first.size()), path(second.data(), second.size());
    checkParts(path, other);
    checkChanges(path, other);
    checkNames(path);
    checkUnique(path, choices & 1, choices & 2);
    return 0;
}
