#include <algorithm>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"
#include "Support/PoolRecorder.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceImage2D";
constexpr CQxImageFormat c_xFormat(640, 480, EDataType::UShort, EPixelType::LumA);
constexpr CQxImageFormat c_xOtherFormat(33, 7, EDataType::Float, EPixelType::RGBA);

const SLink c_xCreate = Plain("Error creating 2D CUDA device image", "Create", c_pcFile);
const SLink c_xPoolFailure = Plain("pool failure", "Fail", "Pool");

// Everything that makes two images the same image.
auto Snapshot(const CQxDeviceImage2D& xImage)
{
    const SDeviceImageDesc2D xDesc = xImage.GetDesc();
    const CQxImageFormat& xFormat = xDesc.xFormat;
    return std::tuple(xImage.IsValid(), xDesc.pData, xDesc.nPitch, xFormat.iWidth, xFormat.iHeight, xFormat.eDataType,
        xFormat.ePixelType);
}

bool IsEmpty(const CQxDeviceImage2D& xImage)
{
    return !xImage.IsValid() && xImage.GetDevicePointer() == nullptr && xImage.GetFormat() == CQxImageFormat{} &&
        xImage.GetDesc().pData == nullptr && xImage.GetDesc().xFormat == CQxImageFormat{};
}

class DeviceImage2D : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }
};

static_assert(!std::is_copy_constructible_v<CQxDeviceImage2D> && !std::is_copy_assignable_v<CQxDeviceImage2D>);
static_assert(!std::is_polymorphic_v<CQxDeviceImage2D> && sizeof(CQxDeviceImage2D) == 80);
static_assert(!std::is_convertible_v<CQxImageFormat, CQxDeviceImage2D>);

TEST_F(DeviceImage2D, StartsEmptyAndBorrowsRowsOfTheFormatsWidthThatItGivesBackPooled)
{
    {
        CQxDeviceImage2D xImage;
        EXPECT_TRUE(IsEmpty(xImage));
        xImage.Release();
        EXPECT_TRUE(IsEmpty(xImage));
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 0);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
    {
        const CQxDeviceImage2D xImage(c_xFormat);
        EXPECT_EQ(CPoolRecorder::sm_nWidth, 2560U);
        EXPECT_EQ(CPoolRecorder::sm_nRows, 480U);
        EXPECT_TRUE(xImage.IsValid());
        EXPECT_EQ(xImage.GetFormat(), c_xFormat);
        const SDeviceImageDesc2D xDesc = xImage.GetDesc();
        EXPECT_EQ(xDesc.xFormat, c_xFormat);
        EXPECT_EQ(xDesc.pData, xImage.GetDevicePointer());
        EXPECT_GE(xDesc.nPitch, 2560U);
    }
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 1);
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    EXPECT_FALSE(CPoolRecorder::sm_bFlag);
}

TEST_F(DeviceImage2D, RefusesFormatsAndKeepsOrEmptiesTheImageByTheStepThatRefuses)
{
    using enum EDataType::ID;
    using enum EPixelType::ID;
    const auto Refused = [](const char* pcMessage) { return Plain(pcMessage, "Create", c_pcFile); };
    const auto Unsupported = [](const char* pcMessage)
    { return Plain(pcMessage, "_CreateCudaChannelFormatDescFromFormat", c_pcFile); };
    const SLink xNoSize = Refused("Width or height of given image format is 0");
    const SLink xChannels = Refused("Only 1, 2 or 4 channels per pixel are allowed");
    const SLink xPixel1 = Plain("Unknown pixel type", "GetComponentCount", "Qx.Core.Ex/QxImageFormat");
    const SLink xUnknownData = Unsupported("Unsupported data type 'Unknown'");
    const struct
    {
        CQxImageFormat xFormat;
        SLink xInner;
        bool bUnchanged;
    } c_vCases[] = {
        {{0, 480, UByte, Lum}, xNoSize, true},
        {{640, 0, UByte, Lum}, xNoSize, true},
        {{-640, 480, UByte, Lum}, xNoSize, true},
        {{640, INT32_MIN, UByte, RGB}, xNoSize, true},
        {{640, 480, UByte, RGB}, xChannels, true},
        {{640, 480, Void, BGR}, xChannels, true},
        {{640, 480, UByte, static_cast<EPixelType::ID>(1)}, xPixel1, true},
        {{640, 480, Void, Lum}, Unsupported("Unsupported data type 'Void'"), false},
        {{640, 480, Packed10, Lum}, xUnknownData, false},
        {{640, 480, Packed12, Lum}, xUnknownData, false},
        {{640, 480, Integral10, Lum}, xUnknownData, false},
        {{640, 480, Integral12, None}, xUnknownData, false},
        {{640, 480, static_cast<EDataType::ID>(7), Lum}, xUnknownData, false},
        {{640, 480, UByte, None}, Unsupported("Unsupported pixel type 'None'"), false},
        {{640, 480, UByte, TwoComponent}, Unsupported("Unsupported pixel type 'Unknown'"), false},
        {{1 << 29, 2, Float, RGBA}, Refused("Image row of 8589934592 bytes is too wide"), false},
        {{INT32_MAX, 1, Double, RGBA}, Refused("Image row of 68719476704 bytes is too wide"), false},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.xInner.sMessage);
        EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xImage(xCase.xFormat); }, {c_xCreate, xCase.xInner}));

        CQxDeviceImage2D xImage(c_xFormat);
        const auto xBefore = Snapshot(xImage);
        CPoolRecorder::Reset();
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.xFormat); }, {c_xCreate, xCase.xInner}));
        EXPECT_EQ(Snapshot(xImage) == xBefore, xCase.bUnchanged);
        EXPECT_EQ(IsEmpty(xImage), !xCase.bUnchanged);
        EXPECT_EQ(CPoolRecorder::sm_iRelease, xCase.bUnchanged ? 0 : 1);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 0);
    }
}

TEST_F(DeviceImage2D, KeepsMemoryForTheSameFormatAndChangesItForAnyOther)
{
    using enum EPixelType::ID;
    CQxDeviceImage2D xImage(CQxImageFormat(64, 48, EDataType::UByte, BayerRG));
    const auto xBefore = Snapshot(xImage);
    CPoolRecorder::Reset();
    CCudaRecorder::Reset();
    xImage.Create(CQxImageFormat(64, 48, EDataType::UByte, BayerRG));
    xImage.Create(xImage.GetFormat());
    EXPECT_EQ(Snapshot(xImage), xBefore);
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iRelease, 0);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());

    // Formats of the same size in bytes are other formats all the same.
    const CQxImageFormat c_vFormats[] = {
        {64, 48, EDataType::UByte, BayerBG},
        {64, 48, EDataType::Byte, BayerBG},
        {48, 64, EDataType::Byte, BayerBG},
        {48, 65, EDataType::Byte, BayerBG},
    };
    for (const CQxImageFormat& xFormat : c_vFormats)
    {
        CPoolRecorder::Reset();
        xImage.Create(xFormat);
        EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 1);
        EXPECT_EQ(xImage.GetFormat(), xFormat);
    }
}

TEST_F(DeviceImage2D, IsEmptyAfterThePoolRefusedMemoryAndUnchangedWhenItTakesNoneBack)
{
    const SLink xRelease = Plain("Error destroying 2D CUDA device image", "Release", c_pcFile);
    for (const auto eFailure : {CPoolRecorder::EFailure::QxException, CPoolRecorder::EFailure::BadAlloc})
    {
        const auto Fails = [eFailure](const std::vector<SLink>& vOuter, auto&& xBody)
        {
            if (eFailure == CPoolRecorder::EFailure::BadAlloc)
            {
                EXPECT_THROW(xBody(), std::bad_alloc);
                return;
            }
            std::vector<SLink> vChain = vOuter;
            vChain.push_back(c_xPoolFailure);
            EXPECT_TRUE(ThrowsChain(xBody, vChain));
        };
        GPU::CCudaMemoryPitchResource xLost;
        {
            CQxDeviceImage2D xImage(c_xFormat);
            CQxDeviceImage2D xSource(c_xOtherFormat);
            const auto xBefore = Snapshot(xImage);
            const auto xSourceBefore = Snapshot(xSource);
            CPoolRecorder::sm_eFailRelease = eFailure;
            Fails({xRelease}, [&] { xImage.Release(); });
            Fails({c_xCreate, xRelease}, [&] { xImage.Create(c_xOtherFormat); });
            Fails({c_xCreate, xRelease}, [&] { xImage.Create(std::move(xSource)); });
            Fails({c_xCreate, xRelease}, [&] { xImage = std::move(xSource); });
            EXPECT_EQ(Snapshot(xImage), xBefore);
            EXPECT_EQ(Snapshot(xSource), xSourceBefore);

            CPoolRecorder::Reset();
            CPoolRecorder::sm_eFailGet = eFailure;
            Fails({c_xCreate}, [&] { xImage.Create(c_xOtherFormat); });
            EXPECT_TRUE(IsEmpty(xImage));
            Fails({c_xCreate}, [] { CQxDeviceImage2D{c_xFormat}; });
            CPoolRecorder::Reset();
            xImage.Create(c_xOtherFormat);
            EXPECT_EQ(xImage.GetFormat(), c_xOtherFormat);
            xSource.Release();
            xLost.m_pDevice = xImage.GetDevicePointer();
            CPoolRecorder::Reset();
            CPoolRecorder::sm_eFailRelease = eFailure;
        }
        // The destructor drops its failure; the block is lost to the image, so the test gives it back.
        EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
        CPoolRecorder::Reset();
        GPU::CResourceManager::ReleaseResource(xLost, false);
    }
}

TEST_F(DeviceImage2D, MovesMemoryAndLeavesTheSourceEmptyEvenWhenItIsTheTarget)
{
    CQxDeviceImage2D xSource(c_xFormat);
    const auto xMoved = Snapshot(xSource);
    CPoolRecorder::Reset();
    CQxDeviceImage2D xByConstructor(std::move(xSource));
    EXPECT_EQ(Snapshot(xByConstructor), xMoved);
    EXPECT_TRUE(IsEmpty(xSource));
    EXPECT_EQ(CPoolRecorder::sm_iRelease + CPoolRecorder::sm_iGetPitch, 0);

    CQxDeviceImage2D xByAssignment(c_xOtherFormat);
    CPoolRecorder::Reset();
    EXPECT_EQ(&(xByAssignment = std::move(xByConstructor)), &xByAssignment);
    EXPECT_EQ(Snapshot(xByAssignment), xMoved);
    EXPECT_TRUE(IsEmpty(xByConstructor));
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 0);

    // The source may be used again and gets memory of its own.
    xSource.Create(c_xFormat);
    EXPECT_NE(xSource.GetDevicePointer(), xByAssignment.GetDevicePointer());

    const std::vector<SLink> vChain{c_xCreate, Plain("Given image is invalid", "Create", c_pcFile)};
    CPoolRecorder::Reset();
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xNew(std::move(xByConstructor)); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { xByAssignment = std::move(xByConstructor); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { xByConstructor.Create(std::move(xByConstructor)); }, vChain));
    EXPECT_EQ(Snapshot(xByAssignment), xMoved);
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 0);

    CQxDeviceImage2D& xSelf = xByAssignment;
    xByAssignment = std::move(xSelf);
    EXPECT_TRUE(IsEmpty(xByAssignment));
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
}

TEST_F(DeviceImage2D, ZeroesThePixelsButNotThePaddingAndReportsAFailureUnderItsOwnName)
{
    using Arguments = std::vector<std::uint64_t>;
    CQxDeviceImage2D xEmpty;
    CQxDeviceImage2D xImage(CQxImageFormat(3, 2, EDataType::UByte, EPixelType::Lum));
    const auto xBefore = Snapshot(xImage);
    const SDeviceImageDesc2D xDesc = xImage.GetDesc();
    // The last row of a block ends with its last pixel for some runtimes; only the padding between rows is certain.
    const std::size_t nBytes = xDesc.nPitch + 3;
    std::vector<unsigned char> vExpected(nBytes, 0xA5);
    vExpected[0] = vExpected[1] = vExpected[2] = 0;
    std::fill_n(vExpected.end() - 3, 3, static_cast<unsigned char>(0));
    const auto Check = [&](const char* pcFunction, const char* pcCall, const Arguments& vMore, auto&& xZero)
    {
        const SLink xOuter = Plain("Error setting image to zero", pcFunction, c_pcFile);
        const SLink xFailed = Cuda("Error setting CUDA memory to zero", cudaErrorInvalidValue, pcFunction, c_pcFile);
        CCudaRecorder::Reset();
        EXPECT_TRUE(ThrowsChain([&] { xZero(xEmpty); }, {xOuter, Plain("Image is invalid", pcFunction, c_pcFile)}));
        EXPECT_TRUE(CCudaRecorder::Calls().empty());
        CCudaRecorder::FailCall(pcCall, 1, cudaErrorInvalidValue);
        EXPECT_TRUE(ThrowsChain([&] { xZero(xImage); }, {xOuter, xFailed}));
        EXPECT_EQ(Snapshot(xImage), xBefore);

        ASSERT_EQ(cudaMemset(xDesc.pData, 0xA5, nBytes), cudaSuccess);
        CCudaRecorder::Reset();
        xZero(xImage);
        EXPECT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{pcCall});
        Arguments vArguments{reinterpret_cast<std::uintptr_t>(xDesc.pData), xDesc.nPitch, 0, 3, 2};
        vArguments.insert(vArguments.end(), vMore.begin(), vMore.end());
        EXPECT_EQ(CCudaRecorder::Last(pcCall).vArguments, vArguments);
        ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        std::vector<unsigned char> vBytes(nBytes);
        ASSERT_EQ(cudaMemcpy(vBytes.data(), xDesc.pData, nBytes, cudaMemcpyDeviceToHost), cudaSuccess);
        EXPECT_EQ(vBytes, vExpected);
    };
    Check("SetZero", "cudaMemset2D", {}, [](CQxDeviceImage2D& x) { x.SetZero(); });
    Check("SetZeroAsync", "cudaMemset2DAsync", {0}, [](CQxDeviceImage2D& x) { x.SetZeroAsync(nullptr); });
}

TEST_F(DeviceImage2D, HandsTheDescriptionToTheRuntimeForTheGivenSymbolAndStream)
{
    // Only its address counts, so a host variable serves where the call is not forwarded.
    static SDeviceImageDesc2D s_xSymbol{};
    auto* const pStream = reinterpret_cast<CUstream_st*>(std::uintptr_t{0x1230});
    const CQxDeviceImage2D xEmpty;
    CCudaRecorder::FailCall("cudaMemcpyToSymbolAsync", 1, cudaErrorInvalidSymbol);
    EXPECT_TRUE(ThrowsChain([&] { xEmpty.CopyDescriptionToCudaConstAsync(s_xSymbol, pStream); },
        {Cuda("Error copying device image description 2D to constant memory", cudaErrorInvalidSymbol,
            "CopyDescriptionToCudaConstAsync", c_pcFile)}));
    const SCudaCall xCall = CCudaRecorder::Last("cudaMemcpyToSymbolAsync");
    EXPECT_EQ(xCall.vArguments[0], reinterpret_cast<std::uintptr_t>(&s_xSymbol));
    EXPECT_EQ(xCall.vArguments[2], 32U);
    EXPECT_EQ(xCall.vArguments[3], 0U);
    EXPECT_EQ(xCall.vArguments[4], static_cast<std::uint64_t>(cudaMemcpyHostToDevice));
    EXPECT_EQ(xCall.vArguments[5], 0x1230U);
}

TEST_F(DeviceImage2D, DescribesTheChannelsOfAFormatAndAcceptsAllButThree)
{
    using enum EDataType::ID;
    using enum EPixelType::ID;
    constexpr auto c_eSigned = cudaChannelFormatKindSigned;
    constexpr auto c_eUnsigned = cudaChannelFormatKindUnsigned;
    constexpr auto c_eFloat = cudaChannelFormatKindFloat;
    const std::tuple<EDataType::ID, EPixelType::ID, cudaChannelFormatDesc> c_vCases[] = {
        {Byte, Lum, {8, 0, 0, 0, c_eSigned}},
        {UByte, RGBA, {8, 8, 8, 8, c_eUnsigned}},
        {UByte, RGB, {8, 8, 8, 0, c_eUnsigned}},
        {UByte, BGR, {8, 8, 8, 0, c_eUnsigned}},
        {Short, BayerRG, {16, 0, 0, 0, c_eSigned}},
        {UShort, BGRA, {16, 16, 16, 16, c_eUnsigned}},
        {Int, BayerBG, {32, 0, 0, 0, c_eSigned}},
        {UInt, BayerGR, {32, 0, 0, 0, c_eUnsigned}},
        {Float, BayerGB, {32, 0, 0, 0, c_eFloat}},
        {Double, LumA, {32, 32, 0, 0, c_eFloat}},
        {Custom_10in16_LSB, LumA, {16, 16, 0, 0, c_eUnsigned}},
        {Custom_10in16_MSB, LumA, {16, 16, 0, 0, c_eUnsigned}},
        {Custom_12in16_LSB, LumA, {16, 16, 0, 0, c_eUnsigned}},
        {Custom_12in16_MSB, LumA, {16, 16, 0, 0, c_eUnsigned}},
    };
    CQxDeviceImage2D xImage;
    for (const auto& [eDataType, ePixelType, xExpected] : c_vCases)
    {
        SCOPED_TRACE(std::string(GetDataTypeName(eDataType)) + " " + GetPixelTypeName(ePixelType));
        const CQxImageFormat xFormat(5, 5, eDataType, ePixelType);
        CCudaRecorder::Reset();
        const auto xDesc = CQxDeviceImage2D::_CreateCudaChannelFormatDescFromFormat(xFormat);
        EXPECT_EQ(std::tuple(xDesc.x, xDesc.y, xDesc.z, xDesc.w, xDesc.f),
            std::tuple(xExpected.x, xExpected.y, xExpected.z, xExpected.w, xExpected.f));
        EXPECT_TRUE(CCudaRecorder::Calls().empty());
        if (xFormat.GetComponentCount() != 3)
        {
            xImage.Create(xFormat);
            EXPECT_EQ(xImage.GetFormat(), xFormat);
            EXPECT_EQ(CPoolRecorder::sm_nWidth, 5 * static_cast<std::size_t>(xFormat.GetBytesPerPixel()));
        }
    }
    // Called directly, the refusal is not wrapped, and the data type is named even where both are refused.
    EXPECT_TRUE(ThrowsChain(
        [] {
            CQxDeviceImage2D::_CreateCudaChannelFormatDescFromFormat({5, 5, Void, None});
        },
        {Plain("Unsupported data type 'Void'", "_CreateCudaChannelFormatDescFromFormat", c_pcFile)}));
}

} // namespace

} // namespace Qx::Test
