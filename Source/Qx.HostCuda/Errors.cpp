#include "Qx.HostCuda/Errors.h"

#include "Qx.HostCuda/Devices.h"

#include <algorithm>
#include <array>
#include <cuda_runtime.h>
#include <iterator>

namespace Qx::HostCuda
{
namespace
{

struct SErrorRow
{
    cudaError_t eError;
    const char* pcName;
    const char* pcText;
};

#define QX_ERROR_ROW(error, text)                                                                                      \
    {                                                                                                                  \
        error, #error, text                                                                                            \
    }

// Ordered by code.
constexpr SErrorRow c_vErrors[] = {
    QX_ERROR_ROW(cudaSuccess, "no error"),
    QX_ERROR_ROW(cudaErrorInvalidValue, "invalid argument"),
    QX_ERROR_ROW(cudaErrorMemoryAllocation, "out of memory"),
    QX_ERROR_ROW(cudaErrorInitializationError, "initialization error"),
    QX_ERROR_ROW(cudaErrorCudartUnloading, "driver shutting down"),
    QX_ERROR_ROW(cudaErrorProfilerDisabled, "profiler disabled while using external profiling tool"),
    QX_ERROR_ROW(cudaErrorProfilerNotInitialized, "profiler not initialized: call cudaProfilerInitialize()"),
    QX_ERROR_ROW(cudaErrorProfilerAlreadyStarted, "profiler already started"),
    QX_ERROR_ROW(cudaErrorProfilerAlreadyStopped, "profiler already stopped"),
    QX_ERROR_ROW(cudaErrorInvalidConfiguration, "invalid configuration argument"),
    QX_ERROR_ROW(cudaErrorInvalidPitchValue, "invalid pitch argument"),
    QX_ERROR_ROW(cudaErrorInvalidSymbol, "invalid device symbol"),
    QX_ERROR_ROW(cudaErrorInvalidHostPointer, "invalid host pointer"),
    QX_ERROR_ROW(cudaErrorInvalidDevicePointer, "invalid device pointer"),
    QX_ERROR_ROW(cudaErrorInvalidTexture, "invalid texture reference"),
    QX_ERROR_ROW(cudaErrorInvalidTextureBinding, "texture is not bound to a pointer"),
    QX_ERROR_ROW(cudaErrorInvalidChannelDescriptor, "invalid channel descriptor"),
    QX_ERROR_ROW(cudaErrorInvalidMemcpyDirection, "invalid copy direction for memcpy"),
    QX_ERROR_ROW(cudaErrorAddressOfConstant, "invalid address of constant"),
    QX_ERROR_ROW(cudaErrorTextureFetchFailed, "fetch from texture failed"),
    QX_ERROR_ROW(cudaErrorTextureNotBound, "cannot fetch from a texture that is not bound"),
    QX_ERROR_ROW(cudaErrorSynchronizationError, "incorrect use of __syncthreads()"),
    QX_ERROR_ROW(cudaErrorInvalidFilterSetting, "linear filtering not supported for non-float type"),
    QX_ERROR_ROW(cudaErrorInvalidNormSetting, "read as normalized float not supported for data type"),
    QX_ERROR_ROW(cudaErrorMixedDeviceExecution, "device emulation mode and device execution mode cannot be mixed"),
    QX_ERROR_ROW(cudaErrorNotYetImplemented, "feature not yet implemented"),
    QX_ERROR_ROW(cudaErrorMemoryValueTooLarge, "memory size or pointer value too large to fit in 32 bit"),
    QX_ERROR_ROW(cudaErrorStubLibrary, "CUDA driver is a stub library"),
    QX_ERROR_ROW(cudaErrorInsufficientDriver, "CUDA driver version is insufficient for CUDA runtime version"),
    QX_ERROR_ROW(cudaErrorCallRequiresNewerDriver, "API call is not supported in the installed CUDA driver"),
    QX_ERROR_ROW(cudaErrorInvalidSurface, "invalid surface reference"),
    QX_ERROR_ROW(cudaErrorDuplicateVariableName, "duplicate global variable looked up by string name"),
    QX_ERROR_ROW(cudaErrorDuplicateTextureName, "duplicate texture looked up by string name"),
    QX_ERROR_ROW(cudaErrorDuplicateSurfaceName, "duplicate surface looked up by string name"),
    QX_ERROR_ROW(cudaErrorDevicesUnavailable, "CUDA-capable device(s) is/are busy or unavailable"),
    QX_ERROR_ROW(cudaErrorIncompatibleDriverContext, "incompatible driver context"),
    QX_ERROR_ROW(cudaErrorMissingConfiguration, "__global__ function call is not configured"),
    QX_ERROR_ROW(cudaErrorPriorLaunchFailure, "unspecified launch failure in prior launch"),
    QX_ERROR_ROW(cudaErrorLaunchMaxDepthExceeded, "launch would exceed maximum depth of nested launches"),
    QX_ERROR_ROW(cudaErrorLaunchFileScopedTex,
        "launch failed because kernel uses unsupported, file-scoped textures (texture objects are supported)"),
    QX_ERROR_ROW(cudaErrorLaunchFileScopedSurf,
        "launch failed because kernel uses unsupported, file-scoped surfaces (surface objects are supported)"),
    QX_ERROR_ROW(cudaErrorSyncDepthExceeded,
        "cudaDeviceSynchronize failed because caller's grid depth exceeds cudaLimitDevRuntimeSyncDepth"),
    QX_ERROR_ROW(cudaErrorLaunchPendingCountExceeded,
        "launch failed because launch would exceed cudaLimitDevRuntimePendingLaunchCount"),
    QX_ERROR_ROW(cudaErrorInvalidDeviceFunction, "invalid device function"),
    QX_ERROR_ROW(cudaErrorNoDevice, "no CUDA-capable device is detected"),
    QX_ERROR_ROW(cudaErrorInvalidDevice, "invalid device ordinal"),
    QX_ERROR_ROW(cudaErrorDeviceNotLicensed, "device doesn't have valid Grid license"),
    QX_ERROR_ROW(cudaErrorSoftwareValidityNotEstablished, "integrity checks failed"),
    QX_ERROR_ROW(cudaErrorStartupFailure, "startup failure in cuda runtime"),
    QX_ERROR_ROW(cudaErrorInvalidKernelImage, "device kernel image is invalid"),
    QX_ERROR_ROW(cudaErrorDeviceUninitialized, "invalid device context"),
    QX_ERROR_ROW(cudaErrorMapBufferObjectFailed, "mapping of buffer object failed"),
    QX_ERROR_ROW(cudaErrorUnmapBufferObjectFailed, "unmapping of buffer object failed"),
    QX_ERROR_ROW(cudaErrorArrayIsMapped, "array is mapped"),
    QX_ERROR_ROW(cudaErrorAlreadyMapped, "resource already mapped"),
    QX_ERROR_ROW(cudaErrorNoKernelImageForDevice, "no kernel image is available for execution on the device"),
    QX_ERROR_ROW(cudaErrorAlreadyAcquired, "resource already acquired"),
    QX_ERROR_ROW(cudaErrorNotMapped, "resource not mapped"),
    QX_ERROR_ROW(cudaErrorNotMappedAsArray, "resource not mapped as array"),
    QX_ERROR_ROW(cudaErrorNotMappedAsPointer, "resource not mapped as pointer"),
    QX_ERROR_ROW(cudaErrorECCUncorrectable, "uncorrectable ECC error encountered"),
    QX_ERROR_ROW(cudaErrorUnsupportedLimit, "limit is not supported on this architecture"),
    QX_ERROR_ROW(cudaErrorDeviceAlreadyInUse, "exclusive-thread device already in use by a different thread"),
    QX_ERROR_ROW(cudaErrorPeerAccessUnsupported, "peer access is not supported between these two devices"),
    QX_ERROR_ROW(cudaErrorInvalidPtx, "a PTX JIT compilation failed"),
    QX_ERROR_ROW(cudaErrorInvalidGraphicsContext, "invalid OpenGL or DirectX context"),
    QX_ERROR_ROW(cudaErrorNvlinkUncorrectable, "uncorrectable NVLink error detected during the execution"),
    QX_ERROR_ROW(cudaErrorJitCompilerNotFound, "PTX JIT compiler library not found"),
    QX_ERROR_ROW(cudaErrorUnsupportedPtxVersion, "the provided PTX was compiled with an unsupported toolchain."),
    QX_ERROR_ROW(cudaErrorJitCompilationDisabled, "PTX JIT compilation was disabled"),
    QX_ERROR_ROW(cudaErrorUnsupportedExecAffinity, "the provided execution affinity is not supported"),
    QX_ERROR_ROW(
        cudaErrorUnsupportedDevSideSync, "the provided PTX contains unsupported call to cudaDeviceSynchronize"),
    QX_ERROR_ROW(cudaErrorContained, "Invalid access of peer GPU memory over nvlink or a hardware error"),
    QX_ERROR_ROW(cudaErrorInvalidSource, "device kernel image is invalid"),
    QX_ERROR_ROW(cudaErrorFileNotFound, "file not found"),
    QX_ERROR_ROW(cudaErrorSharedObjectSymbolNotFound, "shared object symbol not found"),
    QX_ERROR_ROW(cudaErrorSharedObjectInitFailed, "shared object initialization failed"),
    QX_ERROR_ROW(cudaErrorOperatingSystem, "OS call failed or operation not supported on this OS"),
    QX_ERROR_ROW(cudaErrorInvalidResourceHandle, "invalid resource handle"),
    QX_ERROR_ROW(cudaErrorIllegalState, "the operation cannot be performed in the present state"),
    QX_ERROR_ROW(cudaErrorLossyQuery, "attempted introspection would be semantically lossy"),
    QX_ERROR_ROW(cudaErrorSymbolNotFound, "named symbol not found"),
    QX_ERROR_ROW(cudaErrorNotReady, "device not ready"),
    QX_ERROR_ROW(cudaErrorIllegalAddress, "an illegal memory access was encountered"),
    QX_ERROR_ROW(cudaErrorLaunchOutOfResources, "too many resources requested for launch"),
    QX_ERROR_ROW(cudaErrorLaunchTimeout, "the launch timed out and was terminated"),
    QX_ERROR_ROW(cudaErrorLaunchIncompatibleTexturing, "launch uses incompatible texturing mode"),
    QX_ERROR_ROW(cudaErrorPeerAccessAlreadyEnabled, "peer access is already enabled"),
    QX_ERROR_ROW(cudaErrorPeerAccessNotEnabled, "peer access has not been enabled"),
    QX_ERROR_ROW(cudaErrorSetOnActiveProcess, "cannot set while device is active in this process"),
    QX_ERROR_ROW(cudaErrorContextIsDestroyed, "context is destroyed"),
    QX_ERROR_ROW(cudaErrorAssert, "device-side assert triggered"),
    QX_ERROR_ROW(cudaErrorTooManyPeers, "peer mapping resources exhausted"),
    QX_ERROR_ROW(cudaErrorHostMemoryAlreadyRegistered, "part or all of the requested memory range is already mapped"),
    QX_ERROR_ROW(cudaErrorHostMemoryNotRegistered, "pointer does not correspond to a registered memory region"),
    QX_ERROR_ROW(cudaErrorHardwareStackError, "hardware stack error"),
    QX_ERROR_ROW(cudaErrorIllegalInstruction, "an illegal instruction was encountered"),
    QX_ERROR_ROW(cudaErrorMisalignedAddress, "misaligned address"),
    QX_ERROR_ROW(cudaErrorInvalidAddressSpace, "operation not supported on global/shared address space"),
    QX_ERROR_ROW(cudaErrorInvalidPc, "invalid program counter"),
    QX_ERROR_ROW(cudaErrorLaunchFailure, "unspecified launch failure"),
    QX_ERROR_ROW(cudaErrorCooperativeLaunchTooLarge, "too many blocks in cooperative launch"),
    QX_ERROR_ROW(cudaErrorTensorMemoryLeak, "tensor memory not completely freed"),
    QX_ERROR_ROW(cudaErrorNotPermitted, "operation not permitted"),
    QX_ERROR_ROW(cudaErrorNotSupported, "operation not supported"),
    QX_ERROR_ROW(cudaErrorSystemNotReady, "system not yet initialized"),
    QX_ERROR_ROW(cudaErrorSystemDriverMismatch, "system has unsupported display driver / cuda driver combination"),
    QX_ERROR_ROW(cudaErrorCompatNotSupportedOnDevice, "forward compatibility was attempted on non supported HW"),
    QX_ERROR_ROW(
        cudaErrorMpsConnectionFailed, "MPS client failed to connect to the MPS control daemon or the MPS server"),
    QX_ERROR_ROW(cudaErrorMpsRpcFailure, "the remote procedural call between the MPS server and the MPS client failed"),
    QX_ERROR_ROW(cudaErrorMpsServerNotReady, "MPS server is not ready to accept new MPS client requests"),
    QX_ERROR_ROW(
        cudaErrorMpsMaxClientsReached, "the hardware resources required to create MPS client have been exhausted"),
    QX_ERROR_ROW(cudaErrorMpsMaxConnectionsReached,
        "the hardware resources required to support device connections have been exhausted"),
    QX_ERROR_ROW(cudaErrorMpsClientTerminated, "the MPS client has been terminated by the server"),
    QX_ERROR_ROW(cudaErrorCdpNotSupported,
        "is using CUDA Dynamic Parallelism, but the current configuration, like MPS, does not support it"),
    QX_ERROR_ROW(
        cudaErrorCdpVersionMismatch, "unsupported interaction between different versions of CUDA Dynamic Parallelism"),
    QX_ERROR_ROW(cudaErrorStreamCaptureUnsupported, "operation not permitted when stream is capturing"),
    QX_ERROR_ROW(cudaErrorStreamCaptureInvalidated, "operation failed due to a previous error during capture"),
    QX_ERROR_ROW(cudaErrorStreamCaptureMerge, "operation would result in a merge of separate capture sequences"),
    QX_ERROR_ROW(cudaErrorStreamCaptureUnmatched, "capture was not ended in the same stream as it began"),
    QX_ERROR_ROW(cudaErrorStreamCaptureUnjoined, "capturing stream has unjoined work"),
    QX_ERROR_ROW(cudaErrorStreamCaptureIsolation, "dependency created on uncaptured work in another stream"),
    QX_ERROR_ROW(
        cudaErrorStreamCaptureImplicit, "operation would make the legacy stream depend on a capturing blocking stream"),
    QX_ERROR_ROW(cudaErrorCapturedEvent, "operation not permitted on an event last recorded in a capturing stream"),
    QX_ERROR_ROW(
        cudaErrorStreamCaptureWrongThread, "attempt to terminate a thread-local capture sequence from another thread"),
    QX_ERROR_ROW(cudaErrorTimeout, "wait operation timed out"),
    QX_ERROR_ROW(cudaErrorGraphExecUpdateFailure,
        "the graph update was not performed because it included changes "
        "which violated constraints specific to instantiated graph update"),
    QX_ERROR_ROW(cudaErrorExternalDevice, "an async error has occured in external entity outside of CUDA"),
    QX_ERROR_ROW(cudaErrorInvalidClusterSize, "a kernel launch error has occurred due to cluster misconfiguration"),
    QX_ERROR_ROW(cudaErrorFunctionNotLoaded,
        "the function handle is not loaded when calling an API that requires a loaded function"),
    QX_ERROR_ROW(
        cudaErrorInvalidResourceType, "one or more resources passed in are not valid resource types for the operation"),
    QX_ERROR_ROW(cudaErrorInvalidResourceConfiguration,
        "one or more resources are insufficient or non-applicable for the operation"),
    QX_ERROR_ROW(cudaErrorUnknown, "unknown error"),
};

#undef QX_ERROR_ROW

static_assert(std::size(c_vErrors) == 133);
static_assert(std::ranges::is_sorted(c_vErrors, {}, &SErrorRow::eError));

constexpr const char* c_pcUnknownError = "unrecognized error code";

const SErrorRow* _FindError(cudaError_t eError) noexcept
{
    const SErrorRow* const pRow = std::ranges::lower_bound(c_vErrors, eError, {}, &SErrorRow::eError);
    return pRow != std::end(c_vErrors) && pRow->eError == eError ? pRow : nullptr;
}

} // namespace

cudaError_t Refuse(cudaError_t eError) noexcept
{
    // A fault belongs to the device. Not copied into the thread, it ends for all threads with cudaDeviceReset.
    if (eError != cudaSuccess && eError != GetCurrentFault())
    {
        ThisThread().eLastError = eError;
    }
    return eError;
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaGetLastError()
{
    const cudaError_t eError = cudaPeekAtLastError();
    ThisThread().eLastError = cudaSuccess;
    return eError;
}

cudaError_t cudaPeekAtLastError()
{
    const cudaError_t eFault = GetCurrentFault();
    return eFault != cudaSuccess ? eFault : ThisThread().eLastError;
}

const char* cudaGetErrorName(cudaError_t error)
{
    const auto* const pRow = _FindError(error);
    return pRow != nullptr ? pRow->pcName : c_pcUnknownError;
}

const char* cudaGetErrorString(cudaError_t error)
{
    const auto* const pRow = _FindError(error);
    return pRow != nullptr ? pRow->pcText : c_pcUnknownError;
}
