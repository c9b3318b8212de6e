#pragma once

#include <cstddef>

namespace Qx::HostCuda
{

/// Checks that `nByteCount` bytes from `nOffset` on in a symbol are the writable data of a loaded module, so that no
/// garbage is ever written through. cudaErrorInvalidSymbol: null, or an address that is no such data;
/// cudaErrorInvalidValue: the bytes leave the module's data.
///
/// The size of the variable is not known here; that a copy stays within it is AddressSanitizer's to check, and that
/// of the typed forms of the calls.
void CheckSymbol(const void* pSymbol, std::size_t nByteCount, std::size_t nOffset);

} // namespace Qx::HostCuda
