#include <vexel/diagnostics.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <cstdio>

// One call into each of the three DLLs.
int main() {
    const CString name = L"no such document.vxd";
    StorageRef root;
    const long status = root.open(SharedPathName(name), RootStorageOpenMode::ReadOnly, false);
    const int error = VxHResultToVexelError(status);
    std::printf("status 0x%08lx, error %d\n", static_cast<unsigned long>(status), error);
    return root.null() && error == 514 ? 0 : 1;
}
