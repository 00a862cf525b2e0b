#include "storage/handles/root_factory.h"

#include "base/platform.h"
#include "storage/compound/compound_storage.h"
#include "storage/package/package_storage.h"

std::unique_ptr<VxStorage> Vexel::Detail::makeRoot(const SharedPathName& path, bool keyed,
                                                   const RootOperation& operation, long& status) {
    std::unique_ptr<VxStorage> root = std::make_unique<VxNativePackage>(path);
    root->setKeyed(keyed);
    status = operation(*root);
    const auto isCompoundFile = [&] { return platform().isStorageFile(path.asString()); };
    if ((status == STG_E_INVALIDHEADER || status == STG_E_SHAREVIOLATION) &&
        root->callTwiceIfExhausted(isCompoundFile) == S_OK) {
        root = std::make_unique<VxCompoundStorage>(path);
        root->setKeyed(keyed);
        status = operation(*root);
    }
    return SUCCEEDED(status) ? std::move(root) : nullptr;
}
