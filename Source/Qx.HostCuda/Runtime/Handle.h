#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <new>
#include <utility>

namespace Qx::HostCuda
{

/// What a handle stands for. The value makes the handle an odd number, which no object has as its address.
enum class EHandle : std::uintptr_t
{
    Blas = 1,
    Stream = 3,
    Event = 5,
    Array = 7
};

/// Contents of a handle. The generation tells the successive users of a slot apart, so that a stale handle never
/// names another object.
struct SHandle
{
    std::uint64_t uDevice = 0;
    std::uint64_t uSlot = 0;
    std::uint64_t uGeneration = 0; ///< from 1 on, so that a handle is never a small number such as cudaStreamLegacy
};

inline constexpr unsigned c_uDeviceBits = 6;
inline constexpr unsigned c_uSlotBits = 20;
inline constexpr unsigned c_uGenerationBits = 64 - 3 - c_uDeviceBits - c_uSlotBits;
inline constexpr std::uint64_t c_uMaxDevices = std::uint64_t{1} << c_uDeviceBits;
inline constexpr std::uint64_t c_uSlotLimit = std::uint64_t{1} << c_uSlotBits;

static_assert(sizeof(std::uintptr_t) == 8, "handles need 64 bits");

/// Packs a handle into the runtime's handle type T.
template <class T>
T EncodeHandle(EHandle eHandle, const SHandle& xHandle) noexcept
{
    const std::uintptr_t uValue = static_cast<std::uintptr_t>(eHandle) | (xHandle.uDevice << 3) |
        (xHandle.uSlot << (3 + c_uDeviceBits)) | (xHandle.uGeneration << (3 + c_uDeviceBits + c_uSlotBits));
    return std::bit_cast<T>(uValue);
}

/// Unpacks a handle of the runtime's handle type T; false if it is no such handle.
template <class T>
bool DecodeHandle(EHandle eHandle, T hHandle, SHandle& xHandle) noexcept
{
    const auto uValue = std::bit_cast<std::uintptr_t>(hHandle);
    xHandle.uDevice = (uValue >> 3) & ((std::uint64_t{1} << c_uDeviceBits) - 1);
    xHandle.uSlot = (uValue >> (3 + c_uDeviceBits)) & (c_uSlotLimit - 1);
    xHandle.uGeneration = uValue >> (3 + c_uDeviceBits + c_uSlotBits);
    return (uValue & 7) == static_cast<std::uintptr_t>(eHandle) && xHandle.uGeneration != 0;
}

/// Objects that handles name: a handle finds its object from its creation until that is given up, and never another.
///
/// Creating takes a slot from a list of free ones; giving up puts it back there and cannot fail. Objects stay where
/// they are and are reused, never destroyed. Whoever owns the table guards it.
template <class T, class THandle, EHandle eHandle>
class CSlots
{
public:
    struct SSlot : T
    {
        explicit SSlot(std::uint64_t uNumber) : uSlot(uNumber) {}

        const std::uint64_t uSlot;
        std::uint64_t uGeneration = 1;
        THandle hHandle{};      ///< null while no handle names the object
        SSlot* pNext = nullptr; ///< of a list of slots that no handle names
    };

    /// An object of a device, as its last user left it. @throws std::bad_alloc, also when all slots are in use
    [[nodiscard]] SSlot& Create(int iDevice)
    {
        if (m_pFree == nullptr)
        {
            if (m_vSlots.size() == c_uSlotLimit)
            {
                throw std::bad_alloc();
            }
            m_pFree = &m_vSlots.emplace_back(m_vSlots.size());
        }
        SSlot& xSlot = *std::exchange(m_pFree, m_pFree->pNext);
        const auto uDevice = static_cast<std::uint64_t>(iDevice);
        xSlot.hHandle = EncodeHandle<THandle>(eHandle, {uDevice, xSlot.uSlot, xSlot.uGeneration});
        ++m_nLiveCount;
        return xSlot;
    }

    /// The object that a handle names; null if it names none.
    [[nodiscard]] SSlot* Find(THandle hHandle) noexcept
    {
        SHandle xHandle;
        if (!DecodeHandle(eHandle, hHandle, xHandle) || xHandle.uSlot >= m_vSlots.size())
        {
            return nullptr;
        }
        SSlot& xSlot = m_vSlots[xHandle.uSlot];
        return xSlot.hHandle == hHandle ? &xSlot : nullptr;
    }

    /// From here on the object's handle names nobody; its slot is in use until Recycle.
    void Close(SSlot& xSlot) noexcept
    {
        xSlot.hHandle = {};
        ++xSlot.uGeneration;
        --m_nLiveCount;
    }
    /// Lets a closed object be used again, unless its slot has no generation left that tells the next user apart.
    void Recycle(SSlot& xSlot) noexcept
    {
        if (xSlot.uGeneration >> c_uGenerationBits == 0)
        {
            xSlot.pNext = std::exchange(m_pFree, &xSlot);
        }
    }
    /// Close and Recycle.
    void Free(SSlot& xSlot) noexcept
    {
        Close(xSlot);
        Recycle(xSlot);
    }

    /// Number of objects that a handle names.
    [[nodiscard]] std::size_t GetLiveCount() const noexcept { return m_nLiveCount; }

    // All slots, also those that no handle names.
    [[nodiscard]] std::size_t size() const noexcept { return m_vSlots.size(); }
    [[nodiscard]] SSlot& operator[](std::size_t nSlot) noexcept { return m_vSlots[nSlot]; }
    [[nodiscard]] auto begin() noexcept { return m_vSlots.begin(); }
    [[nodiscard]] auto end() noexcept { return m_vSlots.end(); }
    [[nodiscard]] auto begin() const noexcept { return m_vSlots.begin(); }
    [[nodiscard]] auto end() const noexcept { return m_vSlots.end(); }

private:
    std::deque<SSlot> m_vSlots;
    SSlot* m_pFree = nullptr;
    std::size_t m_nLiveCount = 0;
};

} // namespace Qx::HostCuda
