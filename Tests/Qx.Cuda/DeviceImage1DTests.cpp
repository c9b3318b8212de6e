#include <algorithm>
#include <climits>
#include <new>

#include <gtest/gtest.h>

#include "ImagePlaces.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"
#include "Support/PoolRecorder.h"
#include "Support/Stream.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceImage1D";
constexpr const char* c_pcFormatFile = "Qx.Core.Ex/QxImageFormat";
constexpr CQxImageFormat c_xFormat(4, 3, EDataType::UByte, EPixelType::RGB);
const SLink c_xCreate = Plain("Error creating 1D Image", "Create", c_pcFile);
const SLink c_xPoolFailure = Plain("pool failure", "Fail", "Pool");

class DeviceImage1D : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }
};

TEST_F(DeviceImage1D, BorrowsExactlyTheBytesOfItsFormat)
{
    const struct
    {
        CQxImageFormat xFormat;
        std::size_t nBytes;
    } c_vCases[] = {{c_xFormat, 36},
                    {{4, 3, EDataType::UByte, EPixelType::BGR}, 36},
                    {{5, 3, EDataType::Packed10, EPixelType::Lum}, 18},
                    {{5, 3, EDataType::Packed12, EPixelType::RGB}, 67},
                    {{5, 3, EDataType::Integral10, EPixelType::Lum}, 18},
                    {{5, 3, EDataType::Integral12, static_cast<EPixelType::ID>(1)}, 22},
                    {{5, 3, EDataType::Double, EPixelType::TwoComponent}, 240},
                    {{1, 1, EDataType::Byte, EPixelType::BayerGB}, 1}};
    const CStreamScope xStream;
    const auto uStream = reinterpret_cast<std::uintptr_t>(static_cast<cudaStream_t>(xStream));
    CQxDeviceImage1D xImage;
    EXPECT_FALSE(xImage.IsValid());
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(xImage.GetDevicePointer(), nullptr);
    int iRequests = 0;
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.nBytes);
        xImage.Create(xCase.xFormat);
        EXPECT_EQ(CPoolRecorder::sm_nWidth, xCase.nBytes);
        EXPECT_EQ(CPoolRecorder::sm_iGetLinear, ++iRequests);
        EXPECT_FALSE(CPoolRecorder::sm_bFlag);
        EXPECT_EQ(xImage.GetFormat(), xCase.xFormat);
        void* const pBefore = xImage.GetDevicePointer();
        xImage.Create(xCase.xFormat);
        EXPECT_EQ(xImage.GetDevicePointer(), pBefore);
        EXPECT_EQ(CPoolRecorder::sm_iGetLinear, iRequests);

        CCudaRecorder::Reset();
        xImage.SetZero();
        xImage.SetZeroAsync(xStream);
        const std::uint64_t uAddress = reinterpret_cast<std::uintptr_t>(pBefore);
        EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments,
                  (std::vector<std::uint64_t>{uAddress, 0, xCase.nBytes}));
        EXPECT_EQ(CCudaRecorder::Last("cudaMemsetAsync").vArguments,
                  (std::vector<std::uint64_t>{uAddress, 0, xCase.nBytes, uStream}));
        EXPECT_EQ(CCudaRecorder::Calls().size(), 2U);
        ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
        CQxImage xResult;
        xImage.CopyTo(xResult);
        EXPECT_TRUE(HaveSamePixels(xResult, CQxImage(xCase.xFormat)));
    }
    // Even an empty image asks the pool and the device.
    xImage.Release();
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    CPoolRecorder::Reset();
    CCudaRecorder::Reset();
    xImage.Release();
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    {
        CQxDeviceImage1D xOther(c_xFormat);
        EXPECT_EQ(CPoolRecorder::sm_iRelease, 2) << "Create gives an empty block back, too";
        xOther.Release();
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 4) << "so does the destructor";
    CCudaRecorder::Reset();
    xImage.SetZero();
    xImage.SetZeroAsync(nullptr);
    EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments, (std::vector<std::uint64_t>{0, 0, 0}));
    EXPECT_EQ(CCudaRecorder::Last("cudaMemsetAsync").vArguments, (std::vector<std::uint64_t>{0, 0, 0, 0}));
}

TEST_F(DeviceImage1D, RefusesImpossibleFormatsUnwrappedAndStaysAsItWas)
{
    const auto ePixel1 = static_cast<EPixelType::ID>(1);
    const SLink xDimension = Plain("Invalid image dimension", "Create", c_pcFile);
    const struct
    {
        CQxImageFormat xFormat;
        SLink xFailure;
    } c_vCases[] = {
        {{}, xDimension},
        {{0, 3, EDataType::UByte, EPixelType::RGB}, xDimension},
        {{4, 0, EDataType::Packed10, EPixelType::RGB}, xDimension},
        {{4, 3, EDataType::Void, EPixelType::RGB}, xDimension},
        {{4, 3, EDataType::UByte, EPixelType::None}, xDimension},
        {{-4, -3, EDataType::UByte, EPixelType::Lum}, xDimension},
        {{-4, 3, EDataType::Integral10, EPixelType::Lum}, xDimension},
        // 2^32 bytes and more: the first would count as none, the last but one as a few, the last as too few.
        {{65536, 65536, EDataType::UByte, EPixelType::Lum}, xDimension},
        {{65536, 16385, EDataType::UByte, EPixelType::RGBA}, xDimension},
        {{INT_MAX, INT_MAX, EDataType::Double, EPixelType::RGBA}, xDimension},
        {{60000, 60000, EDataType::Integral10, EPixelType::Lum}, xDimension},
        {{4, 3, static_cast<EDataType::ID>(9), EPixelType::Lum},
         Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFormatFile)},
        {{4, 3, EDataType::UByte, ePixel1}, Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile)},
        {{4, 3, EDataType::Packed12, ePixel1}, Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile)}};
    CQxDeviceImage1D xImage(c_xFormat);
    void* const pBefore = xImage.GetDevicePointer();
    CPoolRecorder::Reset();
    for (const auto& xCase : c_vCases)
    {
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.xFormat); }, {xCase.xFailure}));
        EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage1D{xCase.xFormat}; }, {xCase.xFailure}));
        EXPECT_EQ(xImage.GetDevicePointer(), pBefore);
        EXPECT_EQ(xImage.GetFormat(), c_xFormat);
    }
    EXPECT_EQ(CPoolRecorder::sm_iGetLinear + CPoolRecorder::sm_iRelease, 0);
}

// The 32-bit count of this format wraps on the way to a value that would fit: the memory must not follow it.
TEST_F(DeviceImage1D, CountsTheBytesOfPackedPixelsWithoutWrapping)
{
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    CQxDeviceImage1D xImage;
    EXPECT_THROW(xImage.Create(CQxImageFormat(20000, 20000, EDataType::Packed12, EPixelType::Lum)), CQxException);
    EXPECT_EQ(CPoolRecorder::sm_nWidth, 600000000U);
}

TEST_F(DeviceImage1D, WrapsTheAllocationOnlyAndOnceMoreInAnUpload)
{
    const CQxImageFormat xOtherFormat(5, 5, EDataType::Float, EPixelType::Lum);
    const CQxImage xOther(xOtherFormat);
    CQxDeviceImage1D xImage(c_xFormat);
    CPoolRecorder::sm_eFailRelease = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xOtherFormat); }, {c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xOther); }, {c_xCreate, c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.Release(); }, {c_xPoolFailure}));
    EXPECT_TRUE(xImage.IsValid());
    EXPECT_EQ(xImage.GetFormat(), c_xFormat);

    CPoolRecorder::Reset();
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xOtherFormat); }, {c_xCreate, c_xPoolFailure}));
    EXPECT_FALSE(xImage.IsValid());
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xOther); }, {c_xCreate, c_xCreate, c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage1D{xOtherFormat}; }, {c_xCreate, c_xPoolFailure}));
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::BadAlloc;
    EXPECT_THROW(xImage.Create(xOther), std::bad_alloc);

    CPoolRecorder::Reset();
    xImage.Create(c_xFormat);
    CCudaRecorder::FailCall("cudaMemset", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([&] { xImage.SetZero(); },
                            {Cuda("Error zeroing CUDA device memory", cudaErrorInvalidValue, "SetZero", c_pcFile)}));
    CCudaRecorder::FailCall("cudaMemsetAsync", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain(
        [&] { xImage.SetZeroAsync(nullptr); },
        {Cuda("Error zeroing CUDA device memory asynchronously", cudaErrorInvalidValue, "SetZeroAsync", c_pcFile)}));
    EXPECT_EQ(xImage.GetFormat(), c_xFormat);
}

} // namespace

} // namespace Qx::Test
