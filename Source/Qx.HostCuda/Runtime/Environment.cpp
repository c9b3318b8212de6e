#include "Qx.HostCuda/Runtime/Environment.h"

#include "Qx.HostCuda/Runtime/Handle.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

/// An environment variable that is a decimal number of a range; otherwise the default.
template <class T>
T _Read(const char* pcName, T iMin, T iMax, T iDefault) noexcept
{
    const char* const pcText = std::getenv(pcName); // NOLINT(concurrency-mt-unsafe): read once, at the first call
    if (pcText == nullptr)
    {
        return iDefault;
    }
    const char* const pcEnd = pcText + std::strlen(pcText);
    T iValue{};
    const auto [pcStop, eError] = std::from_chars(pcText, pcEnd, iValue);
    return eError == std::errc{} && pcStop == pcEnd && iValue >= iMin && iValue <= iMax ? iValue : iDefault;
}

} // namespace

const SEnvironment& GetEnvironment() noexcept
{
    static const SEnvironment s_xEnvironment{
        .iDeviceCount = _Read("QX_HOSTCUDA_DEVICES", 0, static_cast<int>(c_uMaxDevices), 1),
        .nMemory = _Read<std::size_t>("QX_HOSTCUDA_MEMORY", 1, PTRDIFF_MAX, GetMachineMemory() / 2),
        .iLaunchThreads = _Read("QX_HOSTCUDA_THREADS", 1, INT_MAX, INT_MAX)};
    return s_xEnvironment;
}

int GetProcessorCount() noexcept
{
    static const int s_iCount = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    return s_iCount;
}

std::size_t GetMachineMemory() noexcept
{
    static const std::size_t s_nMemory =
        static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return s_nMemory;
}

} // namespace Qx::HostCuda
