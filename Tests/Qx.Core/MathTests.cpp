#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core.Math/QxMapping3D.h"
#include "Qx.Core.Math/QxMatrix.h"
#include "Qx.Core.Math/QxVector.h"
#include "Support/AllocationFault.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace
{

using Qx::CQxMapping3D;
using Qx::CQxMatrix;
using Qx::CQxVector;
using Qx::Test::FailEachAllocation;
using Qx::Test::Plain;
using Qx::Test::ThrowsChain;
using Qx::Test::VirtualSlot;

/// The first elements of a container as a list, to compare.
template <typename T>
std::vector<T> _List(const T* pData, std::uint64_t nCount)
{
    return std::vector<T>(pData, pData + nCount);
}

template <typename T>
std::vector<T> _List(const CQxVector<T>& xVector)
{
    return _List(xVector.GetDataPtr(), xVector.GetSize());
}

template <typename T>
std::vector<T> _List(const CQxMatrix<T>& xMatrix)
{
    return _List(xMatrix.GetDataPtr(), xMatrix.GetRowCount() * xMatrix.GetColCount());
}

/// What the containers do with floats they do with doubles.
template <typename T>
class MathContainer : public ::testing::Test
{
protected:
    static CQxVector<T> _MakeVector(std::size_t nSize)
    {
        CQxVector<T> xVector(nSize);
        for (std::size_t nIndex = 0; nIndex < nSize; ++nIndex)
        {
            xVector[nIndex] = static_cast<T>(nIndex + 1);
        }
        return xVector;
    }

    static CQxMatrix<T> _MakeMatrix(std::uint64_t nRows, std::uint64_t nCols)
    {
        CQxMatrix<T> xMatrix(nRows, nCols);
        for (std::uint64_t nIndex = 0; nIndex < nRows * nCols; ++nIndex)
        {
            xMatrix.GetDataPtr()[nIndex] = static_cast<T>(nIndex + 1);
        }
        return xMatrix;
    }

    /// More elements than a store can have.
    static constexpr std::uint64_t c_nTooMany = PTRDIFF_MAX / sizeof(T) + 1;
    /// Elements that a store can have, but no address space has room for: 2^62 bytes.
    static constexpr std::uint64_t c_nNoRoom = (std::uint64_t{1} << 62) / sizeof(T);
};

using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MathContainer, ElementTypes);

TYPED_TEST(MathContainer, VectorResizeKeepsLeadingElementsAndAddsZeros)
{
    using List = std::vector<TypeParam>;
    CQxVector<TypeParam> xVector = this->_MakeVector(3);
    xVector.Resize(5);
    EXPECT_EQ(_List(xVector), (List{1, 2, 3, 0, 0}));
    xVector.Resize(2);
    EXPECT_EQ(_List(xVector), (List{1, 2}));
    xVector.Resize(4);
    EXPECT_EQ(_List(xVector), (List{1, 2, 0, 0})) << "elements that were cut off must not come back";
    xVector.Resize(0);
    EXPECT_EQ(xVector.GetSize(), 0U);
    xVector.Resize(2);
    EXPECT_EQ(_List(xVector), (List{0, 0}));
}

TYPED_TEST(MathContainer, VectorThatCannotGrowIsUnchanged)
{
    using List = std::vector<TypeParam>;
    CQxVector<TypeParam> xVector = this->_MakeVector(3);
    const TypeParam* pData = xVector.GetDataPtr();
    for (const std::uint64_t nSize : {this->c_nTooMany, UINT64_MAX})
    {
        EXPECT_THROW(xVector.Resize(nSize), std::length_error);
        EXPECT_THROW(CQxVector<TypeParam>{nSize}, std::length_error);
    }
    EXPECT_THROW(xVector.Resize(this->c_nNoRoom), std::bad_alloc);
    EXPECT_EQ(xVector.GetDataPtr(), pData);
    EXPECT_EQ(_List(xVector), (List{1, 2, 3}));
    EXPECT_EQ(FailEachAllocation([&] { xVector = this->_MakeVector(3); }, [&] { xVector.Resize(1000); },
                                 [&] {
                                     EXPECT_EQ(_List(xVector), (List{1, 2, 3}));
                                 }),
              2);
}

TYPED_TEST(MathContainer, VectorCopiesOwnTheirElements)
{
    using List = std::vector<TypeParam>;
    CQxVector<TypeParam> xVector = this->_MakeVector(3);
    const CQxVector<TypeParam> xCopy(xVector);
    CQxVector<TypeParam> xAssigned = this->_MakeVector(10);
    xAssigned = xVector;
    xVector[0] = 9;
    EXPECT_EQ(_List(xCopy), (List{1, 2, 3}));
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 3}));
    xAssigned[2] = 8;
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 8})) << "the data pointer must follow the vector's own store";

    EXPECT_EQ(FailEachAllocation([&] { xAssigned = this->_MakeVector(2); }, [&] { xAssigned = xCopy; },
                                 [&] {
                                     EXPECT_EQ(_List(xAssigned), (List{1, 2}));
                                 }),
              2);
}

TYPED_TEST(MathContainer, VectorMovesLeaveAnEmptyVector)
{
    using List = std::vector<TypeParam>;
    CQxVector<TypeParam> xVector = this->_MakeVector(3);
    const TypeParam* pData = xVector.GetDataPtr();
    CQxVector<TypeParam> xMoved(std::move(xVector));
    EXPECT_EQ(xMoved.GetDataPtr(), pData);
    EXPECT_EQ(_List(xMoved), (List{1, 2, 3}));
    EXPECT_EQ(xVector.GetSize(), 0U); // NOLINT(*Move,*move): defined to be empty
    EXPECT_EQ(xVector.GetDataPtr(), nullptr);
    xVector.Resize(1);
    EXPECT_EQ(_List(xVector), (List{0}));

    xVector = std::move(xMoved);
    EXPECT_EQ(xVector.GetDataPtr(), pData);
    EXPECT_EQ(_List(xVector), (List{1, 2, 3}));
    EXPECT_EQ(xMoved.GetSize(), 0U); // NOLINT(*Move,*move): defined to be empty

    CQxVector<TypeParam>& xAlias = xVector;
    xVector = xAlias;
    EXPECT_EQ(_List(xVector), (List{1, 2, 3}));
    xVector = std::move(xAlias);
    EXPECT_EQ(_List(xVector), (List{1, 2, 3}));
}

TYPED_TEST(MathContainer, VectorResizeIsTheThirdVirtualOperation)
{
    using Vector = CQxVector<TypeParam>;
    EXPECT_EQ(VirtualSlot(static_cast<TypeParam* (Vector::*)()>(&Vector::GetDataPtr)), 0U);
    EXPECT_EQ(VirtualSlot(static_cast<const TypeParam* (Vector::*)() const>(&Vector::GetDataPtr)), 1U);
    EXPECT_EQ(VirtualSlot(&Vector::Resize), 2U);
}

TYPED_TEST(MathContainer, MatrixIsStoredRowByRow)
{
    using List = std::vector<TypeParam>;
    CQxMatrix<TypeParam> xMatrix(2, 3);
    EXPECT_EQ(_List(xMatrix), (List{0, 0, 0, 0, 0, 0}));
    xMatrix(0, 2) = 5;
    xMatrix(1, 0) = 7;
    EXPECT_EQ(_List(xMatrix), (List{0, 0, 5, 7, 0, 0}));
    EXPECT_EQ(std::as_const(xMatrix)(1, 0), TypeParam{7});
}

TYPED_TEST(MathContainer, MatrixSetDimensionsKeepsTheLeadingElementsOfTheStore)
{
    using List = std::vector<TypeParam>;
    CQxMatrix<TypeParam> xMatrix = this->_MakeMatrix(2, 2);
    xMatrix.SetDimensions(2, 3);
    EXPECT_EQ(xMatrix.GetRowCount(), 2U);
    EXPECT_EQ(xMatrix.GetColCount(), 3U);
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 4, 0, 0}));
    xMatrix.SetDimensions(3, 1);
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3}));
    xMatrix.SetDimensions(1, 4);
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 0})) << "elements that were cut off must not come back";

    xMatrix.SetDimensions(0, UINT64_MAX);
    EXPECT_EQ(xMatrix.GetRowCount(), 0U);
    EXPECT_EQ(xMatrix.GetColCount(), UINT64_MAX);
}

TYPED_TEST(MathContainer, MatrixThatCannotGrowIsUnchanged)
{
    using List = std::vector<TypeParam>;
    constexpr std::uint64_t c_nTwoTo32 = std::uint64_t{1} << 32;
    CQxMatrix<TypeParam> xMatrix = this->_MakeMatrix(2, 2);
    const TypeParam* pData = xMatrix.GetDataPtr();
    const auto CheckUnchanged = [&]
    {
        EXPECT_EQ(xMatrix.GetRowCount(), 2U);
        EXPECT_EQ(xMatrix.GetColCount(), 2U);
        EXPECT_EQ(xMatrix.GetDataPtr(), pData);
        EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 4}));
    };
    // The first three products are 0, 0 and 4 in 64 bits.
    for (const auto& [nRows, nCols] :
         {std::pair{c_nTwoTo32, c_nTwoTo32}, std::pair{std::uint64_t{1} << 63, std::uint64_t{2}},
          std::pair{(std::uint64_t{1} << 63) + 2, std::uint64_t{2}}, std::pair{UINT64_MAX, UINT64_MAX},
          std::pair{std::uint64_t{1}, UINT64_MAX}, std::pair{std::uint64_t{1}, this->c_nTooMany}})
    {
        EXPECT_THROW(xMatrix.SetDimensions(nRows, nCols), std::length_error);
        CheckUnchanged();
        EXPECT_THROW((CQxMatrix<TypeParam>{nRows, nCols}), std::length_error);
    }
    EXPECT_THROW(xMatrix.SetDimensions(2, this->c_nNoRoom / 2), std::bad_alloc);
    CheckUnchanged();
    const auto Setup = [&]
    {
        xMatrix = this->_MakeMatrix(2, 2);
        pData = xMatrix.GetDataPtr();
    };
    EXPECT_EQ(FailEachAllocation(
                  Setup, [&] { xMatrix.SetDimensions(30, 30); }, CheckUnchanged),
              2);
}

TYPED_TEST(MathContainer, MatrixCopiesOwnTheirElements)
{
    using List = std::vector<TypeParam>;
    CQxMatrix<TypeParam> xMatrix = this->_MakeMatrix(2, 2);
    const CQxMatrix<TypeParam> xCopy(xMatrix);
    CQxMatrix<TypeParam> xAssigned = this->_MakeMatrix(7, 1);
    xAssigned = xMatrix;
    xMatrix(0, 0) = 9;
    EXPECT_EQ(_List(xCopy), (List{1, 2, 3, 4}));
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 3, 4}));
    EXPECT_EQ(xAssigned.GetColCount(), 2U);
    xAssigned(1, 1) = 8;
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 3, 8})) << "the data pointer must follow the matrix's own store";
}

TYPED_TEST(MathContainer, MatrixMovesLeaveAnEmptyMatrix)
{
    using List = std::vector<TypeParam>;
    CQxMatrix<TypeParam> xMatrix = this->_MakeMatrix(2, 2);
    const TypeParam* pData = xMatrix.GetDataPtr();
    CQxMatrix<TypeParam> xMoved(std::move(xMatrix));
    EXPECT_EQ(xMoved.GetDataPtr(), pData);
    EXPECT_EQ(_List(xMoved), (List{1, 2, 3, 4}));
    EXPECT_EQ(xMatrix.GetRowCount(), 0U); // NOLINT(*Move,*move): defined to be empty
    EXPECT_EQ(xMatrix.GetColCount(), 0U);
    EXPECT_EQ(xMatrix.GetDataPtr(), nullptr);

    xMatrix = std::move(xMoved);
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 4}));
    CQxMatrix<TypeParam>& xAlias = xMatrix;
    xMatrix = xAlias;
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 4}));
    xMatrix = std::move(xAlias);
    EXPECT_EQ(_List(xMatrix), (List{1, 2, 3, 4}));
}

/// Refuses what exceeds its budget, with an exception of the SDK.
template <typename T>
class CBudgetMatrix : public CQxMatrix<T>
{
public:
    std::uint64_t nBudget = 4;

protected:
    void _AdmitElements(std::uint64_t nElements) override
    {
        if (nElements > nBudget)
        {
            Qx::Throw({"Test/Budget", "_AdmitElements"}, "Over budget");
        }
    }
};

TYPED_TEST(MathContainer, MatrixWhoseGrowthIsRefusedIsEmptied)
{
    using List = std::vector<TypeParam>;
    CBudgetMatrix<TypeParam> xMatrix;
    xMatrix.SetDimensions(2, 2);
    xMatrix(1, 1) = 5;
    EXPECT_TRUE(ThrowsChain([&] { xMatrix.SetDimensions(2, 3); },
                            {Plain("Error resizing matrix", "SetDimensions", "Qx.Core.Math/QxMatrix"),
                             Plain("Over budget", "_AdmitElements", "Test/Budget")}));
    EXPECT_EQ(xMatrix.GetRowCount(), 0U);
    EXPECT_EQ(xMatrix.GetColCount(), 0U);
    xMatrix.SetDimensions(2, 2);
    EXPECT_EQ(_List(xMatrix), (List{0, 0, 0, 0})) << "elements of before the refusal must not come back";

    // An error of the standard library after the hook has agreed is neither wrapped nor does it empty the matrix.
    xMatrix.nBudget = UINT64_MAX;
    EXPECT_THROW(xMatrix.SetDimensions(1, this->c_nTooMany), std::length_error);
    EXPECT_EQ(xMatrix.GetRowCount(), 2U);
    EXPECT_EQ(_List(xMatrix), (List{0, 0, 0, 0}));
}

constexpr const char* c_pcMappingFile = "Qx.Core.Math/QxMapping3D";
constexpr float c_fInfinity = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float c_fMax = std::numeric_limits<float>::max();

using Triple = std::array<float, 3>;
using Counts = std::array<int, 3>;

void _Create(CQxMapping3D& xMapping, const Triple& vMinimum, const Triple& vMaximum, const Counts& vCounts,
             const float* pValues = nullptr)
{
    xMapping.Create(vMinimum[0], vMinimum[1], vMinimum[2], vMaximum[0], vMaximum[1], vMaximum[2], vCounts[0],
                    vCounts[1], vCounts[2], pValues);
}

/// 2 x 3 x 4 cells with the values 1 to 24 and the name "Pattern".
CQxMapping3D _MakeMapping()
{
    CQxMapping3D xMapping;
    _Create(xMapping, {1, 2, 3}, {2, 8, 11}, {2, 3, 4});
    for (int iCell = 0; iCell < 24; ++iCell)
    {
        xMapping.GetDataPtr()[iCell] = static_cast<float>(iCell + 1);
    }
    xMapping.SetName("Pattern");
    return xMapping;
}

std::uint64_t _CellCount(const CQxMapping3D& xMapping)
{
    const Counts& vCounts = xMapping.GetCellCounts();
    return static_cast<std::uint64_t>(vCounts[0]) * static_cast<std::uint64_t>(vCounts[1]) *
           static_cast<std::uint64_t>(vCounts[2]);
}

std::vector<float> _List(const CQxMapping3D& xMapping)
{
    return _List(xMapping.GetDataPtr(), _CellCount(xMapping));
}

std::vector<float> _Sequence(std::size_t nCount)
{
    std::vector<float> vValues(nCount);
    for (std::size_t nIndex = 0; nIndex < nCount; ++nIndex)
    {
        vValues[nIndex] = static_cast<float>(nIndex + 1);
    }
    return vValues;
}

void _ExpectPattern(const CQxMapping3D& xMapping)
{
    EXPECT_EQ(xMapping.GetMinimum(), (Triple{1, 2, 3}));
    EXPECT_EQ(xMapping.GetMaximum(), (Triple{2, 8, 11}));
    EXPECT_EQ(xMapping.GetCellCounts(), (Counts{2, 3, 4}));
    EXPECT_EQ(xMapping.GetStepSizes(), (Triple{0.5F, 2, 2}));
    EXPECT_STREQ(xMapping.GetName().ToCString(), "Pattern");
    ASSERT_EQ(_CellCount(xMapping), 24U);
    EXPECT_EQ(_List(xMapping), _Sequence(24));
}

void _ExpectEmpty(const CQxMapping3D& xMapping)
{
    EXPECT_EQ(xMapping.GetMinimum(), Triple{}); // NOLINT(*Move): of moved-from mappings too
    EXPECT_EQ(xMapping.GetMaximum(), Triple{});
    EXPECT_EQ(xMapping.GetCellCounts(), Counts{});
    EXPECT_EQ(xMapping.GetStepSizes(), Triple{});
    EXPECT_EQ(xMapping.GetByteCount(), 0U);
    EXPECT_EQ(xMapping.GetDataPtr(), nullptr);
    EXPECT_STREQ(xMapping.GetName().ToCString(), "");
}

TEST(Mapping3D, CreateSetsBoxGridStepsAndZeros)
{
    _ExpectEmpty(CQxMapping3D());
    CQxMapping3D xMapping;
    xMapping.Create(1, 2, 3, 2, 8, 11, 2, 3, 4, nullptr);
    EXPECT_EQ(xMapping.GetMinimum(), (Triple{1, 2, 3}));
    EXPECT_EQ(xMapping.GetMaximum(), (Triple{2, 8, 11}));
    EXPECT_EQ(xMapping.GetCellCounts(), (Counts{2, 3, 4}));
    EXPECT_EQ(xMapping.GetStepSizes(), (Triple{0.5F, 2, 2}));
    EXPECT_EQ(xMapping.GetByteCount(), 96U);
    EXPECT_EQ(_List(xMapping), std::vector<float>(24));
}

TEST(Mapping3D, CreateReplacesValuesStepsAndGridButNotTheName)
{
    for (const Counts& vCounts : {Counts{2, 2, 1}, Counts{4, 3, 2}, Counts{5, 5, 5}})
    {
        const std::size_t nCells = static_cast<std::size_t>(vCounts[0]) * static_cast<std::size_t>(vCounts[1]) *
                                   static_cast<std::size_t>(vCounts[2]);
        for (const bool bValues : {false, true})
        {
            CQxMapping3D xMapping = _MakeMapping();
            xMapping.SetStepSizes(9, 9, 9);
            std::vector<float> vGiven(nCells, 7.0F);
            _Create(xMapping, {0, 0, 0}, {1, 1, 1}, vCounts, bValues ? vGiven.data() : nullptr);
            EXPECT_EQ(xMapping.GetCellCounts(), vCounts);
            EXPECT_EQ(xMapping.GetStepSizes()[1], 1.0F / static_cast<float>(vCounts[1]));
            // Without initial values those of as many cells stay.
            EXPECT_EQ(_List(xMapping),
                      !bValues && nCells == 24 ? _Sequence(24) : std::vector<float>(nCells, bValues ? 7.0F : 0.0F));
            EXPECT_STREQ(xMapping.GetName().ToCString(), "Pattern");
            EXPECT_NE(xMapping.GetDataPtr(), vGiven.data());
        }
    }
}

TEST(Mapping3D, InitialValuesMayBeItsOwn)
{
    const struct
    {
        Counts vCounts;
        std::size_t nOffset;
        std::vector<float> vExpected;
    } axCases[] = {
        {{2, 3, 4}, 0, _Sequence(24)}, {{4, 3, 2}, 0, _Sequence(24)}, {{3, 1, 1}, 0, {1, 2, 3}},
        {{3, 1, 1}, 5, {6, 7, 8}},     {{0, 1, 1}, 24, {}},
    };
    for (const auto& xCase : axCases)
    {
        CQxMapping3D xMapping = _MakeMapping();
        _Create(xMapping, {0, 0, 0}, {1, 1, 1}, xCase.vCounts, xMapping.GetDataPtr() + xCase.nOffset);
        EXPECT_EQ(_List(xMapping), xCase.vExpected);
    }
}

TEST(Mapping3D, AxesWithoutCellsOrExtentAreLegal)
{
    CQxMapping3D xMapping = _MakeMapping();
    _Create(xMapping, {0, 0, 0}, {1, 1, 1}, {0, INT_MAX, INT_MAX});
    EXPECT_EQ(xMapping.GetByteCount(), 0U);
    EXPECT_EQ(xMapping.GetStepSizes()[0], 0.0F);
    _Create(xMapping, {4, -1, 0}, {4, -1, 1}, {2, 1, 1});
    EXPECT_EQ(xMapping.GetStepSizes(), (Triple{0, 0, 1}));
    EXPECT_EQ(_List(xMapping), (std::vector<float>{0, 0}));
}

TEST(Mapping3D, ARefusedVolumeChangesNothing)
{
    const Triple vZero{0, 0, 0};
    const Triple vOne{1, 1, 1};
    const Counts vSmall{1, 1, 1};
    const char* pcNegative = "Mapping cell counts are negative";
    const char* pcInfinite = "Mapping extent is not finite";
    const char* pcReversed = "Mapping bounds are reversed";
    const char* pcTooLarge = "Mapping is too large";
    const struct
    {
        Triple vMinimum;
        Triple vMaximum;
        Counts vCounts;
        const char* pcMessage;
    } axCases[] = {
        {vZero, vOne, {-1, 1, 1}, pcNegative},
        {vZero, vOne, {1, -1, 1}, pcNegative},
        {vZero, vOne, {0, 1, INT_MIN}, pcNegative},
        {vZero, vOne, {-1, -1, 1}, pcNegative},
        {{c_fNaN, 0, 0}, vOne, {-1, 1, 1}, pcNegative},
        {{0, c_fNaN, 0}, vOne, vSmall, pcInfinite},
        {vZero, {1, 1, c_fNaN}, vSmall, pcInfinite},
        {vZero, {c_fInfinity, 1, 1}, vSmall, pcInfinite},
        {{0, -c_fInfinity, 0}, vOne, vSmall, pcInfinite},
        {{c_fInfinity, 0, 0}, {c_fInfinity, 1, 1}, vSmall, pcInfinite},
        {{-c_fMax, 0, 0}, {c_fMax, 1, 1}, {0, 1, 1}, pcInfinite},
        {{2, 0, 0}, {1, 1, c_fNaN}, vSmall, pcInfinite},
        {{2, 0, 0}, vOne, vSmall, pcReversed},
        {{0, 2, 0}, vOne, vSmall, pcReversed},
        {{0, 0, 2}, vOne, {INT_MAX, INT_MAX, INT_MAX}, pcReversed},
        {vZero, vOne, {INT_MAX, INT_MAX, INT_MAX}, pcTooLarge},
        // 2^64 cells and 2^61 cells, which take 0 bytes in 64 bits and 2^63.
        {vZero, vOne, {1 << 30, 1 << 30, 16}, pcTooLarge},
        {vZero, vOne, {1 << 30, 1 << 30, 2}, pcTooLarge},
    };
    for (const auto& xCase : axCases)
    {
        CQxMapping3D xMapping = _MakeMapping();
        const float* pValues = xMapping.GetDataPtr();
        EXPECT_TRUE(ThrowsChain([&] { _Create(xMapping, xCase.vMinimum, xCase.vMaximum, xCase.vCounts); },
                                {Plain(xCase.pcMessage, "Create", c_pcMappingFile)}))
            << "case " << &xCase - axCases;
        EXPECT_EQ(xMapping.GetDataPtr(), pValues);
        _ExpectPattern(xMapping);
    }
}

TEST(Mapping3D, RunningOutOfMemoryChangesNothing)
{
    CQxMapping3D xMapping = _MakeMapping();
    // 2^60 cells: legal, but more than any address space has.
    EXPECT_THROW(_Create(xMapping, {0, 0, 0}, {1, 1, 1}, {1 << 30, 1 << 30, 1}), std::bad_alloc);
    _ExpectPattern(xMapping);

    const std::vector<float> vValues = _Sequence(60);
    for (const float* pValues : {static_cast<const float*>(nullptr), vValues.data()})
    {
        EXPECT_EQ(FailEachAllocation([&] { xMapping = _MakeMapping(); },
                                     [&] {
                                         _Create(xMapping, {0, 0, 0}, {1, 1, 1}, {3, 4, 5}, pValues);
                                     },
                                     [&] { _ExpectPattern(xMapping); }),
                  2);
    }
    EXPECT_EQ(FailEachAllocation([&] { xMapping = _MakeMapping(); },
                                 [&] { xMapping.SetName("a name that is too long for the string object"); },
                                 [&] { _ExpectPattern(xMapping); }),
              2 * 2)
        << "the text and the name";
}

/// Reports a grid without having its values.
class CVastMapping final : public CQxMapping3D
{
public:
    explicit CVastMapping(const Counts& vCounts) : m_vVastCounts(vCounts) {}
    const Counts& GetCellCounts() const override { return m_vVastCounts; }

private:
    Counts m_vVastCounts;
};

TEST(Mapping3D, ByteCountWrapsAt32Bits)
{
    const struct
    {
        Counts vCounts;
        std::uint32_t uBytes;
    } axCases[] = {
        {{3, 5, 7}, 420},
        {{1 << 30, 1, 1}, 0},
        {{1, (1 << 30) + 1, 1}, 4},
        {{1, 1, (1 << 30) - 1}, UINT32_MAX - 3},
        {{INT_MAX, INT_MAX, 1}, 4},
        {{INT_MAX, INT_MAX, 0}, 0},
        {{1000, 1000, 5000}, 2820130816},
        {{-1, 1, 1}, UINT32_MAX - 3},
    };
    for (const auto& xCase : axCases)
    {
        EXPECT_EQ(CVastMapping(xCase.vCounts).GetByteCount(), xCase.uBytes) << "case " << &xCase - axCases;
    }
}

TEST(Mapping3D, CopiesOwnTheirValues)
{
    CQxMapping3D xMapping = _MakeMapping();
    const CQxMapping3D xCopy(xMapping);
    CQxMapping3D xAssigned;
    _Create(xAssigned, {0, 0, 0}, {1, 1, 1}, {9, 9, 9});
    xAssigned = xMapping;
    xMapping.GetDataPtr()[0] = 99;
    xMapping.SetName("Other");
    _ExpectPattern(xCopy);
    _ExpectPattern(xAssigned);
    xAssigned.GetDataPtr()[0] = 98;
    EXPECT_EQ(_List(xAssigned)[0], 98.0F);
    EXPECT_EQ(xCopy.GetDataPtr()[0], 1.0F);

    // A copy copies the steps that were set, too.
    xMapping.SetStepSizes(0, c_fInfinity, -1);
    EXPECT_EQ(CQxMapping3D(xMapping).GetStepSizes(), (Triple{0, c_fInfinity, -1}));
}

TEST(Mapping3D, MovesLeaveAnEmptyMapping)
{
    CQxMapping3D xMapping = _MakeMapping();
    const float* pValues = xMapping.GetDataPtr();
    CQxMapping3D xMoved(std::move(xMapping));
    EXPECT_EQ(xMoved.GetDataPtr(), pValues);
    _ExpectPattern(xMoved);
    _ExpectEmpty(xMapping); // NOLINT(*Move,*move): defined to be empty

    xMapping = std::move(xMoved);
    _ExpectPattern(xMapping);
    _ExpectEmpty(xMoved); // NOLINT(*Move,*move): defined to be empty

    CQxMapping3D& xAlias = xMapping;
    xMapping = xAlias;
    _ExpectPattern(xMapping);
    xMapping = std::move(xAlias);
    _ExpectPattern(xMapping);
}

TEST(Mapping3D, FieldsStandInTheirOrder)
{
    const CQxMapping3D xMapping = _MakeMapping();
    struct
    {
        const void* pVirtualTable;
        const float* pValues;
        float afBox[6];
        int aiCounts[3];
        float afSteps[3];
    } xFields;
    std::memcpy(&xFields, static_cast<const void*>(&xMapping), sizeof(xFields));
    EXPECT_EQ(xFields.pValues, xMapping.GetDataPtr());
    EXPECT_EQ(_List(xFields.afBox, 6), (std::vector<float>{1, 2, 3, 2, 8, 11}));
    EXPECT_EQ(_List(xFields.aiCounts, 3), (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(_List(xFields.afSteps, 3), (std::vector<float>{0.5F, 2, 2}));
    EXPECT_EQ(static_cast<const void*>(&xMapping.GetName()),
              static_cast<const void*>(reinterpret_cast<const char*>(&xMapping) + sizeof(xFields)));
}

TEST(Mapping3D, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlot(&CQxMapping3D::GetMinimum), 0U);
    EXPECT_EQ(VirtualSlot(&CQxMapping3D::GetStepSizes), 3U);
    EXPECT_EQ(VirtualSlot(&CQxMapping3D::GetByteCount), 4U);
    EXPECT_EQ(VirtualSlot(static_cast<float* (CQxMapping3D::*)()>(&CQxMapping3D::GetDataPtr)), 5U);
    EXPECT_EQ(VirtualSlot(static_cast<const float* (CQxMapping3D::*)() const>(&CQxMapping3D::GetDataPtr)), 6U);
}

} // namespace
