#pragma once

#include <cstddef>

namespace Qx::HostCuda
{

/// Rows of a destination and a source; a memset has no source.
struct SArea
{
    unsigned char* pTarget = nullptr;
    std::size_t nTargetPitch = 0;
    const unsigned char* pSource = nullptr;
    std::size_t nSourcePitch = 0;
    std::size_t nWidth = 0;
    std::size_t nRowCount = 0;
    unsigned char uValue = 0;
    bool bTargetPadded = false; ///< in a pitched block, whose padding is poisoned
    bool bSourcePadded = false;
};

/// Copies or sets an area that has been checked.
void Run(const SArea& xArea) noexcept;

} // namespace Qx::HostCuda
