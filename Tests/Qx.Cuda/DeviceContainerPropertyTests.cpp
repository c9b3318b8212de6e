#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Test
{

namespace
{

/// Vectors as matrices of one column.
template <typename T>
struct SVectors
{
    using Device = CQxCudaDeviceVector<T>;
    using Host = CQxVector<T>;
    static Host Make(std::size_t nRows, std::size_t) { return Host(nRows); }
    static void Resize(Device& xDevice, std::size_t nRows, std::size_t) { xDevice.Resize(nRows); }
    static std::pair<std::size_t, std::size_t> Shape(const Device& xDevice) { return {xDevice.GetSize(), 1}; }
    static std::size_t Count(const Host& xHost) { return xHost.GetSize(); }
    static constexpr std::size_t c_nMostCols = 1;
};

template <typename T>
struct SMatrices
{
    using Device = CQxCudaDeviceMatrix<T>;
    using Host = CQxMatrix<T>;
    static Host Make(std::size_t nRows, std::size_t nCols) { return Host(nRows, nCols); }
    static void Resize(Device& xDevice, std::size_t nRows, std::size_t nCols) { xDevice.Resize(nRows, nCols); }
    static std::pair<std::size_t, std::size_t> Shape(const Device& xDevice)
    {
        return {xDevice.GetRowCount(), xDevice.GetColCount()};
    }
    static std::size_t Count(const Host& xHost) { return xHost.GetRowCount() * xHost.GetColCount(); }
    static constexpr std::size_t c_nMostCols = 4;
};

template <typename TKind, typename T>
void CheckAnySequence(const std::vector<std::tuple<std::uint8_t, std::uint8_t, std::uint8_t>>& vSteps)
{
    typename TKind::Device xDevice;
    std::pair<std::size_t, std::size_t> xShape{0, TKind::c_nMostCols == 1 ? 1 : 0};
    std::vector<std::optional<T>> vElements; // what is not known is not compared
    T tNext = 1;
    for (const auto& [uStep, uRows, uCols] : vSteps)
    {
        const std::size_t nRows = uRows % 5;
        const std::size_t nCols = TKind::c_nMostCols == 1 ? 1 : uCols % TKind::c_nMostCols;
        switch (uStep % 4)
        {
        case 0:
        {
            auto xHost = TKind::Make(nRows, nCols);
            vElements.clear();
            for (std::size_t nIndex = 0; nIndex < nRows * nCols; ++nIndex)
            {
                vElements.emplace_back(xHost.GetDataPtr()[nIndex] = tNext++);
            }
            xDevice.Set(xHost);
            xShape = {nRows, nCols};
            break;
        }
        case 1:
            if (vElements.size() != nRows * nCols)
            {
                vElements.assign(nRows * nCols, std::nullopt);
            }
            TKind::Resize(xDevice, nRows, nCols);
            xShape = {nRows, nCols};
            break;
        case 2:
        {
            auto xHost = TKind::Make(nRows, nCols);
            if (vElements.empty())
            {
                RC_ASSERT_THROWS_AS(xDevice.Get(xHost), CQxException);
            }
            else
            {
                xDevice.Get(xHost);
            }
            RC_ASSERT(TKind::Count(xHost) == vElements.size());
            for (std::size_t nIndex = 0; nIndex < vElements.size(); ++nIndex)
            {
                RC_ASSERT(!vElements[nIndex] || *vElements[nIndex] == xHost.GetDataPtr()[nIndex]);
            }
            break;
        }
        default:
            xDevice.Delete();
            vElements.clear();
            xShape = {0, TKind::c_nMostCols == 1 ? 1 : 0};
        }
        RC_ASSERT(TKind::Shape(xDevice) == xShape);
        RC_ASSERT(xDevice.IsValid() == !vElements.empty());
        RC_ASSERT(xDevice.IsComplete());
    }
}

TEST(DeviceContainerProperty, AnySequenceOfStepsActsLikeTheModel)
{
    EXPECT_TRUE(rc::check("float vectors", CheckAnySequence<SVectors<float>, float>));
    EXPECT_TRUE(rc::check("double vectors", CheckAnySequence<SVectors<double>, double>));
    EXPECT_TRUE(rc::check("float matrices", CheckAnySequence<SMatrices<float>, float>));
    EXPECT_TRUE(rc::check("double matrices", CheckAnySequence<SMatrices<double>, double>));
}

} // namespace

} // namespace Qx::Test
