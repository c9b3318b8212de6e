#pragma once

// The C++ interface of the CUDA runtime on the host: the C interface plus the declaration specifiers, what kernels are
// written with, the typed forms of the calls and the launch of kernels.

#include "cuda_runtime_api.h"

// Device code is plain C++ on the host, so the specifiers that place it mean nothing. A __constant__ or __device__
// variable is an ordinary global; its address is its symbol.
#define __host__
#define __device__
// A kernel that the compiler may not inline is where a debugger stops, once a thread.
#if defined(QX_HOSTCUDA_KERNELS_APART)
#define __global__ __attribute__((noinline))
#else
#define __global__
#endif
#define __constant__
#define __forceinline__ inline __attribute__((always_inline))

#if defined(__cplusplus)

#include "device_functions.h"
#include "device_launch_parameters.h"

#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Qx::HostCuda
{

/// Makes a code the calling thread's last error, as a failing call of the runtime does, and returns it.
QX_HOSTCUDA_API cudaError_t Refuse(cudaError_t eError) noexcept;

/// True if `nCount` bytes from `nOffset` on do not fit into a variable of `nSize` bytes.
constexpr bool Overruns(size_t nSize, size_t nCount, size_t nOffset) noexcept
{
    return nOffset > nSize || nCount > nSize - nOffset;
}

} // namespace Qx::HostCuda

/// cudaMalloc for a typed pointer; `size` is in bytes.
template <class T>
inline cudaError_t cudaMalloc(T** devPtr, size_t size)
{
    return ::cudaMalloc(reinterpret_cast<void**>(devPtr), size);
}

/// cudaMallocPitch for a typed pointer; `width` is in bytes.
template <class T>
inline cudaError_t cudaMallocPitch(T** devPtr, size_t* pitch, size_t width, size_t height)
{
    return ::cudaMallocPitch(reinterpret_cast<void**>(devPtr), pitch, width, height);
}

/// cudaMallocManaged for a typed pointer; `size` is in bytes.
template <class T>
inline cudaError_t cudaMallocManaged(T** devPtr, size_t size, unsigned int flags = cudaMemAttachGlobal)
{
    return ::cudaMallocManaged(reinterpret_cast<void**>(devPtr), size, flags);
}

/// cudaHostAlloc for a typed pointer; `size` is in bytes.
template <class T>
inline cudaError_t cudaHostAlloc(T** ptr, size_t size, unsigned int flags)
{
    return ::cudaHostAlloc(reinterpret_cast<void**>(ptr), size, flags);
}

/// cudaHostAlloc with its flags left out.
inline cudaError_t cudaMallocHost(void** ptr, size_t size, unsigned int flags)
{
    return ::cudaHostAlloc(ptr, size, flags);
}

/// cudaMallocHost for a typed pointer; `size` is in bytes.
template <class T>
inline cudaError_t cudaMallocHost(T** ptr, size_t size, unsigned int flags = 0)
{
    return ::cudaHostAlloc(reinterpret_cast<void**>(ptr), size, flags);
}

/// cudaHostGetDevicePointer for a typed pointer.
template <class T>
inline cudaError_t cudaHostGetDevicePointer(T** pDevice, void* pHost, unsigned int flags)
{
    return ::cudaHostGetDevicePointer(reinterpret_cast<void**>(pDevice), pHost, flags);
}

/// cudaEventCreateWithFlags under the shorter name.
inline cudaError_t cudaEventCreate(cudaEvent_t* event, unsigned int flags)
{
    return ::cudaEventCreateWithFlags(event, flags);
}

/// cudaMemcpyToSymbol for a variable. cudaErrorInvalidValue: the bytes meant leave the variable.
template <class T>
inline cudaError_t cudaMemcpyToSymbol(
    const T& symbol, const void* src, size_t count, size_t offset = 0, cudaMemcpyKind kind = cudaMemcpyHostToDevice)
{
    return Qx::HostCuda::Overruns(sizeof(T), count, offset)
        ? Qx::HostCuda::Refuse(cudaErrorInvalidValue)
        : ::cudaMemcpyToSymbol(static_cast<const void*>(&symbol), src, count, offset, kind);
}

/// cudaMemcpyToSymbolAsync for a variable. cudaErrorInvalidValue: the bytes meant leave the variable.
template <class T>
inline cudaError_t cudaMemcpyToSymbolAsync(const T& symbol, const void* src, size_t count, size_t offset = 0,
    cudaMemcpyKind kind = cudaMemcpyHostToDevice, cudaStream_t stream = nullptr)
{
    return Qx::HostCuda::Overruns(sizeof(T), count, offset)
        ? Qx::HostCuda::Refuse(cudaErrorInvalidValue)
        : ::cudaMemcpyToSymbolAsync(static_cast<const void*>(&symbol), src, count, offset, kind, stream);
}

/// cudaMemcpyFromSymbol for a variable. cudaErrorInvalidValue: the bytes meant leave the variable.
template <class T>
inline cudaError_t cudaMemcpyFromSymbol(
    void* dst, const T& symbol, size_t count, size_t offset = 0, cudaMemcpyKind kind = cudaMemcpyDeviceToHost)
{
    return Qx::HostCuda::Overruns(sizeof(T), count, offset)
        ? Qx::HostCuda::Refuse(cudaErrorInvalidValue)
        : ::cudaMemcpyFromSymbol(dst, static_cast<const void*>(&symbol), count, offset, kind);
}

/// cudaMemcpyFromSymbolAsync for a variable. cudaErrorInvalidValue: the bytes meant leave the variable.
template <class T>
inline cudaError_t cudaMemcpyFromSymbolAsync(void* dst, const T& symbol, size_t count, size_t offset = 0,
    cudaMemcpyKind kind = cudaMemcpyDeviceToHost, cudaStream_t stream = nullptr)
{
    return Qx::HostCuda::Overruns(sizeof(T), count, offset)
        ? Qx::HostCuda::Refuse(cudaErrorInvalidValue)
        : ::cudaMemcpyFromSymbolAsync(dst, static_cast<const void*>(&symbol), count, offset, kind, stream);
}

namespace Qx::HostCuda
{

/// What a kernel is called.
struct SKernelText
{
    const char* pcType = "";         ///< a text with the name of its type
    const void* pFunction = nullptr; ///< its function, if the type does not say which it is
    bool bOptimised = false;         ///< the compiler may have put off writing threadIdx
};

/// Writes to standard error what kernel, block and thread the calling thread runs, if any, as part of a crash that has
/// a name; once per crash. `bCall`: the kernel itself made the call, so that threadIdx has been written. May be called
/// by signal handlers.
QX_HOSTCUDA_API void ReportCrash(const char* pcWhat, bool bCall) noexcept;

/// A kernel with its arguments, as the runner sees it.
class QX_HOSTCUDA_API CKernel
{
public:
    CKernel() = default;
    CKernel(const CKernel&) = delete;
    CKernel& operator=(const CKernel&) = delete;
    virtual ~CKernel() = default;

    /// Runs all threads of the block that blockIdx names, one after the other with x running fastest.
    virtual void RunBlock() const = 0;
    /// For reports.
    [[nodiscard]] virtual SKernelText Describe() const noexcept = 0;
};

/// A text that names the type.
template <class TKernel>
const char* NameType() noexcept
{
    return __PRETTY_FUNCTION__;
}

/// A kernel of a known type, so that a compiler that knows its body makes one loop of the threads and the body.
template <class TKernel, class... TParameters>
class CBoundKernel final : public CKernel
{
    static_assert((!std::is_reference_v<TParameters> && ...), "a kernel takes its parameters by value");
    static_assert((std::is_trivially_copyable_v<TParameters> && ...), "a kernel's parameters are copied as bytes");
    static_assert((std::size_t{0} + ... + sizeof(TParameters)) <= 32764, "a kernel's parameters exceed 32764 bytes");

public:
    explicit CBoundKernel(TKernel xKernel, const TParameters&... xArguments)
        : m_xKernel(xKernel), m_xArguments(xArguments...)
    {
    }

    [[gnu::flatten]] void RunBlock() const override
    {
        // Local copies, which no store of the kernel can reach, may stay in registers.
        const TKernel xKernel = m_xKernel;
        const std::tuple<TParameters...> xArguments = m_xArguments;
        const dim3 xBlock = blockDim;
        for (unsigned int uZ = 0; uZ < xBlock.z; ++uZ)
        {
            for (unsigned int uY = 0; uY < xBlock.y; ++uY)
            {
                for (unsigned int uX = 0; uX < xBlock.x; ++uX)
                {
                    std::construct_at(&threadIdx, uX, uY, uZ);
                    std::apply(xKernel, xArguments);
                }
            }
        }
    }

    [[nodiscard]] SKernelText Describe() const noexcept override
    {
        SKernelText xText{NameType<TKernel>()};
        if constexpr (std::is_pointer_v<TKernel>)
        {
            xText.pFunction = reinterpret_cast<const void*>(m_xKernel);
        }
#if defined(__OPTIMIZE__)
        xText.bOptimised = true;
#endif
        return xText;
    }

private:
    TKernel m_xKernel;
    std::tuple<TParameters...> m_xArguments;
};

/// Queues a kernel; see cudaLaunchKernelEx. `bFunction`: false if the kernel's function is null. A null kernel means
/// that there was no memory for it.
QX_HOSTCUDA_API cudaError_t Launch(
    const cudaLaunchConfig_t* pConfig, bool bFunction, std::unique_ptr<const CKernel> pKernel) noexcept;

/// Binds a kernel, given as whatever is called for every thread, to arguments of the parameter types that its function
/// has, and queues it.
template <class TKernel, class... TParameters, class... TArguments>
cudaError_t Launch(
    const cudaLaunchConfig_t* pConfig, TKernel xKernel, void (*pFunction)(TParameters...), TArguments&&... xArguments)
{
    return [&](TParameters... xConverted)
    {
        return Launch(pConfig, pFunction != nullptr,
            std::unique_ptr<const CKernel>(
                new (std::nothrow) CBoundKernel<TKernel, TParameters...>(xKernel, xConverted...)));
    }(std::forward<TArguments>(xArguments)...);
}

} // namespace Qx::HostCuda

#if defined(__SANITIZE_ADDRESS__)
/// g++'s AddressSanitizer calls this of the program before it reports. The program's own takes its place, and may call
/// Qx::HostCuda::ReportCrash.
extern "C" QX_HOSTCUDA_API __attribute__((weak)) void __asan_on_error()
{
    Qx::HostCuda::ReportCrash("AddressSanitizer", true);
}
#endif

/// Queues a kernel on a stream and returns at once. The arguments are converted to the kernel's parameter types and
/// copied during the call.
///
/// The blocks of a launch run in parallel on all processors (QX_HOSTCUDA_THREADS limits that), those of several streams
/// at the same time; the threads of a block run in order on one. A kernel that calls __trap, or that an exception
/// leaves, gives its device the fault cudaErrorLaunchFailure; blocks that have not begun are left out then. CUDA calls
/// in a kernel return cudaErrorNotPermitted.
///
/// Refused, in this order: a null configuration (cudaErrorInvalidValue), a stream that is dead or not of the current
/// device (cudaErrorInvalidResourceHandle), a fault of the device (its code), a null function
/// (cudaErrorInvalidDeviceFunction), more than 1024 x 1024 x 64 or in all 1024 threads in a block, more than
/// 2^31 - 1 x 65535 x 65535 blocks, or a count of 0 (cudaErrorInvalidConfiguration), shared memory
/// (cudaErrorInvalidValue), attributes (cudaErrorNotSupported).
template <class... ExpTypes, class... ActTypes>
inline cudaError_t cudaLaunchKernelEx(const cudaLaunchConfig_t* config, void (*kernel)(ExpTypes...), ActTypes&&... args)
{
    return Qx::HostCuda::Launch(config, kernel, kernel, std::forward<ActTypes>(args)...);
}

/// The same for a kernel given as an object that can be called and that stands for a function, such as a lambda
/// without captures. Its type says which kernel it is, so that the compiler can inline it.
template <class TKernel, class... ActTypes>
requires std::is_class_v<TKernel> && std::is_pointer_v<decltype(+std::declval<const TKernel&>())>
inline cudaError_t cudaLaunchKernelEx(const cudaLaunchConfig_t* config, TKernel kernel, ActTypes&&... args)
{
    return Qx::HostCuda::Launch(config, kernel, +kernel, std::forward<ActTypes>(args)...);
}

#endif
