#pragma once

#include <vexel/framework.h>

#include <windows.h>

#include <new>

namespace Vexel::Detail {

/// Runs `body` and turns exhausted memory into its status, however it was raised: by the standard library or,
/// from the interning of names, by the framework.
template <class Body>
long withStatus(const Body& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return STG_E_INSUFFICIENTMEMORY;
    } catch (CMemoryException* failure) {
        failure->Delete();
        return STG_E_INSUFFICIENTMEMORY;
    }
}

} // namespace Vexel::Detail
