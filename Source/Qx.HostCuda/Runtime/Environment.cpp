#include "Qx.HostCuda/Runtime/Environment.h"

#include "Qx.HostCuda/Runtime/Handle.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

constexpr std::string_view c_sPrefix = "QX_HOSTCUDA_";

/// A number that an environment variable may set.
struct SVariable
{
    std::string_view sName; ///< without the prefix
    std::uint64_t uMin;
    std::uint64_t uMax;
    bool bBytes;          ///< K, M, G or T may follow
    std::uint64_t uValue; ///< at first the default
};

/// Reads the text of a variable; false, and nothing changed, if it is no decimal number of the range.
bool _Parse(std::string_view sText, SVariable& xVariable) noexcept
{
    std::uint64_t uValue = 0;
    const auto [pcStop, eError] = std::from_chars(sText.data(), sText.data() + sText.size(), uValue);
    const std::string_view sRest = sText.substr(static_cast<std::size_t>(pcStop - sText.data()));
    const std::size_t nUnit = sRest.empty() ? 0 : std::string_view("KMGT").find(sRest) + 1;
    const bool bUnit = sRest.empty() || (xVariable.bBytes && sRest.size() == 1 && nUnit != 0);
    if (eError != std::errc{} || !bUnit || uValue > UINT64_MAX >> (10 * nUnit))
    {
        return false;
    }
    uValue <<= 10 * nUnit;
    if (uValue < xVariable.uMin || uValue > xVariable.uMax)
    {
        return false;
    }
    xVariable.uValue = uValue;
    return true;
}

/// Reads all variables of the stand-in. What is not understood is said, since it would be missed silently otherwise.
SEnvironment _Read() noexcept
{
    SVariable vVariables[] = {
        {"DEVICES", 0, c_uMaxDevices, false, 1},
        {"MEMORY", 1, PTRDIFF_MAX, true, GetMachineMemory() / 2},
        {"THREADS", 1, INT_MAX, false, INT_MAX},
    };
    for (char** ppVariable = environ; ppVariable != nullptr && *ppVariable != nullptr; ++ppVariable)
    {
        const std::string_view sVariable = *ppVariable;
        if (!sVariable.starts_with(c_sPrefix))
        {
            continue;
        }
        const std::size_t nEnd = std::min(sVariable.find('='), sVariable.size());
        const std::string_view sText = sVariable.substr(std::min(nEnd + 1, sVariable.size()));
        auto* const pVariable = std::ranges::find(
            vVariables, sVariable.substr(c_sPrefix.size(), nEnd - c_sPrefix.size()), &SVariable::sName);
        const bool bKnown = pVariable != std::end(vVariables);
        if (!bKnown || (!sText.empty() && !_Parse(sText, *pVariable)))
        {
            static_cast<void>(std::fprintf(stderr, "Qx.HostCuda: %s in the environment is not understood: no such %s\n",
                *ppVariable, bKnown ? "value" : "variable"));
        }
    }
    return {static_cast<int>(vVariables[0].uValue), vVariables[1].uValue, static_cast<int>(vVariables[2].uValue)};
}

} // namespace

const SEnvironment& GetEnvironment() noexcept
{
    static const SEnvironment s_xEnvironment = _Read();
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
