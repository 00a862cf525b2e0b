#pragma once

#include "archive/engine_api.h"

#include <new>

namespace Vexel::Storage::Engine {

/// Runs a piece of the engine, which tells of some faults by exceptions: of exhausted memory, of failed calls
/// with their status, and of contradictions in what it reads or is to write by plain numbers and texts.
template <class Body>
HRESULT withEngine(HRESULT onContradiction, const Body& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return STG_E_INSUFFICIENTMEMORY;
    } catch (const CSystemException& failure) {
        return FAILED(failure.ErrorCode) ? failure.ErrorCode : onContradiction;
    } catch (int) {
        return onContradiction;
    } catch (const char*) {
        return onContradiction;
    }
}

} // namespace Vexel::Storage::Engine
