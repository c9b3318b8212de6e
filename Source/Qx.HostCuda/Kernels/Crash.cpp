#include "Qx.HostCuda/Kernels/Crash.h"

#include "Qx.HostCuda/Memory/Symbols.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <string_view>
#include <unistd.h>

// AddressSanitizer's, where it runs.
extern "C" [[gnu::weak]] void __asan_set_error_report_callback(void (*pCallback)(const char*));

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
    void Write() const noexcept { static_cast<void>(!write(STDERR_FILENO, m_vText, m_nSize)); }

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
            static_cast<void>(raise(iSignal));
        }
    }
    else if (xBefore.sa_handler != SIG_IGN)
    {
        xBefore.sa_handler(iSignal);
    }
}

/// Has clang++'s AddressSanitizer end its reports with what ran. It lies in the program, and what it calls before a
/// report can be defined nowhere else; that of g++ is a library and calls what the header of the stand-in defines.
void _ReportToo() noexcept
{
    Dl_info xWhere{};
    if (__asan_set_error_report_callback != nullptr &&
        dladdr(reinterpret_cast<const void*>(&__asan_set_error_report_callback), &xWhere) != 0 &&
        std::string_view(xWhere.dli_fname).find("libasan") == std::string_view::npos)
    {
        __asan_set_error_report_callback([](const char*) { ReportCrash("AddressSanitizer", true); });
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
    char vName[400];
    const std::size_t nName = xText.pFunction != nullptr ? GetFunctionName(xText.pFunction, vName) : 0;
    CLine xLine; // written at once, since other threads of the kernel may crash too
    xLine << "Qx.HostCuda: " << pcWhat << " in kernel "
          << (nName != 0 ? std::string_view(vName, nName) : _GetType(xText.pcType)) << ", block" << blockIdx
          << ", thread" << threadIdx << (xText.bOptimised && !bCall ? " or a later one\n" : "\n");
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
            const bool bHandler = (xAction.sa_flags & SA_SIGINFO) != 0 ||
                (xAction.sa_handler != SIG_DFL && xAction.sa_handler != SIG_IGN);
            xAction.sa_flags = (bHandler ? xAction.sa_flags : SA_ONSTACK) | SA_SIGINFO;
            xAction.sa_sigaction = &_OnSignal;
            sigaction(xSignal.iSignal, &xAction, nullptr);
        }
        _ReportToo();
        return true;
    }();
    static_cast<void>(s_bInstalled);
}

} // namespace Qx::HostCuda
