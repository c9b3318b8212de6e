#include <functional>
#include <map>
#include <new>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "ImagePlaces.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"
#include "Support/PoolRecorder.h"
#include "Support/Sweep.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile2D = "Source/Qx.Cuda/QxDeviceImage2D";
constexpr const char* c_pcFile1D = "Source/Qx.Cuda/QxDeviceImage1D";
constexpr CQxImageFormat c_xFormat(37, 11, EDataType::UShort, EPixelType::LumA);
constexpr CQxImageFormat c_xOtherFormat(5, 3, EDataType::UByte, EPixelType::RGBA);

// Wrappers.
const SLink c_xCreate2D = Plain("Error creating 2D CUDA device image", "Create", c_pcFile2D);
const SLink c_xCreateAsync = Plain("Error creating 2D CUDA device image", "CreateAsync", c_pcFile2D);
const SLink c_xToHost = Plain("Error copying to host image", "CopyTo", c_pcFile2D);
const SLink c_xToHostAsync = Plain("Error copying to host image", "CopyToAsync", c_pcFile2D);
const SLink c_xTo2D = Plain("Error copying 2D CUDA device image", "CopyTo", c_pcFile2D);
const SLink c_xTo1D = Plain("Error copying 2D CUDA device image to 1D CUDA device image", "CopyTo", c_pcFile2D);
const SLink c_xCreate1D = Plain("Error creating 1D Image", "Create", c_pcFile1D);

// By which copy pixels move, and what is thrown when that fails.
struct SWay
{
    const char* pcCall;
    cudaMemcpyKind eKind;
    std::vector<SLink> vWrappers;
    const char* pcFailure;
    const char* pcFunction;
    const char* pcFile;
};

constexpr auto c_eUp = cudaMemcpyHostToDevice;
constexpr auto c_eDown = cudaMemcpyDeviceToHost;
constexpr auto c_eOver = cudaMemcpyDeviceToDevice;
constexpr const char* c_pcUp = "Error copying image to cuda device";
constexpr const char* c_pcDown = "Error copying image to host";
constexpr const char* c_pcOver = "Error creating image on cuda device";
constexpr const char* c_pcUp1D = "Error copying memory from host to device";
constexpr const char* c_pcOver1D = "Error copying memory from device to device";
constexpr const char* c_pcDown1D = "Error copying memory from device to host";
const SWay c_xUp{"cudaMemcpy2D", c_eUp, {c_xCreate2D}, c_pcUp, "Create", c_pcFile2D};
const SWay c_xUpQueued{"cudaMemcpy2DAsync", c_eUp, {c_xCreateAsync}, c_pcUp, "CreateAsync", c_pcFile2D};
const SWay c_xUpFromDevice{"cudaMemcpy2D", c_eOver, {c_xCreate2D}, c_pcUp, "Create", c_pcFile2D};
const SWay c_xDown{"cudaMemcpy2D", c_eDown, {c_xToHost}, c_pcDown, "CopyTo", c_pcFile2D};
const SWay c_xDownQueued{"cudaMemcpy2DAsync", c_eDown, {c_xToHostAsync}, c_pcDown, "CopyToAsync", c_pcFile2D};
const SWay c_xFrom2D{"cudaMemcpy2D", c_eOver, {c_xCreate2D}, c_pcOver, "Create", c_pcFile2D};
const SWay c_xInto2D{"cudaMemcpy2D", c_eOver, {c_xTo2D, c_xCreate2D}, c_pcOver, "Create", c_pcFile2D};
const SWay c_xInto1D{"cudaMemcpy2D", c_eOver, {c_xTo1D}, c_pcUp, "CopyTo", c_pcFile2D};
const SWay c_xUp1D{"cudaMemcpy", c_eUp, {c_xCreate1D}, c_pcUp1D, "Create", c_pcFile1D};
const SWay c_xOver1D{"cudaMemcpy", c_eOver, {c_xCreate1D}, c_pcOver1D, "Create", c_pcFile1D};
const SWay c_xDown1D{"cudaMemcpy", c_eDown, {}, c_pcDown1D, "CopyTo", c_pcFile1D};

struct STransfer
{
    const char* pcName;
    EPlace eFrom;
    EPlace eTo;
    const SWay& xWay;
    std::function<void(SPlaces&)> Run;

    SLink Failure(cudaError_t eError) const { return Cuda(xWay.pcFailure, eError, xWay.pcFunction, xWay.pcFile); }
    bool IsCall(const char* pcCall) const { return std::string(xWay.pcCall) == pcCall; }
};

const std::vector<STransfer>& Transfers()
{
    using enum EPlace;
    static const std::vector<STransfer> s_vTransfers{
        {"host to 2D", Host, Image2D, c_xUp, [](SPlaces& x) { x.x2D.Create(x.xHost); }},
        {"host buffer to 2D", Host, Image2D, c_xUp,
            [](SPlaces& x) { x.x2D.Create(x.xHost.GetFormat(), x.xHost.GetDataPtr(), false); }},
        {"device buffer to 2D", Image1D, Image2D, c_xUpFromDevice,
            [](SPlaces& x) { x.x2D.Create(x.x1D.GetFormat(), x.x1D.GetDevicePointer(), true); }},
        {"client to 2D", Client, Image2D, c_xUp, [](SPlaces& x) { x.x2D.Create(&x.xClient); }},
        {"client to 2D, queued", Client, Image2D, c_xUpQueued,
            [](SPlaces& x) { x.x2D.CreateAsync(&x.xClient, nullptr); }},
        {"page-locked to 2D, queued", PageLocked, Image2D, c_xUpQueued,
            [](SPlaces& x) { x.x2D.CreateAsync(&x.xPageLocked, nullptr); }},
        {"2D to host", Image2D, Host, c_xDown, [](SPlaces& x) { x.x2D.CopyTo(x.xHost); }},
        {"2D to client", Image2D, Client, c_xDown, [](SPlaces& x) { x.x2D.CopyTo(&x.xClient); }},
        {"2D to client, queued", Image2D, Client, c_xDownQueued,
            [](SPlaces& x) { x.x2D.CopyToAsync(&x.xClient, nullptr); }},
        {"2D to page-locked, queued", Image2D, PageLocked, c_xDownQueued,
            [](SPlaces& x) { x.x2D.CopyToAsync(&x.xPageLocked, nullptr); }},
        {"2D from 2D", Other2D, Image2D, c_xFrom2D, [](SPlaces& x) { x.x2D.Create(x.xOther2D); }},
        {"2D to 2D", Image2D, Other2D, c_xInto2D, [](SPlaces& x) { x.x2D.CopyTo(x.xOther2D); }},
        {"1D to 2D", Image1D, Image2D, c_xUpFromDevice, [](SPlaces& x) { x.x2D.Create(x.x1D); }},
        {"2D to 1D", Image2D, Image1D, c_xInto1D, [](SPlaces& x) { x.x2D.CopyTo(x.x1D); }},
        {"host to 1D", Host, Image1D, c_xUp1D, [](SPlaces& x) { x.x1D.Create(x.xHost); }},
        {"client to 1D", Client, Image1D, c_xUp1D, [](SPlaces& x) { x.x1D.Create(&x.xClient); }},
        {"1D to 1D", Other1D, Image1D, c_xOver1D, [](SPlaces& x) { x.x1D.Create(x.xOther1D); }},
        {"1D to host", Image1D, Host, c_xDown1D, [](SPlaces& x) { x.x1D.CopyTo(x.xHost); }},
    };
    return s_vTransfers;
}

template <typename TBody>
::testing::AssertionResult Throws(TBody&& xBody, std::vector<SLink> vChain, const SLink& xLast)
{
    vChain.push_back(xLast);
    return ThrowsChain(xBody, vChain);
}

std::uint64_t Address(const void* pPointer)
{
    return reinterpret_cast<std::uintptr_t>(pPointer);
}

class ImageTransfer : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }
};

static_assert(!std::is_copy_constructible_v<CQxDeviceImage1D> && !std::is_move_assignable_v<CQxDeviceImage1D>);
static_assert(!std::is_polymorphic_v<CQxDeviceImage1D> && sizeof(CQxDeviceImage1D) == 40);

TEST_F(ImageTransfer, IsOneCopyThatBringsEveryPixelAndReusesTheMemoryOfTheTarget)
{
    for (const STransfer& xTransfer : Transfers())
    {
        SCOPED_TRACE(xTransfer.pcName);
        const CQxImage xImage = MakeImage(c_xFormat);
        SPlaces xPlaces;
        xPlaces.Fill(xTransfer.eTo, MakeImage(c_xOtherFormat));
        xPlaces.Fill(xTransfer.eFrom, xImage);
        xTransfer.Run(xPlaces);
        ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eTo), xImage));

        const auto [pTarget, nTargetPitch] = xPlaces.Rows(xTransfer.eTo);
        const auto [pSource, nSourcePitch] = xPlaces.Rows(xTransfer.eFrom);
        const CQxImage xSecond = MakeImage(c_xFormat, 2);
        xPlaces.Fill(xTransfer.eFrom, xSecond);
        CPoolRecorder::Reset();
        CCudaRecorder::Reset();
        xTransfer.Run(xPlaces);
        ASSERT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{xTransfer.xWay.pcCall});
        const std::uint64_t nRow = 37 * 4;
        std::vector<std::uint64_t> vArguments{Address(xPlaces.Rows(xTransfer.eTo).first), nTargetPitch,
            Address(xPlaces.Rows(xTransfer.eFrom).first), nSourcePitch, nRow, 11,
            static_cast<std::uint64_t>(xTransfer.xWay.eKind)};
        if (xTransfer.IsCall("cudaMemcpy"))
        {
            vArguments = {vArguments[0], vArguments[2], nRow * 11, vArguments[6]};
        }
        else if (xTransfer.IsCall("cudaMemcpy2DAsync"))
        {
            vArguments.push_back(0);
        }
        EXPECT_EQ(CCudaRecorder::Last(xTransfer.xWay.pcCall).vArguments, vArguments);
        EXPECT_EQ(xPlaces.Rows(xTransfer.eTo).first, pTarget);
        if (xTransfer.eFrom != EPlace::Host && xTransfer.eFrom != EPlace::Client)
        {
            EXPECT_EQ(xPlaces.Rows(xTransfer.eFrom).first, pSource);
        }
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iGetLinear + CPoolRecorder::sm_iRelease, 0);
        ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eTo), xSecond));
    }
}

TEST_F(ImageTransfer, KeepsMemoryAndFormatOfTheTargetOfAFailedCopySoThatItCanBeRetried)
{
    for (const STransfer& xTransfer : Transfers())
    {
        SCOPED_TRACE(xTransfer.pcName);
        const CQxImage xImage = MakeImage(c_xFormat);
        SPlaces xPlaces;
        xPlaces.Fill(xTransfer.eTo, MakeImage(c_xOtherFormat));
        xPlaces.Fill(xTransfer.eFrom, xImage);
        CCudaRecorder::FailCall(xTransfer.xWay.pcCall, 1, cudaErrorInvalidValue);
        EXPECT_TRUE(Throws(
            [&] { xTransfer.Run(xPlaces); }, xTransfer.xWay.vWrappers, xTransfer.Failure(cudaErrorInvalidValue)));
        EXPECT_EQ(xPlaces.Format(xTransfer.eTo), c_xFormat);
        CPoolRecorder::Reset();
        xTransfer.Run(xPlaces);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iGetLinear + CPoolRecorder::sm_iRelease, 0);
        ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eTo), xImage));
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eFrom), xImage)) << "the source has changed";
    }
    // A constructor that fails in the copy gives the memory back that it had borrowed; the listener would see it. So
    // does a null pointer, which is CUDA's to refuse.
    const SLink xCopy = Cuda(c_pcUp, cudaErrorInvalidValue, "Create", c_pcFile2D);
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([] { CQxDeviceImage2D{MakeImage(c_xFormat)}; }, {c_xCreate2D, xCopy}));
    CCudaRecorder::Reset();
    CQxDeviceImage2D xImage;
    EXPECT_TRUE(ThrowsChain([&] { xImage.Create(c_xFormat, nullptr, false); }, {c_xCreate2D, xCopy}));
    EXPECT_EQ(CCudaRecorder::Count("cudaMemcpy2D"), 1U);
}

TEST_F(ImageTransfer, WrapsARefusalOfThePoolInEveryOperationOnItsWay)
{
    const SLink xPool = Plain("pool failure", "Fail", "Pool");
    const std::map<std::string, std::vector<SLink>> xChains{
        {"host to 2D", {c_xCreate2D, c_xCreate2D, xPool}},
        {"client to 2D, queued", {c_xCreateAsync, c_xCreate2D, xPool}},
        {"2D to 2D", {c_xTo2D, c_xCreate2D, c_xCreate2D, xPool}},
        {"2D to 1D", {c_xTo1D, c_xCreate1D, xPool}},
        {"1D to 1D", {c_xCreate1D, c_xCreate1D, xPool}},
    };
    std::size_t nChains = 0;
    for (const STransfer& xTransfer : Transfers())
    {
        if (const auto xChain = xChains.find(xTransfer.pcName); xChain != xChains.end())
        {
            SCOPED_TRACE(xTransfer.pcName);
            SPlaces xPlaces;
            xPlaces.Fill(xTransfer.eFrom, MakeImage(c_xFormat));
            CPoolRecorder::sm_eFailGet = CPoolRecorder::EFailure::QxException;
            EXPECT_TRUE(ThrowsChain([&] { xTransfer.Run(xPlaces); }, xChain->second));
            EXPECT_EQ(xPlaces.Format(xTransfer.eTo), CQxImageFormat{});
            CPoolRecorder::Reset();
            ++nChains;
        }
    }
    EXPECT_EQ(nChains, xChains.size());
}

TEST_F(ImageTransfer, SurvivesTheFailureOfEveryRuntimeCall)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    for (const STransfer& xTransfer : Transfers())
    {
        SCOPED_TRACE(xTransfer.pcName);
        const auto Prepare = [&]
        {
            // Empty pools, so that the memory has to be allocated.
            GPU::CResourceManager::Trim(0);
            GPU::CResourceManager::Trim(0, GPU::EPool::PageLocked);
            auto pPlaces = std::make_unique<SPlaces>();
            pPlaces->Fill(xTransfer.eFrom, xImage);
            return pPlaces;
        };
        const int iCalls = SweepFailures(
            Prepare, [&](auto& pPlaces) { xTransfer.Run(*pPlaces); },
            [&](auto& pPlaces, int, const CQxException&)
            {
                const CQxImageFormat xLeft = pPlaces->Format(xTransfer.eTo);
                EXPECT_TRUE(xLeft == c_xFormat || xLeft == CQxImageFormat{});
                xTransfer.Run(*pPlaces);
                EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
                EXPECT_TRUE(HaveSamePixels(pPlaces->Read(xTransfer.eTo), xImage));
            });
        const bool bTargetNeedsNoDevice = xTransfer.eTo == EPlace::Host || xTransfer.eTo == EPlace::Client;
        EXPECT_GE(iCalls, bTargetNeedsNoDevice ? 1 : 3) << "the device, the allocation and the copy";
    }
}

// What is refused before anything is moved, and what of it is wrapped.
TEST_F(ImageTransfer, RefusesEmptyImagesNullPointersAndFormatsThatTheTargetCannotHave)
{
    const SLink xInvalid = Plain("Image is invalid", "CopyTo", c_pcFile2D);
    const SLink xInvalidAsync = Plain("Image is invalid", "CopyToAsync", c_pcFile2D);
    const SLink xNoSize = Plain("Width or height of given image format is 0", "Create", c_pcFile2D);
    const SLink xChannels = Plain("Only 1, 2 or 4 channels per pixel are allowed", "Create", c_pcFile2D);
    const SLink xDimension = Plain("Invalid image dimension", "Create", c_pcFile1D);
    const auto NullSource = [](const char* pcFunction, const char* pcFile = c_pcFile2D)
    { return Plain("The source image pointer is null", pcFunction, pcFile); };
    const auto NullTarget = [](const char* pcFunction)
    { return Plain("The target image pointer is null", pcFunction, c_pcFile2D); };
    const SLink xGivenInvalid = Plain("Given image is invalid", "Create", c_pcFile2D);
    const CQxImage xRgb = MakeImage(CQxImageFormat(4, 4, EDataType::UByte, EPixelType::RGB));
    const CQxImage xFlat(CQxImageFormat(0, 4, EDataType::UByte, EPixelType::Lum));
    const CQxImage xUnknown = MakeImage(CQxImageFormat(4, 4, EDataType::Packed10, EPixelType::Lum));
    const auto ClientRgb = [&](SPlaces& x) { x.xClient.m_xImage = xRgb; };
    const auto ClientFlat = [&](SPlaces& x) { x.xClient.m_xImage = xFlat; };
    IImage* const pNull = nullptr;
    const IImage* const pConstNull = nullptr;
    using Chain = std::vector<SLink>;
    const Chain vChannels{c_xCreate2D, c_xCreate2D, xChannels};
    const Chain vNoSize{c_xCreate2D, c_xCreate2D, xNoSize};
    const Chain vDimension{c_xCreate1D, xDimension};
    const struct
    {
        const char* pcName;
        Chain vChain;
        std::function<void(SPlaces&)> Run;
        std::function<void(SPlaces&)> Prepare = {};
    } c_vCases[] = {
        {"empty 2D to host", {c_xToHost, xInvalid}, [](SPlaces& x) { x.xOther2D.CopyTo(x.xHost); }},
        {"empty 2D to null", {c_xToHost, xInvalid}, [&](SPlaces& x) { x.xOther2D.CopyTo(pNull); }},
        {"empty 2D to null, queued", {c_xToHostAsync, xInvalidAsync},
            [&](SPlaces& x) { x.xOther2D.CopyToAsync(pNull, nullptr); }},
        {"empty 2D to client", {c_xToHost, xInvalid}, [](SPlaces& x) { x.xOther2D.CopyTo(&x.xClient); }},
        {"empty 2D to 2D", {c_xTo2D, c_xCreate2D, xGivenInvalid}, [](SPlaces& x) { x.xOther2D.CopyTo(x.x2D); }},
        {"empty 2D to itself", {c_xCreate2D, xGivenInvalid},
            [](SPlaces& x) { x.xOther2D.Create(std::as_const(x.xOther2D)); }},
        {"empty 2D to 1D", {c_xTo1D, xInvalid}, [](SPlaces& x) { x.xOther2D.CopyTo(x.x1D); }},
        {"empty 1D to 2D", vNoSize, [](SPlaces& x) { x.x2D.Create(x.xOther1D); }},
        {"empty 1D to 1D", vDimension, [](SPlaces& x) { x.x1D.Create(x.xOther1D); }},
        {"empty 1D to itself", vDimension, [](SPlaces& x) { x.xOther1D.Create(x.xOther1D); }},
        {"empty 1D to host", {Plain("Image is invalid", "CopyTo", c_pcFile1D)},
            [](SPlaces& x) { x.xOther1D.CopyTo(x.xHost); }},
        {"null to 2D", {c_xCreate2D, NullSource("Create")}, [&](SPlaces& x) { x.x2D.Create(pConstNull); }},
        {"null to 2D, queued", {c_xCreateAsync, NullSource("CreateAsync")},
            [&](SPlaces& x) { x.x2D.CreateAsync(pConstNull, nullptr); }},
        {"null to 1D", {c_xCreate1D, NullSource("Create", c_pcFile1D)}, [&](SPlaces& x) { x.x1D.Create(pConstNull); }},
        {"2D to null", {c_xToHost, NullTarget("CopyTo")}, [&](SPlaces& x) { x.x2D.CopyTo(pNull); }},
        {"2D to null, queued", {c_xToHostAsync, NullTarget("CopyToAsync")},
            [&](SPlaces& x) { x.x2D.CopyToAsync(pNull, nullptr); }},
        {"three channels to 2D", vChannels, [&](SPlaces& x) { x.x2D.Create(xRgb); }},
        {"three channels in a buffer", vChannels, [&](SPlaces& x) { x.x2D.Create(xRgb.GetFormat(), nullptr, false); }},
        {"three channels of a client", vChannels, [](SPlaces& x) { x.x2D.Create(&x.xClient); }, ClientRgb},
        {"three channels, queued", {c_xCreateAsync, c_xCreate2D, xChannels},
            [](SPlaces& x) { x.x2D.CreateAsync(&x.xClient, nullptr); }, ClientRgb},
        {"three channels of a 1D image", vChannels, [](SPlaces& x) { x.x2D.Create(x.xOther1D); },
            [&](SPlaces& x) { x.xOther1D.Create(xRgb); }},
        {"no width to 2D", vNoSize, [&](SPlaces& x) { x.x2D.Create(xFlat); }},
        {"no width of a client", vNoSize, [](SPlaces& x) { x.x2D.Create(&x.xClient); }, ClientFlat},
        {"no width to 1D", vDimension, [&](SPlaces& x) { x.x1D.Create(xFlat); }},
        {"no width of a client to 1D", vDimension, [](SPlaces& x) { x.x1D.Create(&x.xClient); }, ClientFlat},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        const CQxImage xBefore = MakeImage(c_xOtherFormat);
        SPlaces xPlaces;
        for (const EPlace ePlace : {EPlace::Host, EPlace::Client, EPlace::Image2D, EPlace::Image1D})
        {
            xPlaces.Fill(ePlace, xBefore);
        }
        if (xCase.Prepare)
        {
            xCase.Prepare(xPlaces);
        }
        xPlaces.xClient.m_vCalls.clear();
        const void* const p2D = xPlaces.x2D.GetDevicePointer();
        const void* const p1D = xPlaces.x1D.GetDevicePointer();
        CCudaRecorder::Reset();
        EXPECT_TRUE(ThrowsChain([&] { xCase.Run(xPlaces); }, xCase.vChain));
        EXPECT_TRUE(CCudaRecorder::Calls().empty());
        EXPECT_EQ(xPlaces.x2D.GetDevicePointer(), p2D);
        EXPECT_EQ(xPlaces.x1D.GetDevicePointer(), p1D);
        for (const EPlace ePlace : {EPlace::Host, EPlace::Image2D, EPlace::Image1D})
        {
            EXPECT_TRUE(HaveSamePixels(xPlaces.Read(ePlace), xBefore));
        }
        const auto& vCalls = xPlaces.xClient.m_vCalls;
        EXPECT_TRUE(vCalls.empty() || vCalls == (std::vector<std::string>{"GetType", "GetSize"}));
    }
    // A format that is refused after the old memory is gone leaves the target empty.
    SPlaces xPlaces;
    xPlaces.x2D.Create(c_xFormat);
    EXPECT_TRUE(ThrowsChain([&] { xPlaces.x2D.Create(xUnknown); },
        {c_xCreate2D, c_xCreate2D,
            Plain("Unsupported data type 'Unknown'", "_CreateCudaChannelFormatDescFromFormat", c_pcFile2D)}));
    EXPECT_FALSE(xPlaces.x2D.IsValid());
}

TEST_F(ImageTransfer, CallsAClientsImageInOrderAndWrapsWhatItThrows)
{
    const auto Calls = [](const CQxImageFormat& xBefore, const CQxImageFormat& xFormat)
    {
        std::vector<std::string> vCalls{"GetType", "GetSize"};
        if (!(xBefore == xFormat))
        {
            vCalls.push_back("Create " + std::to_string(xFormat.iWidth) + " " + std::to_string(xFormat.iHeight) + " " +
                std::to_string(xFormat.ePixelType) + " " + std::to_string(xFormat.eDataType));
        }
        vCalls.push_back("GetDataPtr");
        return vCalls;
    };
    for (const STransfer& xTransfer : Transfers())
    {
        if (xTransfer.eFrom != EPlace::Client && xTransfer.eTo != EPlace::Client)
        {
            continue;
        }
        SCOPED_TRACE(xTransfer.pcName);
        const bool bUpload = xTransfer.eFrom == EPlace::Client;
        SPlaces xPlaces;
        xPlaces.Fill(xTransfer.eFrom, MakeImage(c_xFormat));
        for (const CQxImageFormat& xBefore :
            {CQxImageFormat{}, c_xFormat, CQxImageFormat(38, 11, EDataType::UShort, EPixelType::LumA),
                CQxImageFormat(37, 12, EDataType::UShort, EPixelType::LumA),
                CQxImageFormat(37, 11, EDataType::Short, EPixelType::LumA),
                CQxImageFormat(37, 11, EDataType::UShort, EPixelType::Lum)})
        {
            xPlaces.Fill(xTransfer.eTo, CQxImage(bUpload ? c_xOtherFormat : xBefore));
            xPlaces.xClient.m_vCalls.clear();
            xTransfer.Run(xPlaces);
            ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
            EXPECT_EQ(xPlaces.xClient.m_vCalls,
                bUpload ? (std::vector<std::string>{"GetType", "GetSize", "GetDataPtr const"})
                        : Calls(xBefore, c_xFormat));
        }
        for (const char* pcCall : {"GetType", "GetSize", "Create", "GetDataPtr"})
        {
            if (bUpload && std::string(pcCall) == "Create")
            {
                continue;
            }
            xPlaces.Fill(xTransfer.eTo, MakeImage(c_xOtherFormat));
            xPlaces.xClient.m_sThrowIn = pcCall;
            EXPECT_TRUE(Throws(
                [&] { xTransfer.Run(xPlaces); }, xTransfer.xWay.vWrappers, Plain("client failure", "Fail", "Client")));
            xPlaces.xClient.m_bThrowForeign = true;
            EXPECT_THROW(xTransfer.Run(xPlaces), int);
            xPlaces.xClient.m_bThrowForeign = false;
        }
        xPlaces.xClient.m_sThrowIn.clear();
    }
}

// Whatever way pixels take through the kinds of images, and however far apart the rows are on the device.
TEST_F(ImageTransfer, AnyPathEndsWithThePixelsThatItBeganWith)
{
    const std::vector<EDataType::ID> vDataTypes{EDataType::Byte, EDataType::UByte, EDataType::Short, EDataType::UShort,
        EDataType::Int, EDataType::UInt, EDataType::Float, EDataType::Double, EDataType::Custom_10in16_LSB,
        EDataType::Packed10, EDataType::Packed12, EDataType::Custom_12in16_MSB, EDataType::Integral10,
        EDataType::Integral12, EDataType::Custom_10in16_MSB};
    const std::vector<EPixelType::ID> vPixelTypes{EPixelType::Lum, EPixelType::LumA, EPixelType::RGB, EPixelType::BGR,
        EPixelType::RGBA, EPixelType::BGRA, EPixelType::BayerGR, EPixelType::TwoComponent};
    const auto Fits2D = [](const CQxImageFormat& xFormat)
    {
        const bool bPacked = xFormat.eDataType == EDataType::Packed10 || xFormat.eDataType == EDataType::Packed12 ||
            xFormat.eDataType == EDataType::Integral10 || xFormat.eDataType == EDataType::Integral12;
        return !bPacked && xFormat.ePixelType != EPixelType::TwoComponent && xFormat.GetComponentCount() != 3;
    };
    const auto Is2D = [](EPlace ePlace) { return ePlace == EPlace::Image2D || ePlace == EPlace::Other2D; };
    EXPECT_TRUE(rc::check(
        [&]
        {
            CCudaRecorder::PadRows(*rc::gen::inRange<std::size_t>(0, 5000));
            GPU::CResourceManager::Trim(0);
            const CQxImageFormat xFormat(*rc::gen::inRange(1, 70), *rc::gen::inRange(1, 70),
                *rc::gen::elementOf(vDataTypes), *rc::gen::elementOf(vPixelTypes));
            const CQxImage xImage = MakeImage(xFormat, *rc::gen::arbitrary<unsigned>());
            SPlaces xPlaces;
            auto ePlace = static_cast<EPlace>(*rc::gen::inRange(0, 7));
            RC_PRE(!Is2D(ePlace) || Fits2D(xFormat));
            xPlaces.Fill(ePlace, xImage);
            for (int iSteps = *rc::gen::inRange(1, 12); iSteps > 0; --iSteps)
            {
                std::vector<const STransfer*> vNext;
                for (const STransfer& xTransfer : Transfers())
                {
                    if (xTransfer.eFrom == ePlace && (!Is2D(xTransfer.eTo) || Fits2D(xFormat)))
                    {
                        vNext.push_back(&xTransfer);
                    }
                }
                if (vNext.empty())
                {
                    break;
                }
                const STransfer& xTransfer = **rc::gen::elementOf(vNext);
                xTransfer.Run(xPlaces);
                RC_ASSERT(cudaStreamSynchronize(nullptr) == cudaSuccess);
                ePlace = xTransfer.eTo;
            }
            RC_ASSERT(HaveSamePixels(xPlaces.Read(ePlace), xImage));
        }));
    CCudaRecorder::PadRows(0);
}

TEST_F(ImageTransfer, CreatesAHostImageOnlyForAnotherFormat)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    CQxDeviceImage2D x2D(xImage);
    CQxDeviceImage1D x1D;
    x1D.Create(xImage);
    for (const bool bFrom2D : {true, false})
    {
        const auto CopyTo = [&](CQxImage& xResult) { bFrom2D ? x2D.CopyTo(xResult) : x1D.CopyTo(xResult); };
        CQxImage xResult(c_xFormat);
        const void* const pBuffer = xResult.GetDataPtr();
        CopyTo(xResult);
        EXPECT_EQ(xResult.GetDataPtr(), pBuffer);
        for (const CQxImageFormat& xFormat :
            {CQxImageFormat{}, CQxImageFormat(38, 11, EDataType::UShort, EPixelType::LumA),
                CQxImageFormat(37, 12, EDataType::UShort, EPixelType::LumA),
                CQxImageFormat(37, 11, EDataType::Short, EPixelType::LumA),
                CQxImageFormat(37, 11, EDataType::UShort, EPixelType::Lum)})
        {
            CQxImage xOther(xFormat);
            CopyTo(xOther);
            EXPECT_TRUE(HaveSamePixels(xOther, xImage));
        }
    }
}

TEST_F(ImageTransfer, AnImageCopiedIntoItselfKeepsItsPixelsWithoutACopy)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    SPlaces xPlaces;
    xPlaces.x2D.Create(xImage);
    xPlaces.x1D.Create(xImage);
    const auto xRows = xPlaces.Rows(EPlace::Image2D);
    const void* const p1D = xPlaces.x1D.GetDevicePointer();
    CCudaRecorder::Reset();
    xPlaces.x2D.Create(std::as_const(xPlaces.x2D));
    xPlaces.x2D.CopyTo(xPlaces.x2D);
    xPlaces.x1D.Create(xPlaces.x1D);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
    EXPECT_EQ(xPlaces.Rows(EPlace::Image2D), xRows);
    EXPECT_EQ(xPlaces.x1D.GetDevicePointer(), p1D);
    EXPECT_TRUE(HaveSamePixels(xPlaces.Read(EPlace::Image2D), xImage));
    EXPECT_TRUE(HaveSamePixels(xPlaces.Read(EPlace::Image1D), xImage));
}

TEST_F(ImageTransfer, SaysSoWhenTheDeviceHasNoMemoryLeft)
{
    const CQxImage xImage = MakeImage(c_xFormat);
    for (const char* pcAllocation : {"cudaMallocPitch", "cudaMallocManaged"})
    {
        SPlaces xPlaces;
        const bool b2D = std::string(pcAllocation) == "cudaMallocPitch";
        CCudaRecorder::FailCall(pcAllocation, 1, cudaErrorMemoryAllocation, true);
        try
        {
            b2D ? xPlaces.x2D.Create(xImage) : xPlaces.x1D.Create(xImage);
            FAIL() << "nothing was thrown";
        }
        catch (const CQxException& xException)
        {
            EXPECT_TRUE(xException.HasException(CQxOutOfMemoryException::c_xGuid));
            EXPECT_FALSE(xException.HasException(CQxCudaException::c_xGuid));
        }
        EXPECT_FALSE(xPlaces.x2D.IsValid() || xPlaces.x1D.IsValid());
        CCudaRecorder::ClearFailure();
        b2D ? xPlaces.x2D.Create(xImage) : xPlaces.x1D.Create(xImage);
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(b2D ? EPlace::Image2D : EPlace::Image1D), xImage));
    }
}

} // namespace

} // namespace Qx::Test
