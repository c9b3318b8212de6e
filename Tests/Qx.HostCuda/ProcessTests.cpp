#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <cublas_v2.h>
#include <gmock/gmock.h>

#include "HostCudaTest.h"

// What can only be seen from outside a process, or in one that starts afresh: every test runs in a child.

namespace Qx::Test
{

namespace
{

class ProcessDeathTest : public ::testing::Test
{
protected:
    ProcessDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

/// Expects that a child that calls `Act()`, and exits then if it still runs, ends with a code.
template <class TAct>
void ExpectExit(int iCode, TAct&& Act, const char* pcOutput = "")
{
    EXPECT_EXIT((Act(), std::exit(0)), ::testing::ExitedWithCode(iCode), pcOutput);
}

void ExitUnless(bool bRight)
{
    if (!bRight)
    {
        std::_Exit(3);
    }
}

std::size_t CountDevices()
{
    int iCount = 0;
    ExitUnless(cudaGetDeviceCount(&iCount) == cudaSuccess);
    return static_cast<std::size_t>(iCount);
}

std::size_t CountThreads()
{
    return static_cast<std::size_t>(HostCuda::GetLaunchThreads());
}

std::size_t GetMemory()
{
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    ExitUnless(cudaMemGetInfo(&nFree, &nTotal) == cudaSuccess && nFree == nTotal);
    return nTotal;
}

struct SVariableCase
{
    const char* pcName;
    const char* pcValue; ///< null: not set
    std::size_t nExpected;
    std::size_t (*Get)();
    bool bUnderstood = true;
};

TEST_F(ProcessDeathTest, NumbersInRangeComeFromTheEnvironment)
{
    const std::size_t nMemory =
        static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 2;
    const std::size_t nAll = std::max(1U, std::thread::hardware_concurrency());
    const SVariableCase vCases[] = {
        {"QX_HOSTCUDA_DEVICES", nullptr, 1, CountDevices},
        {"QX_HOSTCUDA_DEVICES", "3", 3, CountDevices},
        {"QX_HOSTCUDA_DEVICES", "64", 64, CountDevices},
        {"QX_HOSTCUDA_DEVICES", "65", 1, CountDevices, false},
        {"QX_HOSTCUDA_DEVICES", "-1", 1, CountDevices, false},
        {"QX_HOSTCUDA_DEVICES", "", 1, CountDevices},
        {"QX_HOSTCUDA_DEVICES", "2x", 1, CountDevices, false},
        {"QX_HOSTCUDA_DEVICES", "+2", 1, CountDevices, false},
        {"QX_HOSTCUDA_DEVICES", "99999999999999999999999", 1, CountDevices, false},
        {"QX_HOSTCUDA_MEMORY", nullptr, nMemory, GetMemory},
        {"QX_HOSTCUDA_MEMORY", "1000000", 1000000, GetMemory},
        {"QX_HOSTCUDA_MEMORY", "0", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_MEMORY", "64M", 64 << 20, GetMemory},
        {"QX_HOSTCUDA_MEMORY", "5G", std::size_t{5} << 30, GetMemory},
        {"QX_HOSTCUDA_MEMORY", "1T", std::size_t{1} << 40, GetMemory},
        {"QX_HOSTCUDA_MEMORY", "64X", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_MEMORY", "64MB", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_MEMORY", "M", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_MEMORY", "16777217T", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_DEVICES", "2K", 1, CountDevices, false},
        {"QX_HOSTCUDA_MEMRY", "64M", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_MEMORY", "18446744073709551615", nMemory, GetMemory, false},
        {"QX_HOSTCUDA_THREADS", "1", 1, CountThreads},
        {"QX_HOSTCUDA_THREADS", "2", std::min<std::size_t>(2, nAll), CountThreads},
        {"QX_HOSTCUDA_THREADS", "1000000", nAll, CountThreads},
        {"QX_HOSTCUDA_THREADS", "0", nAll, CountThreads, false},
    };
    for (const auto& [pcName, pcValue, nExpected, Get, bUnderstood] : vCases)
    {
        SCOPED_TRACE(::testing::Message() << pcName << '=' << (pcValue != nullptr ? pcValue : "not set"));
        const auto Act = [&, pcVariable = pcName, pcText = pcValue, nWanted = nExpected, GetNumber = Get]
        {
            unsetenv(pcVariable);
            if (pcText != nullptr)
            {
                setenv(pcVariable, pcText, 1);
            }
            ExitUnless(GetNumber() == nWanted);
        };
        const ::testing::Matcher<const std::string&> xSaid = ::testing::HasSubstr("is not understood");
        EXPECT_EXIT((Act(), std::exit(0)), ::testing::ExitedWithCode(0), bUnderstood ? ::testing::Not(xSaid) : xSaid);
    }
}

TEST_F(ProcessDeathTest, WithoutDevicesCallsSaySo)
{
    const auto Act = []
    {
        setenv("QX_HOSTCUDA_DEVICES", "0", 1);
        int iVersion = 0;
        ExitUnless(cudaGetLastError() == cudaSuccess && cudaRuntimeGetVersion(&iVersion) == cudaSuccess);
        int iValue = 7;
        void* pMemory = nullptr;
        cudaStream_t hStream = nullptr;
        unsigned char vHost[4] = {};
        for (const cudaError_t eError :
            {cudaGetDeviceCount(&iValue), cudaGetDevice(&iValue), cudaSetDevice(0), cudaMalloc(&pMemory, 16),
                cudaFree(nullptr), cudaStreamCreate(&hStream), cudaStreamSynchronize(nullptr),
                cudaEventDestroy(nullptr), cudaMemcpy(vHost, vHost + 2, 2, cudaMemcpyHostToHost),
                cudaDeviceSynchronize(), cudaDeviceReset(), cudaPeekAtLastError(), cudaGetLastError()})
        {
            ExitUnless(eError == cudaErrorNoDevice);
        }
        ExitUnless(iValue == 7 && cudaGetLastError() == cudaSuccess &&
            HostCuda::RaiseFault(0, cudaErrorAssert) == cudaErrorInvalidDevice);
    };
    ExpectExit(0, Act);
}

template <class TKernel, class... TArguments>
void Launch(unsigned uBlocks, TKernel xKernel, TArguments... xArguments)
{
    cudaLaunchConfig_t xConfig{};
    xConfig.gridDim = uBlocks;
    cudaLaunchKernelEx(&xConfig, xKernel, xArguments...);
}

/// A client that leaves everything behind: memory, handles, a held stream with work queued after it.
void LeaveEverything()
{
    static CHold* volatile s_pHold = nullptr; // so that the hold is not lost but left
    const cudaStream_t hStream = MakeStream();
    const cudaEvent_t hEvent = MakeEvent();
    void* pMemory = nullptr;
    std::size_t nPitch = 0;
    s_pHold = new CHold(hStream);
    s_pHold->Await();
    cudaMallocPitch(&pMemory, &nPitch, 100, 100);
    cudaMemsetAsync(pMemory, 1, nPitch * 100, hStream);
    cudaMemsetAsync(pMemory, 2, nPitch * 100, nullptr);
    cudaEventRecord(hEvent, nullptr);
    static unsigned char s_vSource[16] = {};
    cudaMemcpyToSymbolAsync(s_vSource, s_vSource, 8, 8, cudaMemcpyDefault, hStream);
    cudaStreamDestroy(hStream);
}

/// Leaves a kernel behind that never ends by itself.
void LeaveRunning()
{
    static std::atomic<bool> s_bRuns;
    const auto Sleep = []
    {
        s_bRuns = true;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    };
    Launch(1000, Sleep);
    while (!s_bRuns)
    {
        std::this_thread::yield();
    }
}

/// Leaves an object that still uses the runtime while the process exits.
void LeaveLateClient()
{
    static const struct SLateClient
    {
        void* pMemory = MakeMemory(16);
        ~SLateClient()
        {
            cudaMemset(pMemory, 1, 16);
            ExitUnless(cudaFree(pMemory) == cudaSuccess && cudaGetLastError() == cudaSuccess);
        }
    } s_xClient;
    cudaMemsetAsync(s_xClient.pMemory, 1, 16, nullptr);
}

void LeaveComputing(int iMilliseconds)
{
    constexpr int c_iOrder = 700;
    constexpr std::size_t c_nBytes = 2 * c_iOrder * c_iOrder * sizeof(float);
    const float fOne = 1;
    auto* const pMatrix = static_cast<float*>(MakeMemory(c_nBytes));
    cublasHandle_t hHandle = nullptr;
    cudaMemset(pMatrix, 0, c_nBytes);
    cublasCreate(&hHandle);
    cublasSetStream(hHandle, MakeStream());
    for (int iCall = 0; iCall < 100; ++iCall)
    {
        cublasSsyrk(hHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, c_iOrder, c_iOrder, &fOne, pMatrix, c_iOrder, &fOne,
            pMatrix + c_iOrder * c_iOrder, c_iOrder);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(iMilliseconds));
}

TEST_F(ProcessDeathTest, ExitNeitherHangsNorCrashes)
{
    for (const int iMilliseconds : {0, 3, 7, 20})
    {
        ExpectExit(
            0, [=] { LeaveComputing(iMilliseconds); }, "^$");
    }
    ExpectExit(0, LeaveEverything);
    ExpectExit(0, LeaveRunning);
    ExpectExit(0, LeaveLateClient);
    const auto ExitOnAnotherThread = []
    {
        LeaveEverything();
        std::thread([] { std::exit(0); }).join();
    };
    ExpectExit(0, ExitOnAnotherThread);
}

// As where a kernel meets a wild pointer: a handler, of the client or of a sanitizer, must see it.
TEST_F(ProcessDeathTest, AFaultOnAStreamReachesTheHandlerOfTheProcess)
{
    const auto Act = []
    {
        std::signal(SIGSEGV, [](int) { _exit(42); });
        void* const pNobody = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        const auto Write = [](void* pAddress) { *static_cast<volatile char*>(pAddress) = 1; };
        cudaLaunchHostFunc(nullptr, Write, pNobody);
        cudaDeviceSynchronize();
    };
    ExpectExit(42, Act);
}

__global__ void CrashInOneThread(int iRaised)
{
    if (blockIdx.x == 2 && threadIdx.y == 5)
    {
        std::raise(iRaised);
    }
}

// A kernel is named by its type or, if that does not tell, by its function.
void Crash(int iSignal, bool bByFunction = false)
{
    const auto Kernel = [](int iRaised) { CrashInOneThread(iRaised); };
    const cudaLaunchConfig_t xConfig{{4, 1, 1}, {1, 8, 1}, 0, nullptr, nullptr, 0};
    bByFunction ? cudaLaunchKernelEx(&xConfig, CrashInOneThread, iSignal)
                : cudaLaunchKernelEx(&xConfig, Kernel, iSignal);
    cudaDeviceSynchronize();
}

TEST_F(ProcessDeathTest, CrashInAKernelNamesItsThreadAndGoesOn)
{
    constexpr const char* c_pcWhere = "kernel .*(Crash|lambda at).*, block .2, 0, 0., thread .0, 5, 0.";
    for (const int iSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    {
        EXPECT_DEATH(Crash(iSignal), c_pcWhere) << iSignal;
    }
    EXPECT_DEATH(Crash(SIGSEGV, true), "kernel [^ ]*CrashInOneThread[^ ]*, block .2, 0, 0., thread .0, 5, 0.");
    const auto CrashHandled = []
    {
        std::signal(SIGSEGV, [](int) { std::_Exit(7); });
        Crash(SIGSEGV);
    };
    ExpectExit(7, CrashHandled, c_pcWhere);
    const auto CrashOutside = []
    {
        Crash(0);
        std::raise(SIGFPE);
    };
    EXPECT_DEATH(CrashOutside(), ::testing::Not(::testing::HasSubstr("kernel")));
}

TEST_F(ProcessDeathTest, ATrapOutsideOfKernelsEndsTheProcess)
{
    EXPECT_DEATH(__trap(), "");
}

#if defined(QX_HOSTCUDA_ASAN)

TEST_F(ProcessDeathTest, AddressSanitizerFindsMisuseOfDeviceMemory)
{
    const auto MakePitched = []
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        cudaMallocPitch(&pMemory, &nPitch, 100, 4);
        return static_cast<volatile unsigned char*>(pMemory);
    };
    EXPECT_DEATH(MakePitched()[100] = 1, "use-after-poison");
    EXPECT_DEATH(MakePitched()[3 * 512 + 511] = 1, "use-after-poison");
    EXPECT_DEATH(MakePitched()[4 * 512] = 1, "heap-buffer-overflow");
    const auto MakeFreed = []
    {
        void* const pMemory = MakeMemory(100);
        cudaFree(pMemory);
        return static_cast<volatile unsigned char*>(pMemory);
    };
    EXPECT_DEATH(MakeFreed()[0] = 1, "heap-use-after-free");
    // A copy that may cross the padding of its device side is still checked on its host side.
    EXPECT_DEATH(
        {
            const Bytes vShort(4 * 512 - 1);
            cudaMemcpy(const_cast<unsigned char*>(MakePitched()), vShort.data(), 4 * 512, cudaMemcpyHostToDevice);
        },
        "heap-buffer-overflow");
    // Kernels are checked like other code.
    const auto ReadInKernel = [&](std::size_t nOffset)
    {
        Launch(
            2, [](volatile unsigned char* pFrom) { static_cast<void>(pFrom[0]); }, MakePitched() + nOffset);
        cudaDeviceSynchronize();
    };
    ExpectExit(0, [&] { ReadInKernel(3 * 512 + 99); });
    EXPECT_DEATH(ReadInKernel(100), "use-after-poison");
    EXPECT_DEATH(ReadInKernel(4 * 512), "heap-buffer-overflow");
}

#endif

#if defined(QX_HOSTCUDA_TSAN)

/// What every client below has: a block, streams, and a host buffer that outlives the work.
struct SClient
{
    cudaStream_t hStream = MakeStream();
    cudaStream_t hOther = MakeStream();
    void* pDevice = MakeMemory(64);
    Bytes vHost = Bytes(64);

    /// Records a new event.
    static cudaEvent_t Record(cudaStream_t hOn, unsigned uFlags = cudaEventDefault)
    {
        const cudaEvent_t hEvent = MakeEvent(uFlags);
        cudaEventRecord(hEvent, hOn);
        return hEvent;
    }
};

/// Time for queued work to be long done.
void Sleep()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// ThreadSanitizer ends a process that had a race with this code.
constexpr int c_iRace = 66;

TEST_F(ProcessDeathTest, ThreadSanitizerFindsForgottenSynchronisationAndAcceptsEveryWayToSynchronise)
{
    // What a client does between a download and its use. The first ones happen to take time or to touch the same
    // structures, but do not synchronise.
    const std::tuple<const char*, int, void (*)(SClient&)> vCases[] = {
        {"nothing", c_iRace, [](SClient&) {}},
        {"more work on the stream", c_iRace, [](SClient& x) { cudaMemsetAsync(x.pDevice, 1, 64, x.hStream); }},
        {"another stream is synchronised", c_iRace,
            [](SClient& x)
            {
                cudaMemsetAsync(x.pDevice, 1, 64, x.hOther);
                cudaStreamSynchronize(x.hOther);
            }},
        {"work is queued on the legacy stream", c_iRace,
            [](SClient& x) { cudaMemsetAsync(x.pDevice, 1, 64, nullptr); }},
        {"an event is recorded on the legacy stream", c_iRace, [](SClient&) { SClient::Record(nullptr); }},
        {"an event is recorded", c_iRace, [](SClient& x) { SClient::Record(x.hStream); }},
        {"memory is allocated", c_iRace, [](SClient&) { MakeMemory(64); }},
        {"stream", 0, [](SClient& x) { cudaStreamSynchronize(x.hStream); }},
        {"legacy stream", 0, [](SClient&) { cudaStreamSynchronize(nullptr); }},
        {"device", 0, [](SClient&) { cudaDeviceSynchronize(); }},
        {"query", 0,
            [](SClient& x)
            {
                while (cudaStreamQuery(x.hStream) == cudaErrorNotReady)
                {
                    std::this_thread::yield();
                }
            }},
        {"event", 0, [](SClient& x) { cudaEventSynchronize(SClient::Record(x.hStream)); }},
        {"event on the legacy stream after the work is done", 0,
            [](SClient&)
            {
                Sleep();
                cudaEventSynchronize(SClient::Record(nullptr));
            }},
        {"another stream that waits for an event", 0,
            [](SClient& x)
            {
                cudaStreamWaitEvent(x.hOther, SClient::Record(x.hStream, cudaEventDisableTiming));
                cudaStreamSynchronize(x.hOther);
            }},
        {"synchronous call", 0, [](SClient& x) { cudaMemset(x.pDevice, 1, 64); }},
        {"free", 0, [](SClient& x) { cudaFree(x.pDevice); }},
        {"reset", 0, [](SClient&) { cudaDeviceReset(); }},
    };
    for (const auto& [pcName, iCode, Act] : vCases)
    {
        SCOPED_TRACE(pcName);
        const auto Download = [Between = Act, bRace = iCode == c_iRace]
        {
            SClient xClient;
            cudaMemcpyAsync(xClient.vHost.data(), xClient.pDevice, 64, cudaMemcpyDeviceToHost, xClient.hStream);
            if (bRace)
            {
                Sleep();
            }
            Between(xClient);
            Sleep();
            [[maybe_unused]] const unsigned char uRead = static_cast<volatile unsigned char&>(xClient.vHost[5]);
            std::exit(0);
        };
        ExpectExit(iCode, Download, iCode == c_iRace ? "data race" : "");
    }
    const auto ChangeSource = []
    {
        SClient xClient;
        cudaMemcpyAsync(xClient.pDevice, xClient.vHost.data(), 64, cudaMemcpyHostToDevice, xClient.hStream);
        xClient.vHost[5] = 1;
        cudaStreamSynchronize(xClient.hStream);
        std::exit(0);
    };
    ExpectExit(c_iRace, ChangeSource, "data race");
}

TEST_F(ProcessDeathTest, ThreadSanitizerFindsRacesBetweenBlocksOnly)
{
    if (HostCuda::GetLaunchThreads() == 1)
    {
        return; // one thread has no races
    }
    // Two blocks on two threads each write into their own place, or both into one, ordered by nothing: atomics are
    // relaxed. One after the other, since ThreadSanitizer may miss two accesses at the very same time.
    for (const auto& [bSame, iCode] : {std::pair{false, 0}, {true, c_iRace}})
    {
        const auto Act = [bOne = bSame]
        {
            int* pData = nullptr;
            cudaMallocManaged(&pData, 64 * sizeof(int)); // the counter apart, so that its use hides no write
            std::fill_n(pData, 64, 0);
            const auto Write = [](int* pValues, bool bOnePlace)
            {
                atomicAdd(&pValues[0], 1);
                while (atomicAdd(&pValues[0], 0) < 2 + static_cast<int>(blockIdx.x))
                {
                    std::this_thread::yield();
                }
                pValues[bOnePlace ? 32 : 32 + blockIdx.x] = 7;
                atomicAdd(&pValues[0], 1);
            };
            Launch(2, Write, pData, bOne);
            cudaDeviceSynchronize();
        };
        ExpectExit(iCode, Act, bSame ? "data race" : "");
    }
}

#endif

} // namespace

} // namespace Qx::Test
