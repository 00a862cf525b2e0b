// Packages come first because new files are packages, and because reading one says at once whether a file is
// none. A file that others hold may be a compound file, too, although the package could not be read: that is
// the second status that leads to the other format.

#include "storage/handles/root_factory.h"

#include "base/platform.h"
#include "storage/compound/compound_storage.h"
#include "storage/package/package_storage.h"

namespace Vexel::Detail {

namespace {

template <class Root>
std::unique_ptr<VxStorage> closedRoot(const NewRoot& wanted) {
    auto root = std::make_unique<Root>(wanted.path);
    root->setKeyed(wanted.keyed);
    root->setKeeper(wanted.keeper);
    return root;
}

} // namespace

std::unique_ptr<VxStorage> makeRoot(const NewRoot& wanted, const RootOperation& operation, long& status) {
    auto root = closedRoot<VxNativePackage>(wanted);
    status = operation(*root);
    const auto isCompoundFile = [&] { return platform().isStorageFile(wanted.path.asString()); };
    if ((status == STG_E_INVALIDHEADER || status == STG_E_SHAREVIOLATION) &&
        root->callTwiceIfExhausted(isCompoundFile) == S_OK) {
        root = closedRoot<VxCompoundStorage>(wanted);
        status = operation(*root);
    }
    return SUCCEEDED(status) ? std::move(root) : nullptr;
}

} // namespace Vexel::Detail
