#include "Qx.HostCuda/Kernels/Crash.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <execinfo.h>
#include <string_view>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

/// A line for standard error, put together by what a signal handler may call.
class CLine
{
public:
    CLine& operator<<(std::string_view sText) noexcept
    {
        const std::size_t nCount = std::min(sText.size(), sizeof(m_vText) - m_nSize);
        std::memcpy(m_vText + m_nSize, sText.data(), nCount);
        m_nSize += nCount;
        return *this;
    }
    CLine& operator<<(const uint3& xIndex) noexcept
    {
        const char* pcBefore = " [";
        for (const unsigned uValue : {xIndex.x, xIndex.y, xIndex.z})
        {
            char vDigits[16];
            const char* const pEnd = std::to_chars(std::begin(vDigits), std::end(vDigits), uValue).ptr;
            *this << pcBefore << std::string_view(vDigits, pEnd);
            pcBefore = ", ";
        }
        return *this << "]";
    }
    void Write() noexcept
    {
        static_cast<void>(!write(STDERR_FILENO, m_vText, m_nSize));
        m_nSize = 0;
    }

private:
    char m_vText[1024];
    std::size_t m_nSize = 0;
};

/// The type in what __PRETTY_FUNCTION__ said of a function with the template parameter TKernel.
std::string_view _GetType(std::string_view sFunction) noexcept
{
    constexpr std::string_view c_sBefore = "TKernel = ";
    const std::size_t nBegin = sFunction.find(c_sBefore);
    return nBegin == sFunction.npos
        ? sFunction
        : sFunction.substr(nBegin + c_sBefore.size(), sFunction.find_last_of(']') - nBegin - c_sBefore.size());
}

struct SSignal
{
    int iSignal;
    const char* pcName;
    struct sigaction xBefore;
};

SSignal g_vSignals[] = {
    {SIGSEGV, "SIGSEGV", {}}, {SIGBUS, "SIGBUS", {}}, {SIGFPE, "SIGFPE", {}}, {SIGILL, "SIGILL", {}}};

void _OnSignal(int iSignal, siginfo_t* pInfo, void* pContext) noexcept
{
    const SSignal& xSignal = *std::ranges::find(g_vSignals, iSignal, &SSignal::iSignal);
    const int iError = errno;
    ReportCrash(xSignal.pcName, false);
    errno = iError;
    const struct sigaction& xBefore = xSignal.xBefore;
    const bool bSent = pInfo->si_code <= 0;
    if ((xBefore.sa_flags & SA_SIGINFO) != 0)
    {
        xBefore.sa_sigaction(iSignal, pInfo, pContext);
    }
    else if (xBefore.sa_handler == SIG_DFL || (xBefore.sa_handler == SIG_IGN && !bSent))
    {
        // The instruction fails again, and what happens then is the system's to say.
        sigaction(iSignal, &xBefore, nullptr);
        if (bSent)
        {
            raise(iSignal);
        }
    }
    else if (xBefore.sa_handler != SIG_IGN)
    {
        xBefore.sa_handler(iSignal);
    }
}

} // namespace

void ReportCrash(const char* pcWhat, bool bCall) noexcept
{
    SRunning& xRunning = Running();
    if (xRunning.pKernel == nullptr || std::exchange(xRunning.bReported, true))
    {
        return;
    }
    const SKernelText xText = xRunning.pKernel->Describe();
    CLine xLine;
    xLine << "Qx.HostCuda: " << pcWhat << " in kernel ";
    if (xText.pFunction != nullptr)
    {
        xLine.Write();
        void* pFunction = const_cast<void*>(xText.pFunction);
        backtrace_symbols_fd(&pFunction, 1, STDERR_FILENO); // ends the line
        xLine << "Qx.HostCuda:";
    }
    else
    {
        xLine << _GetType(xText.pcType) << ",";
    }
    xLine << " block" << blockIdx << ", thread" << threadIdx
          << (xText.bOptimised && !bCall ? " or a later one\n" : "\n");
    xLine.Write();
}

void ReportCrashes() noexcept
{
    static const bool s_bInstalled = []
    {
        for (SSignal& xSignal : g_vSignals)
        {
            sigaction(xSignal.iSignal, nullptr, &xSignal.xBefore);
            struct sigaction xAction = xSignal.xBefore; // with its mask, and on its stack
            const bool bHandler = (xAction.sa_flags & SA_SIGINFO) != 0 || xAction.sa_handler > SIG_IGN;
            xAction.sa_flags = (bHandler ? xAction.sa_flags : SA_ONSTACK) | SA_SIGINFO;
            xAction.sa_sigaction = &_OnSignal;
            sigaction(xSignal.iSignal, &xAction, nullptr);
        }
        return true;
    }();
    static_cast<void>(s_bInstalled);
}

} // namespace Qx::HostCuda
