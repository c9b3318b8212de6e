#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/AllocationFault.h"
#include "Support/CudaChain.h"
#include "Support/CudaRecorder.h"
#include "Support/PoolRecorder.h"
#include "Support/Sweep.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceMapping3D";
constexpr const char* c_pcLongName = "a name that is too long for the string object";
const SLink c_xCreate = Plain("Error creating device mapping", "Create", c_pcFile);
const SLink c_xDownload = Plain("Error copying to host image", "Download", c_pcFile);
const SLink c_xRelease = Plain("Error releasing device mapping", "Release", c_pcFile);
const SLink c_xInvalid = Plain("Mapping is invalid", "Map", c_pcFile);
const SLink c_xOutside = Plain("Point is not in mapping volume", "Map", c_pcFile);
const SLink c_xPoolFailure = Plain("pool failure", "Fail", "Pool");
constexpr float c_fInfinity = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float c_fDenormal = std::numeric_limits<float>::denorm_min();

using Counts = std::array<int, 3>;
using Triple = std::array<float, 3>;

std::size_t Cells(const Counts& vCounts)
{
    return static_cast<std::size_t>(vCounts[0] * vCounts[1] * vCounts[2]);
}

// Cells of size 1 from the origin, named, with the values first, first + 1, ...
CQxMapping3D MakeMapping(const Counts& vCounts, float fFirst = 1.0F, const char* pcName = "Name")
{
    CQxMapping3D xMapping;
    xMapping.Create(0, 0, 0, static_cast<float>(vCounts[0]), static_cast<float>(vCounts[1]),
                    static_cast<float>(vCounts[2]), vCounts[0], vCounts[1], vCounts[2], nullptr);
    for (std::size_t nCell = 0; nCell < Cells(vCounts); ++nCell)
    {
        xMapping.GetDataPtr()[nCell] = fFirst + static_cast<float>(nCell);
    }
    xMapping.SetName(pcName);
    return xMapping;
}

// Says of itself what the test wants.
class CStrangeMapping final : public CQxMapping3D
{
public:
    CStrangeMapping(const CQxMapping3D& xReal, const Counts& vCounts, std::uint32_t uBytes)
        : CQxMapping3D(xReal), m_vStrangeCounts(vCounts), m_uBytes(uBytes)
    {
    }
    const Triple& GetMinimum() const override { return m_vStrangeMinimum; }
    const Triple& GetMaximum() const override { return m_vStrangeMaximum; }
    const Counts& GetCellCounts() const override { return m_vStrangeCounts; }
    std::uint32_t GetByteCount() const override
    {
        ++m_iAsked;
        return m_uBytes;
    }

    Triple m_vStrangeMinimum{};
    Triple m_vStrangeMaximum{1, 1, 1};
    Counts m_vStrangeCounts;
    std::uint32_t m_uBytes;
    mutable int m_iAsked = 0;
};

std::vector<float> Values(const CQxMapping3D& xMapping)
{
    return {xMapping.GetDataPtr(), xMapping.GetDataPtr() + Cells(xMapping.GetCellCounts())};
}

// True when the device mapping downloads as the host mapping that it was created from.
bool Holds(const CQxDeviceMapping3D& xDevice, const CQxMapping3D& xMapping)
{
    CQxMapping3D xResult;
    xDevice.Download(xResult);
    return xResult.GetMinimum() == xMapping.GetMinimum() && xResult.GetMaximum() == xMapping.GetMaximum() &&
           xResult.GetCellCounts() == xMapping.GetCellCounts() && Values(xResult) == Values(xMapping) &&
           xResult.GetName() == xMapping.GetName();
}

// An empty mapping says so everywhere, and zeroes nothing.
void ExpectEmpty(CQxDeviceMapping3D& xDevice)
{
    EXPECT_FALSE(xDevice.IsValid());
    EXPECT_EQ(xDevice.GetDevicePointer(), nullptr);
    EXPECT_FALSE(xDevice.Contains(0.5F, 0.5F, 0.5F));
    float fPoint = 0.5F;
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Map(fPoint, fPoint, fPoint); }, {c_xInvalid}));
    xDevice.SetZero();
    EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments, (std::vector<std::uint64_t>{0, 0, 0}));
    CQxMapping3D xHost = MakeMapping({1, 2, 1});
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Download(xHost); },
                            {c_xDownload, Plain("Mapping is invalid", "Download", c_pcFile)}));
    EXPECT_EQ(Values(xHost), (std::vector<float>{1, 2}));
}

class DeviceMapping3D : public ::testing::Test
{
protected:
    void SetUp() override { CPoolRecorder::Reset(); }
    void TearDown() override { CPoolRecorder::Reset(); }

    // Pool and copy calls since the last time.
    static std::vector<int> Calls()
    {
        const std::vector<int> vCalls{CPoolRecorder::sm_iRelease, CPoolRecorder::sm_iGetLinear,
                                      static_cast<int>(CCudaRecorder::Count("cudaMemcpy"))};
        CPoolRecorder::Reset();
        CCudaRecorder::Reset();
        return vCalls;
    }
};

static_assert(!std::is_copy_constructible_v<CQxDeviceMapping3D> && !std::is_copy_assignable_v<CQxDeviceMapping3D>);
static_assert(!std::is_polymorphic_v<CQxDeviceMapping3D> && sizeof(CQxDeviceMapping3D) == 88 + sizeof(CQxString));

TEST_F(DeviceMapping3D, KeepsItsBlockExactlyWhenTheByteCountStays)
{
    {
        CQxDeviceMapping3D xDevice;
        ExpectEmpty(xDevice);
        xDevice.Release();
        EXPECT_EQ(Calls(), (std::vector<int>{0, 0, 0}));
        const void* pBlock = nullptr;
        const struct
        {
            Counts vCounts;
            std::vector<int> vCalls;
        } c_aCases[] = {
            {{2, 3, 4}, {0, 1, 1}}, {{3, 2, 4}, {0, 0, 1}},  {{1, 24, 1}, {0, 0, 1}},
            {{5, 5, 1}, {1, 1, 1}}, {{1, 1, 25}, {0, 0, 1}}, {{1, 1, 1}, {1, 1, 1}},
        };
        for (const auto& xCase : c_aCases)
        {
            CQxMapping3D xHost = MakeMapping(xCase.vCounts, static_cast<float>(xCase.vCounts[1]), c_pcLongName);
            xHost.SetStepSizes(7, 8, 9);
            xDevice.Create(xHost);
            const auto nPointer = reinterpret_cast<std::uintptr_t>(xDevice.GetDevicePointer());
            EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy").vArguments,
                      (std::vector<std::uint64_t>{nPointer, reinterpret_cast<std::uintptr_t>(xHost.GetDataPtr()),
                                                  Cells(xCase.vCounts) * 4, cudaMemcpyHostToDevice}));
            const std::size_t nRequested = CPoolRecorder::sm_nWidth;
            EXPECT_EQ(Calls(), xCase.vCalls);
            EXPECT_TRUE(xCase.vCalls[1] == 0 ? xDevice.GetDevicePointer() == pBlock
                                             : nRequested == Cells(xCase.vCounts) * 4);
            pBlock = xDevice.GetDevicePointer();

            EXPECT_TRUE(Holds(xDevice, xHost));
            EXPECT_EQ(Calls(), (std::vector<int>{0, 0, 1}));
            CQxMapping3D xResult;
            xDevice.Download(xResult);
            EXPECT_EQ(xResult.GetStepSizes(), (Triple{1, 1, 1})) << "steps are not transferred";
            CCudaRecorder::Reset();
            xDevice.SetZero();
            EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments,
                      (std::vector<std::uint64_t>{nPointer, 0, Cells(xCase.vCounts) * 4}));
            xDevice.Download(xResult);
            EXPECT_EQ(Values(xResult), std::vector<float>(Cells(xCase.vCounts)));
            Calls();
        }
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    EXPECT_FALSE(CPoolRecorder::sm_bFlag);
}

TEST_F(DeviceMapping3D, RefusesWhatIsNoGridOfItsBytesAndStaysAsItWas)
{
    const char* pcDimensions = "The mapping dimensions are smaller or equal zero";
    const struct
    {
        Counts vCounts;
        std::uint32_t uBytes;
        const char* pcMessage;
    } c_aCases[] = {
        {{0, 1, 1}, 4, pcDimensions},
        {{1, -1, 1}, 4, pcDimensions},
        {{1, 1, INT32_MIN}, 4, pcDimensions},
        {{-1, INT32_MAX, -INT32_MAX}, 4, pcDimensions},
        {{1, 1, 1 << 30}, 0, "Mapping of 1 x 1 x 1073741824 cells is too large"},
        {{1, (1 << 30) + 1, 1}, 4, "Mapping of 1 x 1073741825 x 1 cells is too large"},
        {{1 << 30, 1 << 30, 16}, 96, "Mapping of 1073741824 x 1073741824 x 16 cells is too large"},
        {{1 << 30, 1 << 30, 4}, 96, "Mapping of 1073741824 x 1073741824 x 4 cells is too large"},
        {{2, 3, 4}, 95, "Mapping of 95 bytes is smaller than its 24 cells"},
        {{1, 1, (1 << 30) - 1}, 96, "Mapping of 96 bytes is smaller than its 1073741823 cells"},
    };
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    for (const auto& xCase : c_aCases)
    {
        SCOPED_TRACE(xCase.pcMessage);
        const CStrangeMapping xStrange(xHost, xCase.vCounts, xCase.uBytes);
        CQxDeviceMapping3D xDevice;
        for (const bool bValid : {false, true})
        {
            Calls();
            EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(xStrange); },
                                    {c_xCreate, Plain(xCase.pcMessage, "Create", c_pcFile)}));
            EXPECT_EQ(Calls(), (std::vector<int>{0, 0, 0}));
            ASSERT_EQ(xDevice.IsValid(), bValid);
            if (!bValid)
            {
                xDevice.Create(xHost);
            }
        }
        EXPECT_TRUE(Holds(xDevice, xHost));
    }

    // More bytes than cells are a bigger block; a download takes no more than there is.
    CStrangeMapping xPadded(xHost, {2, 2, 2}, 96);
    CQxDeviceMapping3D xDevice;
    xDevice.Create(xPadded);
    EXPECT_EQ(CPoolRecorder::sm_nWidth, 96U);
    EXPECT_EQ(xPadded.m_iAsked, 1);
    xPadded.m_uBytes = 100;
    EXPECT_TRUE(ThrowsChain(
        [&] { xDevice.Download(xPadded); },
        {c_xDownload, Plain("Host mapping of 100 bytes is larger than the device mapping", "Download", c_pcFile)}));
}

TEST_F(DeviceMapping3D, IsUnchangedOrEmptyWhenThePoolRefuses)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    const CQxMapping3D xOther = MakeMapping({1, 2, 1});
    for (const auto eFailure : {CPoolRecorder::EFailure::QxException, CPoolRecorder::EFailure::BadAlloc})
    {
        const auto Fails = [eFailure](auto&& xBody, std::initializer_list<SLink> vChain)
        {
            if (eFailure == CPoolRecorder::EFailure::BadAlloc)
            {
                EXPECT_THROW(xBody(), std::bad_alloc);
                return;
            }
            EXPECT_TRUE(ThrowsChain(xBody, vChain));
        };
        CQxDeviceMapping3D xDevice;
        CQxDeviceMapping3D xSource;
        xDevice.Create(xHost);
        xSource.Create(xOther);
        CPoolRecorder::sm_eFailRelease = eFailure;
        Fails([&] { xDevice.Release(); }, {c_xRelease, c_xPoolFailure});
        Fails([&] { xDevice.Create(xOther); }, {c_xCreate, c_xPoolFailure});
        Fails([&] { xDevice = std::move(xSource); }, {c_xRelease, c_xPoolFailure});
        EXPECT_TRUE(Holds(xDevice, xHost));
        EXPECT_TRUE(Holds(xSource, xOther));

        CPoolRecorder::Reset();
        CPoolRecorder::sm_eFailGet = eFailure;
        Fails([&] { xDevice.Create(xOther); }, {c_xCreate, c_xPoolFailure});
        ExpectEmpty(xDevice);
        CPoolRecorder::Reset();
        xDevice.Create(xHost); // of the size that it had: there is no block to keep
        EXPECT_TRUE(Holds(xDevice, xHost));

        // The destructor drops the failure; the block is lost to the mapping, so the test gives it back.
        GPU::CCudaMemoryResource xLost;
        {
            CQxDeviceMapping3D xDropped(std::move(xDevice));
            xLost.m_pDevice = xDropped.GetDevicePointer();
            CPoolRecorder::sm_eFailRelease = eFailure;
        }
        CPoolRecorder::Reset();
        GPU::CResourceManager::ReleaseResource(xLost, false);
    }
}

TEST_F(DeviceMapping3D, ReportsEveryFailedCallAndReadsNoValuesThatWereNotCopied)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    const auto Prepare = [&]
    {
        auto pDevice = std::make_unique<CQxDeviceMapping3D>();
        pDevice->Create(MakeMapping({3, 2, 4}, 50.0F, "Old"));
        return pDevice;
    };
    const auto Check = [](const SLink& xOuter, const char* pcMessage, auto&& xState)
    {
        return [&xOuter, pcMessage, xState](const auto& pDevice, int, const CQxException& xException)
        {
            // A failed device query leaves the device unknown, so the inner message is compared by its beginning.
            EXPECT_EQ(xException.GetMessageText(), xOuter.sMessage.c_str());
            const IException* pInner = xException.GetInnerException();
            ASSERT_NE(pInner, nullptr);
            EXPECT_STREQ(pInner->GetFunction().ToCString(), xOuter.sFunction.c_str());
            EXPECT_EQ(std::strncmp(pInner->GetMessageText().ToCString(), pcMessage, std::strlen(pcMessage)), 0);
            EXPECT_TRUE(pInner->GetGUID() == CQxCudaException::c_xGuid);
            xState(*pDevice);
        };
    };
    const auto Unreadable = [&](CQxDeviceMapping3D& xDevice)
    {
        // The new grid on the old block, but no values.
        EXPECT_TRUE(xDevice.IsValid() && xDevice.Contains(1.5F, 2.5F, 3.5F) && !xDevice.Contains(2.5F, 1.5F, 3.5F));
        float afPoint[3] = {1.5F, 2.5F, 3.5F};
        EXPECT_TRUE(ThrowsChain([&] { xDevice.Map(afPoint[0], afPoint[1], afPoint[2]); }, {c_xInvalid}));
        afPoint[0] = 2.5F;
        EXPECT_TRUE(ThrowsChain([&] { xDevice.Map(afPoint[0], afPoint[1], afPoint[2]); }, {c_xOutside}));
        xDevice.Create(xHost);
        EXPECT_TRUE(Holds(xDevice, xHost));
    };
    const auto Valid = [](CQxDeviceMapping3D& xDevice)
    {
        EXPECT_TRUE(xDevice.IsValid());
    };
    EXPECT_EQ(SweepFailures(
                  Prepare, [&](auto& pDevice) { pDevice->Create(xHost); },
                  Check(c_xCreate, "Error copying memory from host to device. '", Unreadable)),
              1);
    CQxMapping3D xResult;
    EXPECT_EQ(SweepFailures(
                  Prepare, [&](auto& pDevice) { pDevice->Download(xResult); },
                  Check(c_xDownload, "Error copying memory from device to host. '", Valid)),
              1);
    const SLink xZeroing = Plain("Error setting mapping values to zero", "SetZero", c_pcFile);
    EXPECT_EQ(SweepFailures(
                  Prepare, [](auto& pDevice) { pDevice->SetZero(); },
                  Check(xZeroing, "Error zeroing CUDA device memory. '", Valid)),
              1);
}

TEST_F(DeviceMapping3D, MovesEverythingAndLeavesTheSourceEmpty)
{
    CQxMapping3D xHost = MakeMapping({2, 3, 4}, 1.0F, c_pcLongName);
    xHost.SetStepSizes(2, 3, 4);
    CQxDeviceMapping3D xSource;
    xSource.Create(xHost);
    const void* const pBlock = xSource.GetDevicePointer();
    CQxDeviceMapping3D xTarget;
    xTarget.Create(MakeMapping({1, 1, 1}));
    Calls();
    // Nothing in a move needs host memory, so that none can be missing half way.
    CCudaRecorder::Pause();
    {
        const CAllocationFault xFault(0, CAllocationFault::EMode::Persistent);
        CQxDeviceMapping3D xConstructed(std::move(xSource));
        xTarget = std::move(xConstructed);
    }
    EXPECT_EQ(Calls(), (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(xTarget.GetDevicePointer(), pBlock);
    EXPECT_TRUE(Holds(xTarget, xHost));
    float afPoint[3] = {1.5F, 2.5F, 3.5F};
    xTarget.Map(afPoint[0], afPoint[1], afPoint[2]);
    EXPECT_EQ(afPoint[2], 4.5F) << "the steps move too: all indices are 0";
    ExpectEmpty(xSource);

    const std::initializer_list<SLink> vChain{Plain("Given mapping is invalid", "_Create", c_pcFile)};
    EXPECT_TRUE(ThrowsChain([&] { xTarget = std::move(xSource); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceMapping3D xNew(std::move(xSource)); }, vChain));
    EXPECT_TRUE(Holds(xTarget, xHost));
    Calls();
    CQxDeviceMapping3D& xSelf = xTarget;
    xTarget = std::move(xSelf);
    ExpectEmpty(xTarget);
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
}

TEST_F(DeviceMapping3D, CreateWithoutHostMemoryChangesNothing)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    const CQxMapping3D xOther = MakeMapping({4, 3, 2}, 9.0F, c_pcLongName);
    CQxDeviceMapping3D xDevice;
    const auto Prepare = [&]
    {
        CCudaRecorder::Pause();
        xDevice.Create(xHost);
    };
    EXPECT_EQ(FailEachAllocation(
                  Prepare, [&] { xDevice.Create(xOther); },
                  [&]
                  {
                      EXPECT_TRUE(Holds(xDevice, xHost));
                      float afPoint[3] = {0.5F, 0.5F, 0.5F};
                      xDevice.Map(afPoint[0], afPoint[1], afPoint[2]);
                      EXPECT_EQ(afPoint[2], 1.5F);
                  }),
              2)
        << "the name, in both modes";
}

TEST_F(DeviceMapping3D, MapsPointsInsideTheBoxByTheCellTheyFallInto)
{
    const auto OutcomeOf = [](CQxDeviceMapping3D& xDevice, Triple vPoint) -> std::optional<float>
    {
        const Triple vBefore = vPoint;
        const bool bInside = xDevice.Contains(vPoint[0], vPoint[1], vPoint[2]);
        try
        {
            xDevice.Map(vPoint[0], vPoint[1], vPoint[2]);
        }
        catch (const CQxException& xException)
        {
            EXPECT_TRUE(IsChain(xException, {c_xOutside}));
            EXPECT_FALSE(bInside);
            return std::nullopt;
        }
        EXPECT_TRUE(bInside && vPoint[0] == vBefore[0] && vPoint[1] == vBefore[1]);
        return vPoint[2];
    };
    const CQxMapping3D xHost = MakeMapping({2, 2, 2}, 0.0F);
    CQxDeviceMapping3D xDevice;
    xDevice.Create(xHost);
    const struct
    {
        Triple vPoint;
        std::optional<float> xExpected;
    } c_aCases[] = {
        {{1.5F, 0.5F, 0.25F}, 2.25F},        {{0.5F, 1.5F, 0.25F}, 1.25F},
        {{0.5F, 0.5F, 1.25F}, 5.25F},        {{0.5F, 0.5F, 0.25F}, 0.25F},
        {{1.0F, 1.0F, 1.0F}, 8.0F},          {{c_fDenormal, c_fDenormal, c_fDenormal}, c_fDenormal},
        {{0, 1, 1}, std::nullopt},           {{1, 0, 1}, std::nullopt},
        {{1, 1, 0}, std::nullopt},           {{2, 1, 1}, std::nullopt},
        {{1, 2, 1}, std::nullopt},           {{1, 1, 2}, std::nullopt},
        {{c_fNaN, 1, 1}, std::nullopt},      {{1, c_fNaN, 1}, std::nullopt},
        {{1, 1, c_fNaN}, std::nullopt},      {{-0.0F, 1, 1}, std::nullopt},
        {{1, 1, c_fInfinity}, std::nullopt}, {{-1, 1, 1}, std::nullopt},
    };
    for (const auto& xCase : c_aCases)
    {
        EXPECT_EQ(OutcomeOf(xDevice, xCase.vPoint), xCase.xExpected) << "case " << &xCase - c_aCases;
    }

    // The quotient is a float: 25 cells of 0.04 end before 1, and the point before 1 lies in none of them.
    CQxMapping3D xFine = MakeMapping({25, 1, 1}, 1.0F);
    std::vector<float> vValues = Values(xFine);
    vValues[12] = c_fNaN;
    xFine.Create(0, 0, 0, 1, 1, 1, 25, 1, 1, vValues.data());
    xFine.SetStepSizes(0.04F, 1, 1);
    xDevice.Create(xFine);
    EXPECT_EQ(OutcomeOf(xDevice, {std::nextafter(1.0F, 0.0F), 0.5F, 0.5F}), 0.5F);
    EXPECT_EQ(OutcomeOf(xDevice, {0.98F, 0.5F, 0.5F}), 25.5F);
    EXPECT_TRUE(std::isnan(OutcomeOf(xDevice, {0.5F, 0.5F, 0.5F}).value())) << "a NaN is added like any value";
}

// Any float at all, the awkward ones often.
rc::Gen<float> AnyFloat()
{
    return rc::gen::oneOf(
        rc::gen::element(0.0F, -0.0F, 1.0F, -1.0F, 0.5F, c_fNaN, c_fInfinity, -c_fInfinity, c_fDenormal, -c_fDenormal,
                         std::numeric_limits<float>::max(), std::numeric_limits<float>::min(), 1e-9F, 1e9F),
        rc::gen::map(rc::gen::inRange(-400, 400), [](int i) { return static_cast<float>(i) / 64.0F; }),
        rc::gen::map(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<std::uint32_t>()),
                     [](std::uint32_t uBits) { return std::bit_cast<float>(uBits); }));
}

Triple AnyTriple(const rc::Gen<float>& xFloat)
{
    return {*xFloat, *xFloat, *xFloat};
}

Counts AnyCounts()
{
    const auto xCount = rc::gen::inRange(1, 7);
    return {*xCount, *xCount, *xCount};
}

RC_GTEST_PROP(DeviceMapping3DProperty, ValuesAreCountedAlongYThenXThenZ, ())
{
    const Counts vCounts = AnyCounts();
    CQxDeviceMapping3D xDevice;
    xDevice.Create(MakeMapping(vCounts));
    float fExpected = 0.0F;
    for (int iZ = 0; iZ < vCounts[2]; ++iZ)
    {
        for (int iX = 0; iX < vCounts[0]; ++iX)
        {
            for (int iY = 0; iY < vCounts[1]; ++iY)
            {
                float fX = static_cast<float>(iX) + 0.5F;
                float fY = static_cast<float>(iY) + 0.5F;
                float fZ = static_cast<float>(iZ) + 0.5F;
                fExpected += 1.0F;
                xDevice.Map(fX, fY, fZ);
                RC_ASSERT(fZ == static_cast<float>(iZ) + 0.5F + fExpected);
            }
        }
    }
}

// Whatever box, steps and point are: the point is refused, left alone, or moved by the value of the one cell that the
// rule names. AddressSanitizer sees a read outside the block.
RC_GTEST_PROP(DeviceMapping3DProperty, MapReadsNoCellButThePointsOwn, ())
{
    const Counts vCounts = AnyCounts();
    CStrangeMapping xHost(MakeMapping(vCounts), vCounts, static_cast<std::uint32_t>(Cells(vCounts) * 4));
    // Mostly points in a plain box, so that cells are hit, among floats of any kind.
    const auto xInside = rc::gen::map(rc::gen::inRange(1, 512), [](int i) { return static_cast<float>(i) / 64.0F; });
    const auto xCoordinate = rc::gen::oneOf(xInside, xInside, xInside, AnyFloat());
    const auto xStep = rc::gen::oneOf(rc::gen::element(1.0F, 2.0F, 3.0F), AnyFloat());
    const bool bPlain = *rc::gen::arbitrary<bool>();
    const Triple vMinimum = xHost.m_vStrangeMinimum = bPlain ? Triple{} : AnyTriple(AnyFloat());
    const Triple vMaximum = xHost.m_vStrangeMaximum = bPlain ? Triple{8, 8, 8} : AnyTriple(AnyFloat());
    const Triple vSteps = AnyTriple(xStep);
    xHost.SetStepSizes(vSteps[0], vSteps[1], vSteps[2]);
    CQxDeviceMapping3D xDevice;
    xDevice.Create(xHost);
    for (int iPoint = 0; iPoint < 20; ++iPoint)
    {
        const Triple vPoint = AnyTriple(xCoordinate);
        bool bInside = true;
        bool bInCell = true;
        long aiIndex[3] = {};
        for (std::size_t nAxis = 0; nAxis < 3; ++nAxis)
        {
            bInside = bInside && vPoint[nAxis] > vMinimum[nAxis] && vPoint[nAxis] < vMaximum[nAxis];
            const float fDistance = vPoint[nAxis] - vMinimum[nAxis];
            const double fQuotient = std::trunc(static_cast<double>(fDistance / vSteps[nAxis]));
            bInCell = bInCell && fQuotient >= 0.0 && fQuotient < vCounts[nAxis];
            aiIndex[nAxis] = bInCell ? static_cast<long>(fQuotient) : 0;
        }
        const long iCell = aiIndex[2] * vCounts[0] * vCounts[1] + aiIndex[0] * vCounts[1] + aiIndex[1];
        Triple vMapped = vPoint;
        bool bThrown = false;
        try
        {
            xDevice.Map(vMapped[0], vMapped[1], vMapped[2]);
        }
        catch (const CQxException& xException)
        {
            bThrown = static_cast<bool>(IsChain(xException, {c_xOutside}));
        }
        const Triple vExpected{vPoint[0], vPoint[1],
                               bInside && bInCell ? vPoint[2] + static_cast<float>(iCell + 1) : vPoint[2]};
        RC_ASSERT(bThrown == !bInside);
        RC_ASSERT(std::memcmp(vMapped.data(), vExpected.data(), sizeof(vExpected)) == 0);
    }
}

enum EStep
{
    StepCreate,
    StepDownload,
    StepSetZero,
    StepRelease,
    StepMove,
    StepCount
};

enum EFault
{
    FaultNone,
    FaultCopy,
    FaultMemset,
    FaultGet,
    FaultRelease,
    FaultCount
};

// What a mapping must be: which host mapping it describes, whether its values are known, and whether Map reads them.
struct SModel
{
    int iHost = -1;
    std::optional<std::vector<float>> xValues;
    bool bReadable = false;

    bool IsValid() const { return iHost >= 0; }
};

RC_GTEST_PROP(DeviceMapping3DProperty, AnySequenceOfOperationsAndFailuresIsWhatTheModelSays, ())
{
    const CQxMapping3D axHosts[] = {MakeMapping({2, 3, 4}, 1.0F), MakeMapping({3, 2, 4}, 30.0F),
                                    MakeMapping({1, 1, 1}, 60.0F), MakeMapping({4, 2, 1}, 70.0F)};
    CPoolRecorder::Reset();
    CQxDeviceMapping3D axDevices[2];
    SModel axModels[2];
    // Step, failure, object, other object, host mapping.
    const auto vSteps = *rc::gen::container<std::vector<std::tuple<int, int, int, int, int>>>(
        rc::gen::tuple(rc::gen::inRange<int>(0, StepCount), rc::gen::inRange<int>(0, FaultCount),
                       rc::gen::inRange(0, 2), rc::gen::inRange(0, 2), rc::gen::inRange(0, 4)));
    for (const auto& [iStep, iFault, iObject, iOther, iHost] : vSteps)
    {
        CQxDeviceMapping3D& xDevice = axDevices[iObject];
        SModel& xModel = axModels[iObject];
        CPoolRecorder::Reset();
        CCudaRecorder::Reset();
        CPoolRecorder::sm_eFailGet =
            iFault == FaultGet ? CPoolRecorder::EFailure::QxException : CPoolRecorder::EFailure::None;
        CPoolRecorder::sm_eFailRelease =
            iFault == FaultRelease ? CPoolRecorder::EFailure::QxException : CPoolRecorder::EFailure::None;
        if (iFault == FaultCopy || iFault == FaultMemset)
        {
            CCudaRecorder::FailCall(iFault == FaultCopy ? "cudaMemcpy" : "cudaMemset", 1, cudaErrorUnknown);
        }
        CQxMapping3D xResult;
        bool bThrown = false;
        try
        {
            switch (iStep)
            {
            case StepCreate:
                xDevice.Create(axHosts[iHost]);
                break;
            case StepDownload:
                xDevice.Download(xResult);
                break;
            case StepSetZero:
                xDevice.SetZero();
                break;
            case StepRelease:
                xDevice.Release();
                break;
            default:
                xDevice = std::move(axDevices[iOther]);
                break;
            }
        }
        catch (const CQxException&)
        {
            bThrown = true;
        }
        CPoolRecorder::Reset();
        CCudaRecorder::Reset();
        static_cast<void>(cudaGetLastError());

        bool bExpectThrow = false;
        const bool bRefused = xModel.IsValid() && iFault == FaultRelease;
        switch (iStep)
        {
        case StepCreate:
            if (!xModel.IsValid() || axHosts[xModel.iHost].GetByteCount() != axHosts[iHost].GetByteCount())
            {
                bExpectThrow = bRefused || iFault == FaultGet;
                xModel = bRefused ? xModel : SModel();
            }
            if (!bExpectThrow)
            {
                bExpectThrow = iFault == FaultCopy;
                xModel =
                    bExpectThrow ? SModel{iHost, std::nullopt, false} : SModel{iHost, Values(axHosts[iHost]), true};
            }
            break;
        case StepDownload:
            bExpectThrow = !xModel.IsValid() || iFault == FaultCopy;
            if (!bExpectThrow)
            {
                RC_ASSERT(xResult.GetCellCounts() == axHosts[xModel.iHost].GetCellCounts());
                RC_ASSERT(xModel.xValues.value_or(Values(xResult)) == Values(xResult));
            }
            break;
        case StepSetZero:
            bExpectThrow = iFault == FaultMemset;
            if (xModel.IsValid())
            {
                xModel.xValues = bExpectThrow
                                     ? std::nullopt
                                     : std::optional(std::vector<float>(Cells(axHosts[xModel.iHost].GetCellCounts())));
            }
            break;
        case StepRelease:
            bExpectThrow = bRefused;
            xModel = bRefused ? xModel : SModel();
            break;
        default:
            bExpectThrow = !axModels[iOther].IsValid() || bRefused;
            if (!bExpectThrow)
            {
                xModel = iOther == iObject ? SModel() : axModels[iOther];
                axModels[iOther] = SModel();
            }
            break;
        }
        RC_ASSERT(bThrown == bExpectThrow);
        std::size_t nInUse = 0;
        for (int iEach = 0; iEach < 2; ++iEach)
        {
            const SModel& xEach = axModels[iEach];
            nInUse += static_cast<std::size_t>(xEach.IsValid());
            RC_ASSERT(axDevices[iEach].IsValid() == xEach.IsValid());
            float afPoint[3] = {0.5F, 0.5F, 0.5F};
            bool bMapped = true;
            try
            {
                axDevices[iEach].Map(afPoint[0], afPoint[1], afPoint[2]);
            }
            catch (const CQxException& xException)
            {
                bMapped = !IsChain(xException, {c_xInvalid});
            }
            RC_ASSERT(bMapped == xEach.bReadable);
            if (bMapped && xEach.xValues)
            {
                RC_ASSERT(afPoint[2] == 0.5F + xEach.xValues->front());
            }
        }
        RC_ASSERT(GPU::CResourceManager::GetStatistics().nBlocksInUse == nInUse);
    }
}

} // namespace

} // namespace Qx::Test
