#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <numeric>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core.Math/QxMapping3D.h"
#include "Qx.Core.Math/QxMatrix.h"
#include "Qx.Core.Math/QxVector.h"
#include "Support/AllocationFault.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace Qx::Test
{

namespace
{

using Slots = std::vector<std::size_t>;
using Values = std::vector<float>;

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

/// What vectors do matrices of one column do.
template <typename TContainer>
class MathContainer : public ::testing::Test
{
protected:
    using Element = std::remove_pointer_t<decltype(std::declval<TContainer&>().GetDataPtr())>;

    static constexpr bool c_bVector = requires(TContainer xContainer) { xContainer.Resize(1); };
    /// More elements than a store can have.
    static constexpr std::uint64_t c_nTooMany = PTRDIFF_MAX / sizeof(Element) + 1;
    /// Elements that a store can have, but no address space has room for: 2^62 bytes.
    static constexpr std::uint64_t c_nNoRoom = (std::uint64_t{1} << 62) / sizeof(Element);

    static TContainer New(std::uint64_t nSize)
    {
        if constexpr (c_bVector)
        {
            return TContainer(nSize);
        }
        else
        {
            return TContainer(nSize, 1);
        }
    }

    static void Resize(TContainer& xContainer, std::uint64_t nSize)
    {
        if constexpr (c_bVector)
        {
            xContainer.Resize(nSize);
        }
        else
        {
            xContainer.SetDimensions(nSize, 1);
        }
    }

    /// The elements 1, 2, 3 ...
    static TContainer Make(std::uint64_t nSize)
    {
        TContainer xContainer = New(nSize);
        std::iota(xContainer.GetDataPtr(), xContainer.GetDataPtr() + nSize, Element{1});
        return xContainer;
    }
};

using Containers = ::testing::Types<CQxVector<float>, CQxVector<double>, CQxMatrix<float>, CQxMatrix<double>>;
TYPED_TEST_SUITE(MathContainer, Containers);

TYPED_TEST(MathContainer, ResizingKeepsLeadingElementsAndAddsZeros)
{
    using List = std::vector<typename TestFixture::Element>;
    EXPECT_EQ(_List(this->New(2)), (List{0, 0}));
    TypeParam xContainer = this->Make(3);
    const std::pair<std::uint64_t, List> c_vSteps[] = {
        {5, {1, 2, 3, 0, 0}},
        {2, {1, 2}},
        {4, {1, 2, 0, 0}},
        {0, {}},
        {2, {0, 0}},
    };
    for (const auto& [nSize, vExpected] : c_vSteps)
    {
        this->Resize(xContainer, nSize);
        EXPECT_EQ(_List(xContainer), vExpected);
    }
}

TYPED_TEST(MathContainer, ContainersThatCannotGrowAreUnchanged)
{
    using List = std::vector<typename TestFixture::Element>;
    TypeParam xContainer = this->Make(3);
    const auto* pData = xContainer.GetDataPtr();
    for (const std::uint64_t nSize : {this->c_nTooMany, UINT64_MAX})
    {
        EXPECT_THROW(this->Resize(xContainer, nSize), std::length_error);
        EXPECT_THROW(this->New(nSize), std::length_error);
    }
    EXPECT_THROW(this->Resize(xContainer, this->c_nNoRoom), std::bad_alloc);
    EXPECT_EQ(xContainer.GetDataPtr(), pData);
    const auto CheckUnchanged = [&] { EXPECT_EQ(_List(xContainer), (List{1, 2, 3})); };
    CheckUnchanged();
    const auto Setup = [&] { xContainer = this->Make(3); };
    EXPECT_EQ(FailEachAllocation(
                  Setup, [&] { this->Resize(xContainer, 1000); }, CheckUnchanged),
        2);
    const TypeParam xOther = this->Make(9);
    EXPECT_EQ(FailEachAllocation(
                  Setup, [&] { xContainer = xOther; }, CheckUnchanged),
        2);
}

TYPED_TEST(MathContainer, CopiesOwnTheirElements)
{
    using List = std::vector<typename TestFixture::Element>;
    TypeParam xContainer = this->Make(3);
    const TypeParam xCopy(xContainer);
    TypeParam xAssigned = this->Make(10);
    xAssigned = xContainer;
    xContainer.GetDataPtr()[0] = 9;
    EXPECT_EQ(_List(xCopy), (List{1, 2, 3}));
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 3}));
    xAssigned.GetDataPtr()[2] = 8;
    EXPECT_EQ(_List(xAssigned), (List{1, 2, 8}));
    this->Resize(xAssigned, 2);
    EXPECT_EQ(_List(xAssigned), (List{1, 2})) << "the data pointer must follow the container's own store";
}

TYPED_TEST(MathContainer, MovesLeaveAnEmptyContainer)
{
    using List = std::vector<typename TestFixture::Element>;
    TypeParam xContainer = this->Make(3);
    const auto* pData = xContainer.GetDataPtr();
    TypeParam xMoved(std::move(xContainer));
    EXPECT_EQ(xMoved.GetDataPtr(), pData);
    EXPECT_EQ(_List(xMoved), (List{1, 2, 3}));
    EXPECT_EQ(_List(xContainer), List{}); // NOLINT(*Move,*move): defined to be empty
    EXPECT_EQ(xContainer.GetDataPtr(), nullptr);
    this->Resize(xContainer, 1);
    EXPECT_EQ(_List(xContainer), (List{0}));

    xContainer = std::move(xMoved);
    EXPECT_EQ(xContainer.GetDataPtr(), pData);
    EXPECT_EQ(_List(xContainer), (List{1, 2, 3}));
    EXPECT_EQ(_List(xMoved), List{}); // NOLINT(*Move,*move): defined to be empty

    TypeParam& xAlias = xContainer;
    xContainer = xAlias;
    EXPECT_EQ(_List(xContainer), (List{1, 2, 3}));
    xContainer = std::move(xAlias);
    EXPECT_EQ(_List(xContainer), (List{1, 2, 3}));
}

TEST(Vector, IsIndexedByElements)
{
    CQxVector<float> xVector(3);
    xVector[1] = 5;
    EXPECT_EQ(_List(xVector), (Values{0, 5, 0}));
    EXPECT_EQ(std::as_const(xVector)[1], 5.0F);
}

TEST(Vector, ResizeIsTheThirdVirtualOperation)
{
    using Vector = CQxVector<float>;
    EXPECT_EQ(VirtualSlots(static_cast<float* (Vector::*)()>(&Vector::GetDataPtr),
                  static_cast<const float* (Vector::*)() const>(&Vector::GetDataPtr), &Vector::Resize),
        (Slots{0, 1, 2}));
}

TEST(Matrix, IsStoredRowByRow)
{
    CQxMatrix<float> xMatrix(2, 3);
    xMatrix(0, 2) = 5;
    xMatrix(1, 0) = 7;
    EXPECT_EQ(_List(xMatrix), (Values{0, 0, 5, 7, 0, 0}));
    EXPECT_EQ(std::as_const(xMatrix)(1, 0), 7.0F);
    const CQxMatrix<float> xCopy(xMatrix);
    EXPECT_EQ(xCopy.GetRowCount(), 2U);
    EXPECT_EQ(xCopy.GetColCount(), 3U);

    // Other dimensions leave the elements where they are in the store.
    xMatrix.SetDimensions(4, 1);
    EXPECT_EQ(_List(xMatrix), (Values{0, 0, 5, 7}));
    xMatrix.SetDimensions(0, UINT64_MAX);
    EXPECT_EQ(xMatrix.GetRowCount(), 0U);
    EXPECT_EQ(xMatrix.GetColCount(), UINT64_MAX);
    const CQxMatrix<float> xMoved(std::move(xMatrix));
    EXPECT_EQ(xMatrix.GetColCount(), 0U); // NOLINT(*Move,*move): defined to be empty
}

TEST(Matrix, ElementCountsBeyond64BitsAreRefused)
{
    constexpr std::uint64_t c_nTwoTo32 = std::uint64_t{1} << 32;
    constexpr std::uint64_t c_nTwoTo63 = std::uint64_t{1} << 63;
    CQxMatrix<float> xMatrix(2, 3);
    // The first three products are 0, 0 and 4 in 64 bits.
    for (const auto& [nRows, nCols] :
        {std::pair{c_nTwoTo32, c_nTwoTo32}, {c_nTwoTo63, 2}, {c_nTwoTo63 + 2, 2}, {UINT64_MAX, UINT64_MAX}})
    {
        EXPECT_THROW(xMatrix.SetDimensions(nRows, nCols), std::length_error);
        EXPECT_EQ(xMatrix.GetRowCount(), 2U);
        EXPECT_EQ(xMatrix.GetColCount(), 3U);
        EXPECT_THROW((CQxMatrix<float>{nRows, nCols}), std::length_error);
    }
}

/// Refuses what exceeds its budget, with an exception of the SDK.
class CBudgetMatrix : public CQxMatrix<float>
{
public:
    std::uint64_t nBudget = 4;

protected:
    void _AdmitElements(std::uint64_t nElements) override
    {
        if (nElements > nBudget)
        {
            Throw({"Test/Budget", "_AdmitElements"}, "Over budget");
        }
    }
};

TEST(Matrix, IsEmptiedWhenItsGrowthIsRefused)
{
    CBudgetMatrix xMatrix;
    xMatrix.SetDimensions(2, 2);
    xMatrix(1, 1) = 5;
    EXPECT_TRUE(ThrowsChain([&] { xMatrix.SetDimensions(2, 3); },
        {Plain("Error resizing matrix", "SetDimensions", "Qx.Core.Math/QxMatrix"),
            Plain("Over budget", "_AdmitElements", "Test/Budget")}));
    EXPECT_EQ(xMatrix.GetRowCount(), 0U);
    EXPECT_EQ(xMatrix.GetColCount(), 0U);
    xMatrix.SetDimensions(2, 2);
    EXPECT_EQ(_List(xMatrix), (Values{0, 0, 0, 0})) << "elements of before the refusal must not come back";

    // An error of the standard library after the hook has agreed is neither wrapped nor does it empty the matrix.
    xMatrix.nBudget = UINT64_MAX;
    EXPECT_THROW(xMatrix.SetDimensions(1, UINT64_MAX), std::length_error);
    EXPECT_EQ(xMatrix.GetRowCount(), 2U);
    EXPECT_EQ(_List(xMatrix), (Values{0, 0, 0, 0}));
}

constexpr float c_fInfinity = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float c_fMax = std::numeric_limits<float>::max();

using Triple = std::array<float, 3>;
using Counts = std::array<int, 3>;

constexpr Triple c_vZero{0, 0, 0};
constexpr Triple c_vOne{1, 1, 1};

void _Create(CQxMapping3D& xMapping, const Triple& vMinimum, const Triple& vMaximum, const Counts& vCounts,
    const float* pValues = nullptr)
{
    xMapping.Create(vMinimum[0], vMinimum[1], vMinimum[2], vMaximum[0], vMaximum[1], vMaximum[2], vCounts[0],
        vCounts[1], vCounts[2], pValues);
}

Values _List(const CQxMapping3D& xMapping)
{
    return _List(xMapping.GetDataPtr(), xMapping.GetByteCount() / 4);
}

/// The values 1, 2, 3 ...
Values _Sequence(std::size_t nCount)
{
    Values vValues(nCount);
    std::iota(vValues.begin(), vValues.end(), 1.0F);
    return vValues;
}

/// 2 x 3 x 4 cells with the values 1 to 24 and the name "Pattern".
CQxMapping3D _MakeMapping()
{
    CQxMapping3D xMapping;
    _Create(xMapping, {1, 2, 3}, {2, 8, 11}, {2, 3, 4}, _Sequence(24).data());
    xMapping.SetName("Pattern");
    return xMapping;
}

void _ExpectPattern(const CQxMapping3D& xMapping)
{
    EXPECT_EQ(xMapping.GetMinimum(), (Triple{1, 2, 3}));
    EXPECT_EQ(xMapping.GetMaximum(), (Triple{2, 8, 11}));
    EXPECT_EQ(xMapping.GetCellCounts(), (Counts{2, 3, 4}));
    EXPECT_EQ(xMapping.GetStepSizes(), (Triple{0.5F, 2, 2}));
    EXPECT_STREQ(xMapping.GetName().ToCString(), "Pattern");
    EXPECT_EQ(_List(xMapping), _Sequence(24));
}

void _ExpectEmpty(const CQxMapping3D& xMapping)
{
    EXPECT_EQ(xMapping.GetMinimum(), Triple{}); // NOLINT(*Move): of moved-from mappings too
    EXPECT_EQ(xMapping.GetMaximum(), Triple{});
    EXPECT_EQ(xMapping.GetCellCounts(), Counts{});
    EXPECT_EQ(xMapping.GetStepSizes(), Triple{});
    EXPECT_EQ(xMapping.GetDataPtr(), nullptr);
    EXPECT_STREQ(xMapping.GetName().ToCString(), "");
}

TEST(Mapping3D, CreateSetsBoxGridStepsAndValues)
{
    _ExpectEmpty(CQxMapping3D());
    _ExpectPattern(_MakeMapping());
}

TEST(Mapping3D, CreateReplacesValuesStepsAndGridButNotTheName)
{
    const std::pair<Counts, std::size_t> c_vCases[] = {{{2, 2, 1}, 4}, {{4, 3, 2}, 24}, {{5, 5, 5}, 125}};
    for (const auto& [vCounts, nCells] : c_vCases)
    {
        for (const bool bValues : {false, true})
        {
            CQxMapping3D xMapping = _MakeMapping();
            xMapping.SetStepSizes(9, 9, 9);
            const Values vGiven(nCells, 7.0F);
            _Create(xMapping, c_vZero, c_vOne, vCounts, bValues ? vGiven.data() : nullptr);
            EXPECT_EQ(xMapping.GetCellCounts(), vCounts);
            EXPECT_EQ(xMapping.GetStepSizes()[1], 1.0F / static_cast<float>(vCounts[1]));
            // Without initial values those of as many cells stay.
            EXPECT_EQ(_List(xMapping), bValues ? vGiven : nCells == 24 ? _Sequence(24) : Values(nCells));
            EXPECT_STREQ(xMapping.GetName().ToCString(), "Pattern");
        }
    }
}

TEST(Mapping3D, InitialValuesMayBeItsOwn)
{
    const struct
    {
        Counts vCounts;
        std::size_t nOffset;
        Values vExpected;
    } axCases[] = {
        {{4, 3, 2}, 0, _Sequence(24)},
        {{3, 1, 1}, 0, {1, 2, 3}},
        {{3, 1, 1}, 5, {6, 7, 8}},
        {{0, 1, 1}, 24, {}},
    };
    for (const auto& xCase : axCases)
    {
        CQxMapping3D xMapping = _MakeMapping();
        _Create(xMapping, c_vZero, c_vOne, xCase.vCounts, xMapping.GetDataPtr() + xCase.nOffset);
        EXPECT_EQ(_List(xMapping), xCase.vExpected);
    }
}

TEST(Mapping3D, AxesWithoutCellsOrExtentAreLegal)
{
    CQxMapping3D xMapping = _MakeMapping();
    _Create(xMapping, c_vZero, c_vOne, {0, INT_MAX, INT_MAX});
    EXPECT_EQ(xMapping.GetByteCount(), 0U);
    EXPECT_EQ(xMapping.GetStepSizes()[0], 0.0F);
    _Create(xMapping, {4, -1, 0}, {4, -1, 1}, {2, 1, 1});
    EXPECT_EQ(xMapping.GetStepSizes(), (Triple{0, 0, 1}));
    EXPECT_EQ(_List(xMapping), (Values{0, 0}));
}

TEST(Mapping3D, ARefusedVolumeChangesNothing)
{
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
        {c_vZero, c_vOne, {-1, 1, 1}, pcNegative},
        {c_vZero, c_vOne, {1, -1, 1}, pcNegative},
        {c_vZero, c_vOne, {0, 1, INT_MIN}, pcNegative},
        {{c_fNaN, 0, 0}, c_vOne, {-1, 1, 1}, pcNegative},
        {{0, c_fNaN, 0}, c_vOne, {1, 1, 1}, pcInfinite},
        {c_vZero, {c_fInfinity, 1, 1}, {1, 1, 1}, pcInfinite},
        {{0, 0, -c_fInfinity}, c_vOne, {1, 1, 1}, pcInfinite},
        {{c_fInfinity, 0, 0}, {c_fInfinity, 1, 1}, {1, 1, 1}, pcInfinite},
        {{-c_fMax, 0, 0}, {c_fMax, 1, 1}, {0, 1, 1}, pcInfinite},
        {{2, 0, 0}, {1, 1, c_fNaN}, {1, 1, 1}, pcInfinite},
        {{2, 0, 0}, c_vOne, {1, 1, 1}, pcReversed},
        {{0, 2, 0}, c_vOne, {1, 1, 1}, pcReversed},
        {{0, 0, 2}, c_vOne, {INT_MAX, INT_MAX, INT_MAX}, pcReversed},
        {c_vZero, c_vOne, {INT_MAX, INT_MAX, INT_MAX}, pcTooLarge},
        // 2^64 cells and 2^61 cells, which take 0 bytes in 64 bits and 2^63.
        {c_vZero, c_vOne, {1 << 30, 1 << 30, 16}, pcTooLarge},
        {c_vZero, c_vOne, {1 << 30, 1 << 30, 2}, pcTooLarge},
    };
    for (const auto& xCase : axCases)
    {
        CQxMapping3D xMapping = _MakeMapping();
        EXPECT_TRUE(ThrowsChain([&] { _Create(xMapping, xCase.vMinimum, xCase.vMaximum, xCase.vCounts); },
            {Plain(xCase.pcMessage, "Create", "Qx.Core.Math/QxMapping3D")}))
            << "case " << &xCase - axCases;
        _ExpectPattern(xMapping);
    }
}

TEST(Mapping3D, RunningOutOfMemoryChangesNothing)
{
    CQxMapping3D xMapping = _MakeMapping();
    // 2^60 cells: legal, but more than any address space has.
    EXPECT_THROW(_Create(xMapping, c_vZero, c_vOne, {1 << 30, 1 << 30, 1}), std::bad_alloc);
    _ExpectPattern(xMapping);

    const auto Setup = [&] { xMapping = _MakeMapping(); };
    const auto CheckUnchanged = [&] { _ExpectPattern(xMapping); };
    const Values vValues = _Sequence(60);
    for (const float* pValues : {static_cast<const float*>(nullptr), vValues.data()})
    {
        const auto Create = [&] { _Create(xMapping, c_vZero, c_vOne, {3, 4, 5}, pValues); };
        EXPECT_EQ(FailEachAllocation(Setup, Create, CheckUnchanged), 2);
    }
    const auto Rename = [&] { xMapping.SetName("a name that is too long for the string object"); };
    EXPECT_EQ(FailEachAllocation(Setup, Rename, CheckUnchanged), 2 * 2) << "the text and the name";
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
    const std::pair<Counts, std::uint32_t> axCases[] = {
        {{3, 5, 7}, 420},
        {{1 << 30, 1, 1}, 0},
        {{1, (1 << 30) + 1, 1}, 4},
        {{1, 1, (1 << 30) - 1}, UINT32_MAX - 3},
        {{INT_MAX, INT_MAX, 1}, 4},
        {{INT_MAX, INT_MAX, 0}, 0},
        {{1000, 1000, 5000}, 2820130816},
        {{-1, 1, 1}, UINT32_MAX - 3},
    };
    for (const auto& [vCounts, uBytes] : axCases)
    {
        EXPECT_EQ(CVastMapping(vCounts).GetByteCount(), uBytes);
    }
}

TEST(Mapping3D, CopiesOwnTheirValues)
{
    CQxMapping3D xMapping = _MakeMapping();
    const CQxMapping3D xCopy(xMapping);
    CQxMapping3D xAssigned;
    _Create(xAssigned, c_vZero, c_vOne, {9, 9, 9});
    xAssigned = xMapping;
    xMapping.GetDataPtr()[0] = 99;
    xMapping.SetName("Other");
    _ExpectPattern(xCopy);
    _ExpectPattern(xAssigned);

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
        Triple vMinimum;
        Triple vMaximum;
        Counts vCounts;
        Triple vSteps;
    } xFields;
    std::memcpy(&xFields, static_cast<const void*>(&xMapping), sizeof(xFields));
    EXPECT_EQ(xFields.pValues, xMapping.GetDataPtr());
    EXPECT_EQ(xFields.vMinimum, xMapping.GetMinimum());
    EXPECT_EQ(xFields.vMaximum, xMapping.GetMaximum());
    EXPECT_EQ(xFields.vCounts, xMapping.GetCellCounts());
    EXPECT_EQ(xFields.vSteps, xMapping.GetStepSizes());
    EXPECT_EQ(static_cast<const void*>(&xMapping.GetName()),
        static_cast<const void*>(reinterpret_cast<const char*>(&xMapping) + sizeof(xFields)));
}

TEST(Mapping3D, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlots(&CQxMapping3D::GetMinimum, &CQxMapping3D::GetMaximum, &CQxMapping3D::GetCellCounts,
                  &CQxMapping3D::GetStepSizes, &CQxMapping3D::GetByteCount,
                  static_cast<float* (CQxMapping3D::*)()>(&CQxMapping3D::GetDataPtr),
                  static_cast<const float* (CQxMapping3D::*)() const>(&CQxMapping3D::GetDataPtr)),
        (Slots{0, 1, 2, 3, 4, 5, 6}));
}

} // namespace

} // namespace Qx::Test
