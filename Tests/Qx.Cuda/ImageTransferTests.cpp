#include <functional>
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

// One transfer: what moves where, by which copy, and what is thrown when that fails.
struct STransfer
{
    const char* pcName;
    EPlace eFrom;
    EPlace eTo;
    std::function<void(SPlaces&)> Run;
    const char* pcCall;
    cudaMemcpyKind eKind;
    std::vector<SLink> vWrappers;
    const char* pcFailure;
    const char* pcFunction;
    const char* pcFile;

    SLink Failure(cudaError_t eError) const { return Cuda(pcFailure, eError, pcFunction, pcFile); }
};

const std::vector<STransfer>& Transfers()
{
    constexpr auto c_eUp = cudaMemcpyHostToDevice;
    constexpr auto c_eDown = cudaMemcpyDeviceToHost;
    constexpr auto c_eOver = cudaMemcpyDeviceToDevice;
    constexpr const char* c_pcUp2D = "Error copying image to cuda device";
    constexpr const char* c_pcDown2D = "Error copying image to host";
    static const std::vector<STransfer> s_vTransfers{
        {"host to 2D",
         EPlace::Host,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(x.xHost); },
         "cudaMemcpy2D",
         c_eUp,
         {c_xCreate2D},
         c_pcUp2D,
         "Create",
         c_pcFile2D},
        {"host buffer to 2D",
         EPlace::Host,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(x.xHost.GetFormat(), x.xHost.GetDataPtr(), false); },
         "cudaMemcpy2D",
         c_eUp,
         {c_xCreate2D},
         c_pcUp2D,
         "Create",
         c_pcFile2D},
        {"device buffer to 2D",
         EPlace::Image1D,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(x.x1D.GetFormat(), x.x1D.GetDevicePointer(), true); },
         "cudaMemcpy2D",
         c_eOver,
         {c_xCreate2D},
         c_pcUp2D,
         "Create",
         c_pcFile2D},
        {"client to 2D",
         EPlace::Client,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(&x.xClient); },
         "cudaMemcpy2D",
         c_eUp,
         {c_xCreate2D},
         c_pcUp2D,
         "Create",
         c_pcFile2D},
        {"client to 2D, queued",
         EPlace::Client,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.CreateAsync(&x.xClient, nullptr); },
         "cudaMemcpy2DAsync",
         c_eUp,
         {c_xCreateAsync},
         c_pcUp2D,
         "CreateAsync",
         c_pcFile2D},
        {"page-locked to 2D, queued",
         EPlace::PageLocked,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.CreateAsync(&x.xPageLocked, nullptr); },
         "cudaMemcpy2DAsync",
         c_eUp,
         {c_xCreateAsync},
         c_pcUp2D,
         "CreateAsync",
         c_pcFile2D},
        {"2D to host",
         EPlace::Image2D,
         EPlace::Host,
         [](SPlaces& x) { x.x2D.CopyTo(x.xHost); },
         "cudaMemcpy2D",
         c_eDown,
         {c_xToHost},
         c_pcDown2D,
         "CopyTo",
         c_pcFile2D},
        {"2D to client",
         EPlace::Image2D,
         EPlace::Client,
         [](SPlaces& x) { x.x2D.CopyTo(&x.xClient); },
         "cudaMemcpy2D",
         c_eDown,
         {c_xToHost},
         c_pcDown2D,
         "CopyTo",
         c_pcFile2D},
        {"2D to client, queued",
         EPlace::Image2D,
         EPlace::Client,
         [](SPlaces& x) { x.x2D.CopyToAsync(&x.xClient, nullptr); },
         "cudaMemcpy2DAsync",
         c_eDown,
         {c_xToHostAsync},
         c_pcDown2D,
         "CopyToAsync",
         c_pcFile2D},
        {"2D to page-locked, queued",
         EPlace::Image2D,
         EPlace::PageLocked,
         [](SPlaces& x) { x.x2D.CopyToAsync(&x.xPageLocked, nullptr); },
         "cudaMemcpy2DAsync",
         c_eDown,
         {c_xToHostAsync},
         c_pcDown2D,
         "CopyToAsync",
         c_pcFile2D},
        {"2D from 2D",
         EPlace::Other2D,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(x.xOther2D); },
         "cudaMemcpy2D",
         c_eOver,
         {c_xCreate2D},
         "Error creating image on cuda device",
         "Create",
         c_pcFile2D},
        {"2D to 2D",
         EPlace::Image2D,
         EPlace::Other2D,
         [](SPlaces& x) { x.x2D.CopyTo(x.xOther2D); },
         "cudaMemcpy2D",
         c_eOver,
         {c_xTo2D, c_xCreate2D},
         "Error creating image on cuda device",
         "Create",
         c_pcFile2D},
        {"1D to 2D",
         EPlace::Image1D,
         EPlace::Image2D,
         [](SPlaces& x) { x.x2D.Create(x.x1D); },
         "cudaMemcpy2D",
         c_eOver,
         {c_xCreate2D},
         c_pcUp2D,
         "Create",
         c_pcFile2D},
        {"2D to 1D",
         EPlace::Image2D,
         EPlace::Image1D,
         [](SPlaces& x) { x.x2D.CopyTo(x.x1D); },
         "cudaMemcpy2D",
         c_eOver,
         {c_xTo1D},
         c_pcUp2D,
         "CopyTo",
         c_pcFile2D},
        {"host to 1D",
         EPlace::Host,
         EPlace::Image1D,
         [](SPlaces& x) { x.x1D.Create(x.xHost); },
         "cudaMemcpy",
         c_eUp,
         {c_xCreate1D},
         "Error copying memory from host to device",
         "Create",
         c_pcFile1D},
        {"client to 1D",
         EPlace::Client,
         EPlace::Image1D,
         [](SPlaces& x) { x.x1D.Create(&x.xClient); },
         "cudaMemcpy",
         c_eUp,
         {c_xCreate1D},
         "Error copying memory from host to device",
         "Create",
         c_pcFile1D},
        {"1D to 1D",
         EPlace::Other1D,
         EPlace::Image1D,
         [](SPlaces& x) { x.x1D.Create(x.xOther1D); },
         "cudaMemcpy",
         c_eOver,
         {c_xCreate1D},
         "Error copying memory from device to device",
         "Create",
         c_pcFile1D},
        {"1D to host",
         EPlace::Image1D,
         EPlace::Host,
         [](SPlaces& x) { x.x1D.CopyTo(x.xHost); },
         "cudaMemcpy",
         c_eDown,
         {},
         "Error copying memory from device to host",
         "CopyTo",
         c_pcFile1D}};
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
        ASSERT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{xTransfer.pcCall});
        const std::uint64_t nRow = 37 * 4;
        std::vector<std::uint64_t> vArguments{Address(xPlaces.Rows(xTransfer.eTo).first),
                                              nTargetPitch,
                                              Address(xPlaces.Rows(xTransfer.eFrom).first),
                                              nSourcePitch,
                                              nRow,
                                              11,
                                              static_cast<std::uint64_t>(xTransfer.eKind)};
        if (std::string(xTransfer.pcCall) == "cudaMemcpy")
        {
            vArguments = {vArguments[0], vArguments[2], nRow * 11, vArguments[6]};
        }
        else if (std::string(xTransfer.pcCall) == "cudaMemcpy2DAsync")
        {
            vArguments.push_back(0);
        }
        EXPECT_EQ(CCudaRecorder::Last(xTransfer.pcCall).vArguments, vArguments);
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
        CCudaRecorder::FailCall(xTransfer.pcCall, 1, cudaErrorInvalidValue);
        EXPECT_TRUE(
            Throws([&] { xTransfer.Run(xPlaces); }, xTransfer.vWrappers, xTransfer.Failure(cudaErrorInvalidValue)));
        EXPECT_EQ(xPlaces.Format(xTransfer.eTo), c_xFormat);
        CPoolRecorder::Reset();
        xTransfer.Run(xPlaces);
        EXPECT_EQ(CPoolRecorder::sm_iGetPitch + CPoolRecorder::sm_iGetLinear + CPoolRecorder::sm_iRelease, 0);
        ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eTo), xImage));
        EXPECT_TRUE(HaveSamePixels(xPlaces.Read(xTransfer.eFrom), xImage)) << "the source has changed";
    }
    // A constructor that fails in the copy gives the memory back that it had borrowed; the listener would see it.
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    EXPECT_THROW(CQxDeviceImage2D{MakeImage(c_xFormat)}, CQxException);
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
    const auto Null = [](const char* pcMessage, const char* pcFunction, const char* pcFile)
    { return Plain(pcMessage, pcFunction, pcFile); };
    constexpr const char* c_pcNullSource = "The source image pointer is null";
    constexpr const char* c_pcNullTarget = "The target image pointer is null";
    const CQxImage xRgb = MakeImage(CQxImageFormat(4, 4, EDataType::UByte, EPixelType::RGB));
    const CQxImage xNoWidth(CQxImageFormat(0, 4, EDataType::UByte, EPixelType::Lum));
    const CQxImage xUnknown = MakeImage(CQxImageFormat(4, 4, EDataType::Packed10, EPixelType::Lum));
    const struct
    {
        const char* pcName;
        std::function<void(SPlaces&)> Prepare;
        std::function<void(SPlaces&)> Run;
        std::vector<SLink> vChain;
    } c_vCases[] = {
        {"empty 2D to host", {}, [](SPlaces& x) { x.xOther2D.CopyTo(x.xHost); }, {c_xToHost, xInvalid}},
        {"empty 2D to null",
         {},
         [](SPlaces& x) { x.xOther2D.CopyTo(static_cast<IImage*>(nullptr)); },
         {c_xToHost, xInvalid}},
        {"empty 2D to null, queued",
         {},
         [](SPlaces& x) { x.xOther2D.CopyToAsync(nullptr, nullptr); },
         {c_xToHostAsync, xInvalidAsync}},
        {"empty 2D to client", {}, [](SPlaces& x) { x.xOther2D.CopyTo(&x.xClient); }, {c_xToHost, xInvalid}},
        {"empty 2D to 2D",
         {},
         [](SPlaces& x) { x.xOther2D.CopyTo(x.x2D); },
         {c_xTo2D, c_xCreate2D, Plain("Given image is invalid", "Create", c_pcFile2D)}},
        {"empty 2D to itself",
         {},
         [](SPlaces& x) { x.xOther2D.Create(std::as_const(x.xOther2D)); },
         {c_xCreate2D, Plain("Given image is invalid", "Create", c_pcFile2D)}},
        {"empty 2D to 1D", {}, [](SPlaces& x) { x.xOther2D.CopyTo(x.x1D); }, {c_xTo1D, xInvalid}},
        {"empty 1D to 2D", {}, [](SPlaces& x) { x.x2D.Create(x.xOther1D); }, {c_xCreate2D, c_xCreate2D, xNoSize}},
        {"empty 1D to 1D", {}, [](SPlaces& x) { x.x1D.Create(x.xOther1D); }, {c_xCreate1D, xDimension}},
        {"empty 1D to itself", {}, [](SPlaces& x) { x.xOther1D.Create(x.xOther1D); }, {c_xCreate1D, xDimension}},
        {"empty 1D to host",
         {},
         [](SPlaces& x) { x.xOther1D.CopyTo(x.xHost); },
         {Plain("Image is invalid", "CopyTo", c_pcFile1D)}},
        {"null to 2D",
         {},
         [](SPlaces& x) { x.x2D.Create(static_cast<const IImage*>(nullptr)); },
         {c_xCreate2D, Null(c_pcNullSource, "Create", c_pcFile2D)}},
        {"null to 2D, queued",
         {},
         [](SPlaces& x) { x.x2D.CreateAsync(nullptr, nullptr); },
         {c_xCreateAsync, Null(c_pcNullSource, "CreateAsync", c_pcFile2D)}},
        {"null to 1D",
         {},
         [](SPlaces& x) { x.x1D.Create(static_cast<const IImage*>(nullptr)); },
         {c_xCreate1D, Null(c_pcNullSource, "Create", c_pcFile1D)}},
        {"2D to null",
         {},
         [](SPlaces& x) { x.x2D.CopyTo(static_cast<IImage*>(nullptr)); },
         {c_xToHost, Null(c_pcNullTarget, "CopyTo", c_pcFile2D)}},
        {"2D to null, queued",
         {},
         [](SPlaces& x) { x.x2D.CopyToAsync(nullptr, nullptr); },
         {c_xToHostAsync, Null(c_pcNullTarget, "CopyToAsync", c_pcFile2D)}},
        {"three channels to 2D", {}, [&](SPlaces& x) { x.x2D.Create(xRgb); }, {c_xCreate2D, c_xCreate2D, xChannels}},
        {"three channels in a buffer",
         {},
         [&](SPlaces& x) { x.x2D.Create(xRgb.GetFormat(), nullptr, false); },
         {c_xCreate2D, c_xCreate2D, xChannels}},
        {"three channels of a client",
         [&](SPlaces& x) { x.xClient.m_xImage = xRgb; },
         [](SPlaces& x) { x.x2D.Create(&x.xClient); },
         {c_xCreate2D, c_xCreate2D, xChannels}},
        {"three channels, queued",
         [&](SPlaces& x) { x.xClient.m_xImage = xRgb; },
         [](SPlaces& x) { x.x2D.CreateAsync(&x.xClient, nullptr); },
         {c_xCreateAsync, c_xCreate2D, xChannels}},
        {"three channels of a 1D image",
         [&](SPlaces& x) { x.xOther1D.Create(xRgb); },
         [](SPlaces& x) { x.x2D.Create(x.xOther1D); },
         {c_xCreate2D, c_xCreate2D, xChannels}},
        {"no width to 2D", {}, [&](SPlaces& x) { x.x2D.Create(xNoWidth); }, {c_xCreate2D, c_xCreate2D, xNoSize}},
        {"no width of a client",
         [&](SPlaces& x) { x.xClient.m_xImage = xNoWidth; },
         [](SPlaces& x) { x.x2D.Create(&x.xClient); },
         {c_xCreate2D, c_xCreate2D, xNoSize}},
        {"no width to 1D", {}, [&](SPlaces& x) { x.x1D.Create(xNoWidth); }, {c_xCreate1D, xDimension}},
        {"no width of a client to 1D",
         [&](SPlaces& x) { x.xClient.m_xImage = xNoWidth; },
         [](SPlaces& x) { x.x1D.Create(&x.xClient); },
         {c_xCreate1D, xDimension}}};
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
    EXPECT_TRUE(
        ThrowsChain([&] { xPlaces.x2D.Create(xUnknown); },
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
            EXPECT_TRUE(Throws([&] { xTransfer.Run(xPlaces); }, xTransfer.vWrappers,
                               Plain("client failure", "Fail", "Client")));
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
    const std::vector<EDataType::ID> vDataTypes{
        EDataType::Byte,       EDataType::UByte,      EDataType::Short,
        EDataType::UShort,     EDataType::Int,        EDataType::UInt,
        EDataType::Float,      EDataType::Double,     EDataType::Custom_10in16_LSB,
        EDataType::Packed10,   EDataType::Packed12,   EDataType::Custom_12in16_MSB,
        EDataType::Integral10, EDataType::Integral12, EDataType::Custom_10in16_MSB};
    const std::vector<EPixelType::ID> vPixelTypes{EPixelType::Lum,     EPixelType::LumA,        EPixelType::RGB,
                                                  EPixelType::BGR,     EPixelType::RGBA,        EPixelType::BGRA,
                                                  EPixelType::BayerGR, EPixelType::TwoComponent};
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
