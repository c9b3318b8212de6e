#pragma once

#include <cstddef>
#include <string>

namespace Qx::GPU
{

/// Bytes of memory that this process may use: the machine's, or less where a control group (a container, a service)
/// bounds it. 0 when the system does not say. Throws `std::bad_alloc`.
/// @param sRoot the folder in which the system's files are looked for
std::size_t HostMemory(const std::string& sRoot = {});

} // namespace Qx::GPU
