#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/AllocationFault.h"
#include "Support/CudaChain.h"
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
constexpr float c_fInfinity = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float c_fDenormal = std::numeric_limits<float>::denorm_min();

using Counts = std::array<int, 3>;
using Triple = std::array<float, 3>;

// Cells of size 1 from the origin, named, with the values first, first + 1, ...
CQxMapping3D MakeMapping(const Counts& vCounts, float fFirst = 1.0F, const char* pcName = "Name")
{
    CQxMapping3D xMapping;
    xMapping.Create(0, 0, 0, static_cast<float>(vCounts[0]), static_cast<float>(vCounts[1]),
        static_cast<float>(vCounts[2]), vCounts[0], vCounts[1], vCounts[2], nullptr);
    std::iota(xMapping.GetDataPtr(), xMapping.GetDataPtr() + xMapping.GetByteCount() / sizeof(float), fFirst);
    xMapping.SetName(pcName);
    return xMapping;
}

// Says of itself what the test wants.
class CStrangeMapping final : public CQxMapping3D
{
public:
    CStrangeMapping(const Counts& vCounts, std::uint32_t uBytes, const CQxMapping3D& xReal)
        : CQxMapping3D(xReal), m_vStrangeCounts(vCounts), m_uBytes(uBytes)
    {
    }
    const Triple& GetMinimum() const override { return m_vStrangeMinimum; }
    const Triple& GetMaximum() const override { return m_vStrangeMaximum; }
    const Counts& GetCellCounts() const override { return m_vStrangeCounts; }
    std::uint32_t GetByteCount() const override { return ++m_iAsked, m_uBytes; }

    Triple m_vStrangeMinimum{};
    Triple m_vStrangeMaximum{8, 8, 8};
    Counts m_vStrangeCounts;
    std::uint32_t m_uBytes;
    mutable int m_iAsked = 0;
};

std::vector<float> Values(const CQxMapping3D& xMapping)
{
    return {xMapping.GetDataPtr(), xMapping.GetDataPtr() + xMapping.GetByteCount() / sizeof(float)};
}

// The height that Map makes of a point; none when the point is refused as outside the box.
std::optional<float> MappedHeight(CQxDeviceMapping3D& xDevice, const Triple& vPoint)
{
    Triple vMapped = vPoint;
    try
    {
        xDevice.Map(vMapped[0], vMapped[1], vMapped[2]);
    }
    catch (const CQxException& xException)
    {
        EXPECT_TRUE(IsChain(xException, {c_xOutside}));
        return std::nullopt;
    }
    EXPECT_TRUE(vMapped[0] == vPoint[0] && vMapped[1] == vPoint[1]);
    return vMapped[2];
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
    EXPECT_TRUE(ThrowsChain(
        [&] { xDevice.Download(xHost); }, {c_xDownload, Plain("Mapping is invalid", "Download", c_pcFile)}));
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
        const std::pair<Counts, std::vector<int>> axCases[] = {
            {{2, 3, 4}, {0, 1, 1}},
            {{3, 2, 4}, {0, 0, 1}},
            {{5, 5, 1}, {1, 1, 1}},
            {{1, 1, 25}, {0, 0, 1}},
            {{1, 1, 1}, {1, 1, 1}},
        };
        for (const auto& [vCounts, vCalls] : axCases)
        {
            CQxMapping3D xHost = MakeMapping(vCounts, static_cast<float>(vCounts[1]), c_pcLongName);
            const std::size_t nBytes = Values(xHost).size() * 4;
            xHost.SetStepSizes(7, 8, 9);
            xDevice.Create(xHost);
            const auto nPointer = reinterpret_cast<std::uintptr_t>(xDevice.GetDevicePointer());
            const auto nHost = reinterpret_cast<std::uintptr_t>(xHost.GetDataPtr());
            EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy").vArguments,
                (std::vector<std::uint64_t>{nPointer, nHost, nBytes, cudaMemcpyHostToDevice}));
            EXPECT_TRUE(vCalls[1] == 0 ? xDevice.GetDevicePointer() == pBlock : CPoolRecorder::sm_nWidth == nBytes);
            EXPECT_EQ(Calls(), vCalls);
            pBlock = xDevice.GetDevicePointer();

            EXPECT_TRUE(Holds(xDevice, xHost));
            EXPECT_EQ(Calls(), (std::vector<int>{0, 0, 1}));
            xDevice.SetZero();
            EXPECT_EQ(CCudaRecorder::Last("cudaMemset").vArguments, (std::vector<std::uint64_t>{nPointer, 0, nBytes}));
            CQxMapping3D xResult;
            xDevice.Download(xResult);
            EXPECT_EQ(Values(xResult), std::vector<float>(nBytes / 4));
            EXPECT_EQ(xResult.GetStepSizes(), (Triple{1, 1, 1})) << "steps are not transferred";
            Calls();
        }
    }
    EXPECT_EQ(CPoolRecorder::sm_iRelease, 1);
    EXPECT_FALSE(CPoolRecorder::sm_bFlag);
}

TEST_F(DeviceMapping3D, RefusesWhatIsNoGridOfItsBytesAndStaysAsItWas)
{
    const char* pcDimensions = "The mapping dimensions are smaller or equal zero";
    const std::tuple<Counts, std::uint32_t, const char*> axCases[] = {
        {{0, 1, 1}, 4, pcDimensions},
        {{1, -1, 1}, 4, pcDimensions},
        {{1, 1, INT32_MIN}, 4, pcDimensions},
        {{1, 1, 1 << 30}, 0, "Mapping of 1 x 1 x 1073741824 cells is too large"},
        {{1, (1 << 30) + 1, 1}, 4, "Mapping of 1 x 1073741825 x 1 cells is too large"},
        {{1 << 30, 1 << 30, 16}, 96, "Mapping of 1073741824 x 1073741824 x 16 cells is too large"},
        {{1 << 30, 1 << 30, 4}, 96, "Mapping of 1073741824 x 1073741824 x 4 cells is too large"},
        {{2, 3, 4}, 95, "Mapping of 95 bytes is smaller than its 24 cells"},
        {{1, 1, (1 << 30) - 1}, 96, "Mapping of 96 bytes is smaller than its 1073741823 cells"},
    };
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    CQxDeviceMapping3D xDevice;
    xDevice.Create(xHost);
    Calls();
    for (const auto& [vCounts, uBytes, pcMessage] : axCases)
    {
        const CStrangeMapping xStrange(vCounts, uBytes, xHost);
        EXPECT_TRUE(ThrowsChain([&] { xDevice.Create(xStrange); }, {c_xCreate, Plain(pcMessage, "Create", c_pcFile)}));
    }
    EXPECT_EQ(Calls(), (std::vector<int>{0, 0, 0}));
    EXPECT_TRUE(Holds(xDevice, xHost));

    // More bytes than cells are a bigger block; a download takes no more than there is.
    CStrangeMapping xPadded({2, 2, 2}, 100, MakeMapping({25, 1, 1}));
    xDevice.Create(xPadded);
    EXPECT_EQ(CPoolRecorder::sm_nWidth, 100U);
    EXPECT_EQ(xPadded.m_iAsked, 1);
    xPadded.m_uBytes = 104;
    EXPECT_TRUE(ThrowsChain([&] { xDevice.Download(xPadded); },
        {c_xDownload, Plain("Host mapping of 104 bytes is larger than the device mapping", "Download", c_pcFile)}));
}

TEST_F(DeviceMapping3D, IsUnchangedOrEmptyWhenThePoolRefuses)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    const CQxMapping3D xOther = MakeMapping({1, 2, 1});
    for (const auto eFailure : {CPoolRecorder::EFailure::QxException, CPoolRecorder::EFailure::BadAlloc})
    {
        const auto Fails = [eFailure](const SLink& xOuter, auto&& xBody)
        {
            if (eFailure == CPoolRecorder::EFailure::BadAlloc)
            {
                EXPECT_THROW(xBody(), std::bad_alloc);
                return;
            }
            EXPECT_TRUE(ThrowsChain(xBody, {xOuter, Plain("pool failure", "Fail", "Pool")}));
        };
        GPU::CCudaMemoryResource xLost;
        {
            CQxDeviceMapping3D xDevice;
            CQxDeviceMapping3D xSource;
            xDevice.Create(xHost);
            xSource.Create(xOther);
            CPoolRecorder::sm_eFailRelease = eFailure;
            Fails(c_xRelease, [&] { xDevice.Release(); });
            Fails(c_xCreate, [&] { xDevice.Create(xOther); });
            Fails(c_xRelease, [&] { xDevice = std::move(xSource); });
            EXPECT_TRUE(Holds(xDevice, xHost) && Holds(xSource, xOther));
            CPoolRecorder::Reset();
            CPoolRecorder::sm_eFailGet = eFailure;
            Fails(c_xCreate, [&] { xDevice.Create(xOther); });
            ExpectEmpty(xDevice);
            CPoolRecorder::Reset();
            xDevice.Create(xHost); // of the size that it had: there is no block to keep
            xSource.Release();
            xLost.m_pDevice = xDevice.GetDevicePointer();
            CPoolRecorder::sm_eFailRelease = eFailure;
        }
        // The destructor drops its failure; the block is lost to the mapping, so the test gives it back.
        CPoolRecorder::Reset();
        GPU::CResourceManager::ReleaseResource(xLost, false);
    }
}

TEST_F(DeviceMapping3D, ReportsEveryFailedCallAndReadsNoValuesThatWereNotCopied)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    CQxMapping3D xResult;
    const auto Sweep = [&](const SLink& xOuter, const char* pcInner, bool bReadable, auto&& xOperation)
    {
        const auto Prepare = []
        {
            auto pDevice = std::make_unique<CQxDeviceMapping3D>();
            pDevice->Create(MakeMapping({3, 2, 4}, 50.0F, "Old"));
            return pDevice;
        };
        const auto Check = [&](const auto& pDevice, int, const CQxException& xException)
        {
            // A device query that fails too leaves the device out.
            const auto IsFailureOn = [&](int iDevice) {
                return IsChain(
                    xException, {xOuter, Cuda(pcInner, cudaErrorUnknown, xOuter.sFunction.c_str(), c_pcFile, iDevice)});
            };
            EXPECT_TRUE(IsFailureOn(0) || IsFailureOn(-1)) << xException.ToString().ToCString();
            EXPECT_TRUE(pDevice->IsValid());
            // After a failed upload: the new grid on the old block, but no values.
            float fX = bReadable ? 2.5F : 1.5F;
            float fY = bReadable ? 1.5F : 2.5F;
            float fZ = 3.5F;
            EXPECT_EQ(bReadable, !ThrowsChain([&] { pDevice->Map(fX, fY, fZ); }, {c_xInvalid}));
            EXPECT_EQ(MappedHeight(*pDevice, {fY, fX, fZ}), std::nullopt);
            pDevice->Create(xHost);
            EXPECT_TRUE(Holds(*pDevice, xHost));
        };
        EXPECT_EQ(SweepFailures(Prepare, xOperation, Check), 1);
    };
    Sweep(c_xCreate, "Error copying memory from host to device", false, [&](auto& p) { p->Create(xHost); });
    Sweep(c_xDownload, "Error copying memory from device to host", true, [&](auto& p) { p->Download(xResult); });
    Sweep(Plain("Error setting mapping values to zero", "SetZero", c_pcFile), "Error zeroing CUDA device memory", true,
        [](auto& p) { p->SetZero(); });
}

// CUDA returns from an upload and from a memset before the values have arrived; the host must not read them earlier.
TEST_F(DeviceMapping3D, MapWaitsForTheValuesOnceAfterTheyChange)
{
    CQxDeviceMapping3D xSource;
    xSource.Create(MakeMapping({2, 2, 2}));
    CQxDeviceMapping3D xDevice(std::move(xSource));
    const auto Map = [&] { return MappedHeight(xDevice, {1.5F, 0.5F, 0.25F}); };
    for (const float fValue : {3.0F, 0.0F})
    {
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall("cudaStreamSynchronize", 1, cudaErrorUnknown);
        float fX = 0.5F;
        float fZ = 0.5F;
        EXPECT_TRUE(ThrowsChain([&] { xDevice.Map(fX, fX, fZ); },
            {Cuda("Error waiting for the mapping values", cudaErrorUnknown, "Map", c_pcFile)}));
        EXPECT_EQ(fZ, 0.5F);
        EXPECT_EQ(Map(), 0.25F + fValue);
        EXPECT_EQ(Map(), 0.25F + fValue);
        EXPECT_EQ(CCudaRecorder::Count("cudaStreamSynchronize"), 2U) << "the failed one and another";
        xDevice.SetZero();
    }
}

TEST_F(DeviceMapping3D, MovesEverythingAndLeavesTheSourceEmpty)
{
    CQxMapping3D xHost = MakeMapping({2, 3, 4}, 1.0F, c_pcLongName);
    xHost.SetStepSizes(2, 3, 4);
    CQxDeviceMapping3D xSource;
    CQxDeviceMapping3D xTarget;
    xSource.Create(xHost);
    xTarget.Create(MakeMapping({1, 1, 1}));
    const void* const pBlock = xSource.GetDevicePointer();
    Calls();
    CCudaRecorder::Pause();
    {
        // Nothing in a move needs host memory, so that none can be missing half way.
        const CAllocationFault xFault(0, CAllocationFault::EMode::Persistent);
        CQxDeviceMapping3D xConstructed(std::move(xSource));
        xTarget = std::move(xConstructed);
    }
    EXPECT_EQ(Calls(), (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(xTarget.GetDevicePointer(), pBlock);
    EXPECT_TRUE(Holds(xTarget, xHost));
    EXPECT_EQ(MappedHeight(xTarget, {1.5F, 2.5F, 3.5F}), 4.5F) << "the steps move too: all indices are 0";
    ExpectEmpty(xSource);

    const std::initializer_list<SLink> vChain{Plain("Given mapping is invalid", "_Create", c_pcFile)};
    EXPECT_TRUE(ThrowsChain([&] { xTarget = std::move(xSource); }, vChain));
    EXPECT_TRUE(ThrowsChain([&] { CQxDeviceMapping3D xNew(std::move(xSource)); }, vChain));
    EXPECT_TRUE(Holds(xTarget, xHost));
}

TEST_F(DeviceMapping3D, CreateWithoutHostMemoryChangesNothing)
{
    const CQxMapping3D xHost = MakeMapping({2, 3, 4});
    const CQxMapping3D xOther = MakeMapping({4, 3, 2}, 9.0F, c_pcLongName);
    CQxDeviceMapping3D xDevice;
    CCudaRecorder::Pause();
    const int iFailures = FailEachAllocation([&] { xDevice.Create(xHost); }, [&] { xDevice.Create(xOther); },
        [&]
        {
            EXPECT_TRUE(Holds(xDevice, xHost));
            EXPECT_EQ(MappedHeight(xDevice, {0.5F, 0.5F, 0.5F}), 1.5F);
        });
    EXPECT_EQ(iFailures, 2) << "the name, in both modes";
}

TEST_F(DeviceMapping3D, MapsPointsInsideTheOpenBoxByAQuotientOfFloats)
{
    CQxDeviceMapping3D xDevice;
    xDevice.Create(MakeMapping({2, 2, 2}, 0.0F));
    EXPECT_EQ(MappedHeight(xDevice, {c_fDenormal, 0.5F, c_fDenormal}), c_fDenormal) << "the cell's value is 0";
    for (std::size_t nAxis = 0; nAxis < 3; ++nAxis)
    {
        for (const float fOutside : {0.0F, 2.0F, -1.0F, c_fInfinity, c_fNaN})
        {
            Triple vPoint{1, 1, 1};
            EXPECT_TRUE(xDevice.Contains(vPoint[0], vPoint[1], vPoint[2]));
            vPoint[nAxis] = fOutside;
            EXPECT_FALSE(xDevice.Contains(vPoint[0], vPoint[1], vPoint[2]));
            EXPECT_EQ(MappedHeight(xDevice, vPoint), std::nullopt) << fOutside << " along axis " << nAxis;
        }
    }

    // The quotient is a float: 25 cells of 0.04 end before 1, and the point before 1 lies in none of them.
    CQxMapping3D xFine;
    std::vector<float> vValues(25, 3.0F);
    vValues[12] = c_fNaN;
    xFine.Create(0, 0, 0, 1, 1, 1, 25, 1, 1, vValues.data());
    xFine.SetStepSizes(0.04F, 1, 1);
    xDevice.Create(xFine);
    EXPECT_EQ(MappedHeight(xDevice, {std::nextafter(1.0F, 0.0F), 0.5F, 0.5F}), 0.5F);
    EXPECT_EQ(MappedHeight(xDevice, {0.98F, 0.5F, 0.5F}), 3.5F);
    EXPECT_TRUE(std::isnan(MappedHeight(xDevice, {0.5F, 0.5F, 0.5F}).value())) << "a NaN is added like any value";
}

// Any float at all, the awkward ones often.
rc::Gen<float> AnyFloat()
{
    return rc::gen::oneOf(rc::gen::element(0.0F, -0.0F, 1.0F, -1.0F, c_fNaN, c_fInfinity, -c_fInfinity, c_fDenormal,
                              -c_fDenormal, std::numeric_limits<float>::max(), 1e-9F, 1e9F),
        rc::gen::map(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<std::uint32_t>()),
            [](std::uint32_t uBits) { return std::bit_cast<float>(uBits); }));
}

Triple AnyTriple(const rc::Gen<float>& xFloat)
{
    return {*xFloat, *xFloat, *xFloat};
}

// Whatever box, steps and point are: the point is refused, left alone, or moved by the value of its own cell, which is
// found by counting. AddressSanitizer sees a read outside the block.
void _MapAnyPoints()
{
    const auto xCount = rc::gen::inRange(1, 7);
    const Counts vCounts{*xCount, *xCount, *xCount};
    float afValues[7][7][7] = {};
    float fCounted = 0.0F;
    for (int iZ = 0; iZ < vCounts[2]; ++iZ)
    {
        for (int iX = 0; iX < vCounts[0]; ++iX)
        {
            for (int iY = 0; iY < vCounts[1]; ++iY)
            {
                afValues[iX][iY][iZ] = fCounted += 1.0F;
            }
        }
    }
    CStrangeMapping xHost(vCounts, static_cast<std::uint32_t>(fCounted) * 4, MakeMapping(vCounts));
    // Mostly points in a plain box, so that cells are hit, among floats of any kind.
    const auto xInside = rc::gen::map(rc::gen::inRange(1, 512), [](int i) { return static_cast<float>(i) / 64.0F; });
    const auto xCoordinate = rc::gen::oneOf(xInside, xInside, xInside, AnyFloat());
    const Triple vSteps = AnyTriple(rc::gen::oneOf(rc::gen::element(1.0F, 2.0F, 3.0F), AnyFloat()));
    if (*rc::gen::arbitrary<bool>())
    {
        xHost.m_vStrangeMinimum = AnyTriple(AnyFloat());
        xHost.m_vStrangeMaximum = AnyTriple(AnyFloat());
    }
    xHost.SetStepSizes(vSteps[0], vSteps[1], vSteps[2]);
    CQxDeviceMapping3D xDevice;
    xDevice.Create(xHost);
    for (int iPoint = 0; iPoint < 20; ++iPoint)
    {
        const Triple vPoint = AnyTriple(xCoordinate);
        bool bInside = true;
        bool bInCell = true;
        int aiIndex[3] = {};
        for (std::size_t nAxis = 0; nAxis < 3; ++nAxis)
        {
            bInside = bInside && vPoint[nAxis] > xHost.m_vStrangeMinimum[nAxis] &&
                vPoint[nAxis] < xHost.m_vStrangeMaximum[nAxis];
            const float fDistance = vPoint[nAxis] - xHost.m_vStrangeMinimum[nAxis];
            const double dQuotient = std::trunc(static_cast<double>(fDistance / vSteps[nAxis]));
            bInCell = bInCell && dQuotient >= 0.0 && dQuotient < vCounts[nAxis];
            aiIndex[nAxis] = bInCell ? static_cast<int>(dQuotient) : 0;
        }
        std::optional<float> xExpected;
        if (bInside)
        {
            xExpected = bInCell ? vPoint[2] + afValues[aiIndex[0]][aiIndex[1]][aiIndex[2]] : vPoint[2];
        }
        RC_ASSERT(MappedHeight(xDevice, vPoint) == xExpected);
    }
}

enum EFault
{
    FaultNone,
    FaultGet,
    FaultRelease,
    FaultCopy,
    FaultMemset,
    FaultCount
};

// What a mapping must be: which host mapping it describes, its values where they are defined, and whether Map reads
// them.
struct SModel
{
    int iHost = -1;
    std::optional<std::vector<float>> xValues;
    bool bReadable = false;
};

void _RunAnySequence()
{
    const CQxMapping3D axHosts[] = {MakeMapping({2, 3, 4}, 1.0F), MakeMapping({3, 2, 4}, 30.0F),
        MakeMapping({1, 1, 1}, 60.0F), MakeMapping({4, 2, 1}, 70.0F)};
    CQxDeviceMapping3D axDevices[2];
    SModel axModels[2];
    // Operation, failure, object, other object, host mapping.
    const auto vSteps = *rc::gen::container<std::vector<std::tuple<int, int, int, int, int>>>(
        rc::gen::tuple(rc::gen::inRange(0, 5), rc::gen::inRange<int>(FaultNone, FaultCount), rc::gen::inRange(0, 2),
            rc::gen::inRange(0, 2), rc::gen::inRange(0, 4)));
    for (const auto& [iOperation, iFault, iObject, iOther, iHost] : vSteps)
    {
        CQxDeviceMapping3D& xDevice = axDevices[iObject];
        CQxDeviceMapping3D& xOtherDevice = axDevices[iOther];
        const CQxMapping3D& xHost = axHosts[iHost];
        SModel& xModel = axModels[iObject];
        const bool bValid = xModel.iHost >= 0;
        const bool bRefused = bValid && iFault == FaultRelease;
        CQxMapping3D xResult;
        std::function<void()> xRun;
        bool bFails = false;
        SModel xNext = xModel;
        switch (iOperation)
        {
        case 0:
            xRun = [&] { xDevice.Create(xHost); };
            bFails = iFault == FaultCopy;
            xNext = bFails ? SModel{iHost, {}, false} : SModel{iHost, Values(xHost), true};
            if (!bValid || axHosts[xModel.iHost].GetByteCount() != xHost.GetByteCount())
            {
                bFails = bFails || bRefused || iFault == FaultGet;
                xNext = bRefused ? xModel : iFault == FaultGet ? SModel() : xNext;
            }
            break;
        case 1:
            xRun = [&] { xDevice.Download(xResult); };
            bFails = !bValid || iFault == FaultCopy;
            break;
        case 2:
            xRun = [&] { xDevice.SetZero(); };
            bFails = iFault == FaultMemset;
            xNext.xValues.reset();
            if (bValid && !bFails)
            {
                xNext.xValues.emplace(Values(axHosts[xModel.iHost]).size());
            }
            break;
        case 3:
            xRun = [&] { xDevice.Release(); };
            bFails = bRefused;
            xNext = bFails ? xModel : SModel();
            break;
        default:
            xRun = [&] { xDevice = std::move(xOtherDevice); };
            bFails = axModels[iOther].iHost < 0 || bRefused;
            if (!bFails)
            {
                xNext = iOther == iObject ? SModel() : axModels[iOther];
                axModels[iOther] = SModel();
            }
            break;
        }
        xModel = xNext;

        using EFailure = CPoolRecorder::EFailure;
        CPoolRecorder::sm_eFailGet = iFault == FaultGet ? EFailure::QxException : EFailure::None;
        CPoolRecorder::sm_eFailRelease = iFault == FaultRelease ? EFailure::QxException : EFailure::None;
        if (iFault >= FaultCopy)
        {
            CCudaRecorder::FailCall(iFault == FaultCopy ? "cudaMemcpy" : "cudaMemset", 1, cudaErrorUnknown);
        }
        bool bFailed = false;
        try
        {
            xRun();
        }
        catch (const CQxException&)
        {
            bFailed = true;
        }
        CPoolRecorder::Reset();
        CCudaRecorder::Reset();
        RC_ASSERT(bFailed == bFails);
        if (iOperation == 1 && !bFails)
        {
            RC_ASSERT(xResult.GetCellCounts() == axHosts[xModel.iHost].GetCellCounts());
            RC_ASSERT(Values(xResult) == xModel.xValues.value_or(Values(xResult)));
        }
        std::size_t nInUse = 0;
        for (int iEach = 0; iEach < 2; ++iEach)
        {
            const SModel& xEach = axModels[iEach];
            nInUse += xEach.iHost >= 0 ? 1U : 0U;
            RC_ASSERT(axDevices[iEach].IsValid() == (xEach.iHost >= 0));
            float afPoint[3] = {0.5F, 0.5F, 0.5F};
            const auto xMapped =
                ThrowsChain([&] { axDevices[iEach].Map(afPoint[0], afPoint[1], afPoint[2]); }, {c_xInvalid});
            RC_ASSERT(xMapped == !xEach.bReadable);
            RC_ASSERT(afPoint[2] == (xEach.bReadable && xEach.xValues ? 0.5F + xEach.xValues->front() : afPoint[2]));
        }
        RC_ASSERT(GPU::CResourceManager::GetStatistics().nBlocksInUse == nInUse);
    }
}

TEST_F(DeviceMapping3D, MapReadsNoCellButThePointsOwn)
{
    EXPECT_TRUE(rc::check(_MapAnyPoints));
}

TEST_F(DeviceMapping3D, AnySequenceOfOperationsAndFailuresIsWhatTheModelSays)
{
    EXPECT_TRUE(rc::check(_RunAnySequence));
}

} // namespace

} // namespace Qx::Test
