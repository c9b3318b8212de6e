#pragma once

#include "Qx.HostCuda/HostCuda.h"
#include "Qx.HostCuda/Runtime/Devices.h"
#include "Qx.HostCuda/Runtime/Handle.h"

#include <cstddef>
#include <mutex>

namespace Qx::HostCuda
{

/// An array. It has a description but no contents.
struct SArray
{
    cudaChannelFormatDesc xFormat{};
    cudaExtent xExtent{};
    unsigned uFlags = 0;
    int iDevice = 0;
    std::size_t nByteCount = 0;
};

/// The arrays of the process. Its mutex is the last that a thread takes.
class CArrays
{
public:
    /// Never destroyed: calls may be made while the process exits.
    [[nodiscard]] static CArrays& All();

    /// Allocates an array as described, at its device's expense.
    [[nodiscard]] cudaArray_t Allocate(CDevice& xDevice, const SArray& xArray);
    /// Waits for the array's device, then frees it. cudaErrorInvalidValue: no live array.
    void Free(cudaArray_t hArray);
    /// Frees all arrays of a device.
    void FreeAll(const CDevice& xDevice) noexcept;
    /// The description of an array. cudaErrorInvalidValue: no live array.
    [[nodiscard]] SArray Get(cudaArray_t hArray);
    /// Adds up the arrays of a device.
    void Count(int iDevice, SStatistics& xStatistics);

private:
    using CTable = CSlots<SArray, cudaArray_t, EHandle::Array>;

    CArrays();
    [[nodiscard]] CTable::SSlot& _Get(cudaArray_t hArray);
    void _Free(CTable::SSlot& xArray) noexcept;

    std::mutex m_xMutex;
    CTable m_vArrays;
};

/// Adds an allocation to what is alive.
void Add(SStatistics& xStatistics, EMemoryKind eKind, std::size_t nByteCount) noexcept;

} // namespace Qx::HostCuda
