#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Qx.Core.Ex/QxImageFormat.h"

namespace Qx
{

/// Describes a 2D device image to a kernel, as an argument or in constant memory. Kernels are compiled against this
/// layout: 32 bytes, aligned to 8. Pixel (x, y) of a type T is `reinterpret_cast<T*>(static_cast<char*>(pData) + y *
/// nPitch)[x]`. Trivially default constructible, so that it can be declared `__constant__`.
struct SDeviceImageDesc2D
{
    CQxImageFormat xFormat; ///< the image format; all zero for an empty image
    void* pData;            ///< device address of the first byte of row 0; null for an empty image
    std::uint64_t nPitch;   ///< bytes from the start of one row to the start of the next
};

static_assert(sizeof(SDeviceImageDesc2D) == 32 && alignof(SDeviceImageDesc2D) == 8);
static_assert(offsetof(SDeviceImageDesc2D, xFormat) == 0 && offsetof(SDeviceImageDesc2D, pData) == 16 &&
    offsetof(SDeviceImageDesc2D, nPitch) == 24);
static_assert(
    std::is_trivially_copyable_v<SDeviceImageDesc2D> && std::is_trivially_default_constructible_v<SDeviceImageDesc2D>);

} // namespace Qx
