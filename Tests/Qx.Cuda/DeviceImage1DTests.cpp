#include <algorithm>
#include <climits>
#include <new>
#include <utility>
#include <vector>

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
    using enum EDataType::ID;
    using enum EPixelType::ID;
    using Arguments = std::vector<std::uint64_t>;
    const std::pair<CQxImageFormat, std::size_t> c_vCases[] = {
        {c_xFormat, 36},
        {{4, 3, UByte, BGR}, 36},
        {{5, 3, Packed10, Lum}, 18},
        {{5, 3, Packed12, RGB}, 67},
        {{5, 3, Integral10, Lum}, 18},
        {{5, 3, Integral12, static_cast<EPixelType::ID>(1)}, 22},
        {{5, 3, Double, TwoComponent}, 240},
        {{1, 1, Byte, BayerGB}, 1},
    };
    const CStreamScope xStream;
    const auto uStream = reinterpret_cast<std::uintptr_t>(static_cast<cudaStream_t>(xStream));
    CQxDeviceImage1D xImage;
    EXPECT_FALSE(xImage.IsValid());
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(xImage.GetDevicePointer(), nullptr);
    int iRequests = 0;
    for (const auto& [xFormat, nBytes] : c_vCases)
    {
        SCOPED_TRACE(nBytes);
        xImage.Create(xFormat);
        EXPECT_EQ(CPoolRecorder::sm_nWidth, nBytes);
        EXPECT_EQ(CPoolRecorder::sm_iGetLinear, ++iRequests);
        EXPECT_FALSE(CPoolRecorder::sm_bFlag);
        EXPECT_EQ(xImage.GetFormat(), xFormat);
        void* const pBefore = xImage.GetDevicePointer();
        xImage.Create(xFormat);
        EXPECT_EQ(xImage.GetDevicePointer(), pBefore);
        EXPECT_EQ(CPoolRecorder::sm_iGetLinear, iRequests);

        CCudaRecorder::Reset();
        xImage.SetZero();
        xImage.SetZeroAsync(xStream);
        const std::uint64_t uAddress = reinterpret_cast<std::uintptr_t>(pBefore);
        EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments, (Arguments{uAddress, 0, nBytes}));
        EXPECT_EQ(CCudaRecorder::Last("cudaMemsetAsync").vArguments, (Arguments{uAddress, 0, nBytes, uStream}));
        EXPECT_EQ(CCudaRecorder::Calls().size(), 2U);
        ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
        CQxImage xResult;
        xImage.CopyTo(xResult);
        EXPECT_TRUE(HaveSamePixels(xResult, CQxImage(xFormat)));
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
    EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments, (Arguments{0, 0, 0}));
    EXPECT_EQ(CCudaRecorder::Last("cudaMemsetAsync").vArguments, (Arguments{0, 0, 0, 0}));
}

TEST_F(DeviceImage1D, RefusesImpossibleFormatsUnwrappedAndStaysAsItWas)
{
    using enum EDataType::ID;
    using enum EPixelType::ID;
    const auto ePixel1 = static_cast<EPixelType::ID>(1);
    const SLink xDimension = Plain("Invalid image dimension", "Create", c_pcFile);
    const SLink xUnknownData = Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFormatFile);
    const SLink xUnknownPixel = Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile);
    const std::pair<CQxImageFormat, SLink> c_vCases[] = {
        {{}, xDimension},
        {{0, 3, UByte, RGB}, xDimension},
        {{4, 0, Packed10, RGB}, xDimension},
        {{4, 3, Void, RGB}, xDimension},
        {{4, 3, UByte, None}, xDimension},
        {{-4, -3, UByte, Lum}, xDimension},
        {{-4, 3, Integral10, Lum}, xDimension},
        // 2^32 bytes and more: the first would count as none, the last but one as a few, the last as too few.
        {{65536, 65536, UByte, Lum}, xDimension},
        {{65536, 16385, UByte, RGBA}, xDimension},
        {{INT_MAX, INT_MAX, Double, RGBA}, xDimension},
        {{60000, 60000, Integral10, Lum}, xDimension},
        {{4, 3, static_cast<EDataType::ID>(9), Lum}, xUnknownData},
        {{4, 3, UByte, ePixel1}, xUnknownPixel},
        {{4, 3, Packed12, ePixel1}, xUnknownPixel},
    };
    CQxDeviceImage1D xImage(c_xFormat);
    void* const pBefore = xImage.GetDevicePointer();
    CPoolRecorder::Reset();
    for (const auto& xCase : c_vCases)
    {
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.first); }, {xCase.second}));
        EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage1D{xCase.first}; }, {xCase.second}));
        EXPECT_EQ(xImage.GetDevicePointer(), pBefore);
        EXPECT_EQ(xImage.GetFormat(), c_xFormat);
    }
    EXPECT_EQ(CPoolRecorder::sm_iGetLinear + CPoolRecorder::sm_iRelease, 0);

    // The 32-bit count of this format wraps on the way to a value that would fit: the memory must not follow it.
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    EXPECT_THROW(CQxDeviceImage1D(CQxImageFormat(20000, 20000, Packed12, Lum)), CQxException);
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
    EXPECT_TRUE(ThrowsChain([&] { xImage.SetZeroAsync(nullptr); },
        {Cuda("Error zeroing CUDA device memory asynchronously", cudaErrorInvalidValue, "SetZeroAsync", c_pcFile)}));
    EXPECT_EQ(xImage.GetFormat(), c_xFormat);
}

} // namespace

} // namespace Qx::Test
