#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "KernelLibrary.h"
#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.Cuda/QxDeviceImage2D.h"
#include "Qx.Cuda/QxLaunchKernel.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
#include "Support/CudaChain.h"
#include "Support/Stream.h"

// A client's kernels, written once: this file is compiled by nvcc on the CUDA platform and as it is on the host.

namespace Qx::Test
{

namespace
{

using CudaDebug::CQxCudaCompDebug;
using CudaDebug::SItem;
using CudaDebug::SParameter;

// What kernels share with the host, on both platforms alike.
template <class T, std::size_t nSize, std::size_t nAlignment>
constexpr bool c_bIsLaidOut = sizeof(T) == nSize && alignof(T) == nAlignment;
static_assert(c_bIsLaidOut<uchar2, 2, 2> && c_bIsLaidOut<uchar3, 3, 1> && c_bIsLaidOut<uchar4, 4, 4>);
static_assert(c_bIsLaidOut<short2, 4, 4> && c_bIsLaidOut<short4, 8, 8>);
static_assert(c_bIsLaidOut<ushort2, 4, 4> && c_bIsLaidOut<ushort3, 6, 2> && c_bIsLaidOut<ushort4, 8, 8>);
static_assert(c_bIsLaidOut<int2, 8, 8> && c_bIsLaidOut<int3, 12, 4> && c_bIsLaidOut<int4, 16, 16>);
static_assert(c_bIsLaidOut<uint2, 8, 8> && c_bIsLaidOut<uint3, 12, 4> && c_bIsLaidOut<uint4, 16, 16>);
static_assert(c_bIsLaidOut<float2, 8, 8> && c_bIsLaidOut<float3, 12, 4> && c_bIsLaidOut<float4, 16, 16>);
static_assert(c_bIsLaidOut<double2, 16, 16> && c_bIsLaidOut<dim3, 12, 4>);
static_assert(c_bIsLaidOut<cudaLaunchConfig_t, 56, 8> && offsetof(cudaLaunchConfig_t, blockDim) == 12 &&
    offsetof(cudaLaunchConfig_t, dynamicSmemBytes) == 24 && offsetof(cudaLaunchConfig_t, stream) == 32 &&
    offsetof(cudaLaunchConfig_t, attrs) == 40 && offsetof(cudaLaunchConfig_t, numAttrs) == 48);
static_assert(std::is_same_v<decltype(min(1, 2U)), unsigned int> && std::is_same_v<decltype(max(1.0F, 2.0)), double>);

/// Zeroed device memory for one test.
template <class T>
class CDeviceData
{
public:
    explicit CDeviceData(std::size_t nCount = 1) : m_nCount(nCount)
    {
        EXPECT_EQ(cudaMalloc(reinterpret_cast<void**>(&m_pData), nCount * sizeof(T)), cudaSuccess);
        EXPECT_EQ(cudaMemset(m_pData, 0, nCount * sizeof(T)), cudaSuccess);
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    }
    ~CDeviceData() { EXPECT_EQ(cudaFree(m_pData), cudaSuccess); }
    CDeviceData(const CDeviceData&) = delete;
    CDeviceData& operator=(const CDeviceData&) = delete;

    T* Get() const { return m_pData; }
    std::vector<T> Read() const
    {
        std::vector<T> vValues(m_nCount);
        EXPECT_EQ(cudaMemcpy(vValues.data(), m_pData, m_nCount * sizeof(T), cudaMemcpyDeviceToHost), cudaSuccess);
        return vValues;
    }

private:
    std::size_t m_nCount;
    T* m_pData = nullptr;
};

/// A stream that the default stream does not wait for.
struct CStream : CStreamScope
{
    CStream() : CStreamScope(cudaStreamNonBlocking) {}
};

__global__ void CountPixels(SDeviceImageDesc2D xImage)
{
    const unsigned int uX = blockIdx.x * blockDim.x + threadIdx.x;
    if (uX < static_cast<unsigned int>(xImage.xFormat.iWidth))
    {
        auto* const pRow =
            reinterpret_cast<unsigned int*>(static_cast<char*>(xImage.pData) + blockIdx.y * xImage.nPitch);
        atomicAdd(&pRow[uX], 1);
    }
}

/// Counts every pixel of an image of the format in a launch that is sized for it; returns how many were counted once.
std::ptrdiff_t PixelsCountedOnce(const CQxImageFormat& xFormat)
{
    CQxDeviceImage2D xImage(xFormat);
    xImage.SetZero();
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xFormat, 32, 4);
    xComp.Begin("CountPixels", nullptr);
    LaunchKernel<CountPixels>(xComp, nullptr, xImage.GetDesc());
    xComp.End("CountPixels", nullptr);
    CQxImage xHost;
    xImage.CopyTo(xHost);
    const auto* const pCounts = static_cast<const unsigned int*>(xHost.GetDataPtr());
    return std::count(pCounts, pCounts + xFormat.iWidth * xFormat.iHeight, 1U);
}

TEST(LaunchKernel, CoversEveryPixelOfAnImageOnce)
{
    for (const auto& [iWidth, iHeight] : {std::pair{1, 1}, {31, 2}, {257, 5}, {640, 480}})
    {
        EXPECT_EQ(PixelsCountedOnce({iWidth, iHeight, EDataType::UInt, EPixelType::Lum}), iWidth * iHeight);
    }
}

// The index in the order that CUDA gives to threads and blocks.
__device__ unsigned int GetIndex()
{
    const unsigned int uBlock = blockIdx.x + gridDim.x * (blockIdx.y + gridDim.y * blockIdx.z);
    const unsigned int uThread = threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z);
    return uBlock * (blockDim.x * blockDim.y * blockDim.z) + uThread;
}

__global__ void CountThreads(unsigned int* pCounts, unsigned int uCount)
{
    if (GetIndex() < uCount)
    {
        atomicAdd(&pCounts[GetIndex()], 1U);
    }
}

TEST(LaunchKernel, CoversEveryThreadOnce)
{
    const auto Check = [](unsigned int uThreads, auto&& xLaunch)
    {
        const CDeviceData<unsigned int> xCounts(uThreads);
        xLaunch(xCounts.Get());
        ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(xCounts.Read(), std::vector<unsigned int>(uThreads, 1)) << uThreads;
    };
    // The last needs more blocks than fit into one dimension of the grid.
    for (const auto& [uThreads, uBlock] : {std::pair{1U, 256U}, {255U, 256U}, {100000U, 256U}, {70000U, 1U}})
    {
        CQxCudaComp xComp;
        xComp.SetKernelConfiguration(uThreads, uBlock);
        EXPECT_EQ(xComp.GetGrid().y, uBlock == 1 ? 2U : 1U);
        Check(uThreads,
            [&, uCount = uThreads](unsigned int* pCounts)
            { LaunchKernel<CountThreads>(xComp, nullptr, pCounts, uCount); });
    }
    Check(720,
        [](unsigned int* pCounts)
        { LaunchKernel<CountThreads>(dim3(3, 2, 4), dim3(2, 3, 5), nullptr, pCounts, 720U); });
}

struct SStep
{
    int iFactor;
    double fSummand;
};

__global__ void Apply(double* pValue, SStep xStep, double fMore)
{
    *pValue = *pValue * xStep.iFactor + xStep.fSummand + fMore;
}

TEST(LaunchKernel, ReturnsAtOnceHavingConvertedAndCopiedItsArguments)
{
    const CDeviceData<double> xValue;
    const CStream xStream;
    {
        CHold xHold(xStream);
        SStep xStep{10, 1};
        short iMore = 1;
        LaunchKernel<Apply>(dim3(1), dim3(1), xStream, xValue.Get(), xStep, iMore);
        xStep = {100, 20};
        iMore = 2;
        LaunchKernel<Apply>(dim3(1), dim3(1), xStream, xValue.Get(), xStep, iMore);
        xStep = {};
        iMore = 0;
        // Both wait for their turn, and nobody has waited for them.
        EXPECT_EQ(cudaStreamQuery(xStream), cudaErrorNotReady);
        static_cast<void>(cudaGetLastError());
        xHold.Release();
        EXPECT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    }
    EXPECT_EQ(xValue.Read().front(), 222.0);
}

TEST(LaunchKernel, KeepsTheOrderOfAStream)
{
    const CDeviceData<double> xValue;
    const CStream xStream;
    double fExpected = 0;
    for (int iStep = 0; iStep < 200; ++iStep)
    {
        LaunchKernel<Apply>(dim3(1), dim3(1), xStream, xValue.Get(), SStep{iStep % 3, 1.0}, iStep);
        fExpected = fExpected * (iStep % 3) + 1 + iStep;
    }
    ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    EXPECT_EQ(xValue.Read().front(), fExpected);
}

TEST(LaunchKernel, EndWaitsForItsOwnStreamOnly)
{
    const CDeviceData<double> xValue;
    const CDeviceData<double> xHeldValue;
    const CStream xHeld;
    const CStream xStream;
    CQxCudaComp xComp;
    xComp.SetKernelConfiguration(1, 1);
    xComp.Begin("Apply", xStream);
    const CHold xHold(xHeld);
    LaunchKernel<Apply>(xComp, xHeld, xHeldValue.Get(), SStep{1, 1}, 0);
    LaunchKernel<Apply>(xComp, xStream, xValue.Get(), SStep{1, 5}, 0);
    xComp.End("Apply", xStream);
    EXPECT_EQ(cudaStreamQuery(xStream), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(xHeld), cudaErrorNotReady);
    static_cast<void>(cudaGetLastError());
    double fValue = 0;
    ASSERT_EQ(cudaMemcpyAsync(&fValue, xValue.Get(), sizeof(fValue), cudaMemcpyDeviceToHost, xStream), cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    EXPECT_EQ(fValue, 5.0);
}

constexpr const char* c_pcLaunchFile = "Source/Qx.Cuda/QxLaunchKernel";

TEST(LaunchKernel, ThrowsWhenTheRuntimeRefusesTheConfiguration)
{
    const CDeviceData<unsigned int> xCounts;
    const std::tuple<dim3, dim3, const char*> vCases[] = {
        {{0, 1, 1}, {1, 1, 1}, "grid [0, 1, 1] and block [1, 1, 1]"},
        {{1, 1, 1}, {1, 0, 1}, "grid [1, 1, 1] and block [1, 0, 1]"},
        {{2, 3, 4}, {1025, 1, 1}, "grid [2, 3, 4] and block [1025, 1, 1]"},
        {{1, 1, 1}, {32, 33, 1}, "grid [1, 1, 1] and block [32, 33, 1]"},
        {{1, 1, 1}, {1, 1, 65}, "grid [1, 1, 1] and block [1, 1, 65]"},
        {{2147483648U, 1, 1}, {1, 1, 1}, "grid [2147483648, 1, 1] and block [1, 1, 1]"},
        {{1, 65536, 1}, {1, 1, 1}, "grid [1, 65536, 1] and block [1, 1, 1]"},
        {{1, 1, 65536}, {1, 1, 1}, "grid [1, 1, 65536] and block [1, 1, 1]"},
    };
    for (const auto& [xGrid, xBlock, pcText] : vCases)
    {
        const std::string sMessage = std::string("Error launching kernel with ") + pcText;
        const SLink xExpected = Cuda(sMessage.c_str(), cudaErrorInvalidConfiguration, "LaunchKernel", c_pcLaunchFile);
        EXPECT_TRUE(ThrowsChain([&, &xG = xGrid, &xB = xBlock]
            { LaunchKernel<CountThreads>(xG, xB, nullptr, xCounts.Get(), 1U); },
            {xExpected}));
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess) << pcText;
    }
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_EQ(xCounts.Read().front(), 0U);
}

template <int iNumber>
__global__ void Numbered(int*)
{
}

template <auto Kernel, typename... TArguments>
void ExpectLaunchReport(const char* pcKernel, const char* pcGrid, unsigned int uBlock, TArguments... xArguments)
{
    CQxCudaComp xComp; // with a grid of 0 until it is configured
    if (uBlock != 0)
    {
        xComp.SetKernelConfiguration(8, uBlock);
    }
    try
    {
        LaunchKernel<Kernel>(xComp, nullptr, xArguments...);
        ADD_FAILURE() << pcKernel << " was launched";
    }
    catch (const CQxCudaException& xException)
    {
        const std::string sReport = std::string("Launch: Error launching kernel\n\nKernel: '") + pcKernel +
            "'\nCUDA Error String: 'invalid configuration argument'\n\nKernel Configuration:\n - Grid:  " + pcGrid;
        EXPECT_EQ(std::string(xException.GetMessageText().ToCString()).substr(0, sReport.size()), sReport);
        EXPECT_STREQ(xException.GetFunction().ToCString(), "LaunchKernel");
        EXPECT_STREQ(xException.GetFile().ToCString(), c_pcLaunchFile);
        EXPECT_EQ(xException.GetCudaError(), cudaErrorInvalidConfiguration);
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
    }
}

TEST(LaunchKernel, ThrowsTheReportOfItsContext)
{
    const CDeviceData<unsigned int> xCounts;
    ExpectLaunchReport<CountThreads>("CountThreads", "[0, 0, 1] = 0\n - Block: [0, 0, 1] = 0\n", 0, xCounts.Get(), 1U);
    ExpectLaunchReport<CountThreads>(
        "CountThreads", "[1, 1, 1] = 1\n - Block: [1025, 1, 1] = 1025\n", 1025, xCounts.Get(), 1U);
#if defined(__clang__)
    constexpr const char* c_pcNumbered = "Numbered";
#else
    constexpr const char* c_pcNumbered = "Numbered<3>";
#endif
    ExpectLaunchReport<Numbered<3>>(c_pcNumbered, "[1, 1, 1]", 2000, nullptr);
}

__global__ void Trap()
{
    if (blockIdx.x == 2)
    {
        __trap();
    }
}

#if defined(QX_HOSTCUDA)
__global__ void ThrowException()
{
    throw std::string("out of a kernel");
}
#endif

template <auto Kernel>
void ExpectReportAndRecovery(const char* pcKernel)
{
    SCOPED_TRACE(pcKernel);
    {
        CQxCudaComp xComp;
        xComp.SetKernelConfiguration(8, 2);
        xComp.Begin(pcKernel, nullptr);
        CHold xHold(nullptr);
        LaunchKernel<Kernel>(xComp, nullptr);
        // The kernel starts when End has recorded its event, which a fault would prevent.
        CCudaRecorder::Reset();
        const auto ReleaseAfterRecord = [&]
        {
            while (CCudaRecorder::Count("cudaEventRecord") == 0)
            {
                std::this_thread::yield();
            }
            xHold.Release();
        };
        const auto xRelease = std::async(std::launch::async, ReleaseAfterRecord);
        try
        {
            xComp.End(pcKernel, nullptr);
            ADD_FAILURE() << "the fault was not reported";
        }
        catch (const CQxCudaException& xException)
        {
            const std::string sMessage = xException.GetMessageText().ToCString();
            const std::string sReport = std::string("End: Error during Kernel execution\n\nKernel: '") + pcKernel +
                "'\nCUDA Error String: 'unspecified launch failure'\n\nKernel Configuration:\n"
                " - Grid:  [4, 1, 1] = 4\n - Block: [2, 1, 1] = 2\n\nFree Memory: ";
            EXPECT_EQ(sMessage.substr(0, sReport.size()), sReport);
            // Resetting the last error, as the report does, is in vain: the fault is the device's.
            EXPECT_EQ(xException.GetCudaError(), cudaErrorLaunchFailure);
        }
        EXPECT_EQ(cudaGetLastError(), cudaErrorLaunchFailure);
        EXPECT_THROW(LaunchKernel<Kernel>(xComp, nullptr), CQxCudaException);
        EXPECT_THROW(xComp.End(pcKernel, nullptr), CQxCudaException);
        EXPECT_THROW(CQxDeviceImage2D({8, 8, EDataType::UByte, EPixelType::Lum}), CQxException);
    }
    ASSERT_EQ(cudaDeviceReset(), cudaSuccess);
    GPU::CResourceManager::ForgetDevice(0);
    static_cast<void>(cudaGetLastError());

    EXPECT_EQ(PixelsCountedOnce({8, 8, EDataType::UInt, EPixelType::Lum}), 64);
}

TEST(LaunchKernel, AFaultIsReportedByEndAndGoneAfterAReset)
{
    ExpectReportAndRecovery<Trap>("Trap");
    ExpectReportAndRecovery<Trap>("Trap again");
#if defined(QX_HOSTCUDA)
    ExpectReportAndRecovery<ThrowException>("ThrowException");
#endif
}

__global__ void Report(SParameter xDebug, CudaDebug::EKind eKind)
{
    const int iThread = static_cast<int>(GetIndex());
    const int iSlot = atomicAdd(xDebug.pCounter, 1);
    if (iSlot < xDebug.iCapacity)
    {
        SItem& xItem = xDebug.pItems[iSlot];
        xItem.aiPosition[0] = iThread;
        xItem.aiPosition[3] = static_cast<int>(eKind);
        xItem.bFlag = true;
        xItem.afValue[8] = static_cast<float>(2 * iThread);
    }
}

TEST(LaunchKernel, DebugChannelHoldsWhatKernelsReportUpToItsCapacity)
{
    SParameter& xDebug = CQxCudaCompDebug::GetDebugParams();
    for (const int iCapacity : {1000, 300, 10})
    {
        xDebug.Malloc(iCapacity);
        CQxCudaComp xComp;
        xComp.SetKernelConfiguration(300, 100);
        xComp.SetDebugKind(static_cast<CudaDebug::EKind>(7));
        xComp.Begin("Report", nullptr);
        LaunchKernel<Report>(xComp, nullptr, xDebug, xComp.GetDebugKind());
        xComp.End("Report", nullptr);
        EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), 300);
        std::vector<SItem> vItems;
        CQxCudaCompDebug::GetDebugItems(vItems);
        EXPECT_EQ(vItems.size(), static_cast<std::size_t>(std::min(iCapacity, 300)));
        std::set<int> vThreads;
        for (const SItem& xItem : vItems)
        {
            EXPECT_TRUE(xItem.bFlag);
            EXPECT_EQ(xItem.aiPosition[3], 7);
            EXPECT_EQ(xItem.afValue[8], static_cast<float>(2 * xItem.aiPosition[0]));
            vThreads.insert(xItem.aiPosition[0]);
        }
        EXPECT_EQ(vThreads.size(), vItems.size()) << "a thread reported twice";
        EXPECT_TRUE(*vThreads.begin() >= 0 && *vThreads.rbegin() < 300);
        xDebug.Delete();
    }
}

__constant__ SDeviceImageDesc2D c_xSource;

__global__ void CopyDescribed(SDeviceImageDesc2D xTarget)
{
    const unsigned int uX = threadIdx.x;
    const unsigned int uY = blockIdx.x;
    static_cast<unsigned char*>(xTarget.pData)[uY * xTarget.nPitch + uX] =
        static_cast<const unsigned char*>(c_xSource.pData)[uY * c_xSource.nPitch + uX];
}

TEST(LaunchKernel, KernelsReadTheDescriptionThatTheStreamWroteBeforeThem)
{
    const CQxImageFormat xFormat{20, 30, EDataType::UByte, EPixelType::Lum};
    const CStream xStream;
    CQxImage xHost;
    xHost.Create(xFormat);
    std::vector<CQxDeviceImage2D> vSources(3);
    std::vector<CQxDeviceImage2D> vTargets(3);
    for (std::size_t nImage = 0; nImage < 3; ++nImage)
    {
        std::fill_n(static_cast<unsigned char*>(xHost.GetDataPtr()), 600, static_cast<unsigned char>(nImage + 1));
        vSources[nImage].Create(xHost);
        vTargets[nImage].Create(xFormat);
    }
    ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess); // for the uploads, which this stream does not wait for
    // One constant for three launches: each sees the description that was current in its turn.
    for (std::size_t nImage = 0; nImage < 3; ++nImage)
    {
        vSources[nImage].CopyDescriptionToCudaConstAsync(c_xSource, xStream);
        LaunchKernel<CopyDescribed>(dim3(30), dim3(20), xStream, vTargets[nImage].GetDesc());
    }
    ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    for (std::size_t nImage = 0; nImage < 3; ++nImage)
    {
        vTargets[nImage].CopyTo(xHost);
        const auto* const pPixels = static_cast<const unsigned char*>(xHost.GetDataPtr());
        EXPECT_EQ(std::count(pPixels, pPixels + 600, static_cast<unsigned char>(nImage + 1)), 600) << nImage;
    }
}

// A client's library with a constant and kernels of its own comes and goes, as often as it likes.
TEST(LaunchKernel, ALibraryThatIsLoadedLaterBringsItsKernelsAndConstantsAndTakesThemAway)
{
    for (int iRound = 0; iRound < 3; ++iRound)
    {
        void* const pLibrary = dlopen(QX_KERNEL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(pLibrary, nullptr) << dlerror();
        const auto FillDescribed = reinterpret_cast<PFillDescribed>(dlsym(pLibrary, c_pcFillDescribed));
        const auto Throw = reinterpret_cast<PThrow>(dlsym(pLibrary, c_pcThrow));
        const auto KeepImage = reinterpret_cast<PKeepImage>(dlsym(pLibrary, c_pcKeepImage));
        ASSERT_TRUE(FillDescribed != nullptr && Throw != nullptr && KeepImage != nullptr);
        {
            const CStream xStream;
            const CQxDeviceImage2D xImage(CQxImageFormat{33, 50, EDataType::UByte, EPixelType::Lum});
            CCudaRecorder::Reset();
            FillDescribed(xImage, 7, xStream);
            EXPECT_EQ(
                CCudaRecorder::CallNames(), (std::vector<std::string>{"cudaMemcpyToSymbolAsync", "cudaLaunchKernel"}));
            ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
            CQxImage xHost;
            xImage.CopyTo(xHost);
            std::vector<unsigned char> vExpected;
            for (int iPixel = 0; iPixel < 33 * 50; ++iPixel)
            {
                vExpected.push_back(static_cast<unsigned char>(7 + iPixel % 33 + 3 * (iPixel / 33)));
            }
            EXPECT_EQ(std::memcmp(xHost.GetDataPtr(), vExpected.data(), vExpected.size()), 0);
        }
        // Exceptions are the same types on both sides of the boundary.
        CQxDeviceImage2D xImage;
        EXPECT_TRUE(ThrowsChain(
            [&] { Throw(xImage); }, {Cuda("Error in the library", cudaErrorInvalidDevice, "Throw", "KernelLibrary")}));
        EXPECT_THROW(Throw(xImage), CQxCudaException);
        KeepImage();
        EXPECT_EQ(GPU::CResourceManager::GetStatistics().nBlocksInUse, 1U);
        ASSERT_EQ(dlclose(pLibrary), 0);
        EXPECT_EQ(dlopen(QX_KERNEL_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still loaded";
        EXPECT_EQ(GPU::CResourceManager::GetStatistics().nBlocksInUse, 0U) << "its image is still there";
    }
}

} // namespace

} // namespace Qx::Test
