#include <cstring>
#include <new>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/CudaChain.h"
#include "Support/CudaRecorder.h"
#include "Support/PoolRecorder.h"
#include "Support/Sweep.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceImage2D";
const SLink c_xCreate = Plain("Error creating 2D CUDA device image", "Create", c_pcFile);
const SLink c_xCopyTo = Plain("Error copying to host image", "CopyTo", c_pcFile);
constexpr CQxImageFormat c_xFormat(37, 11, EDataType::UShort, EPixelType::LumA);
constexpr CQxImageFormat c_xOtherFormat(5, 3, EDataType::UByte, EPixelType::RGBA);

CQxImage MakeImage(const CQxImageFormat& xFormat, unsigned uSeed = 1)
{
    CQxImage xImage(xFormat);
    std::mt19937 xRandom(uSeed);
    auto* const puBytes = static_cast<unsigned char*>(xImage.GetDataPtr());
    for (std::size_t nByte = 0; nByte < xImage.GetBufferSize(); ++nByte)
    {
        puBytes[nByte] = static_cast<unsigned char>(xRandom());
    }
    return xImage;
}

bool HaveSamePixels(const CQxImage& xLeft, const CQxImage& xRight)
{
    return xLeft.GetFormat() == xRight.GetFormat() &&
           std::memcmp(xLeft.GetDataPtr(), xRight.GetDataPtr(), xLeft.GetBufferSize()) == 0;
}

std::uint64_t Address(const void* pPointer)
{
    return reinterpret_cast<std::uintptr_t>(pPointer);
}

class DeviceImage2DTransfer : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }
};

TEST_F(DeviceImage2DTransfer, BringsEveryPixelBackInAnyFormat)
{
    CQxDeviceImage2D xDevice;
    CQxImage xResult;
    unsigned uSeed = 0;
    for (const CQxImageFormat& xFormat :
         {c_xFormat, c_xOtherFormat, CQxImageFormat(1, 1, EDataType::Byte, EPixelType::Lum),
          CQxImageFormat(1, 100, EDataType::UByte, EPixelType::BayerGB),
          CQxImageFormat(513, 2, EDataType::UByte, EPixelType::Lum),
          CQxImageFormat(512, 2, EDataType::UByte, EPixelType::Lum),
          CQxImageFormat(17, 9, EDataType::Double, EPixelType::BGRA),
          CQxImageFormat(1920, 1080, EDataType::Custom_12in16_LSB, EPixelType::BayerRG)})
    {
        const CQxImage xImage = MakeImage(xFormat, ++uSeed);
        xDevice.Create(xImage);
        EXPECT_EQ(xDevice.GetFormat(), xFormat);
        xDevice.CopyTo(xResult);
        EXPECT_TRUE(HaveSamePixels(xImage, xResult));
        const CQxDeviceImage2D xConstructed(xImage);
        xConstructed.CopyTo(xResult);
        EXPECT_TRUE(HaveSamePixels(xImage, xResult));
    }
}

TEST_F(DeviceImage2DTransfer, IsOneCopyWithThePitchOnTheDeviceSideOnly)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    CQxImage xResult(c_xFormat);
    CQxDeviceImage2D xDevice(c_xFormat);
    const SDeviceImageDesc2D xDesc = xDevice.GetDesc();
    const std::uint64_t nRow = 37 * 4;
    const auto ExpectOnly = [&](const std::vector<std::uint64_t>& vArguments)
    {
        const auto vCalls = CCudaRecorder::Calls();
        ASSERT_EQ(vCalls.size(), 1U);
        EXPECT_EQ(vCalls[0].sName, "cudaMemcpy2D");
        EXPECT_EQ(vCalls[0].vArguments, vArguments);
        CCudaRecorder::Reset();
    };
    CPoolRecorder::Reset();
    CCudaRecorder::Reset();
    xDevice.Create(xImage);
    ExpectOnly({Address(xDesc.pData), xDesc.nPitch, Address(xImage.GetDataPtr()), nRow, nRow, 11, 1});
    xDevice.Create(c_xFormat, xImage.GetDataPtr(), false);
    ExpectOnly({Address(xDesc.pData), xDesc.nPitch, Address(xImage.GetDataPtr()), nRow, nRow, 11, 1});
    xDevice.CopyTo(xResult);
    ExpectOnly({Address(xResult.GetDataPtr()), nRow, Address(xDesc.pData), xDesc.nPitch, nRow, 11, 2});
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iRelease, 0);
    EXPECT_EQ(xDevice.GetDevicePointer(), xDesc.pData);
    EXPECT_EQ(xDevice.GetDesc().nPitch, xDesc.nPitch);
}

TEST_F(DeviceImage2DTransfer, UploadsFromADeviceBufferWhenToldSo)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    void* pBuffer = nullptr;
    ASSERT_EQ(cudaMalloc(&pBuffer, xImage.GetBufferSize()), cudaSuccess);
    ASSERT_EQ(cudaMemcpy(pBuffer, xImage.GetDataPtr(), xImage.GetBufferSize(), cudaMemcpyHostToDevice), cudaSuccess);
    CQxDeviceImage2D xDevice;
    xDevice.Create(c_xFormat, pBuffer, true);
    EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy2D").vArguments[6], static_cast<std::uint64_t>(cudaMemcpyDeviceToDevice));
    ASSERT_EQ(cudaFree(pBuffer), cudaSuccess);
    CQxImage xResult;
    xDevice.CopyTo(xResult);
    EXPECT_TRUE(HaveSamePixels(xImage, xResult));
}

TEST_F(DeviceImage2DTransfer, RecreatesTheHostImageOnlyForAnotherFormat)
{
    const CQxDeviceImage2D xDevice(MakeImage(c_xFormat));
    CQxImage xResult(c_xFormat);
    const void* const pBuffer = xResult.GetDataPtr();
    xDevice.CopyTo(xResult);
    EXPECT_EQ(xResult.GetDataPtr(), pBuffer);

    for (const CQxImageFormat& xFormat : {CQxImageFormat{}, CQxImageFormat(38, 11, EDataType::UShort, EPixelType::LumA),
                                          CQxImageFormat(37, 12, EDataType::UShort, EPixelType::LumA),
                                          CQxImageFormat(37, 11, EDataType::Short, EPixelType::LumA),
                                          CQxImageFormat(37, 11, EDataType::UShort, EPixelType::Lum)})
    {
        CQxImage xOther(xFormat);
        xDevice.CopyTo(xOther);
        EXPECT_TRUE(HaveSamePixels(xOther, xResult));
    }
}

TEST_F(DeviceImage2DTransfer, RefusesToDownloadAnEmptyImageAndLeavesTheTargetAlone)
{
    const CQxDeviceImage2D xEmpty;
    CQxImage xResult = MakeImage(c_xOtherFormat);
    const CQxImage xBefore = xResult;
    EXPECT_TRUE(
        ThrowsChain([&] { xEmpty.CopyTo(xResult); }, {c_xCopyTo, Plain("Image is invalid", "CopyTo", c_pcFile)}));
    EXPECT_TRUE(HaveSamePixels(xResult, xBefore));
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
}

// The upload wraps what the creation for the format has wrapped already, with the same words.
TEST_F(DeviceImage2DTransfer, WrapsAFailedCreationTwice)
{
    CQxDeviceImage2D xDevice(c_xFormat);
    void* const pBefore = xDevice.GetDevicePointer();
    const CQxImage xRgb(CQxImageFormat(4, 4, EDataType::UByte, EPixelType::RGB));
    const CQxImage xNoWidth(CQxImageFormat(0, 4, EDataType::UByte, EPixelType::Lum));
    const CQxImage xVoid(CQxImageFormat(4, 4, EDataType::Void, EPixelType::Lum));
    const SLink xChannels = Plain("Only 1, 2 or 4 channels per pixel are allowed", "Create", c_pcFile);
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(xRgb); }, {c_xCreate, c_xCreate, xChannels}));
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xNew(xRgb); }, {c_xCreate, c_xCreate, xChannels}));
    EXPECT_TRUE(
        ThrowsChain([&] { xDevice.Create(xNoWidth); },
                    {c_xCreate, c_xCreate, Plain("Width or height of given image format is 0", "Create", c_pcFile)}));
    EXPECT_TRUE(
        ThrowsChain([&] { xDevice.Create(xRgb.GetFormat(), nullptr, false); }, {c_xCreate, c_xCreate, xChannels}));
    EXPECT_EQ(xDevice.GetDevicePointer(), pBefore);
    EXPECT_EQ(xDevice.GetFormat(), c_xFormat);

    EXPECT_TRUE(
        ThrowsChain([&] { xDevice.Create(xVoid); },
                    {c_xCreate, c_xCreate,
                     Plain("Unsupported data type 'Void'", "_CreateCudaChannelFormatDescFromFormat", c_pcFile)}));
    EXPECT_FALSE(xDevice.IsValid());

    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(MakeImage(c_xFormat)); },
                            {c_xCreate, c_xCreate, Plain("pool failure", "Fail", "Pool")}));
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::BadAlloc;
    EXPECT_THROW(xDevice.Create(MakeImage(c_xFormat)), std::bad_alloc);
}

TEST_F(DeviceImage2DTransfer, KeepsMemoryAndFormatOfAFailedUploadSoThatItCanBeRetried)
{
    const SLink xCopy = Cuda("Error copying image to cuda device", cudaErrorInvalidValue, "Create", c_pcFile);
    const CQxImage xImage = MakeImage(c_xFormat);
    CQxDeviceImage2D xDevice(c_xOtherFormat);
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(xImage); }, {c_xCreate, xCopy}));
    EXPECT_TRUE(xDevice.IsValid());
    EXPECT_EQ(xDevice.GetFormat(), c_xFormat);

    CPoolRecorder::Reset();
    xDevice.Create(xImage);
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iRelease, 0);
    CQxImage xResult;
    xDevice.CopyTo(xResult);
    EXPECT_TRUE(HaveSamePixels(xImage, xResult));

    // A constructor that fails in the copy gives the memory back that it had borrowed; the listener would see it.
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xNew(xImage); }, {c_xCreate, xCopy}));
    // CUDA, not the library, refuses a null pointer.
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(c_xFormat, nullptr, false); }, {c_xCreate, xCopy}));
}

TEST_F(DeviceImage2DTransfer, KeepsTheNewFormatOfTheHostImageAfterAFailedDownload)
{
    const CQxDeviceImage2D xDevice(MakeImage(c_xFormat));
    CQxImage xResult(c_xOtherFormat);
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(
        ThrowsChain([&] { xDevice.CopyTo(xResult); },
                    {c_xCopyTo, Cuda("Error copying image to host", cudaErrorInvalidValue, "CopyTo", c_pcFile)}));
    EXPECT_EQ(xResult.GetFormat(), c_xFormat);
}

TEST_F(DeviceImage2DTransfer, SurvivesTheFailureOfEveryRuntimeCall)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    const auto Works = [&](CQxDeviceImage2D& xDevice)
    {
        CQxImage xResult;
        xDevice.Create(xImage);
        xDevice.CopyTo(xResult);
        EXPECT_TRUE(HaveSamePixels(xImage, xResult));
        xDevice.Release();
    };
    // An empty pool, so that the memory has to come from the device.
    const auto Prepare = []
    {
        GPU::CResourceManager::Trim(0);
        return CQxDeviceImage2D();
    };
    const int iUploadCalls = SweepFailures(
        Prepare, [&](CQxDeviceImage2D& xDevice) { xDevice.Create(xImage); },
        [&](CQxDeviceImage2D& xDevice, int, const CQxException& xException)
        {
            EXPECT_STREQ(xException.GetMessageText().ToCString(), c_xCreate.sMessage.c_str());
            EXPECT_EQ(xDevice.IsValid(), xDevice.GetFormat() == c_xFormat);
            EXPECT_EQ(GPU::CResourceManager::GetStatistics().nBlocksInUse, xDevice.IsValid() ? 1U : 0U);
            Works(xDevice);
        });
    EXPECT_GE(iUploadCalls, 2) << "at least the allocation and the copy";
    const int iCalls = SweepFailures([&] { return CQxDeviceImage2D(xImage); },
                                     [&](CQxDeviceImage2D& xDevice)
                                     {
                                         CQxImage xResult;
                                         xDevice.CopyTo(xResult);
                                         xDevice.SetZero();
                                     },
                                     [&](CQxDeviceImage2D& xDevice, int, const CQxException&)
                                     {
                                         EXPECT_EQ(xDevice.GetFormat(), c_xFormat);
                                         Works(xDevice);
                                     });
    EXPECT_EQ(iCalls, 2);
}

TEST_F(DeviceImage2DTransfer, SaysSoWhenTheDeviceHasNoMemoryLeft)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    CQxDeviceImage2D xDevice(c_xOtherFormat);
    CCudaRecorder::FailCall("cudaMallocPitch", 1, cudaErrorMemoryAllocation, true);
    try
    {
        xDevice.Create(xImage);
        FAIL() << "nothing was thrown";
    }
    catch (const CQxException& xException)
    {
        EXPECT_TRUE(xException.HasException(CQxOutOfMemoryException::c_xGuid));
        EXPECT_FALSE(xException.HasException(CQxCudaException::c_xGuid));
    }
    EXPECT_FALSE(xDevice.IsValid());
    CCudaRecorder::ClearFailure();
    xDevice.Create(xImage);
    EXPECT_TRUE(xDevice.IsValid());
}

} // namespace

} // namespace Qx::Test
