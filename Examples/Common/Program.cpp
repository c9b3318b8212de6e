#include "Common/Program.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

namespace
{

int _Report(const SProgram& xProgram, std::string sMessage, int iExitCode)
{
    std::replace(sMessage.begin(), sMessage.end(), '\n', ' ');
    std::fprintf(stderr, "%s: %s\n", xProgram.pcName, sMessage.c_str());
    return iExitCode;
}

// A command line that the program does not understand.
class CUsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

SCommandLine _ReadCommandLine(const SProgram& xProgram, const std::vector<std::string>& vArguments)
{
    SCommandLine xLine;
    for (auto xArgument = vArguments.begin(); xArgument != vArguments.end(); ++xArgument)
    {
        const std::string& sArgument = *xArgument;
        if (std::find(xProgram.vOptions.begin(), xProgram.vOptions.end(), sArgument) != xProgram.vOptions.end())
        {
            if (++xArgument == vArguments.end() || xArgument->empty())
            {
                throw CUsageError("option '" + sArgument + "' needs a value");
            }
            xLine.xSettings[sArgument] = *xArgument;
        }
        else if (sArgument.empty() || sArgument[0] == '-')
        {
            throw CUsageError("unknown option '" + sArgument + "'");
        }
        else if (xLine.vInputs.size() == xProgram.nMaxInputs)
        {
            throw CUsageError("one argument too many: '" + sArgument + "'");
        }
        else
        {
            xLine.vInputs.push_back(sArgument);
        }
    }
    return xLine;
}

} // namespace

std::string SCommandLine::Setting(const std::string& sOption, const std::string& sDefault) const
{
    const auto xFound = xSettings.find(sOption);
    return xFound != xSettings.end() ? xFound->second : sDefault;
}

int RunProgram(const SProgram& xProgram, int iArguments, char** ppcArguments,
    const std::function<void(const SCommandLine&)>& xBody)
{
    try
    {
        const std::vector<std::string> vArguments(ppcArguments + std::min(iArguments, 1), ppcArguments + iArguments);
        if (std::find(vArguments.begin(), vArguments.end(), "--help") != vArguments.end())
        {
            std::fputs(xProgram.pcHelp, stdout);
        }
        else
        {
            xBody(_ReadCommandLine(xProgram, vArguments));
        }
        if (std::fflush(stdout) != 0)
        {
            return _Report(xProgram, std::string("cannot write to standard output: ") + std::strerror(errno), 1);
        }
        return 0;
    }
    catch (const CUsageError& xError)
    {
        return _Report(xProgram, std::string(xError.what()) + " (--help lists the options)", 2);
    }
    catch (const std::exception& xException)
    {
        return _Report(xProgram, xException.what(), 1);
    }
}

void PrintPlatform()
{
    constexpr SThrowSite c_xSite{"Examples/Common/Program", "PrintPlatform"};
    const int iDevice = CudaCall::GetDeviceID();
    cudaDeviceProp xProperties{};
    CheckCuda(cudaGetDeviceProperties(&xProperties, iDevice), c_xSite, "Error getting the properties of the device");
    int iVersion = 0;
    CheckCuda(cudaRuntimeGetVersion(&iVersion), c_xSite, "Error getting the version of the runtime");
#ifdef QX_HOSTCUDA
    const char* pcPlatform = "host stand-in for the CUDA runtime";
#else
    const char* pcPlatform = "CUDA runtime";
#endif
    std::printf("platform  %s %d.%d\n", pcPlatform, iVersion / 1000, iVersion % 1000 / 10);
    std::printf("device    %d, %s, %.1f GiB\n", iDevice, xProperties.name,
        static_cast<double>(xProperties.totalGlobalMem) / (1024.0 * 1024.0 * 1024.0));
}

void CStepTimer::Run(const std::function<void()>& xStep)
{
    const auto xStart = std::chrono::steady_clock::now();
    xStep();
    CheckCuda(cudaDeviceSynchronize(), {"Examples/Common/Program", "Run"}, "Error waiting for the device");
    m_vSeconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - xStart).count());
}

void CStepTimer::Print(std::size_t nBytes) const
{
    if (m_vSeconds.empty())
    {
        return;
    }
    std::vector<double> vLater(m_vSeconds.begin() + (m_vSeconds.size() > 1 ? 1 : 0), m_vSeconds.end());
    const auto xMiddle = vLater.begin() + static_cast<std::ptrdiff_t>(vLater.size() / 2);
    std::nth_element(vLater.begin(), xMiddle, vLater.end());
    std::printf("%-26s first %8.3f ms, then %8.3f ms, %7.2f GB/s\n", m_pcName, m_vSeconds.front() * 1e3, *xMiddle * 1e3,
        static_cast<double>(nBytes) / std::max(*xMiddle, 1e-9) * 1e-9);
}

} // namespace Qx::Examples
