#pragma once

// The C interface of the CUDA runtime, version 13.0, as far as the host stand-in offers it. Names, values, argument
// order and error codes are those of the runtime, so that a client compiles unchanged for either. The header is valid
// C.
//
// Rules that hold for every call unless its comment says otherwise:
// - A call that fails writes none of its outputs and becomes the calling thread's last error.
// - Sizes are in bytes. A null stream is the legacy default stream of the calling thread's current device.
// - Calls may be made from any thread at any time, also while the process exits, but not from a function that was
//   queued with cudaLaunchHostFunc (cudaErrorNotPermitted).
// - Where there is no device, all but the queries of version and error text return cudaErrorNoDevice.
// - Once a device has a fault, calls that concern it return the fault's code until cudaDeviceReset; only the queries
//   of device, version and error text still answer.

#include <stddef.h>

/// Tells the stand-in from the toolkit's runtime at compile time.
#define QX_HOSTCUDA 1

/// Version of the runtime interface: 1000 * major + 10 * minor.
#define CUDART_VERSION 13000

#define CUDARTAPI
#define CUDART_CB

#if defined(__GNUC__)
#define QX_HOSTCUDA_API __attribute__((visibility("default")))
#else
#define QX_HOSTCUDA_API
#endif

#if defined(__cplusplus)
#define QX_HOSTCUDA_CALL extern "C" QX_HOSTCUDA_API
#define QX_HOSTCUDA_DEFAULT(value) = value
#else
#define QX_HOSTCUDA_CALL extern QX_HOSTCUDA_API
#define QX_HOSTCUDA_DEFAULT(value)
#endif

/// Error codes of the runtime.
enum cudaError
{
    cudaSuccess = 0,
    cudaErrorInvalidValue = 1,
    cudaErrorMemoryAllocation = 2,
    cudaErrorInitializationError = 3,
    cudaErrorCudartUnloading = 4,
    cudaErrorProfilerDisabled = 5,
    cudaErrorProfilerNotInitialized = 6,
    cudaErrorProfilerAlreadyStarted = 7,
    cudaErrorProfilerAlreadyStopped = 8,
    cudaErrorInvalidConfiguration = 9,
    cudaErrorInvalidPitchValue = 12,
    cudaErrorInvalidSymbol = 13,
    cudaErrorInvalidHostPointer = 16,
    cudaErrorInvalidDevicePointer = 17,
    cudaErrorInvalidTexture = 18,
    cudaErrorInvalidTextureBinding = 19,
    cudaErrorInvalidChannelDescriptor = 20,
    cudaErrorInvalidMemcpyDirection = 21,
    cudaErrorAddressOfConstant = 22,
    cudaErrorTextureFetchFailed = 23,
    cudaErrorTextureNotBound = 24,
    cudaErrorSynchronizationError = 25,
    cudaErrorInvalidFilterSetting = 26,
    cudaErrorInvalidNormSetting = 27,
    cudaErrorMixedDeviceExecution = 28,
    cudaErrorNotYetImplemented = 31,
    cudaErrorMemoryValueTooLarge = 32,
    cudaErrorStubLibrary = 34,
    cudaErrorInsufficientDriver = 35,
    cudaErrorCallRequiresNewerDriver = 36,
    cudaErrorInvalidSurface = 37,
    cudaErrorDuplicateVariableName = 43,
    cudaErrorDuplicateTextureName = 44,
    cudaErrorDuplicateSurfaceName = 45,
    cudaErrorDevicesUnavailable = 46,
    cudaErrorIncompatibleDriverContext = 49,
    cudaErrorMissingConfiguration = 52,
    cudaErrorPriorLaunchFailure = 53,
    cudaErrorLaunchMaxDepthExceeded = 65,
    cudaErrorLaunchFileScopedTex = 66,
    cudaErrorLaunchFileScopedSurf = 67,
    cudaErrorSyncDepthExceeded = 68,
    cudaErrorLaunchPendingCountExceeded = 69,
    cudaErrorInvalidDeviceFunction = 98,
    cudaErrorNoDevice = 100,
    cudaErrorInvalidDevice = 101,
    cudaErrorDeviceNotLicensed = 102,
    cudaErrorSoftwareValidityNotEstablished = 103,
    cudaErrorStartupFailure = 127,
    cudaErrorInvalidKernelImage = 200,
    cudaErrorDeviceUninitialized = 201,
    cudaErrorMapBufferObjectFailed = 205,
    cudaErrorUnmapBufferObjectFailed = 206,
    cudaErrorArrayIsMapped = 207,
    cudaErrorAlreadyMapped = 208,
    cudaErrorNoKernelImageForDevice = 209,
    cudaErrorAlreadyAcquired = 210,
    cudaErrorNotMapped = 211,
    cudaErrorNotMappedAsArray = 212,
    cudaErrorNotMappedAsPointer = 213,
    cudaErrorECCUncorrectable = 214,
    cudaErrorUnsupportedLimit = 215,
    cudaErrorDeviceAlreadyInUse = 216,
    cudaErrorPeerAccessUnsupported = 217,
    cudaErrorInvalidPtx = 218,
    cudaErrorInvalidGraphicsContext = 219,
    cudaErrorNvlinkUncorrectable = 220,
    cudaErrorJitCompilerNotFound = 221,
    cudaErrorUnsupportedPtxVersion = 222,
    cudaErrorJitCompilationDisabled = 223,
    cudaErrorUnsupportedExecAffinity = 224,
    cudaErrorUnsupportedDevSideSync = 225,
    cudaErrorContained = 226,
    cudaErrorInvalidSource = 300,
    cudaErrorFileNotFound = 301,
    cudaErrorSharedObjectSymbolNotFound = 302,
    cudaErrorSharedObjectInitFailed = 303,
    cudaErrorOperatingSystem = 304,
    cudaErrorInvalidResourceHandle = 400,
    cudaErrorIllegalState = 401,
    cudaErrorLossyQuery = 402,
    cudaErrorSymbolNotFound = 500,
    cudaErrorNotReady = 600,
    cudaErrorIllegalAddress = 700,
    cudaErrorLaunchOutOfResources = 701,
    cudaErrorLaunchTimeout = 702,
    cudaErrorLaunchIncompatibleTexturing = 703,
    cudaErrorPeerAccessAlreadyEnabled = 704,
    cudaErrorPeerAccessNotEnabled = 705,
    cudaErrorSetOnActiveProcess = 708,
    cudaErrorContextIsDestroyed = 709,
    cudaErrorAssert = 710,
    cudaErrorTooManyPeers = 711,
    cudaErrorHostMemoryAlreadyRegistered = 712,
    cudaErrorHostMemoryNotRegistered = 713,
    cudaErrorHardwareStackError = 714,
    cudaErrorIllegalInstruction = 715,
    cudaErrorMisalignedAddress = 716,
    cudaErrorInvalidAddressSpace = 717,
    cudaErrorInvalidPc = 718,
    cudaErrorLaunchFailure = 719,
    cudaErrorCooperativeLaunchTooLarge = 720,
    cudaErrorTensorMemoryLeak = 721,
    cudaErrorNotPermitted = 800,
    cudaErrorNotSupported = 801,
    cudaErrorSystemNotReady = 802,
    cudaErrorSystemDriverMismatch = 803,
    cudaErrorCompatNotSupportedOnDevice = 804,
    cudaErrorMpsConnectionFailed = 805,
    cudaErrorMpsRpcFailure = 806,
    cudaErrorMpsServerNotReady = 807,
    cudaErrorMpsMaxClientsReached = 808,
    cudaErrorMpsMaxConnectionsReached = 809,
    cudaErrorMpsClientTerminated = 810,
    cudaErrorCdpNotSupported = 811,
    cudaErrorCdpVersionMismatch = 812,
    cudaErrorStreamCaptureUnsupported = 900,
    cudaErrorStreamCaptureInvalidated = 901,
    cudaErrorStreamCaptureMerge = 902,
    cudaErrorStreamCaptureUnmatched = 903,
    cudaErrorStreamCaptureUnjoined = 904,
    cudaErrorStreamCaptureIsolation = 905,
    cudaErrorStreamCaptureImplicit = 906,
    cudaErrorCapturedEvent = 907,
    cudaErrorStreamCaptureWrongThread = 908,
    cudaErrorTimeout = 909,
    cudaErrorGraphExecUpdateFailure = 910,
    cudaErrorExternalDevice = 911,
    cudaErrorInvalidClusterSize = 912,
    cudaErrorFunctionNotLoaded = 913,
    cudaErrorInvalidResourceType = 914,
    cudaErrorInvalidResourceConfiguration = 915,
    cudaErrorUnknown = 999
};
typedef enum cudaError cudaError_t;

/// Direction of a copy. Managed and page-locked memory count as device and as host memory.
enum cudaMemcpyKind
{
    cudaMemcpyHostToHost = 0,
    cudaMemcpyHostToDevice = 1,
    cudaMemcpyDeviceToHost = 2,
    cudaMemcpyDeviceToDevice = 3,
    cudaMemcpyDefault = 4 ///< inferred from the pointers; what no call allocated is host memory
};

/// How the channels of an array element are read. The stand-in's arrays accept 0 to 2 and 5 to 16.
enum cudaChannelFormatKind
{
    cudaChannelFormatKindSigned = 0,
    cudaChannelFormatKindUnsigned = 1,
    cudaChannelFormatKindFloat = 2,
    cudaChannelFormatKindNone = 3,
    cudaChannelFormatKindNV12 = 4,
    cudaChannelFormatKindUnsignedNormalized8X1 = 5,
    cudaChannelFormatKindUnsignedNormalized8X2 = 6,
    cudaChannelFormatKindUnsignedNormalized8X4 = 7,
    cudaChannelFormatKindUnsignedNormalized16X1 = 8,
    cudaChannelFormatKindUnsignedNormalized16X2 = 9,
    cudaChannelFormatKindUnsignedNormalized16X4 = 10,
    cudaChannelFormatKindSignedNormalized8X1 = 11,
    cudaChannelFormatKindSignedNormalized8X2 = 12,
    cudaChannelFormatKindSignedNormalized8X4 = 13,
    cudaChannelFormatKindSignedNormalized16X1 = 14,
    cudaChannelFormatKindSignedNormalized16X2 = 15,
    cudaChannelFormatKindSignedNormalized16X4 = 16,
    cudaChannelFormatKindUnsignedBlockCompressed1 = 17,
    cudaChannelFormatKindUnsignedBlockCompressed1SRGB = 18,
    cudaChannelFormatKindUnsignedBlockCompressed2 = 19,
    cudaChannelFormatKindUnsignedBlockCompressed2SRGB = 20,
    cudaChannelFormatKindUnsignedBlockCompressed3 = 21,
    cudaChannelFormatKindUnsignedBlockCompressed3SRGB = 22,
    cudaChannelFormatKindUnsignedBlockCompressed4 = 23,
    cudaChannelFormatKindSignedBlockCompressed4 = 24,
    cudaChannelFormatKindUnsignedBlockCompressed5 = 25,
    cudaChannelFormatKindSignedBlockCompressed5 = 26,
    cudaChannelFormatKindUnsignedBlockCompressed6H = 27,
    cudaChannelFormatKindSignedBlockCompressed6H = 28,
    cudaChannelFormatKindUnsignedBlockCompressed7 = 29,
    cudaChannelFormatKindUnsignedBlockCompressed7SRGB = 30,
    cudaChannelFormatKindUnsignedNormalized1010102 = 31
};

/// Element of an array: bits per channel (0 for a channel that does not exist) and their kind.
struct cudaChannelFormatDesc
{
    int x;
    int y;
    int z;
    int w;
    enum cudaChannelFormatKind f;
};

/// Size of an array in elements; height and depth are 0 where the array has no such dimension.
struct cudaExtent
{
    size_t width;
    size_t height;
    size_t depth;
};

/// What a pointer refers to.
enum cudaMemoryType
{
    cudaMemoryTypeUnregistered = 0,
    cudaMemoryTypeHost = 1,
    cudaMemoryTypeDevice = 2,
    cudaMemoryTypeManaged = 3
};

/// Answer of cudaPointerGetAttributes. A pointer is null where that side cannot use the memory.
struct cudaPointerAttributes
{
    enum cudaMemoryType type;
    int device; ///< device of the allocation, cudaInvalidDeviceId for unregistered memory
    void* devicePointer;
    void* hostPointer;
    long reserved[8];
};

/// Attributes of a device that cudaDeviceGetAttribute answers.
enum cudaDeviceAttr
{
    cudaDevAttrMaxThreadsPerBlock = 1,
    cudaDevAttrMaxBlockDimX = 2,
    cudaDevAttrMaxBlockDimY = 3,
    cudaDevAttrMaxBlockDimZ = 4,
    cudaDevAttrMaxGridDimX = 5,
    cudaDevAttrMaxGridDimY = 6,
    cudaDevAttrMaxGridDimZ = 7,
    cudaDevAttrMaxSharedMemoryPerBlock = 8,
    cudaDevAttrTotalConstantMemory = 9,
    cudaDevAttrWarpSize = 10,
    cudaDevAttrMaxPitch = 11,
    cudaDevAttrMaxRegistersPerBlock = 12,
    cudaDevAttrTextureAlignment = 14,
    cudaDevAttrMultiProcessorCount = 16,
    cudaDevAttrKernelExecTimeout = 17,
    cudaDevAttrIntegrated = 18,
    cudaDevAttrCanMapHostMemory = 19,
    cudaDevAttrComputeMode = 20,
    cudaDevAttrConcurrentKernels = 31,
    cudaDevAttrEccEnabled = 32,
    cudaDevAttrPciBusId = 33,
    cudaDevAttrPciDeviceId = 34,
    cudaDevAttrMaxThreadsPerMultiProcessor = 39,
    cudaDevAttrAsyncEngineCount = 40,
    cudaDevAttrUnifiedAddressing = 41,
    cudaDevAttrPciDomainId = 50,
    cudaDevAttrTexturePitchAlignment = 51,
    cudaDevAttrComputeCapabilityMajor = 75,
    cudaDevAttrComputeCapabilityMinor = 76,
    cudaDevAttrStreamPrioritiesSupported = 78,
    cudaDevAttrManagedMemory = 83,
    cudaDevAttrHostNativeAtomicSupported = 86,
    cudaDevAttrPageableMemoryAccess = 88,
    cudaDevAttrConcurrentManagedAccess = 89,
    cudaDevAttrCanUseHostPointerForRegisteredMem = 91,
    cudaDevAttrCooperativeLaunch = 95,
    cudaDevAttrHostRegisterSupported = 99,
    cudaDevAttrMemoryPoolsSupported = 115
};

/// Properties of a device: those of the runtime's record that mean something on the host, in the runtime's order.
struct cudaDeviceProp
{
    char name[256];
    size_t totalGlobalMem;
    size_t sharedMemPerBlock;
    int regsPerBlock;
    int warpSize;
    size_t memPitch;
    int maxThreadsPerBlock;
    int maxThreadsDim[3];
    int maxGridSize[3];
    size_t totalConstMem;
    int major;
    int minor;
    size_t textureAlignment;
    size_t texturePitchAlignment;
    int multiProcessorCount;
    int integrated;
    int canMapHostMemory;
    int concurrentKernels;
    int ECCEnabled;
    int pciBusID;
    int pciDeviceID;
    int pciDomainID;
    int asyncEngineCount;
    int unifiedAddressing;
    int maxThreadsPerMultiProcessor;
    int streamPrioritiesSupported;
    int managedMemory;
    int hostNativeAtomicSupported;
    int pageableMemoryAccess;
    int concurrentManagedAccess;
    int canUseHostPointerForRegisteredMem;
    int cooperativeLaunch;
    int hostRegisterSupported;
    int memoryPoolsSupported;
};

/// Three unsigned values, as the kernel's built-in indices have them.
struct uint3
{
    unsigned int x;
    unsigned int y;
    unsigned int z;
};
#if !defined(__cplusplus)
typedef struct uint3 uint3;
#endif

/// Extent of a grid or block; what is not given is 1.
struct dim3
{
    unsigned int x;
    unsigned int y;
    unsigned int z;
#if defined(__cplusplus)
    constexpr dim3(unsigned int uX = 1, unsigned int uY = 1, unsigned int uZ = 1) : x(uX), y(uY), z(uZ) {}
    constexpr dim3(uint3 xValue) : x(xValue.x), y(xValue.y), z(xValue.z) {}
    constexpr operator uint3() const
    {
        return uint3{x, y, z};
    }
#endif
};
#if !defined(__cplusplus)
typedef struct dim3 dim3;
#endif

// Handles are numbers in the guise of pointers, never reused: one that is stale or was never given out is refused.
struct CUstream_st;
struct CUevent_st;
struct cudaArray;
typedef struct CUstream_st* cudaStream_t;
typedef struct CUevent_st* cudaEvent_t;
typedef struct cudaArray* cudaArray_t;
typedef const struct cudaArray* cudaArray_const_t;

/// Function that cudaLaunchHostFunc calls with the caller's data.
typedef void(CUDART_CB* cudaHostFn_t)(void* userData);

/// An attribute of a launch. None is offered, so the type has no contents.
typedef struct cudaLaunchAttribute_st cudaLaunchAttribute;

/// Configuration of a launch; see cudaLaunchKernelEx in cuda_runtime.h.
typedef struct cudaLaunchConfig_st
{
    dim3 gridDim;               ///< blocks of the grid
    dim3 blockDim;              ///< threads of a block
    size_t dynamicSmemBytes;    ///< must be 0: the host has no shared memory
    cudaStream_t stream;        ///< stream of the current device
    cudaLaunchAttribute* attrs; ///< not read
    unsigned int numAttrs;      ///< must be 0
} cudaLaunchConfig_t;

#define cudaCpuDeviceId ((int)-1)
#define cudaInvalidDeviceId ((int)-2)

#define cudaHostAllocDefault 0x00
#define cudaHostAllocPortable 0x01
#define cudaHostAllocMapped 0x02
#define cudaHostAllocWriteCombined 0x04

#define cudaMemAttachGlobal 0x01
#define cudaMemAttachHost 0x02
#define cudaMemAttachSingle 0x04

#define cudaArrayDefault 0x00
#define cudaArrayLayered 0x01
#define cudaArraySurfaceLoadStore 0x02
#define cudaArrayCubemap 0x04
#define cudaArrayTextureGather 0x08

#define cudaStreamDefault 0x00
#define cudaStreamNonBlocking 0x01

/// The legacy default stream by name; the same as a null stream.
#define cudaStreamLegacy ((cudaStream_t)0x1)
/// Default stream of a thread: not offered, calls with it return cudaErrorNotSupported.
#define cudaStreamPerThread ((cudaStream_t)0x2)

#define cudaEventDefault 0x00
#define cudaEventBlockingSync 0x01
#define cudaEventDisableTiming 0x02
#define cudaEventInterprocess 0x04
#define cudaEventRecordDefault 0x00
#define cudaEventWaitDefault 0x00

// ---- Errors: none of these four can fail ------------------------------------------------------------------------

/// Returns the calling thread's last error and resets it to cudaSuccess. While the current device has a fault the
/// answer is the fault's code, however often it is asked.
QX_HOSTCUDA_CALL cudaError_t cudaGetLastError(void);
/// Returns the calling thread's last error, or the current device's fault, and resets nothing.
QX_HOSTCUDA_CALL cudaError_t cudaPeekAtLastError(void);
/// Returns the name of a code as a string that lives forever; "unrecognized error code" where there is none.
QX_HOSTCUDA_CALL const char* cudaGetErrorName(cudaError_t error);
/// Returns the description of a code as a string that lives forever; "unrecognized error code" where there is none.
QX_HOSTCUDA_CALL const char* cudaGetErrorString(cudaError_t error);

// ---- Devices
// ------------------------------------------------------------------------------------------------------

/// Writes the number of devices. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaGetDeviceCount(int* count);
/// Writes the calling thread's current device, 0 at first. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaGetDevice(int* device);
/// Makes a device current to the calling thread. cudaErrorInvalidDevice: no such device.
QX_HOSTCUDA_CALL cudaError_t cudaSetDevice(int device);
/// Waits for all work of the current device, on every stream.
QX_HOSTCUDA_CALL cudaError_t cudaDeviceSynchronize(void);
/// Waits for the current device's work, then releases all its memory, arrays, streams and events and clears its
/// fault. Pointers and handles of the device are refused from then on.
QX_HOSTCUDA_CALL cudaError_t cudaDeviceReset(void);
/// Writes an attribute. cudaErrorInvalidValue: null argument or unknown attribute; cudaErrorInvalidDevice.
QX_HOSTCUDA_CALL cudaError_t cudaDeviceGetAttribute(int* value, enum cudaDeviceAttr attr, int device);
/// Writes the properties of a device. cudaErrorInvalidValue: null argument; cudaErrorInvalidDevice.
QX_HOSTCUDA_CALL cudaError_t cudaGetDeviceProperties(struct cudaDeviceProp* prop, int device);
/// Writes the version of the driver, which is that of the runtime. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaDriverGetVersion(int* driverVersion);
/// Writes the version of the runtime. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaRuntimeGetVersion(int* runtimeVersion);
/// Writes the current device's unused and total memory. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaMemGetInfo(size_t* free, size_t* total);

// ---- Memory: fresh memory holds a pattern (0xCD), never zeros. An exhausted budget is cudaErrorMemoryAllocation
// ---

/// Allocates device memory on the current device. 0 bytes: success and a null pointer.
/// cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaMalloc(void** devPtr, size_t size);
/// Allocates rows of device memory; writes the pitch, a multiple of 512 bytes. An empty area: success, null pointer
/// and pitch 0. cudaErrorInvalidValue: null argument, or a pitch of 2^31 bytes or more.
QX_HOSTCUDA_CALL cudaError_t cudaMallocPitch(void** devPtr, size_t* pitch, size_t width, size_t height);
/// Allocates memory that device and host both use. cudaErrorInvalidValue: null argument, 0 bytes, or flags other
/// than cudaMemAttachGlobal or cudaMemAttachHost.
QX_HOSTCUDA_CALL cudaError_t cudaMallocManaged(
    void** devPtr, size_t size, unsigned int flags QX_HOSTCUDA_DEFAULT(cudaMemAttachGlobal));
/// Allocates page-locked host memory, which does not count against the device's budget. 0 bytes: success and a null
/// pointer. cudaErrorInvalidValue: null argument or unknown flags.
QX_HOSTCUDA_CALL cudaError_t cudaHostAlloc(void** pHost, size_t size, unsigned int flags);
/// cudaHostAlloc without flags.
QX_HOSTCUDA_CALL cudaError_t cudaMallocHost(void** ptr, size_t size);
/// Writes the device's address of page-locked memory, which is the host's. cudaErrorInvalidValue: null argument,
/// memory of another kind, or flags other than 0.
QX_HOSTCUDA_CALL cudaError_t cudaHostGetDevicePointer(void** pDevice, void* pHost, unsigned int flags);
/// Waits for the device of the block, then frees device, pitched or managed memory of any device. Null: nothing.
/// cudaErrorInvalidValue: not the start of such a block, or freed before. Bytes written behind the block or its rows
/// are reported on standard error and cudaErrorIllegalAddress is the device's fault then; the block is freed.
QX_HOSTCUDA_CALL cudaError_t cudaFree(void* devPtr);
/// cudaFree for page-locked host memory.
QX_HOSTCUDA_CALL cudaError_t cudaFreeHost(void* ptr);
/// Makes a channel descriptor of its five fields.
QX_HOSTCUDA_CALL struct cudaChannelFormatDesc cudaCreateChannelDesc(
    int x, int y, int z, int w, enum cudaChannelFormatKind f);
/// Allocates an array of width x height elements on the current device; height 0 makes it one-dimensional. It
/// counts against the budget but has no contents, since no call of the stand-in reads or writes arrays.
/// cudaErrorInvalidChannelDescriptor: anything but 1, 2 or 4 equal channels of 8, 16 or 32 bits (16 or 32 for
/// float); cudaErrorInvalidValue: null argument, unknown flags, or an extent beyond 131072 x 65536.
QX_HOSTCUDA_CALL cudaError_t cudaMallocArray(cudaArray_t* array, const struct cudaChannelFormatDesc* desc, size_t width,
    size_t height QX_HOSTCUDA_DEFAULT(0), unsigned int flags QX_HOSTCUDA_DEFAULT(0));
/// Waits for the device of the array, then frees it. Null: nothing. cudaErrorInvalidValue: no live array.
QX_HOSTCUDA_CALL cudaError_t cudaFreeArray(cudaArray_t array);
/// Writes descriptor, extent and flags of an array, each unless null. cudaErrorInvalidValue: no live array.
QX_HOSTCUDA_CALL cudaError_t cudaArrayGetInfo(
    struct cudaChannelFormatDesc* desc, struct cudaExtent* extent, unsigned int* flags, cudaArray_t array);
/// Writes what a pointer refers to; one that no call here allocated is unregistered host memory.
/// cudaErrorInvalidValue: null attributes.
QX_HOSTCUDA_CALL cudaError_t cudaPointerGetAttributes(struct cudaPointerAttributes* attributes, const void* ptr);

// ---- Copies and memsets
// -------------------------------------------------------------------------------------------
//
// Checked at the call, in this order: the stream (cudaErrorInvalidResourceHandle), the direction
// (cudaErrorInvalidMemcpyDirection), an empty area (success, nothing is touched), the pitches
// (cudaErrorInvalidPitchValue where a row is wider; a memset of one row uses none), then the pointers:
// cudaErrorInvalidValue for null, for memory of the wrong side, and for an area that leaves its block.
//
// A call without "Async" runs on the legacy default stream and returns when the work is done. An Async call returns
// before; its memory belongs to the stream until that has been synchronised, also pageable memory.
// Overlapping areas are copied without undefined behaviour; two-dimensional ones with unspecified contents.

/// Copies count bytes.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, enum cudaMemcpyKind kind);
/// Copies count bytes in stream order.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, enum cudaMemcpyKind kind,
    cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));
/// Copies height rows of width bytes; the rows begin dpitch and spitch bytes apart. Padding is not touched.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpy2D(
    void* dst, size_t dpitch, const void* src, size_t spitch, size_t width, size_t height, enum cudaMemcpyKind kind);
/// cudaMemcpy2D in stream order.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpy2DAsync(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width,
    size_t height, enum cudaMemcpyKind kind, cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));
/// Sets count bytes of memory that the device can use to the low byte of value.
QX_HOSTCUDA_CALL cudaError_t cudaMemset(void* devPtr, int value, size_t count);
/// cudaMemset in stream order.
QX_HOSTCUDA_CALL cudaError_t cudaMemsetAsync(
    void* devPtr, int value, size_t count, cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));
/// Sets height rows of width bytes that begin pitch bytes apart. Padding is not touched.
QX_HOSTCUDA_CALL cudaError_t cudaMemset2D(void* devPtr, size_t pitch, int value, size_t width, size_t height);
/// cudaMemset2D in stream order.
QX_HOSTCUDA_CALL cudaError_t cudaMemset2DAsync(void* devPtr, size_t pitch, int value, size_t width, size_t height,
    cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));

// A symbol is the address of a variable that is declared __constant__ or __device__. cudaErrorInvalidSymbol: null, or
// not the address of a writable variable of a loaded module; cudaErrorInvalidValue: the bytes meant leave the variable;
// cudaErrorInvalidMemcpyDirection: the device is not on the symbol's side of the direction.

/// Copies count bytes to a symbol, beginning offset bytes into it.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpyToSymbol(const void* symbol, const void* src, size_t count,
    size_t offset QX_HOSTCUDA_DEFAULT(0), enum cudaMemcpyKind kind QX_HOSTCUDA_DEFAULT(cudaMemcpyHostToDevice));
/// cudaMemcpyToSymbol in stream order. Up to 64 KiB of pageable memory are taken along before the call returns, so
/// that the source may change or go right after it.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpyToSymbolAsync(const void* symbol, const void* src, size_t count, size_t offset,
    enum cudaMemcpyKind kind, cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));
/// Copies count bytes from a symbol, beginning offset bytes into it.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpyFromSymbol(void* dst, const void* symbol, size_t count,
    size_t offset QX_HOSTCUDA_DEFAULT(0), enum cudaMemcpyKind kind QX_HOSTCUDA_DEFAULT(cudaMemcpyDeviceToHost));
/// cudaMemcpyFromSymbol in stream order.
QX_HOSTCUDA_CALL cudaError_t cudaMemcpyFromSymbolAsync(void* dst, const void* symbol, size_t count, size_t offset,
    enum cudaMemcpyKind kind, cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));

// ---- Streams
// ------------------------------------------------------------------------------------------------------
//
// Every stream is worked off in order by a thread of its own. Work on the legacy default stream waits for all work
// that was queued before on the device's streams, and work queued later on those waits for it; streams made with
// cudaStreamNonBlocking are exempt. A handle that is not a live stream: cudaErrorInvalidResourceHandle.

/// Creates a stream on the current device. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaStreamCreate(cudaStream_t* pStream);
/// Creates a stream with cudaStreamDefault or cudaStreamNonBlocking. cudaErrorInvalidValue: null argument, other
/// flags.
QX_HOSTCUDA_CALL cudaError_t cudaStreamCreateWithFlags(cudaStream_t* pStream, unsigned int flags);
/// Gives up a stream without waiting; work already queued is still done. The default streams are refused.
QX_HOSTCUDA_CALL cudaError_t cudaStreamDestroy(cudaStream_t stream);
/// Waits for the work of a stream.
QX_HOSTCUDA_CALL cudaError_t cudaStreamSynchronize(cudaStream_t stream);
/// cudaSuccess when the work of a stream is done, otherwise cudaErrorNotReady, which is not kept as last error.
QX_HOSTCUDA_CALL cudaError_t cudaStreamQuery(cudaStream_t stream);
/// Makes later work of a stream, of any device, wait for what the event's last record captured.
/// cudaErrorInvalidResourceHandle: also a dead event; cudaErrorInvalidValue: flags other than 0.
QX_HOSTCUDA_CALL cudaError_t cudaStreamWaitEvent(
    cudaStream_t stream, cudaEvent_t event, unsigned int flags QX_HOSTCUDA_DEFAULT(0));
/// Calls a function in stream order on the stream's thread. It is not called once the device has a fault; an
/// exception that leaves it is a fault (cudaErrorLaunchFailure). cudaErrorInvalidValue: null function.
QX_HOSTCUDA_CALL cudaError_t cudaLaunchHostFunc(cudaStream_t stream, cudaHostFn_t fn, void* userData);

// ---- Events: a handle that is not a live event is cudaErrorInvalidResourceHandle
// ---------------------------------

/// Creates an event with timing on the current device. cudaErrorInvalidValue: null argument.
QX_HOSTCUDA_CALL cudaError_t cudaEventCreate(cudaEvent_t* event);
/// Creates an event with cudaEventBlockingSync, cudaEventDisableTiming, both or none. cudaErrorInvalidValue: null
/// argument, other flags; cudaErrorNotSupported: cudaEventInterprocess.
QX_HOSTCUDA_CALL cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned int flags);
/// Gives up an event without waiting.
QX_HOSTCUDA_CALL cudaError_t cudaEventDestroy(cudaEvent_t event);
/// Captures the work queued so far on a stream; replaces what the event had captured. Event and stream must be of
/// one device (cudaErrorInvalidResourceHandle).
QX_HOSTCUDA_CALL cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream QX_HOSTCUDA_DEFAULT(nullptr));
/// Waits for the captured work; an event that was never recorded has none.
QX_HOSTCUDA_CALL cudaError_t cudaEventSynchronize(cudaEvent_t event);
/// cudaSuccess when the captured work is done, otherwise cudaErrorNotReady, which is not kept as last error.
QX_HOSTCUDA_CALL cudaError_t cudaEventQuery(cudaEvent_t event);
/// Writes the milliseconds between two events, negative if they are swapped. cudaErrorInvalidValue: null argument;
/// cudaErrorInvalidResourceHandle: an event without timing, never recorded, or of another device;
/// cudaErrorNotReady: captured work is not done (here a failure like any other).
QX_HOSTCUDA_CALL cudaError_t cudaEventElapsedTime(float* ms, cudaEvent_t start, cudaEvent_t end);

#undef QX_HOSTCUDA_CALL
#undef QX_HOSTCUDA_DEFAULT
