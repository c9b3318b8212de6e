#include "RuntimeFacts.h"

#include <cublas_v2.h>
#include <cuda_runtime_api.h>

#include <type_traits>

// Compiled twice: against the stand-in's headers and against the toolkit's. QX_FACTS is the name of the function that
// gives the answers of one of them.

#define QX_FACT(value)                                                                                                 \
    {                                                                                                                  \
#value, static_cast < long long>(value)                                                                        \
    }

// The same text must hold for both.
static_assert(std::is_same_v<decltype(cudaGetLastError), cudaError_t()>);
static_assert(std::is_same_v<decltype(cudaPeekAtLastError), cudaError_t()>);
static_assert(std::is_same_v<decltype(cudaGetErrorName), const char*(cudaError_t)>);
static_assert(std::is_same_v<decltype(cudaGetErrorString), const char*(cudaError_t)>);
static_assert(std::is_same_v<decltype(cudaGetDeviceCount), cudaError_t(int*)>);
static_assert(std::is_same_v<decltype(cudaGetDevice), cudaError_t(int*)>);
static_assert(std::is_same_v<decltype(cudaSetDevice), cudaError_t(int)>);
static_assert(std::is_same_v<decltype(cudaDeviceSynchronize), cudaError_t()>);
static_assert(std::is_same_v<decltype(cudaDeviceReset), cudaError_t()>);
static_assert(std::is_same_v<decltype(cudaDeviceGetAttribute), cudaError_t(int*, cudaDeviceAttr, int)>);
static_assert(std::is_same_v<decltype(cudaGetDeviceProperties), cudaError_t(cudaDeviceProp*, int)>);
static_assert(std::is_same_v<decltype(cudaDriverGetVersion), cudaError_t(int*)>);
static_assert(std::is_same_v<decltype(cudaRuntimeGetVersion), cudaError_t(int*)>);
static_assert(std::is_same_v<decltype(cudaMemGetInfo), cudaError_t(size_t*, size_t*)>);
static_assert(std::is_same_v<decltype(cudaMalloc), cudaError_t(void**, size_t)>);
static_assert(std::is_same_v<decltype(cudaMallocPitch), cudaError_t(void**, size_t*, size_t, size_t)>);
static_assert(std::is_same_v<decltype(cudaMallocManaged), cudaError_t(void**, size_t, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaHostAlloc), cudaError_t(void**, size_t, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaMallocHost), cudaError_t(void**, size_t)>);
static_assert(std::is_same_v<decltype(cudaHostGetDevicePointer), cudaError_t(void**, void*, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaFree), cudaError_t(void*)>);
static_assert(std::is_same_v<decltype(cudaFreeHost), cudaError_t(void*)>);
static_assert(
    std::is_same_v<decltype(cudaCreateChannelDesc), cudaChannelFormatDesc(int, int, int, int, cudaChannelFormatKind)>);
static_assert(std::is_same_v<decltype(cudaMallocArray),
                             cudaError_t(cudaArray_t*, const cudaChannelFormatDesc*, size_t, size_t, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaFreeArray), cudaError_t(cudaArray_t)>);
static_assert(std::is_same_v<decltype(cudaArrayGetInfo),
                             cudaError_t(cudaChannelFormatDesc*, cudaExtent*, unsigned int*, cudaArray_t)>);
static_assert(std::is_same_v<decltype(cudaPointerGetAttributes), cudaError_t(cudaPointerAttributes*, const void*)>);
static_assert(std::is_same_v<decltype(cudaMemcpy), cudaError_t(void*, const void*, size_t, cudaMemcpyKind)>);
static_assert(
    std::is_same_v<decltype(cudaMemcpyAsync), cudaError_t(void*, const void*, size_t, cudaMemcpyKind, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaMemcpy2D),
                             cudaError_t(void*, size_t, const void*, size_t, size_t, size_t, cudaMemcpyKind)>);
static_assert(std::is_same_v<decltype(cudaMemcpy2DAsync), cudaError_t(void*, size_t, const void*, size_t, size_t,
                                                                      size_t, cudaMemcpyKind, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaMemset), cudaError_t(void*, int, size_t)>);
static_assert(std::is_same_v<decltype(cudaMemsetAsync), cudaError_t(void*, int, size_t, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaMemset2D), cudaError_t(void*, size_t, int, size_t, size_t)>);
static_assert(
    std::is_same_v<decltype(cudaMemset2DAsync), cudaError_t(void*, size_t, int, size_t, size_t, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaMemcpyToSymbol),
                             cudaError_t(const void*, const void*, size_t, size_t, cudaMemcpyKind)>);
static_assert(std::is_same_v<decltype(cudaMemcpyToSymbolAsync),
                             cudaError_t(const void*, const void*, size_t, size_t, cudaMemcpyKind, cudaStream_t)>);
static_assert(
    std::is_same_v<decltype(cudaMemcpyFromSymbol), cudaError_t(void*, const void*, size_t, size_t, cudaMemcpyKind)>);
static_assert(std::is_same_v<decltype(cudaMemcpyFromSymbolAsync),
                             cudaError_t(void*, const void*, size_t, size_t, cudaMemcpyKind, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaStreamCreate), cudaError_t(cudaStream_t*)>);
static_assert(std::is_same_v<decltype(cudaStreamCreateWithFlags), cudaError_t(cudaStream_t*, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaStreamDestroy), cudaError_t(cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaStreamSynchronize), cudaError_t(cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaStreamQuery), cudaError_t(cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaStreamWaitEvent), cudaError_t(cudaStream_t, cudaEvent_t, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaLaunchHostFunc), cudaError_t(cudaStream_t, cudaHostFn_t, void*)>);
static_assert(std::is_same_v<decltype(cudaEventCreate), cudaError_t(cudaEvent_t*)>);
static_assert(std::is_same_v<decltype(cudaEventCreateWithFlags), cudaError_t(cudaEvent_t*, unsigned int)>);
static_assert(std::is_same_v<decltype(cudaEventDestroy), cudaError_t(cudaEvent_t)>);
static_assert(std::is_same_v<decltype(cudaEventRecord), cudaError_t(cudaEvent_t, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cudaEventSynchronize), cudaError_t(cudaEvent_t)>);
static_assert(std::is_same_v<decltype(cudaEventQuery), cudaError_t(cudaEvent_t)>);
static_assert(std::is_same_v<decltype(cudaEventElapsedTime), cudaError_t(float*, cudaEvent_t, cudaEvent_t)>);
static_assert(std::is_same_v<decltype(cublasCreate), cublasStatus_t(cublasHandle_t*)>);
static_assert(std::is_same_v<decltype(cublasDestroy), cublasStatus_t(cublasHandle_t)>);
static_assert(std::is_same_v<decltype(cublasSetStream), cublasStatus_t(cublasHandle_t, cudaStream_t)>);
static_assert(std::is_same_v<decltype(cublasGetStream), cublasStatus_t(cublasHandle_t, cudaStream_t*)>);
static_assert(std::is_same_v<decltype(cublasSetPointerMode), cublasStatus_t(cublasHandle_t, cublasPointerMode_t)>);
static_assert(std::is_same_v<decltype(cublasGetPointerMode), cublasStatus_t(cublasHandle_t, cublasPointerMode_t*)>);
static_assert(std::is_same_v<decltype(cublasGetStatusName), const char*(cublasStatus_t)>);
static_assert(std::is_same_v<decltype(cublasGetStatusString), const char*(cublasStatus_t)>);
template <typename T>
using Asum = cublasStatus_t(cublasHandle_t, int, const T*, int, T*);
template <typename T>
using Gemv = cublasStatus_t(cublasHandle_t, cublasOperation_t, int, int, const T*, const T*, int, const T*, int,
                            const T*, T*, int);
template <typename T>
using Syrk = cublasStatus_t(cublasHandle_t, cublasFillMode_t, cublasOperation_t, int, int, const T*, const T*, int,
                            const T*, T*, int);
static_assert(std::is_same_v<decltype(cublasSasum), Asum<float>>);
static_assert(std::is_same_v<decltype(cublasDasum), Asum<double>>);
static_assert(std::is_same_v<decltype(cublasSgemv), Gemv<float>>);
static_assert(std::is_same_v<decltype(cublasDgemv), Gemv<double>>);
static_assert(std::is_same_v<decltype(cublasSsyrk), Syrk<float>>);
static_assert(std::is_same_v<decltype(cublasDsyrk), Syrk<double>>);
static_assert(std::is_same_v<cublasHandle_t, cublasContext*>);

// Default arguments.
static_assert(std::is_same_v<cudaError_t, decltype(cudaMallocManaged(nullptr, 1))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMallocArray(nullptr, nullptr, 1))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMemcpyAsync(nullptr, nullptr, 1, cudaMemcpyDefault))>);
static_assert(
    std::is_same_v<cudaError_t, decltype(cudaMemcpy2DAsync(nullptr, 1, nullptr, 1, 1, 1, cudaMemcpyDefault))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMemsetAsync(nullptr, 1, 1))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMemset2DAsync(nullptr, 1, 1, 1, 1))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMemcpyToSymbol(nullptr, nullptr, 1))>);
static_assert(
    std::is_same_v<cudaError_t, decltype(cudaMemcpyToSymbolAsync(nullptr, nullptr, 1, 0, cudaMemcpyDefault))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaMemcpyFromSymbol(nullptr, nullptr, 1))>);
static_assert(
    std::is_same_v<cudaError_t, decltype(cudaMemcpyFromSymbolAsync(nullptr, nullptr, 1, 0, cudaMemcpyDefault))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaStreamWaitEvent(nullptr, nullptr))>);
static_assert(std::is_same_v<cudaError_t, decltype(cudaEventRecord(nullptr))>);
static_assert(std::is_same_v<void(void*), std::remove_pointer_t<cudaHostFn_t>>);

namespace Qx::Test
{

std::vector<SFact> QX_FACTS()
{
    return {
        QX_FACT(cudaSuccess),
        QX_FACT(cudaErrorInvalidValue),
        QX_FACT(cudaErrorMemoryAllocation),
        QX_FACT(cudaErrorInitializationError),
        QX_FACT(cudaErrorCudartUnloading),
        QX_FACT(cudaErrorProfilerDisabled),
        QX_FACT(cudaErrorProfilerNotInitialized),
        QX_FACT(cudaErrorProfilerAlreadyStarted),
        QX_FACT(cudaErrorProfilerAlreadyStopped),
        QX_FACT(cudaErrorInvalidConfiguration),
        QX_FACT(cudaErrorInvalidPitchValue),
        QX_FACT(cudaErrorInvalidSymbol),
        QX_FACT(cudaErrorInvalidHostPointer),
        QX_FACT(cudaErrorInvalidDevicePointer),
        QX_FACT(cudaErrorInvalidTexture),
        QX_FACT(cudaErrorInvalidTextureBinding),
        QX_FACT(cudaErrorInvalidChannelDescriptor),
        QX_FACT(cudaErrorInvalidMemcpyDirection),
        QX_FACT(cudaErrorAddressOfConstant),
        QX_FACT(cudaErrorTextureFetchFailed),
        QX_FACT(cudaErrorTextureNotBound),
        QX_FACT(cudaErrorSynchronizationError),
        QX_FACT(cudaErrorInvalidFilterSetting),
        QX_FACT(cudaErrorInvalidNormSetting),
        QX_FACT(cudaErrorMixedDeviceExecution),
        QX_FACT(cudaErrorNotYetImplemented),
        QX_FACT(cudaErrorMemoryValueTooLarge),
        QX_FACT(cudaErrorStubLibrary),
        QX_FACT(cudaErrorInsufficientDriver),
        QX_FACT(cudaErrorCallRequiresNewerDriver),
        QX_FACT(cudaErrorInvalidSurface),
        QX_FACT(cudaErrorDuplicateVariableName),
        QX_FACT(cudaErrorDuplicateTextureName),
        QX_FACT(cudaErrorDuplicateSurfaceName),
        QX_FACT(cudaErrorDevicesUnavailable),
        QX_FACT(cudaErrorIncompatibleDriverContext),
        QX_FACT(cudaErrorMissingConfiguration),
        QX_FACT(cudaErrorPriorLaunchFailure),
        QX_FACT(cudaErrorLaunchMaxDepthExceeded),
        QX_FACT(cudaErrorLaunchFileScopedTex),
        QX_FACT(cudaErrorLaunchFileScopedSurf),
        QX_FACT(cudaErrorSyncDepthExceeded),
        QX_FACT(cudaErrorLaunchPendingCountExceeded),
        QX_FACT(cudaErrorInvalidDeviceFunction),
        QX_FACT(cudaErrorNoDevice),
        QX_FACT(cudaErrorInvalidDevice),
        QX_FACT(cudaErrorDeviceNotLicensed),
        QX_FACT(cudaErrorSoftwareValidityNotEstablished),
        QX_FACT(cudaErrorStartupFailure),
        QX_FACT(cudaErrorInvalidKernelImage),
        QX_FACT(cudaErrorDeviceUninitialized),
        QX_FACT(cudaErrorMapBufferObjectFailed),
        QX_FACT(cudaErrorUnmapBufferObjectFailed),
        QX_FACT(cudaErrorArrayIsMapped),
        QX_FACT(cudaErrorAlreadyMapped),
        QX_FACT(cudaErrorNoKernelImageForDevice),
        QX_FACT(cudaErrorAlreadyAcquired),
        QX_FACT(cudaErrorNotMapped),
        QX_FACT(cudaErrorNotMappedAsArray),
        QX_FACT(cudaErrorNotMappedAsPointer),
        QX_FACT(cudaErrorECCUncorrectable),
        QX_FACT(cudaErrorUnsupportedLimit),
        QX_FACT(cudaErrorDeviceAlreadyInUse),
        QX_FACT(cudaErrorPeerAccessUnsupported),
        QX_FACT(cudaErrorInvalidPtx),
        QX_FACT(cudaErrorInvalidGraphicsContext),
        QX_FACT(cudaErrorNvlinkUncorrectable),
        QX_FACT(cudaErrorJitCompilerNotFound),
        QX_FACT(cudaErrorUnsupportedPtxVersion),
        QX_FACT(cudaErrorJitCompilationDisabled),
        QX_FACT(cudaErrorUnsupportedExecAffinity),
        QX_FACT(cudaErrorUnsupportedDevSideSync),
        QX_FACT(cudaErrorContained),
        QX_FACT(cudaErrorInvalidSource),
        QX_FACT(cudaErrorFileNotFound),
        QX_FACT(cudaErrorSharedObjectSymbolNotFound),
        QX_FACT(cudaErrorSharedObjectInitFailed),
        QX_FACT(cudaErrorOperatingSystem),
        QX_FACT(cudaErrorInvalidResourceHandle),
        QX_FACT(cudaErrorIllegalState),
        QX_FACT(cudaErrorLossyQuery),
        QX_FACT(cudaErrorSymbolNotFound),
        QX_FACT(cudaErrorNotReady),
        QX_FACT(cudaErrorIllegalAddress),
        QX_FACT(cudaErrorLaunchOutOfResources),
        QX_FACT(cudaErrorLaunchTimeout),
        QX_FACT(cudaErrorLaunchIncompatibleTexturing),
        QX_FACT(cudaErrorPeerAccessAlreadyEnabled),
        QX_FACT(cudaErrorPeerAccessNotEnabled),
        QX_FACT(cudaErrorSetOnActiveProcess),
        QX_FACT(cudaErrorContextIsDestroyed),
        QX_FACT(cudaErrorAssert),
        QX_FACT(cudaErrorTooManyPeers),
        QX_FACT(cudaErrorHostMemoryAlreadyRegistered),
        QX_FACT(cudaErrorHostMemoryNotRegistered),
        QX_FACT(cudaErrorHardwareStackError),
        QX_FACT(cudaErrorIllegalInstruction),
        QX_FACT(cudaErrorMisalignedAddress),
        QX_FACT(cudaErrorInvalidAddressSpace),
        QX_FACT(cudaErrorInvalidPc),
        QX_FACT(cudaErrorLaunchFailure),
        QX_FACT(cudaErrorCooperativeLaunchTooLarge),
        QX_FACT(cudaErrorTensorMemoryLeak),
        QX_FACT(cudaErrorNotPermitted),
        QX_FACT(cudaErrorNotSupported),
        QX_FACT(cudaErrorSystemNotReady),
        QX_FACT(cudaErrorSystemDriverMismatch),
        QX_FACT(cudaErrorCompatNotSupportedOnDevice),
        QX_FACT(cudaErrorMpsConnectionFailed),
        QX_FACT(cudaErrorMpsRpcFailure),
        QX_FACT(cudaErrorMpsServerNotReady),
        QX_FACT(cudaErrorMpsMaxClientsReached),
        QX_FACT(cudaErrorMpsMaxConnectionsReached),
        QX_FACT(cudaErrorMpsClientTerminated),
        QX_FACT(cudaErrorCdpNotSupported),
        QX_FACT(cudaErrorCdpVersionMismatch),
        QX_FACT(cudaErrorStreamCaptureUnsupported),
        QX_FACT(cudaErrorStreamCaptureInvalidated),
        QX_FACT(cudaErrorStreamCaptureMerge),
        QX_FACT(cudaErrorStreamCaptureUnmatched),
        QX_FACT(cudaErrorStreamCaptureUnjoined),
        QX_FACT(cudaErrorStreamCaptureIsolation),
        QX_FACT(cudaErrorStreamCaptureImplicit),
        QX_FACT(cudaErrorCapturedEvent),
        QX_FACT(cudaErrorStreamCaptureWrongThread),
        QX_FACT(cudaErrorTimeout),
        QX_FACT(cudaErrorGraphExecUpdateFailure),
        QX_FACT(cudaErrorExternalDevice),
        QX_FACT(cudaErrorInvalidClusterSize),
        QX_FACT(cudaErrorFunctionNotLoaded),
        QX_FACT(cudaErrorInvalidResourceType),
        QX_FACT(cudaErrorInvalidResourceConfiguration),
        QX_FACT(cudaErrorUnknown),
        QX_FACT(cudaMemcpyHostToHost),
        QX_FACT(cudaMemcpyHostToDevice),
        QX_FACT(cudaMemcpyDeviceToHost),
        QX_FACT(cudaMemcpyDeviceToDevice),
        QX_FACT(cudaMemcpyDefault),
        QX_FACT(cudaChannelFormatKindSigned),
        QX_FACT(cudaChannelFormatKindUnsigned),
        QX_FACT(cudaChannelFormatKindFloat),
        QX_FACT(cudaChannelFormatKindNone),
        QX_FACT(cudaChannelFormatKindNV12),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized8X1),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized8X2),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized8X4),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized16X1),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized16X2),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized16X4),
        QX_FACT(cudaChannelFormatKindSignedNormalized8X1),
        QX_FACT(cudaChannelFormatKindSignedNormalized8X2),
        QX_FACT(cudaChannelFormatKindSignedNormalized8X4),
        QX_FACT(cudaChannelFormatKindSignedNormalized16X1),
        QX_FACT(cudaChannelFormatKindSignedNormalized16X2),
        QX_FACT(cudaChannelFormatKindSignedNormalized16X4),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed1),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed1SRGB),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed2),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed2SRGB),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed3),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed3SRGB),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed4),
        QX_FACT(cudaChannelFormatKindSignedBlockCompressed4),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed5),
        QX_FACT(cudaChannelFormatKindSignedBlockCompressed5),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed6H),
        QX_FACT(cudaChannelFormatKindSignedBlockCompressed6H),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed7),
        QX_FACT(cudaChannelFormatKindUnsignedBlockCompressed7SRGB),
        QX_FACT(cudaChannelFormatKindUnsignedNormalized1010102),
        QX_FACT(cudaMemoryTypeUnregistered),
        QX_FACT(cudaMemoryTypeHost),
        QX_FACT(cudaMemoryTypeDevice),
        QX_FACT(cudaMemoryTypeManaged),
        QX_FACT(cudaDevAttrMaxThreadsPerBlock),
        QX_FACT(cudaDevAttrMaxBlockDimX),
        QX_FACT(cudaDevAttrMaxBlockDimY),
        QX_FACT(cudaDevAttrMaxBlockDimZ),
        QX_FACT(cudaDevAttrMaxGridDimX),
        QX_FACT(cudaDevAttrMaxGridDimY),
        QX_FACT(cudaDevAttrMaxGridDimZ),
        QX_FACT(cudaDevAttrMaxSharedMemoryPerBlock),
        QX_FACT(cudaDevAttrTotalConstantMemory),
        QX_FACT(cudaDevAttrWarpSize),
        QX_FACT(cudaDevAttrMaxPitch),
        QX_FACT(cudaDevAttrMaxRegistersPerBlock),
        QX_FACT(cudaDevAttrTextureAlignment),
        QX_FACT(cudaDevAttrMultiProcessorCount),
        QX_FACT(cudaDevAttrKernelExecTimeout),
        QX_FACT(cudaDevAttrIntegrated),
        QX_FACT(cudaDevAttrCanMapHostMemory),
        QX_FACT(cudaDevAttrComputeMode),
        QX_FACT(cudaDevAttrConcurrentKernels),
        QX_FACT(cudaDevAttrEccEnabled),
        QX_FACT(cudaDevAttrPciBusId),
        QX_FACT(cudaDevAttrPciDeviceId),
        QX_FACT(cudaDevAttrMaxThreadsPerMultiProcessor),
        QX_FACT(cudaDevAttrAsyncEngineCount),
        QX_FACT(cudaDevAttrUnifiedAddressing),
        QX_FACT(cudaDevAttrPciDomainId),
        QX_FACT(cudaDevAttrTexturePitchAlignment),
        QX_FACT(cudaDevAttrComputeCapabilityMajor),
        QX_FACT(cudaDevAttrComputeCapabilityMinor),
        QX_FACT(cudaDevAttrStreamPrioritiesSupported),
        QX_FACT(cudaDevAttrManagedMemory),
        QX_FACT(cudaDevAttrHostNativeAtomicSupported),
        QX_FACT(cudaDevAttrPageableMemoryAccess),
        QX_FACT(cudaDevAttrConcurrentManagedAccess),
        QX_FACT(cudaDevAttrCanUseHostPointerForRegisteredMem),
        QX_FACT(cudaDevAttrCooperativeLaunch),
        QX_FACT(cudaDevAttrHostRegisterSupported),
        QX_FACT(cudaDevAttrMemoryPoolsSupported),
        QX_FACT(CUDART_VERSION),
        QX_FACT(cudaCpuDeviceId),
        QX_FACT(cudaInvalidDeviceId),
        QX_FACT(cudaHostAllocDefault),
        QX_FACT(cudaHostAllocPortable),
        QX_FACT(cudaHostAllocMapped),
        QX_FACT(cudaHostAllocWriteCombined),
        QX_FACT(cudaMemAttachGlobal),
        QX_FACT(cudaMemAttachHost),
        QX_FACT(cudaMemAttachSingle),
        QX_FACT(cudaArrayDefault),
        QX_FACT(cudaArrayLayered),
        QX_FACT(cudaArraySurfaceLoadStore),
        QX_FACT(cudaArrayCubemap),
        QX_FACT(cudaArrayTextureGather),
        QX_FACT(cudaStreamDefault),
        QX_FACT(cudaStreamNonBlocking),
        QX_FACT(cudaEventDefault),
        QX_FACT(cudaEventBlockingSync),
        QX_FACT(cudaEventDisableTiming),
        QX_FACT(cudaEventInterprocess),
        QX_FACT(cudaEventRecordDefault),
        QX_FACT(cudaEventWaitDefault),
        QX_FACT(reinterpret_cast<std::intptr_t>(cudaStreamLegacy)),
        QX_FACT(reinterpret_cast<std::intptr_t>(cudaStreamPerThread)),
        QX_FACT(CUBLAS_STATUS_SUCCESS),
        QX_FACT(CUBLAS_STATUS_NOT_INITIALIZED),
        QX_FACT(CUBLAS_STATUS_ALLOC_FAILED),
        QX_FACT(CUBLAS_STATUS_INVALID_VALUE),
        QX_FACT(CUBLAS_STATUS_ARCH_MISMATCH),
        QX_FACT(CUBLAS_STATUS_MAPPING_ERROR),
        QX_FACT(CUBLAS_STATUS_EXECUTION_FAILED),
        QX_FACT(CUBLAS_STATUS_INTERNAL_ERROR),
        QX_FACT(CUBLAS_STATUS_NOT_SUPPORTED),
        QX_FACT(CUBLAS_STATUS_LICENSE_ERROR),
        QX_FACT(CUBLAS_FILL_MODE_LOWER),
        QX_FACT(CUBLAS_FILL_MODE_UPPER),
        QX_FACT(CUBLAS_FILL_MODE_FULL),
        QX_FACT(CUBLAS_OP_N),
        QX_FACT(CUBLAS_OP_T),
        QX_FACT(CUBLAS_OP_C),
        QX_FACT(CUBLAS_OP_HERMITAN),
        QX_FACT(CUBLAS_OP_CONJG),
        QX_FACT(CUBLAS_POINTER_MODE_HOST),
        QX_FACT(CUBLAS_POINTER_MODE_DEVICE),
        QX_FACT(sizeof(cublasStatus_t)),
        QX_FACT(sizeof(cublasOperation_t)),
        QX_FACT(sizeof(cudaError_t)),
        QX_FACT(sizeof(cudaChannelFormatDesc)),
        QX_FACT(offsetof(cudaChannelFormatDesc, w)),
        QX_FACT(offsetof(cudaChannelFormatDesc, f)),
        QX_FACT(sizeof(cudaExtent)),
        QX_FACT(offsetof(cudaExtent, depth)),
        QX_FACT(sizeof(cudaPointerAttributes)),
        QX_FACT(offsetof(cudaPointerAttributes, device)),
        QX_FACT(offsetof(cudaPointerAttributes, hostPointer)),
        QX_FACT(sizeof(uint3)),
        QX_FACT(sizeof(dim3)),
        QX_FACT(alignof(dim3)),
        QX_FACT(dim3().x),
        QX_FACT(dim3(7).y),
        QX_FACT(dim3(7, 8).z),
        QX_FACT(static_cast<uint3>(dim3(7, 8, 9)).y),
        QX_FACT(dim3(uint3{4, 5, 6}).z),
    };
}

} // namespace Qx::Test
