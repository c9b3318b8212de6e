#include <algorithm>
#include <new>
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
constexpr const char* c_pcFormatFile = "Qx.Core.Ex/QxImageFormat";
constexpr const char* c_pcCreating = "Error creating 2D CUDA device image";
constexpr const char* c_pcDestroying = "Error destroying 2D CUDA device image";
constexpr const char* c_pcZeroing = "Error setting image to zero";
constexpr CQxImageFormat c_xFormat(640, 480, EDataType::UShort, EPixelType::LumA);
constexpr CQxImageFormat c_xOtherFormat(33, 7, EDataType::Float, EPixelType::RGBA);

const SLink c_xPoolFailure = Plain("pool failure", "Fail", "Pool");

// What makes two images the same image.
struct SSnapshot
{
    explicit SSnapshot(const CQxDeviceImage2D& xImage) : xDesc(xImage.GetDesc()), bValid(xImage.IsValid()) {}
    bool operator==(const SSnapshot& xOther) const
    {
        return bValid == xOther.bValid && xDesc.xFormat == xOther.xDesc.xFormat && xDesc.pData == xOther.xDesc.pData &&
               xDesc.nPitch == xOther.xDesc.nPitch;
    }

    SDeviceImageDesc2D xDesc;
    bool bValid;
};

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

TEST_F(DeviceImage2D, StartsEmptyWithoutTouchingPoolOrDevice)
{
    {
        CQxDeviceImage2D xImage;
        EXPECT_TRUE(IsEmpty(xImage));
        xImage.Release();
        xImage.Release();
        EXPECT_TRUE(IsEmpty(xImage));
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 0);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
}

TEST_F(DeviceImage2D, BorrowsRowsOfTheFormatsWidthAndGivesThemBackPooled)
{
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

TEST_F(DeviceImage2D, AcceptsExactlyTheFormatsThatHaveAChannelOfOneTwoOrFourComponents)
{
    const std::vector<EPixelType::ID> vPixelTypes{EPixelType::Lum,     EPixelType::LumA,    EPixelType::RGBA,
                                                  EPixelType::BGRA,    EPixelType::BayerRG, EPixelType::BayerBG,
                                                  EPixelType::BayerGR, EPixelType::BayerGB};
    const std::vector<EDataType::ID> vDataTypes{EDataType::Byte,
                                                EDataType::UByte,
                                                EDataType::Short,
                                                EDataType::UShort,
                                                EDataType::Int,
                                                EDataType::UInt,
                                                EDataType::Float,
                                                EDataType::Double,
                                                EDataType::Custom_10in16_LSB,
                                                EDataType::Custom_10in16_MSB,
                                                EDataType::Custom_12in16_LSB,
                                                EDataType::Custom_12in16_MSB};
    CQxDeviceImage2D xImage;
    for (const EPixelType::ID ePixelType : vPixelTypes)
    {
        for (const EDataType::ID eDataType : vDataTypes)
        {
            const CQxImageFormat xFormat(1, 1, eDataType, ePixelType);
            EXPECT_NO_THROW(xImage.Create(xFormat));
            EXPECT_EQ(xImage.GetFormat(), xFormat);
            EXPECT_EQ(CPoolRecorder::sm_nWidth, static_cast<std::size_t>(xFormat.GetBytesPerPixel()));
        }
    }
}

TEST_F(DeviceImage2D, RefusesOtherFormatsAndKeepsOrEmptiesTheImageByTheStepThatRefuses)
{
    struct SCase
    {
        CQxImageFormat xFormat;
        SLink xInner;
        bool bUnchanged;
    };
    const auto Unsupported = [](const char* pcMessage)
    { return Plain(pcMessage, "_CreateCudaChannelFormatDescFromFormat", c_pcFile); };
    const SLink xNoSize = Plain("Width or height of given image format is 0", "Create", c_pcFile);
    const SLink xChannels = Plain("Only 1, 2 or 4 channels per pixel are allowed", "Create", c_pcFile);
    const SLink xUnknownPixel = Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile);
    const auto ePixel1 = static_cast<EPixelType::ID>(1);
    const std::vector<SCase> vCases{
        {{0, 480, EDataType::UByte, EPixelType::Lum}, xNoSize, true},
        {{640, 0, EDataType::UByte, EPixelType::Lum}, xNoSize, true},
        {{-640, 480, EDataType::UByte, EPixelType::Lum}, xNoSize, true},
        {{640, INT32_MIN, EDataType::UByte, EPixelType::RGB}, xNoSize, true},
        {{640, 480, EDataType::UByte, EPixelType::RGB}, xChannels, true},
        {{640, 480, EDataType::Void, EPixelType::BGR}, xChannels, true},
        {{640, 480, EDataType::UByte, ePixel1}, xUnknownPixel, true},
        {{640, 480, EDataType::Void, EPixelType::Lum}, Unsupported("Unsupported data type 'Void'"), false},
        {{640, 480, EDataType::Packed10, EPixelType::Lum}, Unsupported("Unsupported data type 'Unknown'"), false},
        {{640, 480, EDataType::Packed12, EPixelType::Lum}, Unsupported("Unsupported data type 'Unknown'"), false},
        {{640, 480, EDataType::Integral10, EPixelType::Lum}, Unsupported("Unsupported data type 'Unknown'"), false},
        {{640, 480, EDataType::Integral12, EPixelType::None}, Unsupported("Unsupported data type 'Unknown'"), false},
        {{640, 480, static_cast<EDataType::ID>(7), EPixelType::Lum},
         Unsupported("Unsupported data type 'Unknown'"),
         false},
        {{640, 480, EDataType::UByte, EPixelType::None}, Unsupported("Unsupported pixel type 'None'"), false},
        {{640, 480, EDataType::UByte, EPixelType::TwoComponent},
         Unsupported("Unsupported pixel type 'Unknown'"),
         false},
        {{1 << 29, 2, EDataType::Float, EPixelType::RGBA},
         Plain("Image row of 8589934592 bytes is too wide", "Create", c_pcFile),
         false},
        {{INT32_MAX, 1, EDataType::Double, EPixelType::RGBA},
         Plain("Image row of 68719476704 bytes is too wide", "Create", c_pcFile),
         false},
    };
    for (const SCase& xCase : vCases)
    {
        SCOPED_TRACE(xCase.xInner.sMessage);
        const SLink xOuter = Plain(c_pcCreating, "Create", c_pcFile);
        EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xImage(xCase.xFormat); }, {xOuter, xCase.xInner}));

        CQxDeviceImage2D xImage(c_xFormat);
        const SSnapshot xBefore(xImage);
        CPoolRecorder::Reset();
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.xFormat); }, {xOuter, xCase.xInner}));
        EXPECT_EQ(SSnapshot(xImage) == xBefore, xCase.bUnchanged);
        EXPECT_EQ(IsEmpty(xImage), !xCase.bUnchanged);
        EXPECT_EQ(CPoolRecorder::sm_iRelease, xCase.bUnchanged ? 0 : 1);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 0);
    }
}

TEST_F(DeviceImage2D, KeepsMemoryForTheSameFormatAndChangesItForAnyOther)
{
    CQxDeviceImage2D xImage(CQxImageFormat(64, 48, EDataType::UByte, EPixelType::BayerRG));
    const SSnapshot xBefore(xImage);
    CPoolRecorder::Reset();
    CCudaRecorder::Reset();
    xImage.Create(CQxImageFormat(64, 48, EDataType::UByte, EPixelType::BayerRG));
    xImage.Create(xImage.GetFormat());
    EXPECT_TRUE(SSnapshot(xImage) == xBefore);
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iRelease, 0);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());

    // Formats of the same size in bytes are other formats all the same.
    for (const CQxImageFormat& xFormat : {CQxImageFormat(64, 48, EDataType::UByte, EPixelType::BayerBG),
                                          CQxImageFormat(64, 48, EDataType::Byte, EPixelType::BayerBG),
                                          CQxImageFormat(48, 64, EDataType::Byte, EPixelType::BayerBG),
                                          CQxImageFormat(48, 65, EDataType::Byte, EPixelType::BayerBG)})
    {
        CPoolRecorder::Reset();
        xImage.Create(xFormat);
        EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 1);
        EXPECT_EQ(xImage.GetFormat(), xFormat);
    }
}

TEST_F(DeviceImage2D, IsEmptyAfterThePoolRefusedMemoryAndWorksAgain)
{
    CQxDeviceImage2D xImage(c_xFormat);
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(
        ThrowsChain([&] { xImage.Create(c_xOtherFormat); }, {Plain(c_pcCreating, "Create", c_pcFile), c_xPoolFailure}));
    EXPECT_TRUE(IsEmpty(xImage));

    CPoolRecorder::Reset();
    xImage.Create(c_xFormat);
    CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::BadAlloc;
    EXPECT_THROW(xImage.Create(c_xOtherFormat), std::bad_alloc);
    EXPECT_TRUE(IsEmpty(xImage));
    EXPECT_THROW(CQxDeviceImage2D{c_xFormat}, std::bad_alloc);

    CPoolRecorder::Reset();
    xImage.Create(c_xOtherFormat);
    EXPECT_EQ(xImage.GetFormat(), c_xOtherFormat);
}

TEST_F(DeviceImage2D, IsUnchangedWhenThePoolRefusesToTakeMemoryBack)
{
    CQxDeviceImage2D xImage(c_xFormat);
    CQxDeviceImage2D xSource(c_xOtherFormat);
    const SSnapshot xBefore(xImage);
    const SSnapshot xSourceBefore(xSource);
    const SLink xRelease = Plain(c_pcDestroying, "Release", c_pcFile);
    const SLink xCreate = Plain(c_pcCreating, "Create", c_pcFile);

    CPoolRecorder::sm_eFailRelease = CPoolRecorder::EFailure::QxException;
    EXPECT_TRUE(ThrowsChain([&] { xImage.Release(); }, {xRelease, c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(c_xOtherFormat); }, {xCreate, xRelease, c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(std::move(xSource)); }, {xCreate, xRelease, c_xPoolFailure}));
    EXPECT_TRUE(ThrowsChain([&] { xImage = std::move(xSource); }, {xCreate, xRelease, c_xPoolFailure}));
    EXPECT_TRUE(SSnapshot(xImage) == xBefore);
    EXPECT_TRUE(SSnapshot(xSource) == xSourceBefore);

    CPoolRecorder::sm_eFailRelease = CPoolRecorder::EFailure::BadAlloc;
    EXPECT_THROW(xImage.Create(c_xOtherFormat), std::bad_alloc);
    EXPECT_THROW(xImage.Create(std::move(xSource)), std::bad_alloc);
    EXPECT_TRUE(SSnapshot(xImage) == xBefore);
    EXPECT_TRUE(SSnapshot(xSource) == xSourceBefore);
    CPoolRecorder::Reset();
}

TEST_F(DeviceImage2D, DropsAFailureToGiveMemoryBackInTheDestructor)
{
    for (const auto eFailure : {CPoolRecorder::EFailure::QxException, CPoolRecorder::EFailure::BadAlloc})
    {
        GPU::CCudaMemoryPitchResource xLost;
        {
            const CQxDeviceImage2D xImage(c_xFormat);
            xLost.m_pDevice = xImage.GetDevicePointer();
            CPoolRecorder::sm_eFailRelease = eFailure;
        }
        EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
        CPoolRecorder::Reset();
        // The block is lost to the image, so the test gives it back.
        GPU::CResourceManager::ReleaseResource(xLost, false);
        CPoolRecorder::Reset();
    }
}

TEST_F(DeviceImage2D, MovesMemoryAndLeavesTheSourceEmpty)
{
    CQxDeviceImage2D xSource(c_xFormat);
    const SSnapshot xMoved(xSource);
    CPoolRecorder::Reset();

    CQxDeviceImage2D xByConstructor(std::move(xSource));
    EXPECT_TRUE(SSnapshot(xByConstructor) == xMoved);
    EXPECT_TRUE(IsEmpty(xSource));
    EXPECT_EQ(CPoolRecorder::sm_iRelease + CPoolRecorder::sm_iGetPitch, 0);

    CQxDeviceImage2D xByAssignment(c_xOtherFormat);
    CPoolRecorder::Reset();
    EXPECT_EQ(&(xByAssignment = std::move(xByConstructor)), &xByAssignment);
    EXPECT_TRUE(SSnapshot(xByAssignment) == xMoved);
    EXPECT_TRUE(IsEmpty(xByConstructor));
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    EXPECT_EQ(CPoolRecorder::sm_iGetPitch, 0);

    // The source may be used again and gets memory of its own.
    xSource.Create(c_xFormat);
    EXPECT_NE(xSource.GetDevicePointer(), xByAssignment.GetDevicePointer());
}

TEST_F(DeviceImage2D, RefusesToMoveFromAnEmptyImage)
{
    CQxDeviceImage2D xEmpty;
    CQxDeviceImage2D xImage(c_xFormat);
    const SSnapshot xBefore(xImage);
    CPoolRecorder::Reset();
    const std::initializer_list<SLink> vChain{Plain(c_pcCreating, "Create", c_pcFile),
                                              Plain("Given image is invalid", "Create", c_pcFile)};
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceImage2D xNew(std::move(xEmpty)); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { xImage = std::move(xEmpty); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { xEmpty.Create(std::move(xEmpty)); }, vChain));
    EXPECT_TRUE(SSnapshot(xImage) == xBefore);
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 0);
}

TEST_F(DeviceImage2D, EndsEmptyWhenMovedIntoItself)
{
    {
        CQxDeviceImage2D xImage(c_xFormat);
        CPoolRecorder::Reset();
        CQxDeviceImage2D& xSelf = xImage;
        xImage = std::move(xSelf);
        EXPECT_TRUE(IsEmpty(xImage));
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
}

TEST_F(DeviceImage2D, ZeroesThePixelsButNotThePadding)
{
    CQxDeviceImage2D xImage(CQxImageFormat(3, 2, EDataType::UByte, EPixelType::Lum));
    const SDeviceImageDesc2D xDesc = xImage.GetDesc();
    // The last row of a block ends with its last pixel for some runtimes; only the padding between rows is certain.
    const std::size_t nBytes = xDesc.nPitch + 3;
    ASSERT_EQ(cudaMemset(xDesc.pData, 0xA5, nBytes), cudaSuccess);

    for (const bool bAsync : {false, true})
    {
        CCudaRecorder::Reset();
        if (bAsync)
        {
            ASSERT_EQ(cudaMemset(xDesc.pData, 0xA5, nBytes), cudaSuccess);
            CCudaRecorder::Reset();
            xImage.SetZeroAsync(nullptr);
        }
        else
        {
            xImage.SetZero();
        }
        const std::vector<SCudaCall> vCalls = CCudaRecorder::Calls();
        ASSERT_EQ(vCalls.size(), 1U);
        EXPECT_EQ(vCalls[0].sName, bAsync ? "cudaMemset2DAsync" : "cudaMemset2D");
        const auto nPointer = reinterpret_cast<std::uintptr_t>(xDesc.pData);
        std::vector<std::uint64_t> vArguments{nPointer, xDesc.nPitch, 0, 3, 2};
        if (bAsync)
        {
            vArguments.push_back(0);
        }
        EXPECT_EQ(vCalls[0].vArguments, vArguments);

        ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        std::vector<unsigned char> vBytes(nBytes);
        ASSERT_EQ(cudaMemcpy(vBytes.data(), xDesc.pData, nBytes, cudaMemcpyDeviceToHost), cudaSuccess);
        std::vector<unsigned char> vExpected(nBytes, 0xA5);
        for (const std::size_t nRow : {std::size_t{0}, xDesc.nPitch})
        {
            std::fill_n(vExpected.begin() + static_cast<std::ptrdiff_t>(nRow), 3, static_cast<unsigned char>(0));
        }
        EXPECT_EQ(vBytes, vExpected);
    }
}

TEST_F(DeviceImage2D, ReportsAFailedZeroingUnderItsOwnName)
{
    CQxDeviceImage2D xEmpty;
    CQxDeviceImage2D xImage(c_xFormat);
    const SSnapshot xBefore(xImage);
    const auto Check = [&](const char* pcFunction, const char* pcCall, auto&& xZero)
    {
        const SLink xOuter = Plain(c_pcZeroing, pcFunction, c_pcFile);
        CCudaRecorder::Reset();
        EXPECT_TRUE(ThrowsChain([&] { xZero(xEmpty); }, {xOuter, Plain("Image is invalid", pcFunction, c_pcFile)}));
        EXPECT_TRUE(CCudaRecorder::Calls().empty());

        CCudaRecorder::FailCall(pcCall, 1, cudaErrorInvalidValue);
        EXPECT_TRUE(ThrowsChain([&] { xZero(xImage); }, {xOuter, Cuda("Error setting CUDA memory to zero",
                                                                      cudaErrorInvalidValue, pcFunction, c_pcFile)}));
        EXPECT_TRUE(SSnapshot(xImage) == xBefore);
        EXPECT_NO_THROW(xZero(xImage));
    };
    Check("SetZero", "cudaMemset2D", [](CQxDeviceImage2D& x) { x.SetZero(); });
    Check("SetZeroAsync", "cudaMemset2DAsync", [](CQxDeviceImage2D& x) { x.SetZeroAsync(nullptr); });
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
}

TEST_F(DeviceImage2D, HandsTheDescriptionToTheRuntimeForTheGivenSymbolAndStream)
{
    // Only its address counts, so a host variable serves where the call is not forwarded.
    static SDeviceImageDesc2D s_xSymbol{};
    auto* const pStream = reinterpret_cast<CUstream_st*>(std::uintptr_t{0x1230});
    const CQxDeviceImage2D xEmpty;
    CCudaRecorder::FailCall("cudaMemcpyToSymbolAsync", 1, cudaErrorInvalidSymbol);
    EXPECT_TRUE(ThrowsChain([&] { xEmpty.CopyDescriptionToCudaConstAsync(s_xSymbol, pStream); },
                            {Cuda("Error copying device image description 2D to constant memory",
                                  cudaErrorInvalidSymbol, "CopyDescriptionToCudaConstAsync", c_pcFile)}));
    const SCudaCall xCall = CCudaRecorder::Last("cudaMemcpyToSymbolAsync");
    EXPECT_EQ(xCall.vArguments[0], reinterpret_cast<std::uintptr_t>(&s_xSymbol));
    EXPECT_EQ(xCall.vArguments[2], 32U);
    EXPECT_EQ(xCall.vArguments[3], 0U);
    EXPECT_EQ(xCall.vArguments[4], static_cast<std::uint64_t>(cudaMemcpyHostToDevice));
    EXPECT_EQ(xCall.vArguments[5], 0x1230U);
}

TEST_F(DeviceImage2D, DescribesTheChannelsOfAFormat)
{
    struct SCase
    {
        EDataType::ID eDataType;
        EPixelType::ID ePixelType;
        cudaChannelFormatDesc xExpected;
    };
    constexpr auto c_eSigned = cudaChannelFormatKindSigned;
    constexpr auto c_eUnsigned = cudaChannelFormatKindUnsigned;
    constexpr auto c_eFloat = cudaChannelFormatKindFloat;
    const std::vector<SCase> vCases{
        {EDataType::Byte, EPixelType::Lum, {8, 0, 0, 0, c_eSigned}},
        {EDataType::UByte, EPixelType::RGBA, {8, 8, 8, 8, c_eUnsigned}},
        {EDataType::UByte, EPixelType::RGB, {8, 8, 8, 0, c_eUnsigned}},
        {EDataType::UByte, EPixelType::BGR, {8, 8, 8, 0, c_eUnsigned}},
        {EDataType::Short, EPixelType::BayerRG, {16, 0, 0, 0, c_eSigned}},
        {EDataType::UShort, EPixelType::BGRA, {16, 16, 16, 16, c_eUnsigned}},
        {EDataType::Int, EPixelType::BayerBG, {32, 0, 0, 0, c_eSigned}},
        {EDataType::UInt, EPixelType::BayerGR, {32, 0, 0, 0, c_eUnsigned}},
        {EDataType::Float, EPixelType::BayerGB, {32, 0, 0, 0, c_eFloat}},
        {EDataType::Double, EPixelType::LumA, {32, 32, 0, 0, c_eFloat}},
        {EDataType::Custom_10in16_LSB, EPixelType::LumA, {16, 16, 0, 0, c_eUnsigned}},
        {EDataType::Custom_10in16_MSB, EPixelType::LumA, {16, 16, 0, 0, c_eUnsigned}},
        {EDataType::Custom_12in16_LSB, EPixelType::LumA, {16, 16, 0, 0, c_eUnsigned}},
        {EDataType::Custom_12in16_MSB, EPixelType::LumA, {16, 16, 0, 0, c_eUnsigned}},
    };
    for (const SCase& xCase : vCases)
    {
        const auto xDesc =
            CQxDeviceImage2D::_CreateCudaChannelFormatDescFromFormat({5, 5, xCase.eDataType, xCase.ePixelType});
        EXPECT_TRUE(xDesc.x == xCase.xExpected.x && xDesc.y == xCase.xExpected.y && xDesc.z == xCase.xExpected.z &&
                    xDesc.w == xCase.xExpected.w && xDesc.f == xCase.xExpected.f)
            << GetDataTypeName(xCase.eDataType) << " " << GetPixelTypeName(xCase.ePixelType);
    }
    EXPECT_TRUE(CCudaRecorder::Calls().empty());

    // Called directly, the refusal is not wrapped, and the data type is named even where both are refused.
    EXPECT_TRUE(ThrowsChain(
        [] {
            CQxDeviceImage2D::_CreateCudaChannelFormatDescFromFormat({5, 5, EDataType::Void, EPixelType::None});
        },
        {Plain("Unsupported data type 'Void'", "_CreateCudaChannelFormatDescFromFormat", c_pcFile)}));
}

} // namespace

} // namespace Qx::Test
