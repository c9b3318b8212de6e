#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/AllocationFault.h"
#include "Support/CudaChain.h"
#include "Support/Sweep.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcArray = "Source/Qx.Cuda/QxCudaDeviceArray";
constexpr const char* c_pcVector = "Source/Qx.Cuda/QxCudaDeviceVector";
constexpr const char* c_pcMatrix = "Source/Qx.Cuda/QxCudaDeviceMatrix";
constexpr const char* c_pcMmu = "Source/Qx.Cuda/QxDeviceMMU";

using Names = std::vector<std::string>;
using Chain = std::vector<SLink>;

/// Size or rows and columns; is there a block; does it fit them.
using State = std::vector<std::uint64_t>;

template <typename T>
State GetState(const CQxCudaDeviceVector<T>& xVector)
{
    return {xVector.GetSize(), xVector.IsValid(), xVector.IsComplete()};
}

template <typename T>
State GetState(const CQxCudaDeviceMatrix<T>& xMatrix)
{
    return {xMatrix.GetRowCount(), xMatrix.GetColCount(), xMatrix.IsValid(), xMatrix.IsComplete()};
}

template <typename T>
CQxVector<T> MakeVector(std::size_t nSize, int iFirst = 1)
{
    CQxVector<T> xVector(nSize);
    for (std::size_t nIndex = 0; nIndex < nSize; ++nIndex)
    {
        xVector[nIndex] = static_cast<T>(iFirst) + static_cast<T>(nIndex);
    }
    return xVector;
}

template <typename T>
CQxMatrix<T> MakeMatrix(std::uint64_t nRows, std::uint64_t nCols, int iFirst = 1)
{
    CQxMatrix<T> xMatrix(nRows, nCols);
    const CQxVector<T> xElements = MakeVector<T>(nRows * nCols, iFirst);
    std::copy_n(xElements.GetDataPtr(), nRows * nCols, xMatrix.GetDataPtr());
    return xMatrix;
}

template <typename T>
std::vector<T> List(const CQxVector<T>& xVector)
{
    return {xVector.GetDataPtr(), xVector.GetDataPtr() + xVector.GetSize()};
}

template <typename T>
std::vector<T> List(const CQxMatrix<T>& xMatrix)
{
    return {xMatrix.GetDataPtr(), xMatrix.GetDataPtr() + xMatrix.GetRowCount() * xMatrix.GetColCount()};
}

/// What one failing call must lead to: the links around it, its own link, and the state of the object.
struct SOutcome
{
    Chain vOuter;
    const char* pcMessage;
    const char* pcFunction;
    const char* pcFile;
    State vState;

    Chain GetChain(int iDevice) const
    {
        Chain vChain = vOuter;
        vChain.push_back(Cuda(pcMessage, cudaErrorUnknown, pcFunction, pcFile, iDevice));
        return vChain;
    }
};

SOutcome NotFreed(const Chain& vOuter, const State& vState)
{
    return {vOuter, "Error freeing CUDA memory", "QxCudaFree", c_pcMmu, vState};
}

SOutcome NotAllocated(const Chain& vOuter, const State& vState)
{
    return {vOuter, "Error allocating CUDA memory", "QxCudaMalloc", c_pcMmu, vState};
}

SOutcome NotCopied(const Chain& vOuter, const char* pcMessage, const char* pcFunction, const State& vState)
{
    return {vOuter, pcMessage, pcFunction, c_pcArray, vState};
}

/// Fails every call of the operation in turn on an object from @p xMake; the object must work afterwards. The outcomes
/// are in the order of the calls.
template <typename TMake, typename TOperation, typename THost>
void ExpectOutcomes(TMake&& xMake, TOperation&& xOperation, const THost& xHost, const std::vector<SOutcome>& vOutcomes)
{
    const int iCalls = SweepFailures(
        xMake, [&](auto& pDevice) { xOperation(*pDevice); },
        [&](auto& pDevice, int iCall, const CQxException& xException)
        {
            SCOPED_TRACE(iCall);
            ASSERT_LE(static_cast<std::size_t>(iCall), vOutcomes.size());
            const SOutcome& xOutcome = vOutcomes[static_cast<std::size_t>(iCall) - 1];
            // The device is unknown where the query for it is among the failing calls.
            EXPECT_TRUE(IsChain(xException, xOutcome.GetChain(0)) || IsChain(xException, xOutcome.GetChain(-1)))
                << xException.ToString().ToCString();
            EXPECT_EQ(GetState(*pDevice), xOutcome.vState);
            pDevice->Set(xHost);
            THost xResult;
            pDevice->Get(xResult);
            EXPECT_EQ(List(xResult), List(xHost));
        });
    EXPECT_EQ(static_cast<std::size_t>(iCalls), vOutcomes.size());
}

template <typename T>
class DeviceContainer : public ::testing::Test
{
protected:
    using DeviceVector = CQxCudaDeviceVector<T>;
    using DeviceMatrix = CQxCudaDeviceMatrix<T>;

    template <typename TDevice>
    static constexpr bool c_bStays = !std::is_copy_constructible_v<TDevice> && !std::is_move_constructible_v<TDevice> &&
        !std::is_copy_assignable_v<TDevice> && !std::is_move_assignable_v<TDevice>;
    static_assert(c_bStays<CQxCudaDeviceArray<T>> && c_bStays<DeviceVector> && c_bStays<DeviceMatrix>);
    static_assert(std::has_virtual_destructor_v<DeviceVector> && std::has_virtual_destructor_v<DeviceMatrix> &&
        !std::is_polymorphic_v<CQxCudaDeviceArray<T>>);
    static_assert(sizeof(CQxCudaDeviceArray<T>) == 16 && sizeof(DeviceVector) == 32 && sizeof(DeviceMatrix) == 40);

    /// A vector of 3 elements and a matrix of 2 x 3.
    static std::unique_ptr<DeviceVector> _DeviceVector()
    {
        auto pVector = std::make_unique<DeviceVector>();
        pVector->Set(MakeVector<T>(3, 100));
        return pVector;
    }
    static std::unique_ptr<DeviceMatrix> _DeviceMatrix()
    {
        auto pMatrix = std::make_unique<DeviceMatrix>();
        pMatrix->Set(MakeMatrix<T>(2, 3, 100));
        return pMatrix;
    }

    static inline const SLink c_xToDevice = Plain("Error copying to device", "ToDevice", c_pcArray);
    static inline const SLink c_xNew = Plain("Error allocating memory block on the device", "New", c_pcArray);
    static inline const SLink c_xDelete = Plain("Error deleting memory block on the device", "Delete", c_pcArray);
    static inline const SLink c_xNoBlock = Plain("Nullptr --> Invalid device pointer", "ToHost", c_pcArray);
    static inline const SLink c_xUnequal = Plain("Unequal element counts", "ToHost", c_pcArray);
    static inline const SLink c_xGetVector = Plain("Error copying device vector to host", "Get", c_pcVector);
    static inline const SLink c_xGetMatrix = Plain("Error copying device matrix to host", "Get", c_pcMatrix);
    static constexpr std::uint64_t c_nFailed = UINT64_MAX;
    static inline const SLink c_xResizeVector = Plain("Error resizing device vector", "Resize", c_pcVector);
    static inline const SLink c_xResizeMatrix = Plain("Error allocating device matrix ", "Resize", c_pcMatrix);
};

using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DeviceContainer, ElementTypes, );

TYPED_TEST(DeviceContainer, KeepsItsBlockUntilTheElementCountChanges)
{
    typename TestFixture::DeviceVector xVector;
    typename TestFixture::DeviceMatrix xMatrix;
    EXPECT_EQ(GetState(xVector), (State{0, false, true}));
    EXPECT_EQ(GetState(xMatrix), (State{0, 0, false, true}));
    const auto SetVector = [&](std::size_t nSize)
    { return [&xVector, nSize] { xVector.Set(MakeVector<TypeParam>(nSize)); }; };
    const auto SetMatrix = [&](std::uint64_t nRows, std::uint64_t nCols)
    { return [&xMatrix, nRows, nCols] { xMatrix.Set(MakeMatrix<TypeParam>(nRows, nCols)); }; };
    const Names vNone;
    const Names vFirst{"cudaMalloc", "cudaMemcpy"};
    const Names vOther{"cudaFree", "cudaMalloc", "cudaMemcpy"};
    const Names vSame{"cudaMemcpy"};
    const struct
    {
        std::function<void()> xStep;
        Names vCalls;
        State vVector, vMatrix;
    } vSteps[]{
        {[&] { xVector.Delete(), xMatrix.Delete(); }, vNone, {0, 0, 1}, {0, 0, 0, 1}},
        {SetVector(3), vFirst, {3, 1, 1}, {0, 0, 0, 1}},
        {SetVector(3), vSame, {3, 1, 1}, {0, 0, 0, 1}},
        {SetVector(5), vOther, {5, 1, 1}, {0, 0, 0, 1}},
        {[&] { xVector.Resize(5); }, vNone, {5, 1, 1}, {0, 0, 0, 1}},
        {[&] { xVector.Resize(4); }, {"cudaFree", "cudaMalloc"}, {4, 1, 1}, {0, 0, 0, 1}},
        {[&] { xVector.Resize(0); }, {"cudaFree", "cudaMalloc"}, {0, 0, 1}, {0, 0, 0, 1}},
        {SetVector(0), vFirst, {0, 0, 1}, {0, 0, 0, 1}}, // a block of nothing is asked for each time
        {SetMatrix(5, 4), vFirst, {0, 0, 1}, {5, 4, 1, 1}},
        {SetMatrix(4, 5), vSame, {0, 0, 1}, {4, 5, 1, 1}},
        {[&] { xMatrix.Resize(2, 10); }, vNone, {0, 0, 1}, {2, 10, 1, 1}},
        {SetMatrix(2, 3), vOther, {0, 0, 1}, {2, 3, 1, 1}},
        {[&] { xMatrix.Resize(0, 3); }, {"cudaFree", "cudaMalloc"}, {0, 0, 1}, {0, 3, 0, 1}},
        {[&] { xMatrix.Resize(3, 0); }, {"cudaMalloc"}, {0, 0, 1}, {3, 0, 0, 1}},
        {SetMatrix(2, 3), vFirst, {0, 0, 1}, {2, 3, 1, 1}},
        {[&] { xMatrix.Delete(); }, {"cudaFree"}, {0, 0, 1}, {0, 0, 0, 1}},
    };
    for (const auto& xStep : vSteps)
    {
        SCOPED_TRACE(&xStep - vSteps);
        CCudaRecorder::Reset();
        xStep.xStep();
        EXPECT_EQ(CCudaRecorder::CallNames(), xStep.vCalls);
        EXPECT_EQ(GetState(xVector), xStep.vVector);
        EXPECT_EQ(GetState(xMatrix), xStep.vMatrix);
        CQxVector<TypeParam> xGot(1);
        EXPECT_EQ(xStep.vVector[1] == 0,
            bool(ThrowsChain([&] { xVector.Get(xGot); }, {TestFixture::c_xGetVector, TestFixture::c_xNoBlock})));
        EXPECT_EQ(xGot.GetSize(), xStep.vVector[0]);
    }

    const CQxMatrix<TypeParam> xHost = MakeMatrix<TypeParam>(3, 2);
    xMatrix.Set(xHost);
    EXPECT_EQ(CCudaRecorder::Last("cudaMalloc").vArguments[1], 6 * sizeof(TypeParam));
    const auto Copy = [](const TypeParam* pTarget, const TypeParam* pSource, cudaMemcpyKind eKind)
    {
        return std::vector<std::uint64_t>{reinterpret_cast<std::uintptr_t>(pTarget),
            reinterpret_cast<std::uintptr_t>(pSource), 6 * sizeof(TypeParam), eKind};
    };
    const TypeParam* const pDevice = xMatrix.GetDataPtr();
    EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy").vArguments, Copy(pDevice, xHost.GetDataPtr(), cudaMemcpyHostToDevice));
    xMatrix.Resize(2, 3);
    for (const auto& [nRows, nCols] : {std::pair{6U, 1U}, {2U, 1U}, {1U, 3U}})
    {
        CQxMatrix<TypeParam> xResult = MakeMatrix<TypeParam>(nRows, nCols);
        xMatrix.Get(xResult);
        EXPECT_EQ(
            CCudaRecorder::Last("cudaMemcpy").vArguments, Copy(xResult.GetDataPtr(), pDevice, cudaMemcpyDeviceToHost));
        EXPECT_EQ(xResult.GetColCount(), 3U);
        EXPECT_EQ(List(xResult), List(xHost)) << "another shape of as many elements keeps them";
    }
    CQxVector<TypeParam> xVectorResult;
    xVector.Set(MakeVector<TypeParam>(5));
    xVector.Resize(5);
    xVector.Get(xVectorResult);
    EXPECT_EQ(List(xVectorResult), List(MakeVector<TypeParam>(5)));
}

TYPED_TEST(DeviceContainer, EveryFailingCallLeavesTheObjectAsPromised)
{
    using F = TestFixture;
    const CQxVector<TypeParam> xVector = MakeVector<TypeParam>(5);
    const CQxMatrix<TypeParam> xMatrix = MakeMatrix<TypeParam>(5, 4);
    const SLink xSetVector = Plain("Error copying host vector to device", "Set", c_pcVector);
    const SLink xSetMatrix = Plain("Error copying host matrix to device", "Set", c_pcMatrix);
    const SLink xDeleteMatrix = Plain("Error deleting Device matrix", "Delete", c_pcMatrix);
    const auto Get = [](auto xHost) { return [xHost](auto& xDevice) mutable { xDevice.Get(xHost); }; };
    const auto Delete = [](auto& xDevice) { xDevice.Delete(); };

    ExpectOutcomes(F::_DeviceVector, [&](auto& xDevice) { xDevice.Set(xVector); }, xVector,
        {NotFreed({xSetVector, F::c_xToDevice, F::c_xNew, F::c_xDelete}, {F::c_nFailed, 1, 0}),
            NotAllocated({xSetVector, F::c_xToDevice, F::c_xNew}, {F::c_nFailed, 0, 0}),
            NotCopied({xSetVector, F::c_xToDevice}, "", "ToDevice", {F::c_nFailed, 1, 0})});
    ExpectOutcomes(F::_DeviceVector, [](auto& xDevice) { xDevice.Resize(5); }, xVector,
        {NotFreed({F::c_xResizeVector, F::c_xNew, F::c_xDelete}, {F::c_nFailed, 1, 0}),
            NotAllocated({F::c_xResizeVector, F::c_xNew}, {F::c_nFailed, 0, 0})});
    ExpectOutcomes(F::_DeviceVector, Get(CQxVector<TypeParam>()), xVector,
        {NotCopied({F::c_xGetVector}, "Error copying to host", "ToHost", {3, 1, 1})});
    ExpectOutcomes(F::_DeviceVector, Delete, xVector, {NotFreed({F::c_xDelete}, {3, 1, 1})});

    ExpectOutcomes(F::_DeviceMatrix, [&](auto& xDevice) { xDevice.Set(xMatrix); }, xMatrix,
        {NotFreed({xSetMatrix, F::c_xToDevice, F::c_xNew, F::c_xDelete}, {5, 4, 1, 0}),
            NotAllocated({xSetMatrix, F::c_xToDevice, F::c_xNew}, {5, 4, 0, 0}),
            NotCopied({xSetMatrix, F::c_xToDevice}, "", "ToDevice", {5, 4, 1, 1})});
    ExpectOutcomes(F::_DeviceMatrix, [](auto& xDevice) { xDevice.Resize(5, 4); }, xMatrix,
        {NotFreed({F::c_xResizeMatrix, F::c_xNew, F::c_xDelete}, {2, 3, 1, 1}),
            NotAllocated({F::c_xResizeMatrix, F::c_xNew}, {2, 3, 0, 0})});
    ExpectOutcomes(F::_DeviceMatrix, Get(CQxMatrix<TypeParam>()), xMatrix,
        {NotCopied({F::c_xGetMatrix}, "Error copying to host", "ToHost", {2, 3, 1, 1})});
    ExpectOutcomes(F::_DeviceMatrix, Delete, xMatrix, {NotFreed({xDeleteMatrix, F::c_xDelete}, {2, 3, 1, 1})});
}

TYPED_TEST(DeviceContainer, SaysOutOfMemoryAndRefusesCountsBeyondSixtyFourBits)
{
    using F = TestFixture;
    const SLink xFull{
        "Qx.OutOfMemoryException", "Error allocating CUDA memory. Out of memory", "QxCudaMalloc", c_pcMmu};
    const auto pVector = F::_DeviceVector();
    const auto pMatrix = F::_DeviceMatrix();
    for (const std::uint64_t nHuge : {std::uint64_t{1} << 50, std::uint64_t{1} << 62})
    {
        EXPECT_TRUE(ThrowsChain([&] { pVector->Resize(nHuge); }, {F::c_xResizeVector, F::c_xNew, xFull}));
        EXPECT_EQ(GetState(*pVector), (State{F::c_nFailed, 0, 0}));
        // The product of the second is 2^64.
        EXPECT_TRUE(ThrowsChain([&] { pMatrix->Resize(nHuge, 4); }, {F::c_xResizeMatrix, F::c_xNew, xFull}));
        EXPECT_EQ(GetState(*pMatrix), (State{2, 3, 0, 0}));
        EXPECT_EQ(cudaGetLastError(), nHuge == std::uint64_t{1} << 50 ? cudaErrorMemoryAllocation : cudaSuccess);
    }
}

TYPED_TEST(DeviceContainer, StaysUsableWhenAnExceptionRunsOutOfHostMemory)
{
    // Neither the old block nor its count may be taken for the new ones.
    auto pVector = this->_DeviceVector();
    const int iFailures = FailEachAllocation(
        [&]
        {
            pVector = this->_DeviceVector();
            CCudaRecorder::Pause();
        },
        [&]
        {
            try
            {
                pVector->Resize(std::uint64_t{1} << 50);
            }
            catch (const CQxException&) // the run without a failure
            {
            }
        },
        [&]
        {
            static_cast<void>(cudaGetLastError());
            EXPECT_EQ(pVector->IsComplete(), pVector->IsValid() && pVector->GetSize() == 3);
            pVector->Set(MakeVector<TypeParam>(2));
            EXPECT_EQ(GetState(*pVector), (State{2, 1, 1}));
        });
    static_cast<void>(cudaGetLastError());
    EXPECT_GT(iFailures, 4);
}

/// A host vector whose growth the test decides.
template <typename T>
class CHostVector : public CQxVector<T>
{
public:
    explicit CHostVector(std::function<void(CHostVector&, std::size_t)> xResize)
        : CQxVector<T>(2), m_xResize(std::move(xResize))
    {
    }
    void Resize(std::size_t nSize) override { m_xResize(*this, nSize); }

private:
    std::function<void(CHostVector&, std::size_t)> m_xResize;
};

/// A host matrix that refuses to grow.
template <typename T>
class CHostMatrix : public CQxMatrix<T>
{
    void _AdmitElements(std::uint64_t nElements) override
    {
        if (nElements > 4)
        {
            Throw({"Client", "Admit"}, "too many");
        }
    }
};

TYPED_TEST(DeviceContainer, DownloadResizesTheHostObjectByItsOwnRules)
{
    using F = TestFixture;
    using Host = CHostVector<TypeParam>;
    const auto pVector = F::_DeviceVector();
    Host xGrows([](Host& xHost, std::size_t nSize) { xHost.CQxVector<TypeParam>::Resize(nSize); });
    pVector->Get(xGrows);
    EXPECT_EQ(List(xGrows), (std::vector<TypeParam>{100, 101, 102}));
    Host xFits([](Host&, std::size_t) { FAIL() << "a vector of the size was resized"; });
    xFits.CQxVector<TypeParam>::Resize(3);
    pVector->Get(xFits);
    EXPECT_EQ(List(xFits), (std::vector<TypeParam>{100, 101, 102}));
    Host xStays([](Host&, std::size_t) {});
    EXPECT_TRUE(ThrowsChain([&] { pVector->Get(xStays); }, {F::c_xGetVector, F::c_xUnequal}));
    Host xRefuses([](Host&, std::size_t) { Throw({"Client", "Resize"}, "no"); });
    EXPECT_TRUE(ThrowsChain([&] { pVector->Get(xRefuses); }, {F::c_xGetVector, Plain("no", "Resize", "Client")}));
    Host xForeign([](Host&, std::size_t) { throw std::out_of_range("no"); });
    EXPECT_THROW(pVector->Get(xForeign), std::out_of_range);

    CHostMatrix<TypeParam> xBounded;
    EXPECT_TRUE(ThrowsChain([&] { F::_DeviceMatrix()->Get(xBounded); },
        {F::c_xGetMatrix, Plain("Error resizing matrix", "SetDimensions", "Qx.Core.Math/QxMatrix"),
            Plain("too many", "Admit", "Client")}));
    EXPECT_EQ(xBounded.GetRowCount() + xBounded.GetColCount(), 0U);

    // Without a block: the host object has the device object's size by then.
    CQxVector<TypeParam> xVector(4);
    EXPECT_TRUE(ThrowsChain([&] { typename F::DeviceVector().Get(xVector); }, {F::c_xGetVector, F::c_xNoBlock}));
    EXPECT_EQ(xVector.GetSize(), 0U);
    CQxMatrix<TypeParam> xMatrix(4, 1);
    EXPECT_TRUE(ThrowsChain([&] { typename F::DeviceMatrix().Get(xMatrix); }, {F::c_xGetMatrix, F::c_xNoBlock}));
    EXPECT_EQ(xMatrix.GetRowCount() + xMatrix.GetColCount(), 0U);
}

TYPED_TEST(DeviceContainer, DownloadAfterAFailedUploadCannotPassForOne)
{
    using F = TestFixture;
    const auto pVector = F::_DeviceVector();
    const auto pMatrix = F::_DeviceMatrix();
    CQxVector<TypeParam> xVector = MakeVector<TypeParam>(3);
    CCudaRecorder::FailCall("cudaMemcpy", 1, cudaErrorUnknown);
    EXPECT_THROW(pVector->Set(MakeVector<TypeParam>(3, 7)), CQxException);
    EXPECT_THROW(pVector->Get(xVector), std::length_error);
    EXPECT_EQ(List(xVector), List(MakeVector<TypeParam>(3))) << "the host vector is what it was";
    CCudaRecorder::FailCall("cudaFree", 1, cudaErrorUnknown);
    EXPECT_THROW(pMatrix->Set(MakeMatrix<TypeParam>(5, 4)), CQxException);
    CQxMatrix<TypeParam> xMatrix;
    EXPECT_TRUE(ThrowsChain([&] { pMatrix->Get(xMatrix); }, {F::c_xGetMatrix, F::c_xUnequal}));
}

TYPED_TEST(DeviceContainer, DestructorDropsAFailureToFree)
{
    auto pVector = this->_DeviceVector();
    auto pMatrix = this->_DeviceMatrix();
    void* const vBlocks[]{pVector->GetDataPtr(), pMatrix->GetDataPtr()};
    CCudaRecorder::FailCall("cudaFree", 1, cudaErrorUnknown, true);
    pVector.reset();
    pMatrix.reset();
    CCudaRecorder::ClearFailure();
    static_cast<void>(cudaGetLastError());
    for (void* pBlock : vBlocks)
    {
        EXPECT_EQ(cudaFree(pBlock), cudaSuccess);
    }
}

} // namespace

} // namespace Qx::Test
