#include <algorithm>
#include <cublas_v2.h>
#include <iterator>

namespace
{

struct SStatusRow
{
    cublasStatus_t eStatus;
    const char* pcName;
    const char* pcText;
};

#define QX_STATUS_ROW(status, text)                                                                                    \
    {                                                                                                                  \
        status, #status, text                                                                                          \
    }

constexpr SStatusRow c_vStatus[] = {
    QX_STATUS_ROW(CUBLAS_STATUS_SUCCESS, "success"),
    QX_STATUS_ROW(CUBLAS_STATUS_NOT_INITIALIZED, "the library was not initialized"),
    QX_STATUS_ROW(CUBLAS_STATUS_ALLOC_FAILED, "the resource allocation failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_INVALID_VALUE, "an unsupported value or parameter was passed to the function"),
    QX_STATUS_ROW(CUBLAS_STATUS_ARCH_MISMATCH, "the function requires an architectural feature absent from the device"),
    QX_STATUS_ROW(CUBLAS_STATUS_MAPPING_ERROR, "an access to GPU memory space failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_EXECUTION_FAILED, "the function failed to launch on the GPU"),
    QX_STATUS_ROW(CUBLAS_STATUS_INTERNAL_ERROR, "an internal operation failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_NOT_SUPPORTED, "the requested functionality is not supported"),
    QX_STATUS_ROW(CUBLAS_STATUS_LICENSE_ERROR, "the license check failed"),
};

constexpr const char* c_pcUnknown = "unrecognized status";

/// The row of a status; null for a value that is none.
const SStatusRow* _FindStatus(cublasStatus_t eStatus) noexcept
{
    const auto* const pRow = std::ranges::find(c_vStatus, eStatus, &SStatusRow::eStatus);
    return pRow != std::end(c_vStatus) ? pRow : nullptr;
}

} // namespace

const char* cublasGetStatusName(cublasStatus_t status)
{
    const SStatusRow* const pRow = _FindStatus(status);
    return pRow != nullptr ? pRow->pcName : c_pcUnknown;
}

const char* cublasGetStatusString(cublasStatus_t status)
{
    const SStatusRow* const pRow = _FindStatus(status);
    return pRow != nullptr ? pRow->pcText : c_pcUnknown;
}
