#include "Qx.HostCuda/Runtime/Errors.h"

#include "Qx.HostCuda/Runtime/Fault.h"

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

#define QX_ERROR(name, text)                                                                                           \
    {                                                                                                                  \
        cudaError##name, "cudaError" #name, text                                                                       \
    }

// Ordered by code.
constexpr SErrorRow c_vErrors[] = {
    {cudaSuccess, "cudaSuccess", "no error"},
    QX_ERROR(InvalidValue, "invalid argument"),
    QX_ERROR(MemoryAllocation, "out of memory"),
    QX_ERROR(InitializationError, "initialization error"),
    QX_ERROR(CudartUnloading, "driver shutting down"),
    QX_ERROR(ProfilerDisabled, "profiler disabled while using external profiling tool"),
    QX_ERROR(ProfilerNotInitialized, "profiler not initialized: call cudaProfilerInitialize()"),
    QX_ERROR(ProfilerAlreadyStarted, "profiler already started"),
    QX_ERROR(ProfilerAlreadyStopped, "profiler already stopped"),
    QX_ERROR(InvalidConfiguration, "invalid configuration argument"),
    QX_ERROR(InvalidPitchValue, "invalid pitch argument"),
    QX_ERROR(InvalidSymbol, "invalid device symbol"),
    QX_ERROR(InvalidHostPointer, "invalid host pointer"),
    QX_ERROR(InvalidDevicePointer, "invalid device pointer"),
    QX_ERROR(InvalidTexture, "invalid texture reference"),
    QX_ERROR(InvalidTextureBinding, "texture is not bound to a pointer"),
    QX_ERROR(InvalidChannelDescriptor, "invalid channel descriptor"),
    QX_ERROR(InvalidMemcpyDirection, "invalid copy direction for memcpy"),
    QX_ERROR(AddressOfConstant, "invalid address of constant"),
    QX_ERROR(TextureFetchFailed, "fetch from texture failed"),
    QX_ERROR(TextureNotBound, "cannot fetch from a texture that is not bound"),
    QX_ERROR(SynchronizationError, "incorrect use of __syncthreads()"),
    QX_ERROR(InvalidFilterSetting, "linear filtering not supported for non-float type"),
    QX_ERROR(InvalidNormSetting, "read as normalized float not supported for data type"),
    QX_ERROR(MixedDeviceExecution, "device emulation mode and device execution mode cannot be mixed"),
    QX_ERROR(NotYetImplemented, "feature not yet implemented"),
    QX_ERROR(MemoryValueTooLarge, "memory size or pointer value too large to fit in 32 bit"),
    QX_ERROR(StubLibrary, "CUDA driver is a stub library"),
    QX_ERROR(InsufficientDriver, "CUDA driver version is insufficient for CUDA runtime version"),
    QX_ERROR(CallRequiresNewerDriver, "API call is not supported in the installed CUDA driver"),
    QX_ERROR(InvalidSurface, "invalid surface reference"),
    QX_ERROR(DuplicateVariableName, "duplicate global variable looked up by string name"),
    QX_ERROR(DuplicateTextureName, "duplicate texture looked up by string name"),
    QX_ERROR(DuplicateSurfaceName, "duplicate surface looked up by string name"),
    QX_ERROR(DevicesUnavailable, "CUDA-capable device(s) is/are busy or unavailable"),
    QX_ERROR(IncompatibleDriverContext, "incompatible driver context"),
    QX_ERROR(MissingConfiguration, "__global__ function call is not configured"),
    QX_ERROR(PriorLaunchFailure, "unspecified launch failure in prior launch"),
    QX_ERROR(LaunchMaxDepthExceeded, "launch would exceed maximum depth of nested launches"),
    QX_ERROR(LaunchFileScopedTex,
        "launch failed because kernel uses unsupported, file-scoped textures (texture objects are supported)"),
    QX_ERROR(LaunchFileScopedSurf,
        "launch failed because kernel uses unsupported, file-scoped surfaces (surface objects are supported)"),
    QX_ERROR(SyncDepthExceeded,
        "cudaDeviceSynchronize failed because caller's grid depth exceeds cudaLimitDevRuntimeSyncDepth"),
    QX_ERROR(
        LaunchPendingCountExceeded, "launch failed because launch would exceed cudaLimitDevRuntimePendingLaunchCount"),
    QX_ERROR(InvalidDeviceFunction, "invalid device function"),
    QX_ERROR(NoDevice, "no CUDA-capable device is detected"),
    QX_ERROR(InvalidDevice, "invalid device ordinal"),
    QX_ERROR(DeviceNotLicensed, "device doesn't have valid Grid license"),
    QX_ERROR(SoftwareValidityNotEstablished, "integrity checks failed"),
    QX_ERROR(StartupFailure, "startup failure in cuda runtime"),
    QX_ERROR(InvalidKernelImage, "device kernel image is invalid"),
    QX_ERROR(DeviceUninitialized, "invalid device context"),
    QX_ERROR(MapBufferObjectFailed, "mapping of buffer object failed"),
    QX_ERROR(UnmapBufferObjectFailed, "unmapping of buffer object failed"),
    QX_ERROR(ArrayIsMapped, "array is mapped"),
    QX_ERROR(AlreadyMapped, "resource already mapped"),
    QX_ERROR(NoKernelImageForDevice, "no kernel image is available for execution on the device"),
    QX_ERROR(AlreadyAcquired, "resource already acquired"),
    QX_ERROR(NotMapped, "resource not mapped"),
    QX_ERROR(NotMappedAsArray, "resource not mapped as array"),
    QX_ERROR(NotMappedAsPointer, "resource not mapped as pointer"),
    QX_ERROR(ECCUncorrectable, "uncorrectable ECC error encountered"),
    QX_ERROR(UnsupportedLimit, "limit is not supported on this architecture"),
    QX_ERROR(DeviceAlreadyInUse, "exclusive-thread device already in use by a different thread"),
    QX_ERROR(PeerAccessUnsupported, "peer access is not supported between these two devices"),
    QX_ERROR(InvalidPtx, "a PTX JIT compilation failed"),
    QX_ERROR(InvalidGraphicsContext, "invalid OpenGL or DirectX context"),
    QX_ERROR(NvlinkUncorrectable, "uncorrectable NVLink error detected during the execution"),
    QX_ERROR(JitCompilerNotFound, "PTX JIT compiler library not found"),
    QX_ERROR(UnsupportedPtxVersion, "the provided PTX was compiled with an unsupported toolchain."),
    QX_ERROR(JitCompilationDisabled, "PTX JIT compilation was disabled"),
    QX_ERROR(UnsupportedExecAffinity, "the provided execution affinity is not supported"),
    QX_ERROR(UnsupportedDevSideSync, "the provided PTX contains unsupported call to cudaDeviceSynchronize"),
    QX_ERROR(Contained, "Invalid access of peer GPU memory over nvlink or a hardware error"),
    QX_ERROR(InvalidSource, "device kernel image is invalid"),
    QX_ERROR(FileNotFound, "file not found"),
    QX_ERROR(SharedObjectSymbolNotFound, "shared object symbol not found"),
    QX_ERROR(SharedObjectInitFailed, "shared object initialization failed"),
    QX_ERROR(OperatingSystem, "OS call failed or operation not supported on this OS"),
    QX_ERROR(InvalidResourceHandle, "invalid resource handle"),
    QX_ERROR(IllegalState, "the operation cannot be performed in the present state"),
    QX_ERROR(LossyQuery, "attempted introspection would be semantically lossy"),
    QX_ERROR(SymbolNotFound, "named symbol not found"),
    QX_ERROR(NotReady, "device not ready"),
    QX_ERROR(IllegalAddress, "an illegal memory access was encountered"),
    QX_ERROR(LaunchOutOfResources, "too many resources requested for launch"),
    QX_ERROR(LaunchTimeout, "the launch timed out and was terminated"),
    QX_ERROR(LaunchIncompatibleTexturing, "launch uses incompatible texturing mode"),
    QX_ERROR(PeerAccessAlreadyEnabled, "peer access is already enabled"),
    QX_ERROR(PeerAccessNotEnabled, "peer access has not been enabled"),
    QX_ERROR(SetOnActiveProcess, "cannot set while device is active in this process"),
    QX_ERROR(ContextIsDestroyed, "context is destroyed"),
    QX_ERROR(Assert, "device-side assert triggered"),
    QX_ERROR(TooManyPeers, "peer mapping resources exhausted"),
    QX_ERROR(HostMemoryAlreadyRegistered, "part or all of the requested memory range is already mapped"),
    QX_ERROR(HostMemoryNotRegistered, "pointer does not correspond to a registered memory region"),
    QX_ERROR(HardwareStackError, "hardware stack error"),
    QX_ERROR(IllegalInstruction, "an illegal instruction was encountered"),
    QX_ERROR(MisalignedAddress, "misaligned address"),
    QX_ERROR(InvalidAddressSpace, "operation not supported on global/shared address space"),
    QX_ERROR(InvalidPc, "invalid program counter"),
    QX_ERROR(LaunchFailure, "unspecified launch failure"),
    QX_ERROR(CooperativeLaunchTooLarge, "too many blocks in cooperative launch"),
    QX_ERROR(TensorMemoryLeak, "tensor memory not completely freed"),
    QX_ERROR(NotPermitted, "operation not permitted"),
    QX_ERROR(NotSupported, "operation not supported"),
    QX_ERROR(SystemNotReady, "system not yet initialized"),
    QX_ERROR(SystemDriverMismatch, "system has unsupported display driver / cuda driver combination"),
    QX_ERROR(CompatNotSupportedOnDevice, "forward compatibility was attempted on non supported HW"),
    QX_ERROR(MpsConnectionFailed, "MPS client failed to connect to the MPS control daemon or the MPS server"),
    QX_ERROR(MpsRpcFailure, "the remote procedural call between the MPS server and the MPS client failed"),
    QX_ERROR(MpsServerNotReady, "MPS server is not ready to accept new MPS client requests"),
    QX_ERROR(MpsMaxClientsReached, "the hardware resources required to create MPS client have been exhausted"),
    QX_ERROR(
        MpsMaxConnectionsReached, "the hardware resources required to support device connections have been exhausted"),
    QX_ERROR(MpsClientTerminated, "the MPS client has been terminated by the server"),
    QX_ERROR(CdpNotSupported,
        "is using CUDA Dynamic Parallelism, but the current configuration, like MPS, does not support it"),
    QX_ERROR(CdpVersionMismatch, "unsupported interaction between different versions of CUDA Dynamic Parallelism"),
    QX_ERROR(StreamCaptureUnsupported, "operation not permitted when stream is capturing"),
    QX_ERROR(StreamCaptureInvalidated, "operation failed due to a previous error during capture"),
    QX_ERROR(StreamCaptureMerge, "operation would result in a merge of separate capture sequences"),
    QX_ERROR(StreamCaptureUnmatched, "capture was not ended in the same stream as it began"),
    QX_ERROR(StreamCaptureUnjoined, "capturing stream has unjoined work"),
    QX_ERROR(StreamCaptureIsolation, "dependency created on uncaptured work in another stream"),
    QX_ERROR(StreamCaptureImplicit, "operation would make the legacy stream depend on a capturing blocking stream"),
    QX_ERROR(CapturedEvent, "operation not permitted on an event last recorded in a capturing stream"),
    QX_ERROR(StreamCaptureWrongThread, "attempt to terminate a thread-local capture sequence from another thread"),
    QX_ERROR(Timeout, "wait operation timed out"),
    QX_ERROR(GraphExecUpdateFailure,
        "the graph update was not performed because it included changes "
        "which violated constraints specific to instantiated graph update"),
    QX_ERROR(ExternalDevice, "an async error has occured in external entity outside of CUDA"),
    QX_ERROR(InvalidClusterSize, "a kernel launch error has occurred due to cluster misconfiguration"),
    QX_ERROR(
        FunctionNotLoaded, "the function handle is not loaded when calling an API that requires a loaded function"),
    QX_ERROR(InvalidResourceType, "one or more resources passed in are not valid resource types for the operation"),
    QX_ERROR(
        InvalidResourceConfiguration, "one or more resources are insufficient or non-applicable for the operation"),
    QX_ERROR(Unknown, "unknown error"),
};

#undef QX_ERROR

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
