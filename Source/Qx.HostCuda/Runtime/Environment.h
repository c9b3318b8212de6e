#pragma once

#include <cstddef>

namespace Qx::HostCuda
{

/// What the environment of the process says, or the defaults. Read once, at the first call.
struct SEnvironment
{
    int iDeviceCount = 1;
    std::size_t nMemory = 0; ///< of each device, in bytes
    int iLaunchThreads = 0;
};

/// The environment of the process.
[[nodiscard]] const SEnvironment& GetEnvironment() noexcept;

/// Number of devices.
[[nodiscard]] inline int GetDeviceCount() noexcept
{
    return GetEnvironment().iDeviceCount;
}

/// Number of processors: what a host has in place of multiprocessors.
[[nodiscard]] int GetProcessorCount() noexcept;

/// The machine's memory in bytes.
[[nodiscard]] std::size_t GetMachineMemory() noexcept;

} // namespace Qx::HostCuda
