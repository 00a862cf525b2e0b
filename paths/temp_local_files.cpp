// A list of names that its owner wants deleted. All else is the registry's.

#include <vexel/temp_files.h>

#include <utility>

TempLocalFileContainer::TempLocalFileContainer() {
    // A container that lives as long as the process needs the registry in its destructor.
    TempFileContainer::Instance();
}

TempLocalFileContainer::TempLocalFileContainer(TempLocalFileContainer&& other) noexcept
    : names_(std::exchange(other.names_, {})) {}

TempLocalFileContainer& TempLocalFileContainer::operator=(TempLocalFileContainer&& other) noexcept {
    // Unlike the destructor: an assignment hands nothing over for deletion.
    if (this != &other)
        names_ = std::exchange(other.names_, {});
    return *this;
}

TempLocalFileContainer::~TempLocalFileContainer() {
    for (const SharedPathName& name : names_)
        TempFileContainer::Instance().erase(name);
}

// The place for the name is made first, so that a file is never registered and then forgotten for want of
// memory.

SharedPathName TempLocalFileContainer::Add(const SharedPathName& name, bool holdHandle, bool userFlag) {
    SharedPathName& added = names_.emplace_back();
    added = TempFileContainer::Instance().insert(name, holdHandle, userFlag);
    return added;
}

SharedPathName TempLocalFileContainer::Add(const wchar_t* prefix, const wchar_t* extension, bool holdHandle,
                                           bool userFlag) {
    SharedPathName& added = names_.emplace_back();
    added = TempFileContainer::Instance().insert(prefix, extension, holdHandle, userFlag);
    return added;
}

SharedPathName TempLocalFileContainer::AddCopy(const wchar_t* source, const wchar_t* prefix,
                                               const wchar_t* extension, unsigned long* error,
                                               bool holdHandle, bool userFlag) {
    SharedPathName& added = names_.emplace_back();
    added = TempFileContainer::Instance().insertCopy(source, prefix, extension, error, holdHandle, userFlag);
    SharedPathName result = added;
    if (result.empty())
        names_.pop_back();
    return result;
}
