#include "paths/path_name_table.h"
#include "paths/spin_lock.h"

#include <vexel/path_name.h>
#include <vexel/paths.h>

#include <windows.h>

#include <shlwapi.h>

#include <climits>
#include <mutex>
#include <string>

using Vexel::Detail::SharedPathEntry;
using Vexel::Detail::SpinLock;

namespace {

constexpr std::uint32_t bit(SharedPathNameFlag flag) { return static_cast<std::uint32_t>(flag); }

std::wstring_view viewOf(const CString& text) noexcept {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

// The system's canonical form of `path`, which ends with a zero: in `buffer` or, when that is too small, in
// `grown`; `path` itself when the system has none.
std::wstring_view canonicalPath(const CString& path, wchar_t (&buffer)[MAX_PATH], std::wstring& grown) {
    wchar_t* target = buffer;
    DWORD capacity = MAX_PATH;
    for (;;) {
        const DWORD length = GetFullPathNameW(path, capacity, target, nullptr);
        if (length == 0)
            return viewOf(path);
        if (length < capacity)
            return {target, length};
        grown.resize(length); // counts the terminating zero; grows again if the current directory changed
        target = grown.data();
        capacity = length;
    }
}

std::uint32_t hashOf(std::wstring_view text, bool relative, bool caseSensitiveHash) {
    return Vexel::Detail::pathNameHash(relative ? text : Vexel::GetFileName(text, true), caseSensitiveHash);
}

SharedPathEntry* intern(const CString& text, bool caseSensitive, bool caseSensitiveHash) {
    if (text.IsEmpty())
        return nullptr;
    if (PathIsRelativeW(text)) {
        return Vexel::Detail::internPathName(viewOf(text), hashOf(viewOf(text), true, caseSensitiveHash),
                                             caseSensitive);
    }
    wchar_t buffer[MAX_PATH];
    std::wstring grown;
    const std::wstring_view path = canonicalPath(text, buffer, grown);
    return Vexel::Detail::internPathName(path, hashOf(path, false, caseSensitiveHash), caseSensitive);
}

CString copyOf(std::wstring_view text) {
    if (text.size() > INT_MAX)
        AfxThrowMemoryException();
    return {text.data(), static_cast<int>(text.size())};
}

// A fact that the text alone decides: found once and kept for the entry's life.
template <class Ask>
bool textFact(SharedPathEntry& entry, SharedPathNameFlag known, SharedPathNameFlag value, Ask ask) {
    const std::uint32_t flags = entry.flags.load(std::memory_order_acquire);
    if (flags & bit(known))
        return (flags & bit(value)) != 0;
    const bool answer = ask(entry.text.GetString()) != FALSE;
    entry.flags.fetch_or(bit(known) | (answer ? bit(value) : 0), std::memory_order_acq_rel);
    return answer;
}

// A pointer into the entry's text that every thread would find alike.
template <class Find>
const wchar_t* textPointer(const SharedPathEntry& entry, std::atomic<const wchar_t*>& kept, Find find) {
    const wchar_t* place = kept.load(std::memory_order_relaxed);
    if (!place) {
        place = entry.text.GetString() + find(viewOf(entry.text));
        kept.store(place, std::memory_order_relaxed);
    }
    return place;
}

int lengthFrom(const SharedPathEntry& entry, const wchar_t* place) {
    return static_cast<int>(entry.text.GetString() + entry.text.GetLength() - place);
}

// The name kept in `field`, made by `make` when `flag` says that there is none yet. Every thread would make
// an equal one; the first to take the entry's lock does, so that the reference handed out never changes.
template <class Make>
const SharedPathName& keptName(SharedPathEntry& entry, SharedPathName& field, SharedPathNameFlag flag,
                               Make make) {
    if (!(entry.flags.load(std::memory_order_acquire) & bit(flag))) {
        SpinLock spin(entry.lock);
        const std::lock_guard guard(spin);
        if (!(entry.flags.load(std::memory_order_acquire) & bit(flag))) {
            field = make();
            entry.flags.fetch_or(bit(flag), std::memory_order_acq_rel);
        }
    }
    return field;
}

std::wstring_view parentPath(std::wstring_view text) {
    const std::wstring_view bare = Vexel::RemoveTrailingPathSeparators(text);
    const std::size_t name = Vexel::FindFileName(bare, false);
    return name < bare.size() ? Vexel::RemoveTrailingPathSeparators(bare.substr(0, name)) : bare;
}

} // namespace

constinit const SharedPathName SharedPathName::null;

SharedPathName::SharedPathName(const wchar_t* text, bool caseSensitive, bool caseSensitiveHash)
    : SharedPathName(std::wstring_view(text ? text : L""), caseSensitive, caseSensitiveHash) {}

SharedPathName::SharedPathName(const CString& text, bool caseSensitive, bool caseSensitiveHash)
    : entry_(intern(text, caseSensitive, caseSensitiveHash)) {}

SharedPathName::SharedPathName(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash)
    : entry_(intern(copyOf(text), caseSensitive, caseSensitiveHash)) {}

// Parts of an interned path stand as they are: made canonical, a bare drive would turn into its current
// directory.
SharedPathName SharedPathName::internAsIs(std::wstring_view text, bool caseSensitive,
                                          bool caseSensitiveHash) {
    if (text.empty())
        return {};
    const bool relative = PathIsRelativeW(copyOf(text)) != FALSE;
    return SharedPathName(
        Vexel::Detail::internPathName(text, hashOf(text, relative, caseSensitiveHash), caseSensitive));
}

void SharedPathName::release() noexcept { Vexel::Detail::releasePathName(entry_); }

SharedPathName& SharedPathName::clear() noexcept {
    SharedPathName().swap(*this);
    return *this;
}

const wchar_t* SharedPathName::asString() const noexcept { return entry_ ? entry_->text.GetString() : L""; }

CString SharedPathName::asCString() const noexcept { return entry_ ? entry_->text : CString(); }

std::wstring_view SharedPathName::asStringView() const noexcept {
    return entry_ ? viewOf(entry_->text) : std::wstring_view(L"");
}

const wchar_t* SharedPathName::fileName(int* length) const {
    if (length)
        *length = 0;
    if (!entry_)
        return L"";
    const wchar_t* place = textPointer(
        *entry_, entry_->fileName, [](std::wstring_view text) { return Vexel::FindFileName(text, true); });
    if (length)
        *length = lengthFrom(*entry_, place);
    return place;
}

const wchar_t* SharedPathName::fileExtension(bool withDot, int* length) const {
    if (length)
        *length = 0;
    if (!entry_)
        return L"";
    const wchar_t* place = textPointer(*entry_, entry_->extension, [](std::wstring_view text) {
        const std::size_t dot = Vexel::FindFileExtension(text);
        return dot == std::wstring_view::npos ? text.size() : dot;
    });
    if (!withDot && *place == L'.')
        ++place;
    if (length)
        *length = lengthFrom(*entry_, place);
    return place;
}

const SharedPathName& SharedPathName::getDirectory() const {
    if (!entry_)
        return null;
    const std::wstring_view text = asStringView();
    const std::size_t name = Vexel::FindFileName(text, false);
    if (name == text.size())
        return *this; // not kept: the entry would hold itself for ever
    return keptName(*entry_, entry_->directory, SharedPathNameFlag::DirectoryCached,
                    [&] { return internAsIs(text.substr(0, name), false, false); });
}

const SharedPathName& SharedPathName::getDirectoryPathName() const {
    if (!entry_)
        return null;
    const std::wstring_view text = asStringView();
    const std::wstring_view parent = parentPath(text);
    if (parent.size() == text.size())
        return *this; // as above
    return keptName(*entry_, entry_->directoryPathName, SharedPathNameFlag::DirectoryPathNameCached,
                    [&] { return internAsIs(parent, false, false); });
}

SharedPathName& SharedPathName::addBackslash(bool caseSensitive) {
    if (!entry_)
        return *this;
    const wchar_t last = entry_->text[entry_->text.GetLength() - 1];
    if (last != L'\\' && last != L'/')
        *this = SharedPathName(entry_->text + L'\\', caseSensitive, false);
    return *this;
}

SharedPathName& SharedPathName::changeExtension(const wchar_t* extension, bool caseSensitive) {
    if (!entry_)
        return *this;
    int length = 0;
    const wchar_t* present = fileExtension(true, &length);
    const std::wstring_view wanted(extension ? extension : L"");
    if (std::wstring_view(present, static_cast<std::size_t>(length)) == wanted)
        return *this;
    CString text = entry_->text.Left(entry_->text.GetLength() - length);
    text += copyOf(wanted);
    *this = SharedPathName(text, caseSensitive, false);
    return *this;
}

SharedPathName& SharedPathName::slashNormalize(bool caseSensitive) {
    if (!entry_)
        return *this;
    CString text = entry_->text;
    if (text.Replace(L'/', L'\\') != 0)
        *this = SharedPathName(text, caseSensitive, false);
    return *this;
}

bool SharedPathName::isRelative() const {
    return entry_ && textFact(*entry_, SharedPathNameFlag::RelativeKnown, SharedPathNameFlag::Relative,
                              [](const wchar_t* text) { return PathIsRelativeW(text); });
}

bool SharedPathName::isNetwork() const {
    return entry_ && textFact(*entry_, SharedPathNameFlag::NetworkKnown, SharedPathNameFlag::Network,
                              [](const wchar_t* text) { return PathIsNetworkPathW(text); });
}

bool SharedPathName::isSubPath(const SharedPathName& base) const {
    if (base.empty())
        return true;
    return entry_ && Vexel::IsSubPath(asStringView(), base.asStringView());
}

bool SharedPathName::isSubPath(const CString& base) const {
    return entry_ && Vexel::IsSubPath(asStringView(), viewOf(base));
}

Vexel::FlagSet<SharedPathNameFlag> SharedPathName::flags() const noexcept {
    return Vexel::FlagSet<SharedPathNameFlag>(entry_ ? entry_->flags.load(std::memory_order_acquire) : 0);
}
