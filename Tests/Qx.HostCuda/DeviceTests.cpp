#include <cstdint>
#include <thread>

#include "HostCudaTest.h"

namespace Qx::Test
{

namespace
{

class Devices : public CHostCudaTest
{
};

TEST_F(Devices, CurrentDeviceBelongsToItsThread)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    std::thread(
        []
        {
            int iDevice = -1;
            EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
            EXPECT_EQ(iDevice, 0);
        })
        .join();
    int iDevice = -1;
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    EXPECT_EQ(iDevice, 1);
}

TEST_F(Devices, UnknownDevicesAreRefusedAndChangeNothing)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    int iValue = -7;
    cudaDeviceProp xProperties{};
    HostCuda::SStatistics xStatistics;
    std::size_t nBudget = 7;
    for (const int iDevice : {-1, 2, 64, INT32_MAX, INT32_MIN})
    {
        ExpectFailure(cudaSetDevice(iDevice), cudaErrorInvalidDevice);
        ExpectFailure(cudaDeviceGetAttribute(&iValue, cudaDevAttrWarpSize, iDevice), cudaErrorInvalidDevice);
        ExpectFailure(cudaGetDeviceProperties(&xProperties, iDevice), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::GetStatistics(iDevice, xStatistics), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::SetMemoryBudget(iDevice, 1), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::GetMemoryBudget(iDevice, nBudget), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::SetIntegrated(iDevice, true), cudaErrorInvalidDevice);
    }
    EXPECT_EQ(iValue, -7);
    EXPECT_EQ(nBudget, 7U);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "control calls are no CUDA calls";
    int iDevice = -1;
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    EXPECT_EQ(iDevice, 1);
}

TEST_F(Devices, NullArgumentsAreRefused)
{
    std::size_t nSize = 7;
    ExpectFailure(cudaGetDevice(nullptr), cudaErrorInvalidValue);
    ExpectFailure(cudaGetDeviceCount(nullptr), cudaErrorInvalidValue);
    ExpectFailure(cudaDeviceGetAttribute(nullptr, cudaDevAttrWarpSize, 0), cudaErrorInvalidValue);
    ExpectFailure(cudaGetDeviceProperties(nullptr, 0), cudaErrorInvalidValue);
    ExpectFailure(cudaRuntimeGetVersion(nullptr), cudaErrorInvalidValue);
    ExpectFailure(cudaDriverGetVersion(nullptr), cudaErrorInvalidValue);
    ExpectFailure(cudaMemGetInfo(&nSize, nullptr), cudaErrorInvalidValue);
    ExpectFailure(cudaMemGetInfo(nullptr, &nSize), cudaErrorInvalidValue);
    EXPECT_EQ(nSize, 7U);
}

TEST_F(Devices, PropertiesAgreeWithAttributesAndLimits)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(1, 12345), cudaSuccess);
    cudaDeviceProp xProperties{};
    ASSERT_EQ(cudaGetDeviceProperties(&xProperties, 1), cudaSuccess);
    EXPECT_STREQ(xProperties.name, "Host stand-in device 1");
    EXPECT_EQ(xProperties.totalGlobalMem, 12345U);
    struct
    {
        cudaDeviceAttr eAttribute;
        int iValue;
        int iProperty;
    } const vCases[] = {
        {cudaDevAttrMaxThreadsPerBlock, 1024, xProperties.maxThreadsPerBlock},
        {cudaDevAttrMaxBlockDimX, 1024, xProperties.maxThreadsDim[0]},
        {cudaDevAttrMaxBlockDimY, 1024, xProperties.maxThreadsDim[1]},
        {cudaDevAttrMaxBlockDimZ, 64, xProperties.maxThreadsDim[2]},
        {cudaDevAttrMaxGridDimX, INT32_MAX, xProperties.maxGridSize[0]},
        {cudaDevAttrMaxGridDimY, 65535, xProperties.maxGridSize[1]},
        {cudaDevAttrMaxGridDimZ, 65535, xProperties.maxGridSize[2]},
        {cudaDevAttrWarpSize, 32, xProperties.warpSize},
        {cudaDevAttrManagedMemory, 1, xProperties.managedMemory},
        {cudaDevAttrCanMapHostMemory, 1, xProperties.canMapHostMemory},
        {cudaDevAttrUnifiedAddressing, 1, xProperties.unifiedAddressing},
        {cudaDevAttrPciDeviceId, 1, xProperties.pciDeviceID},
        {cudaDevAttrComputeCapabilityMajor, 9, xProperties.major},
        {cudaDevAttrComputeCapabilityMinor, 0, xProperties.minor},
    };
    for (const auto& xCase : vCases)
    {
        int iValue = -1;
        EXPECT_EQ(cudaDeviceGetAttribute(&iValue, xCase.eAttribute, 1), cudaSuccess);
        EXPECT_EQ(iValue, xCase.iValue) << "attribute " << xCase.eAttribute;
        EXPECT_EQ(xCase.iProperty, xCase.iValue) << "property of attribute " << xCase.eAttribute;
    }
    int iValue = -7;
    ExpectFailure(cudaDeviceGetAttribute(&iValue, static_cast<cudaDeviceAttr>(0), 0), cudaErrorInvalidValue);
    ExpectFailure(cudaDeviceGetAttribute(&iValue, static_cast<cudaDeviceAttr>(127), 0), cudaErrorInvalidValue);
    EXPECT_EQ(iValue, -7);
    EXPECT_EQ(cudaRuntimeGetVersion(&iValue), cudaSuccess);
    EXPECT_EQ(iValue, 13000);
}

TEST_F(Devices, IntegratedDeviceHasNoConcurrentManagedAccess)
{
    for (const bool bIntegrated : {true, false})
    {
        ASSERT_EQ(HostCuda::SetIntegrated(1, bIntegrated), cudaSuccess);
        int iIntegrated = -1;
        int iConcurrent = -1;
        cudaDeviceProp xProperties{};
        EXPECT_EQ(cudaDeviceGetAttribute(&iIntegrated, cudaDevAttrIntegrated, 1), cudaSuccess);
        EXPECT_EQ(cudaDeviceGetAttribute(&iConcurrent, cudaDevAttrConcurrentManagedAccess, 1), cudaSuccess);
        EXPECT_EQ(cudaGetDeviceProperties(&xProperties, 1), cudaSuccess);
        EXPECT_EQ(iIntegrated, bIntegrated ? 1 : 0);
        EXPECT_EQ(iConcurrent, bIntegrated ? 0 : 1);
        EXPECT_EQ(xProperties.integrated, iIntegrated);
        EXPECT_EQ(xProperties.concurrentManagedAccess, iConcurrent);
    }
}

TEST_F(Devices, ResetReleasesEverythingOfItsDeviceAndRefusesWhatIsLeft)
{
    const CBlock xOther(EMemory::Device, 64); // of device 0
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    void* pDevice = nullptr;
    void* pPitched = nullptr;
    void* pManaged = nullptr;
    void* pPinned = nullptr;
    std::size_t nPitch = 0;
    cudaArray_t hArray = nullptr;
    cudaStream_t hStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    const cudaChannelFormatDesc xFormat = cudaCreateChannelDesc(32, 0, 0, 0, cudaChannelFormatKindFloat);
    ASSERT_EQ(cudaMalloc(&pDevice, 1000), cudaSuccess);
    ASSERT_EQ(cudaMallocPitch(&pPitched, &nPitch, 100, 10), cudaSuccess);
    ASSERT_EQ(cudaMallocManaged(&pManaged, 1000), cudaSuccess);
    ASSERT_EQ(cudaMallocHost(&pPinned, 1000), cudaSuccess);
    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 8, 8), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(cudaEventCreate(&hEvent), cudaSuccess);
    // Work of the other device that uses a block of this one must end before the block goes.
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    {
        const CStreamScope hForeign;
        CHold xHold(hForeign);
        ASSERT_EQ(cudaMemcpyAsync(xOther.Get(), pDevice, 64, cudaMemcpyDeviceToDevice, hForeign), cudaSuccess);
        xHold.Await();
        std::future<cudaError_t> xReset = std::async(std::launch::async,
                                                     []
                                                     {
                                                         EXPECT_EQ(cudaSetDevice(1), cudaSuccess);
                                                         return cudaDeviceReset();
                                                     });
        EXPECT_EQ(xReset.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        xHold.Release();
        EXPECT_EQ(xReset.get(), cudaSuccess);
    }
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    HostCuda::SStatistics xStatistics;
    EXPECT_EQ(HostCuda::GetStatistics(1, xStatistics), cudaSuccess);
    EXPECT_EQ(xStatistics, HostCuda::SStatistics{});
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    EXPECT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, c_nBudget);

    ExpectFailure(cudaMemset(pDevice, 0, 1), cudaErrorInvalidValue);
    ExpectFailure(cudaMemcpy(xOther.Get(), pPitched, 1, cudaMemcpyDeviceToDevice), cudaErrorInvalidValue);
    ExpectFailure(cudaFree(pDevice), cudaErrorInvalidValue);
    ExpectFailure(cudaFree(pManaged), cudaErrorInvalidValue);
    ExpectFailure(cudaFreeHost(pPinned), cudaErrorInvalidValue);
    ExpectFailure(cudaFreeArray(hArray), cudaErrorInvalidValue);
    ExpectFailure(cudaStreamSynchronize(hStream), cudaErrorInvalidResourceHandle);
    ExpectFailure(cudaEventRecord(hEvent, nullptr), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(xOther.Read(), std::vector<unsigned char>(64, 0xCD)) << "blocks of other devices stay";
}

TEST_F(Devices, ResetWaitsForQueuedWork)
{
    cudaStream_t hStream = nullptr;
    ASSERT_EQ(cudaStreamCreateWithFlags(&hStream, cudaStreamNonBlocking), cudaSuccess);
    CHold xHold(hStream);
    bool bCalled = false;
    ASSERT_EQ(cudaLaunchHostFunc(
                  hStream, [](void* pCalled) { *static_cast<bool*>(pCalled) = true; }, &bCalled),
              cudaSuccess);
    std::future<void> xRelease = std::async(std::launch::async, [&xHold] { xHold.Release(); });
    EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    EXPECT_TRUE(bCalled);
    xRelease.get();
}

} // namespace

} // namespace Qx::Test
