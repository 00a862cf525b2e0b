// What the text of a name decides is found when it is first asked for and kept in the shared entry. All
// threads would find the same, so pointers and flags are stored without a lock; only the two directories,
// whose names callers hold by reference, are stored once under the entry's spin lock.

#include "base/spin_lock.h"
#include "paths/path_name_flags.h"
#include "paths/path_name_text.h"

#include <vexel/path_name.h>
#include <vexel/paths.h>

#include <windows.h>

#include <shlwapi.h>

using Vexel::Detail::bit;
using Vexel::Detail::internPart;
using Vexel::Detail::SharedPathEntry;
using Vexel::Detail::SpinGuard;
using Vexel::Detail::viewOf;

namespace {

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

// The name kept in `field`: `part` of the entry's text, interned when `flag` says that it is not there yet.
// Every thread would find the same; the first to take the entry's lock stores it, so that the reference
// handed out never changes. (Without the lock at the end of the process there is no other thread either.)
const SharedPathName& keep(SharedPathName part, SharedPathEntry& entry, SharedPathName& field,
                           SharedPathNameFlag flag) {
    const SpinGuard guard(entry.lock);
    if (!(entry.flags.load(std::memory_order_acquire) & bit(flag))) {
        field = std::move(part);
        entry.flags.fetch_or(bit(flag), std::memory_order_acq_rel);
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

// Not constexpr and defined here: an inline variable would not be exported.
const unsigned SharedPathName::ConvertVersion;
const unsigned SharedPathName::ArchiveConvertVersion;

CString SharedPathName::asCString() const noexcept { return entry_ ? entry_->text : CString(); }

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
    if (flags().has(SharedPathNameFlag::DirectoryCached))
        return entry_->directory;
    const std::wstring_view text = asStringView();
    const std::size_t name = Vexel::FindFileName(text, false);
    if (name == text.size())
        return *this; // not kept: the entry would hold itself for ever
    return keep(SharedPathName(internPart(text.substr(0, name))), *entry_, entry_->directory,
                SharedPathNameFlag::DirectoryCached);
}

const SharedPathName& SharedPathName::getDirectoryPathName() const {
    if (!entry_)
        return null;
    if (flags().has(SharedPathNameFlag::DirectoryPathNameCached))
        return entry_->directoryPathName;
    SharedPathName parent(internPart(parentPath(asStringView())));
    if (parent == *this)
        return *this; // as above
    return keep(std::move(parent), *entry_, entry_->directoryPathName,
                SharedPathNameFlag::DirectoryPathNameCached);
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
    if (extension)
        text += extension;
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
