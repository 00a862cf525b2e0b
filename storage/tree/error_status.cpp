// Errors of the standard library as statuses. Those of the system's category keep their code; a portable
// condition gets the code of the storage facility that says the same.

#include "storage/tree/error_status.h"

#include <utility>

HRESULT Vexel::Detail::statusOf(const std::error_code& error) noexcept {
    if (!error)
        return S_OK;
    if (error.category() == std::system_category())
        return HRESULT_FROM_WIN32(static_cast<DWORD>(error.value()));

    static constexpr std::pair<std::errc, HRESULT> kConditions[] = {
        {std::errc::no_such_file_or_directory, STG_E_FILENOTFOUND},
        {std::errc::not_enough_memory, STG_E_INSUFFICIENTMEMORY},
        {std::errc::permission_denied, STG_E_ACCESSDENIED},
        {std::errc::not_a_directory, STG_E_PATHNOTFOUND},
        {std::errc::is_a_directory, STG_E_INVALIDFUNCTION},
        {std::errc::too_many_files_open_in_system, STG_E_TOOMANYOPENFILES},
        {std::errc::too_many_files_open, STG_E_TOOMANYOPENFILES},
        {std::errc::filename_too_long, STG_E_INVALIDNAME},
    };
    for (const auto& [condition, status] : kConditions) {
        if (error == condition)
            return status;
    }
    return E_FAIL;
}

bool Vexel::Detail::isExhausted(HRESULT status) noexcept {
    constexpr HRESULT kOutOfMemory = 8; // whatever the facility
    return status == STG_E_TOOMANYOPENFILES || (FAILED(status) && HRESULT_CODE(status) == kOutOfMemory);
}
