#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"
#include "Support/Stream.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaComp";

struct SShape
{
    unsigned int uX;
    unsigned int uY;
    unsigned int uZ;

    friend bool operator==(const SShape&, const SShape&) = default;
    friend std::ostream& operator<<(std::ostream& xOut, const SShape& xShape)
    {
        return xOut << '[' << xShape.uX << ", " << xShape.uY << ", " << xShape.uZ << ']';
    }
};

SShape Shape(const dim3& xDim)
{
    return {xDim.x, xDim.y, xDim.z};
}

void ExpectConfiguration(const CQxCudaComp& xComp, const SShape& xGrid, const SShape& xBlock)
{
    EXPECT_EQ(Shape(xComp.GetGrid()), xGrid);
    EXPECT_EQ(Shape(xComp.GetBlock()), xBlock);
}

CQxImageFormat Size(int iWidth, int iHeight)
{
    return {iWidth, iHeight, EDataType::UByte, EPixelType::Lum};
}

static_assert(std::has_virtual_destructor_v<CQxCudaComp> && !std::is_copy_constructible_v<CQxCudaComp> &&
    !std::is_move_constructible_v<CQxCudaComp>);

TEST(CudaComp, StartsUnconfiguredAndRefusesToBegin)
{
    const SLink xRefused =
        Plain("Kernel launch configuration isn't initialized. Block or Grid is zero. Call EvalKernelDim_2D_1D() before",
            "Begin", c_pcFile);
    {
        CQxCudaComp xComp;
        ExpectConfiguration(xComp, {0, 0, 1}, {0, 0, 1});
        EXPECT_EQ(xComp.GetStream(), nullptr);
        EXPECT_TRUE(ThrowsChain([&] { xComp.Begin("Kernel", nullptr); }, {xRefused}));
        EXPECT_TRUE(ThrowsChain([&] { xComp.Begin(CQxString("Kernel"), nullptr); }, {xRefused}));
    }
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
}

TEST(CudaComp, SizesALaunchForAnImage)
{
    struct SCase
    {
        int iWidth, iHeight, iResources, iWarps;
        SShape xBlock, xGrid;
    };
    const std::vector<SCase> vCases{
        {1920, 1080, 32, 8, {256, 1, 1}, {8, 1080, 1}},   // 256 x 32 fits
        {1920, 1080, 512, 8, {128, 1, 1}, {15, 1080, 1}}, // 256 x 512 does not
        {1, 1, 1, 1, {32, 1, 1}, {1, 1, 1}},              //
        {33, 2, 2048, 1, {32, 1, 1}, {2, 2, 1}},          // exactly the limit
        {33, 2, 2049, 1, {16, 1, 1}, {3, 2, 1}},          // one above it
        {INT32_MAX, 1, 65536, 8, {1, 1, 1}, {INT32_MAX, 1, 1}},
        {7, 5, 0, 2, {64, 1, 1}, {1, 5, 1}},
        {7, 5, -3, 2, {64, 1, 1}, {1, 5, 1}},
        // No thread is left, or there are none to begin with.
        {640, 480, 65537, 8, {0, 1, 1}, {0, 480, 1}},
        {640, 480, INT32_MAX, INT32_MAX, {0, 1, 1}, {0, 480, 1}},
        {640, 480, 32, 0, {0, 1, 1}, {0, 480, 1}},
        {640, 480, 32, -8, {0, 1, 1}, {0, 480, 1}},
        {640, 480, INT32_MIN, INT32_MIN, {0, 1, 1}, {0, 480, 1}},
        {640, 480, 0, INT32_MAX, {0, 1, 1}, {0, 480, 1}},
    };
    for (const SCase& xCase : vCases)
    {
        SCOPED_TRACE(&xCase - vCases.data());
        CQxCudaComp xComp;
        xComp.EvalKernelDim_2D_1D(Size(xCase.iWidth, xCase.iHeight), xCase.iResources, xCase.iWarps);
        ExpectConfiguration(xComp, xCase.xGrid, xCase.xBlock);
        if (xCase.xBlock.uX == 0)
        {
            EXPECT_THROW(xComp.Begin("Kernel", nullptr), CQxException);
        }
    }
}

TEST(CudaComp, RefusesAnImageWithoutPixelsAndKeepsTheConfiguration)
{
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(Size(64, 48), 32, 1);
    EXPECT_TRUE(ThrowsChain([&] { xComp.EvalKernelDim_2D_1D(Size(0, 480), 32, 8); },
        {Plain("Invalid array size 0 x 480", "EvalKernelDim_2D_1D", c_pcFile)}));
    EXPECT_TRUE(ThrowsChain([&] { xComp.EvalKernelDim_2D_1D(Size(640, -1), 32, 8); },
        {Plain("Invalid array size 640 x -1", "EvalKernelDim_2D_1D", c_pcFile)}));
    ExpectConfiguration(xComp, {2, 48, 1}, {32, 1, 1});
}

TEST(CudaComp, SizesALaunchForANumberOfThreads)
{
    const std::tuple<unsigned int, unsigned int, SShape> c_vCases[] = {
        {1, 256, {1, 1, 1}},
        {256, 256, {1, 1, 1}},
        {257, 256, {2, 1, 1}},
        {10000000, 256, {39063, 1, 1}},
        {100000000, 256, {65105, 6, 1}},
        {65534, 1, {65534, 1, 1}},
        {65535U * 256, 256, {65535, 1, 1}},
        {65536, 1, {32769, 2, 1}},
        {131070U * 256, 256, {65536, 2, 1}},
        {131071, 1, {43691, 3, 1}},
        {4294967295U, 4294967295U, {1, 1, 1}},
    };
    for (const auto& [uThreads, uBlock, xGrid] : c_vCases)
    {
        SCOPED_TRACE(uThreads);
        CQxCudaComp xComp;
        xComp.SetKernelConfiguration(uThreads, uBlock);
        ExpectConfiguration(xComp, xGrid, {uBlock, 1, 1});
    }
}

TEST(CudaComp, RefusesThreadCountsThatNoConfigurationCovers)
{
    CQxCudaComp xComp;
    xComp.SetKernelConfiguration(1000, 10);
    const auto Refuses = [&](unsigned int uThreads, unsigned int uBlock, const char* pcInner)
    {
        EXPECT_TRUE(ThrowsChain([&] { xComp.SetKernelConfiguration(uThreads, uBlock); },
            {Plain("Error setting kernel configuration", "SetKernelConfiguration", c_pcFile),
                Plain(pcInner, "SetKernelConfiguration", c_pcFile)}));
    };
    Refuses(0, 256, "Number of threads is 0");
    Refuses(0, 0, "Number of threads is 0");
    Refuses(256, 0, "Number of threads in a block is 0");
    ExpectConfiguration(xComp, {100, 1, 1}, {10, 1, 1});
    Refuses(4294967295U, 1024, "Too many threads for given configuration algorithm");
    ExpectConfiguration(xComp, {64528, 65, 1}, {1024, 1, 1});
    Refuses(4294967295U, 1, "Too many threads for given configuration algorithm");
    ExpectConfiguration(xComp, {65536, 65536, 1}, {1, 1, 1});
}

TEST(CudaComp, CreatesOneEventRecordsItOnTheStreamOfEndAndDestroysIt)
{
    const CStreamScope xStream;
    {
        CQxCudaComp xComp;
        xComp.SetStream(xStream);
        EXPECT_EQ(xComp.GetStream(), static_cast<cudaStream_t>(xStream));
        xComp.SetKernelConfiguration(1, 1);
        CCudaRecorder::Reset();
        xComp.Begin("Kernel", nullptr);
        xComp.Begin(CQxString("Kernel"), nullptr);
        xComp.End("Kernel", xStream);
        xComp.End(CQxString("Kernel"), xStream);
        EXPECT_EQ(CCudaRecorder::CallNames(),
            (std::vector<std::string>{"cudaEventCreateWithFlags", "cudaEventRecord", "cudaEventSynchronize",
                "cudaEventRecord", "cudaEventSynchronize"}));
        EXPECT_EQ(CCudaRecorder::Last("cudaEventCreateWithFlags").vArguments[1], 2U);
        EXPECT_EQ(
            CCudaRecorder::Last("cudaEventRecord").vArguments[1], reinterpret_cast<std::uintptr_t>(xComp.GetStream()));
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall("cudaEventDestroy", 1, cudaErrorUnknown); // which nobody is told of
    }
    EXPECT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{"cudaEventDestroy"});
    EXPECT_EQ(cudaGetLastError(), cudaErrorUnknown);
}

/// A launch of 15 x 1080 blocks of 128 threads, and the text of its reports.
class CudaCompReport : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_xComp.EvalKernelDim_2D_1D(Size(1920, 1080), 512, 8);
        ASSERT_EQ(cudaMemGetInfo(&m_nFree, &m_nTotal), cudaSuccess);
    }

    std::string _Report(const std::string& sMessage, const std::string& sKernel, const char* pcError) const
    {
        return sMessage + "\n\nKernel: '" + sKernel + "'\nCUDA Error String: '" + pcError +
            "'\n\nKernel Configuration:\n - Grid:  [15, 1080, 1] = 16200\n - Block: [128, 1, 1] = 128\n\n" +
            "Free Memory: " + std::to_string(m_nFree) + "/" + std::to_string(m_nTotal);
    }

    CQxCudaComp m_xComp;
    std::size_t m_nFree = 0;
    std::size_t m_nTotal = 0;
};

TEST_F(CudaCompReport, NamesTheStepThatFailedAndRecordsTheErrorThatIsPendingAfterwards)
{
    const auto Reports = [&](const char* pcCall, const char* pcStep, const char* pcFunction, auto&& xBody)
    {
        const std::string sReport = _Report(pcStep, "100 %s Sharpen", "invalid argument");
        const SLink xExpected = Cuda(sReport.c_str(), cudaSuccess, pcFunction, c_pcFile);
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall(pcCall, 1, cudaErrorInvalidValue);
        EXPECT_TRUE(ThrowsChain(xBody, {xExpected}));
        const auto vNames = CCudaRecorder::CallNames();
        ASSERT_GE(vNames.size(), 8U);
        EXPECT_EQ(std::vector<std::string>(vNames.end() - 8, vNames.end()),
            (std::vector<std::string>{pcCall, "cudaMemGetInfo", "cudaGetErrorString", "cudaGetLastError",
                "cudaGetLastError", "cudaGetErrorName", "cudaGetErrorString", "cudaGetDevice"}));
    };
    Reports("cudaEventCreateWithFlags", "Start: Error creating stop event", "Begin",
        [&] { m_xComp.Begin("100 %s Sharpen", nullptr); });
    m_xComp.Begin("100 %s Sharpen", nullptr);
    Reports("cudaEventRecord", "End: Error putting end event on main stream", "End",
        [&] { m_xComp.End("100 %s Sharpen", nullptr); });
    EXPECT_EQ(CCudaRecorder::Count("cudaEventSynchronize"), 0U);
    Reports("cudaEventSynchronize", "End: Error during Kernel execution", "End",
        [&] { m_xComp.End(CQxString("100 %s Sharpen"), nullptr); });
}

TEST_F(CudaCompReport, NamesAnEndWithoutABegin)
{
    try
    {
        m_xComp.End(static_cast<const char*>(nullptr), nullptr);
        FAIL() << "nothing was thrown";
    }
    catch (const CQxCudaException& xException)
    {
        const std::string sMessage = xException.GetMessageText().ToCString();
        EXPECT_EQ(sMessage.find("End: Error putting end event on main stream\n\nKernel: ''\nCUDA Error String: "), 0U)
            << sMessage;
    }
}

TEST_F(CudaCompReport, SurvivesAFailedMemoryQueryAndProductsThatWrap)
{
    m_xComp.EvalKernelDim_2D_1D(Size(50000, 50000), 65536, 1);
    CCudaRecorder::FailCall("cudaMemGetInfo", 1, cudaErrorUnknown);
    const CQxString sReport = m_xComp._ShowDebugErrorWindow(cudaErrorLaunchFailure, nullptr, nullptr);
    EXPECT_STREQ(sReport.ToCString(),
        "\n\nKernel: ''\nCUDA Error String: 'unspecified launch failure'\n\nKernel Configuration:\n"
        " - Grid:  [50000, 50000, 1] = -1794967296\n - Block: [1, 1, 1] = 1\n\nFree Memory: 0/0");
    EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
}

TEST_F(CudaCompReport, ShortensOnlyWhatIsTooLong)
{
    const char* const pcError = "unspecified launch failure";
    const std::string sStep = "End: Error during Kernel execution";
    const std::string sLong(5000, 'k');
    const std::string sTail = _Report("", "", pcError);
    const auto Shown = [&](const std::string& sKernel, const std::string& sMessage)
    {
        const CQxString sReport =
            m_xComp._ShowDebugErrorWindow(cudaErrorLaunchFailure, sKernel.c_str(), sMessage.c_str());
        return std::string(sReport.ToCString());
    };
    const std::string sKept(1999 - sTail.size() - sStep.size(), 'k');
    EXPECT_EQ(Shown(sLong, sStep), _Report(sStep, sKept, pcError));

    const std::string sMessageCut = Shown("Kernel", sLong);
    EXPECT_EQ(sMessageCut.size(), 1999U);
    EXPECT_EQ(sMessageCut.substr(1999 - sTail.size()), sTail);
}

} // namespace

} // namespace Qx::Test
