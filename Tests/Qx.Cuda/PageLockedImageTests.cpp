#include <algorithm>
#include <climits>
#include <new>
#include <type_traits>
#include <utility>

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

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxPageLockedImage";
constexpr CQxImageFormat c_xFormat(37, 11, EDataType::UShort, EPixelType::LumA);
constexpr CQxImageFormat c_xOtherFormat(5, 3, EDataType::UByte, EPixelType::RGB);
const SLink c_xCreate = Plain("Error creating page-locked image", "Create", c_pcFile);

static_assert(!std::is_copy_constructible_v<CQxPageLockedImage> && !std::is_copy_assignable_v<CQxPageLockedImage>);

class PageLockedImage : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }

    static std::size_t InUse() { return GPU::CResourceManager::GetStatistics(0, GPU::EPool::PageLocked).nBlocksInUse; }
};

TEST_F(PageLockedImage, BorrowsWhatItsFormatTakesAndMovesItOn)
{
    CQxPageLockedImage xImage;
    EXPECT_EQ(xImage.GetDataPtr(), nullptr);
    EXPECT_TRUE(xImage.Create(37, 11, EPixelType::LumA, EDataType::UShort));
    EXPECT_EQ(CPoolRecorder::sm_nWidth, 37U * 11 * 4);
    EXPECT_EQ(xImage.GetBufferSize(), 37U * 11 * 4);
    EXPECT_EQ(GetImageFormat(xImage), c_xFormat);
    cudaPointerAttributes xAttributes{};
    ASSERT_EQ(cudaPointerGetAttributes(&xAttributes, xImage.GetDataPtr()), cudaSuccess);
    EXPECT_EQ(xAttributes.type, cudaMemoryTypeHost);

    void* const pPixels = xImage.GetDataPtr();
    CPoolRecorder::Reset();
    xImage.Create(c_xFormat);
    EXPECT_EQ(CPoolRecorder::sm_iGetPageLocked + CPoolRecorder::sm_iRelease, 0);

    CQxPageLockedImage xOther(c_xOtherFormat);
    xOther = std::move(xImage);
    EXPECT_EQ(xOther.GetDataPtr(), pPixels);
    EXPECT_EQ(xOther.GetFormat(), c_xFormat);
    EXPECT_EQ(xImage.GetDataPtr(), nullptr);
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(xImage.GetBufferSize(), 0U);
    EXPECT_EQ(InUse(), 1U);
    CQxPageLockedImage& xSame = xOther;
    xOther = std::move(xSame);
    EXPECT_EQ(xOther.GetDataPtr(), pPixels);
    CQxPageLockedImage xConstructed(std::move(xOther));
    EXPECT_EQ(xConstructed.GetDataPtr(), pPixels);

    // Nothing to hold takes no memory.
    for (const CQxImageFormat& xFormat : {CQxImageFormat(0, INT_MAX, EDataType::Double, EPixelType::RGBA),
             CQxImageFormat(3, 3, EDataType::Void, EPixelType::RGB)})
    {
        xConstructed.Create(c_xFormat);
        xConstructed.Create(xFormat);
        EXPECT_EQ(xConstructed.GetFormat(), xFormat);
        EXPECT_EQ(xConstructed.GetDataPtr(), nullptr);
        EXPECT_EQ(InUse(), 0U);
    }
}

TEST_F(PageLockedImage, AFailureLeavesItUnchangedUntilItsMemoryHasGone)
{
    using enum EDataType::ID;
    using enum EPixelType::ID;
    const SLink xUnknown = Plain("Unknown pixel type", "GetComponentCount", "Qx.Core.Ex/QxImageFormat");
    const std::pair<CQxImageFormat, SLink> c_vRefused[] = {
        {{-1, 3, UByte, Lum}, Plain("Image dimensions are negative", "Create", c_pcFile)},
        {{INT_MAX, INT_MAX, Double, RGBA}, Plain("Image is too large", "Create", c_pcFile)},
        {{3, 3, UByte, static_cast<EPixelType::ID>(1)}, xUnknown},
    };
    CQxPageLockedImage xImage(c_xFormat);
    const void* const pPixels = xImage.GetDataPtr();
    for (const auto& xCase : c_vRefused)
    {
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.first); }, {c_xCreate, xCase.second}));
        EXPECT_EQ(xImage.GetFormat(), c_xFormat);
    }
    CPoolRecorder::sm_eFailRelease = CPoolRecorder::EFailure::QxException;
    const SLink xPool = Plain("pool failure", "Fail", "Pool");
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(c_xOtherFormat); }, {c_xCreate, xPool}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.Release(); }, {xPool}));
    EXPECT_EQ(xImage.GetFormat(), c_xFormat);
    EXPECT_EQ(xImage.GetDataPtr(), pPixels);

    CPoolRecorder::Reset();
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(c_xOtherFormat); }, {c_xCreate, xPool}));
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(xImage.GetDataPtr(), nullptr);
    CPoolRecorder::Reset();
    xImage.Create(c_xFormat);
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::BadAlloc;
    EXPECT_THROW(xImage.Create(c_xOtherFormat), std::bad_alloc);
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(xImage.GetDataPtr(), nullptr);
}

// Everything is queued while the stream waits, and happens in the order of the stream afterwards.
TEST_F(PageLockedImage, QueuedTransfersReturnAtOnceAndKeepTheirOrder)
{
    const CQxImage xFirst = MakeImage(c_xFormat);
    const CQxImage xSecond = MakeImage(c_xFormat, 2);
    const CQxImage xZero(c_xFormat);
    // The first two are sources, the others targets.
    SPlaces vHosts[5];
    for (SPlaces& xHost : vHosts)
    {
        xHost.Fill(EPlace::PageLocked, MakeImage(c_xFormat, 3));
    }
    vHosts[0].Fill(EPlace::PageLocked, xFirst);
    vHosts[1].Fill(EPlace::PageLocked, xSecond);
    const auto Holds = [&](int iHost, const CQxImage& xImage)
    { return HaveSamePixels(vHosts[iHost].Read(EPlace::PageLocked), xImage); };
    CQxDeviceImage2D x2D(xZero);
    CQxDeviceImage1D x1D;
    x1D.Create(xFirst);
    ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess); // for which the stream below does not wait
    CCudaRecorder::Reset();
    const CStreamScope xStream(cudaStreamNonBlocking);
    CHold xHold(xStream);
    x2D.CreateAsync(&vHosts[0].xPageLocked, xStream);
    x2D.CopyToAsync(&vHosts[2].xPageLocked, xStream);
    x2D.SetZeroAsync(xStream);
    x2D.CopyToAsync(&vHosts[3].xPageLocked, xStream);
    x2D.CreateAsync(&vHosts[1].xPageLocked, xStream);
    x2D.CopyToAsync(&vHosts[4].xPageLocked, xStream);
    x1D.SetZeroAsync(xStream);
    EXPECT_EQ(cudaStreamQuery(xStream), cudaErrorNotReady);
    static_cast<void>(cudaGetLastError());
    EXPECT_EQ(CCudaRecorder::Count("cudaStreamSynchronize") + CCudaRecorder::Count("cudaDeviceSynchronize"), 0U);

    xHold.Release();
    ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    EXPECT_TRUE(Holds(2, xFirst));
    EXPECT_TRUE(Holds(3, xZero));
    EXPECT_TRUE(Holds(4, xSecond));
    CQxImage xResult;
    x1D.CopyTo(xResult);
    EXPECT_TRUE(HaveSamePixels(xResult, xZero));
}

} // namespace

} // namespace Qx::Test
