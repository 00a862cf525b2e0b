#pragma once

/// Temporary files: unique names in the user's temporary directory, one registry of them for the process, and
/// their deletion: on request, by a background thread that tries again while a file is in use, and at
/// process exit.
///
/// Failures of the file system are logged and never raised. Errors of the registry's lock are raised as
/// `std::system_error`. Exhausted memory is raised as `std::bad_alloc` or, where names and strings are made,
/// as the framework's memory exception.

#include <vexel/export.h>
#include <vexel/framework.h>
#include <vexel/path_name.h>

#include <windows.h>

#include <memory>
#include <vector>

/// The registry of temporary files. A file is registered by `insert`, marked for deletion by `erase`, and
/// leaves the registry when it has been deleted, or by `release`.
///
/// Threads: every function may be called from any thread, except `clearAll`, which is for the end of the
/// process, when nobody else uses the registry. A log sink must not call the registry: it may be told of a
/// failure in the middle of a walk over the files.
class VEXEL_API TempFileContainer {
public:
    TempFileContainer(const TempFileContainer&) = delete;
    TempFileContainer& operator=(const TempFileContainer&) = delete;

    /// The process's registry, made on first use. Its destruction at process exit runs `clearAll`.
    static TempFileContainer& Instance();

    /// A file name without directory, different at each call and from those of other processes: `prefix`
    /// ("vexelapp" when null or empty), "-18-" and the process id, the process's start time, a counter, and
    /// `extension`, with or without its leading dot (an empty one leaves the dot, null leaves both out).
    /// Nothing is created.
    CString generateUniqueFileName(const wchar_t* prefix, const wchar_t* extension) const;

    /// Registers a new name, made as by `generateUniqueFileName`, in the temporary directory. No file is
    /// created.
    SharedPathName insert(const wchar_t* prefix, const wchar_t* extension, bool holdHandle, bool userFlag);

    /// Registers `name` and returns it; a null name is returned unregistered. If the file is marked for
    /// deletion, the mark is taken back, though it goes on counting as unfinished work for `clear`. With
    /// `holdHandle` an existing file is held by a handle that makes the system delete the file when the
    /// handle is closed, at the latest when the process ends. `userFlag` is kept with the name for the
    /// caller's own use.
    SharedPathName insert(const SharedPathName& name, bool holdHandle, bool userFlag);

    /// Copies the file `source` into a newly registered one, which is not read-only, and returns its name. On
    /// failure the result is null and nothing is registered. `*error`, if it is given, becomes 0 on success
    /// and the system's error code on failure: `ERROR_INVALID_PARAMETER` for a null or empty `source`.
    SharedPathName insertCopy(const wchar_t* source, const wchar_t* prefix, const wchar_t* extension,
                              unsigned long* error, bool holdHandle, bool userFlag);

    /// Whether `name` is registered, marked for deletion or not; false for a null name.
    bool contains(const SharedPathName& name) const;

    /// Marks a registered file for deletion, closes its handle and leaves the deletion to the background
    /// thread, which the first call starts. The thread works when it is woken, and starting it does not wake
    /// it: files marked while it was not waiting go with the next `erase`, `clear` or `clearAll`. Where no
    /// thread can be started the file is deleted at once. Unknown, marked and null names are left alone.
    void erase(const SharedPathName& name);

    /// Forgets a file without deleting it. One that is held by a handle or marked for deletion stays.
    void release(const SharedPathName& name);

    /// Deletes the marked files now if no background thread runs, else only wakes the thread. True when no
    /// marked file is left; false when it left them to the thread.
    bool clear();

    /// Stops the background thread, then deletes every registered file, marked or not. Files that cannot be
    /// deleted stay registered. A later `erase` starts the thread anew.
    void clearAll();

private:
    struct State;

    TempFileContainer();
    ~TempFileContainer();

    std::unique_ptr<State> state_;
};

/// Remembers the temporary files it registers and hands them to the registry for deletion when it dies. Not
/// for use from several threads at once, and as a static object only in a module that stays loaded until the
/// process ends: the destructor may start the registry's thread, which unloading cannot wait for.
class VEXEL_API TempLocalFileContainer {
public:
    TempLocalFileContainer();
    /// Takes the names; `other` is empty afterwards.
    TempLocalFileContainer(TempLocalFileContainer&& other) noexcept;
    /// Takes the names of `other`. The names held before are dropped, not handed over for deletion: they stay
    /// registered until the process ends.
    TempLocalFileContainer& operator=(TempLocalFileContainer&& other) noexcept;
    TempLocalFileContainer(const TempLocalFileContainer&) = delete;
    TempLocalFileContainer& operator=(const TempLocalFileContainer&) = delete;
    /// Calls `TempFileContainer::erase` for each name, in the order they were added.
    ~TempLocalFileContainer();

    /// These do what the `insert` functions of the registry do, and remember the name.
    SharedPathName Add(const SharedPathName& name, bool holdHandle, bool userFlag);
    SharedPathName Add(const wchar_t* prefix, const wchar_t* extension, bool holdHandle, bool userFlag);

    /// Does what `TempFileContainer::insertCopy` does, and remembers the name unless it is null.
    SharedPathName AddCopy(const wchar_t* source, const wchar_t* prefix, const wchar_t* extension,
                           unsigned long* error, bool holdHandle, bool userFlag);

private:
    std::vector<SharedPathName> names_;
};
