#pragma once

#include <vexel/archive.h>
#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <memory>

namespace Vexel::Storage {

/// By this interface identifier the library recognises its own storages; it answers with the object itself.
inline constexpr GUID IID_SZipStorage{
    0x7EA45DBC, 0x7CAB, 0x4252, {0x95, 0xEE, 0x93, 0x25, 0xAE, 0xF7, 0xDC, 0x48}};

/// A package, or a directory of one, as an `IStorage`. Names of elements are encoded on their way into the
/// archive and decoded on their way out. All storages and streams of one package share one archive, which
/// lives as long as any of them. Nothing reaches the file before a `Commit`, and that saves the whole
/// archive.
///
/// In all calls a null or empty name gives STG_E_INVALIDNAME, a null out-pointer STG_E_INVALIDPOINTER, and
/// anything but zero in a reserved argument STG_E_INVALIDPARAMETER; out-pointers are null on failure.
///
/// Threads: the archive's rules hold for all that is in it. Mode, class and state bits of one object belong
/// to one thread at a time.
class SZipStorage final : public IUnknownImpl<IStorage> {
public:
    /// `path` is that of the directory in the archive, empty for the root. `mode`: STGM flags, of which the
    /// access counts.
    SZipStorage(CString path, std::shared_ptr<SZipArchive> archive, DWORD mode);

    const CString& path() const noexcept { return path_; }
    const std::shared_ptr<SZipArchive>& archive() const noexcept { return archive_; }
    /// The path in the archive of the child `name`. Throws std::bad_alloc, CMemoryException*.
    CString childPath(LPCOLESTR name) const;

    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;
    /// STG_E_ACCESSDENIED when open for reading. Else as `SZipArchive::createFile`; STGM_CREATE replaces,
    /// STGM_CONVERT keeps what is there.
    HRESULT STDMETHODCALLTYPE CreateStream(LPCOLESTR name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                           ::IStream** stream) noexcept override;
    /// When open for reading, write-only access is refused with STG_E_ACCESSDENIED. Else as
    /// `SZipArchive::extractFile`. A stream opened for reading, or out of an archive that is, refuses
    /// changes.
    HRESULT STDMETHODCALLTYPE OpenStream(LPCOLESTR name, void* reserved1, DWORD mode, DWORD reserved2,
                                         ::IStream** stream) noexcept override;
    /// Opens a stream for contents that replace the old ones, which are not unpacked;
    /// `SZipArchive::openEmptied`.
    HRESULT openEmptied(LPCOLESTR name, ::IStream** stream) noexcept;
    /// As CreateStream, by `SZipArchive::createDirectory`.
    HRESULT STDMETHODCALLTYPE CreateStorage(LPCOLESTR name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                            IStorage** storage) noexcept override;
    /// STG_E_FILENOTFOUND; STG_E_ACCESSDENIED as OpenStream.
    HRESULT STDMETHODCALLTYPE OpenStorage(LPCOLESTR name, IStorage* priority, DWORD mode, SNB exclude,
                                          DWORD reserved, IStorage** storage) noexcept override;
    /// Copies all children but those excluded; what is packed in a file that both packages read stays so.
    /// What cannot be copied is logged and left out, and the first such failure is returned when all else has
    /// been copied. STG_E_ACCESSDENIED, before anything is copied: into its own subtree, or into a package's
    /// storage that is open for reading.
    HRESULT STDMETHODCALLTYPE CopyTo(DWORD excludedCount, const IID* excludedIids, SNB excludedNames,
                                     IStorage* destination) noexcept override;
    /// E_NOTIMPL for STGMOVE_SHALLOWCOPY, STG_E_INVALIDFLAG for unknown flags. STG_E_ACCESSDENIED: onto or
    /// into itself. Between packages any failure is reported, and leaves the element where it is.
    HRESULT STDMETHODCALLTYPE MoveElementTo(LPCOLESTR name, IStorage* destination, LPCOLESTR newName,
                                            DWORD flags) noexcept override;
    /// Saves the whole archive, whatever the flags; nothing when open for reading.
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) noexcept override;
    /// E_NOTIMPL.
    HRESULT STDMETHODCALLTYPE Revert() noexcept override;
    HRESULT STDMETHODCALLTYPE EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                           IEnumSTATSTG** enumerator) noexcept override;
    /// With all that is below it. STG_E_FILENOTFOUND. STG_E_ACCESSDENIED: the archive is open for reading. Of
    /// this storage's own mode nothing is asked here, nor in RenameElement; the handles ask themselves.
    HRESULT STDMETHODCALLTYPE DestroyElement(LPCOLESTR name) noexcept override;
    /// STG_E_FILENOTFOUND, STG_E_FILEALREADYEXISTS, STG_E_ACCESSDENIED.
    HRESULT STDMETHODCALLTYPE RenameElement(LPCOLESTR oldName, LPCOLESTR newName) noexcept override;
    /// S_OK; nothing is stored.
    HRESULT STDMETHODCALLTYPE SetElementTimes(LPCOLESTR name, const FILETIME* created,
                                              const FILETIME* accessed,
                                              const FILETIME* modified) noexcept override;
    /// Keeps the class in the child ".clsid". S_OK whatever becomes of that; STG_E_ACCESSDENIED when open for
    /// reading.
    HRESULT STDMETHODCALLTYPE SetClass(REFCLSID clsid) noexcept override;
    /// Of this object alone: they are not stored.
    HRESULT STDMETHODCALLTYPE SetStateBits(DWORD bits, DWORD mask) noexcept override;
    /// A root's name is that of its archive, and its times are zero.
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* info, DWORD flags) noexcept override;

private:
    class Copying;

    ~SZipStorage() override;
    bool isReadOnly() const noexcept { return mode_ == STGM_READ; }
    HRESULT shareWithCaller(HRESULT status, ::IStream* contents, bool readOnly, ::IStream** stream) const;
    void loadClass();
    HRESULT transfer(const CString& name, IStorage* destination, LPCOLESTR newName, bool moves);

    CString path_;
    std::shared_ptr<SZipArchive> archive_;
    DWORD mode_; // access only
    CLSID clsid_{};
    DWORD stateBits_ = 0;
    bool clsidLoaded_ = false;
};

// Roots. `*root` is null on failure.

/// The package at `path`. It is read unless it is to be made anew (STGM_CREATE without STGM_CONVERT) or
/// opened for writing only. A missing file is a new package, unless it is opened for reading.
///  - STG_E_INVALIDPOINTER, STG_E_INVALIDNAME; failures of `SZipArchive::reload`.
HRESULT openPackage(const wchar_t* path, DWORD mode, bool silentDiscard, SZipStorage** root) noexcept;

/// The package in a caller's stream, for reading.
///  - STG_E_INVALIDPOINTER. STG_E_ACCESSDENIED: the stream cannot be read. Failures of its `Stat` and of
///  `reload`.
HRESULT openPackage(::IStream* stream, SZipStorage** root) noexcept;

/// A new package in memory, which has no file and never gets one.
HRESULT createMemoryPackage(SZipStorage** root) noexcept;

} // namespace Vexel::Storage
