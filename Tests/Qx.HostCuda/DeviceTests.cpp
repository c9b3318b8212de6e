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

int GetCurrent()
{
    int iDevice = -1;
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    return iDevice;
}

TEST_F(Devices, CurrentDeviceBelongsToItsThread)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    std::thread([] { EXPECT_EQ(GetCurrent(), 0); }).join();
    EXPECT_EQ(GetCurrent(), 1);
}

TEST_F(Devices, UnknownDevicesAndNullArgumentsAreRefusedAndChangeNothing)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    int iValue = -7;
    std::size_t nSize = 7;
    cudaDeviceProp xProperties{};
    HostCuda::SStatistics xStatistics;
    for (const int iDevice : {-1, 2, 64, INT32_MAX, INT32_MIN})
    {
        EXPECT_EQ(HostCuda::GetStatistics(iDevice, xStatistics), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::SetMemoryBudget(iDevice, 1), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::GetMemoryBudget(iDevice, nSize), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::SetIntegrated(iDevice, true), cudaErrorInvalidDevice);
        EXPECT_EQ(HostCuda::RaiseFault(iDevice, cudaErrorAssert), cudaErrorInvalidDevice);
        EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "control calls are no CUDA calls";
        ExpectResult(cudaSetDevice(iDevice), cudaErrorInvalidDevice);
        ExpectResult(cudaDeviceGetAttribute(&iValue, cudaDevAttrWarpSize, iDevice), cudaErrorInvalidDevice);
        ExpectResult(cudaGetDeviceProperties(&xProperties, iDevice), cudaErrorInvalidDevice);
    }
    EXPECT_EQ(HostCuda::RaiseFault(1, cudaSuccess), cudaErrorInvalidValue);
    ExpectResult(cudaGetDevice(nullptr), cudaErrorInvalidValue);
    ExpectResult(cudaGetDeviceCount(nullptr), cudaErrorInvalidValue);
    ExpectResult(cudaDeviceGetAttribute(nullptr, cudaDevAttrWarpSize, 0), cudaErrorInvalidValue);
    ExpectResult(cudaGetDeviceProperties(nullptr, 0), cudaErrorInvalidValue);
    ExpectResult(cudaRuntimeGetVersion(nullptr), cudaErrorInvalidValue);
    ExpectResult(cudaDriverGetVersion(nullptr), cudaErrorInvalidValue);
    ExpectResult(cudaMemGetInfo(&nSize, nullptr), cudaErrorInvalidValue);
    ExpectResult(cudaMemGetInfo(nullptr, &nSize), cudaErrorInvalidValue);
    for (const int iAttribute : {0, 127})
    {
        ExpectResult(
            cudaDeviceGetAttribute(&iValue, static_cast<cudaDeviceAttr>(iAttribute), 0), cudaErrorInvalidValue);
    }
    EXPECT_EQ(iValue, -7);
    EXPECT_EQ(nSize, 7U);
    EXPECT_EQ(GetCurrent(), 1);
}

TEST_F(Devices, PropertiesAgreeWithAttributesAndLimits)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(1, 12345), cudaSuccess);
    cudaDeviceProp xProperties{};
    ASSERT_EQ(cudaGetDeviceProperties(&xProperties, 1), cudaSuccess);
    EXPECT_STREQ(xProperties.name, "Host stand-in device 1");
    EXPECT_EQ(xProperties.totalGlobalMem, 12345U);
    const std::tuple<cudaDeviceAttr, int, int> vCases[] = {
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
    int iValue = -1;
    for (const auto& [eAttribute, iExpected, iProperty] : vCases)
    {
        EXPECT_EQ(cudaDeviceGetAttribute(&iValue, eAttribute, 1), cudaSuccess);
        EXPECT_EQ(iValue, iExpected) << "attribute " << eAttribute;
        EXPECT_EQ(iProperty, iExpected) << "property of attribute " << eAttribute;
    }
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
    void* const pDevice = MakeMemory(1000);
    const cudaStream_t hStream = MakeStream();
    const cudaEvent_t hEvent = MakeEvent();
    void* pPitched = nullptr;
    void* pManaged = nullptr;
    void* pPinned = nullptr;
    std::size_t nPitch = 0;
    cudaArray_t hArray = nullptr;
    const cudaChannelFormatDesc xFormat = cudaCreateChannelDesc(32, 0, 0, 0, cudaChannelFormatKindFloat);
    ASSERT_EQ(cudaMallocPitch(&pPitched, &nPitch, 100, 10), cudaSuccess);
    ASSERT_EQ(cudaMallocManaged(&pManaged, 1000), cudaSuccess);
    ASSERT_EQ(cudaMallocHost(&pPinned, 1000), cudaSuccess);
    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 8, 8), cudaSuccess);
    EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    EXPECT_EQ(GetStatistics(1), HostCuda::SStatistics{});
    EXPECT_EQ(GetFreeMemory(), c_nBudget);

    ExpectResult(cudaMemset(pDevice, 0, 1), cudaErrorInvalidValue);
    ExpectResult(cudaMemcpy(xOther.Get(), pPitched, 1, cudaMemcpyDeviceToDevice), cudaErrorInvalidValue);
    ExpectResult(cudaFree(pDevice), cudaErrorInvalidValue);
    ExpectResult(cudaFree(pManaged), cudaErrorInvalidValue);
    ExpectResult(cudaFreeHost(pPinned), cudaErrorInvalidValue);
    ExpectResult(cudaFreeArray(hArray), cudaErrorInvalidValue);
    ExpectResult(cudaStreamSynchronize(hStream), cudaErrorInvalidResourceHandle);
    ExpectResult(cudaEventRecord(hEvent, nullptr), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(xOther.Read(), Bytes(64, 0xCD)) << "blocks of other devices stay";
}

TEST_F(Devices, ResetWaitsForItsOwnWorkAndForThatOfOthersWithItsBlocks)
{
    const CBlock xHere(EMemory::Device, 64);
    const CStreamScope hForeign;
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    for (const bool bForeign : {false, true})
    {
        void* const pThere = MakeMemory(64);
        const cudaStream_t hStream = bForeign ? static_cast<cudaStream_t>(hForeign) : MakeStream(cudaStreamNonBlocking);
        CHold xHold(hStream);
        ASSERT_EQ(cudaMemcpyAsync(xHere.Get(), pThere, 64, cudaMemcpyDeviceToDevice, hStream), cudaSuccess);
        CWaiting xReset(
            []
            {
                EXPECT_EQ(cudaSetDevice(1), cudaSuccess);
                return cudaDeviceReset();
            });
        xHold.Release();
        EXPECT_EQ(xReset.Get(), cudaSuccess);
        EXPECT_EQ(xHere.Read(), Bytes(64, 0xCD));
    }
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
}

} // namespace

} // namespace Qx::Test
