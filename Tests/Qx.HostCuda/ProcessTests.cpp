#include <csignal>
#include <cstdlib>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <cublas_v2.h>

#include "HostCudaTest.h"

// What can only be seen from outside a process, or in one that starts afresh: every test runs in a child.

namespace Qx::Test
{

namespace
{

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QX_TEST_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define QX_TEST_TSAN 1
#endif
#else
#if defined(__SANITIZE_ADDRESS__)
#define QX_TEST_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define QX_TEST_TSAN 1
#endif
#endif

class ProcessDeathTest : public ::testing::Test
{
protected:
    ProcessDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

/// Sets an environment variable for one scope; null unsets it.
class CEnvironment
{
public:
    CEnvironment(const char* pcName, const char* pcValue) : m_pcName(pcName)
    {
        const char* const pcBefore = std::getenv(pcName);
        m_bSet = pcBefore != nullptr;
        m_sBefore = m_bSet ? pcBefore : "";
        Set(pcValue);
    }
    ~CEnvironment() { Set(m_bSet ? m_sBefore.c_str() : nullptr); }
    CEnvironment(const CEnvironment&) = delete;
    CEnvironment& operator=(const CEnvironment&) = delete;

private:
    void Set(const char* pcValue) const
    {
        if (pcValue != nullptr)
        {
            setenv(m_pcName, pcValue, 1);
        }
        else
        {
            unsetenv(m_pcName);
        }
    }

    const char* m_pcName;
    bool m_bSet;
    std::string m_sBefore;
};

[[noreturn]] void ExitWithDeviceCount()
{
    int iCount = 0;
    std::exit(cudaGetDeviceCount(&iCount) == cudaSuccess ? iCount : 99);
}

TEST_F(ProcessDeathTest, NumberOfDevicesComesFromTheEnvironment)
{
    struct
    {
        const char* pcValue;
        int iCount;
    } const vCases[] = {{nullptr, 1}, {"3", 3},  {"64", 64}, {"65", 1}, {"-1", 1},
                        {"", 1},      {"2x", 1}, {" 2", 1},  {"+2", 1}, {"99999999999999999999999", 1}};
    for (const auto& xCase : vCases)
    {
        SCOPED_TRACE(xCase.pcValue != nullptr ? xCase.pcValue : "not set");
        const CEnvironment xVariable("QX_HOSTCUDA_DEVICES", xCase.pcValue);
        EXPECT_EXIT(ExitWithDeviceCount(), ::testing::ExitedWithCode(xCase.iCount), "");
    }
}

[[noreturn]] void ExitWithTotalMemory(std::size_t nExpected)
{
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    const bool bRight = cudaMemGetInfo(&nFree, &nTotal) == cudaSuccess && nFree == nExpected && nTotal == nExpected;
    std::exit(bRight ? 0 : 1);
}

TEST_F(ProcessDeathTest, MemoryOfDevicesComesFromTheEnvironment)
{
    const std::size_t nDefault =
        static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 2;
    const std::pair<const char*, std::size_t> vCases[] = {
        {"1000000", 1000000},
        {nullptr, nDefault},
        {"0", nDefault},
        {"64M", nDefault},
        {"18446744073709551615", nDefault},
    };
    for (const auto& [pcValue, nExpected] : vCases)
    {
        SCOPED_TRACE(pcValue != nullptr ? pcValue : "not set");
        const CEnvironment xVariable("QX_HOSTCUDA_MEMORY", pcValue);
        EXPECT_EXIT(ExitWithTotalMemory(nExpected), ::testing::ExitedWithCode(0), "");
    }
}

[[noreturn]] void ExitAfterCallsWithoutDevice()
{
    int iValue = 7;
    void* pMemory = nullptr;
    cudaStream_t hStream = nullptr;
    unsigned char vHost[4] = {};
    bool bRight = cudaGetLastError() == cudaSuccess && cudaRuntimeGetVersion(&iValue) == cudaSuccess;
    iValue = 7;
    for (const cudaError_t eError :
         {cudaGetDeviceCount(&iValue), cudaGetDevice(&iValue), cudaSetDevice(0), cudaMalloc(&pMemory, 16),
          cudaFree(nullptr), cudaStreamCreate(&hStream), cudaStreamSynchronize(nullptr), cudaEventDestroy(nullptr),
          cudaMemcpy(vHost, vHost + 2, 2, cudaMemcpyHostToHost), cudaDeviceSynchronize(), cudaDeviceReset(),
          cudaPeekAtLastError()})
    {
        bRight = bRight && eError == cudaErrorNoDevice;
    }
    bRight = bRight && iValue == 7 && cudaGetLastError() == cudaErrorNoDevice && cudaGetLastError() == cudaSuccess &&
             HostCuda::RaiseFault(0, cudaErrorAssert) == cudaErrorInvalidDevice;
    std::exit(bRight ? 0 : 1);
}

TEST_F(ProcessDeathTest, WithoutDevicesCallsSaySo)
{
    const CEnvironment xVariable("QX_HOSTCUDA_DEVICES", "0");
    EXPECT_EXIT(ExitAfterCallsWithoutDevice(), ::testing::ExitedWithCode(0), "");
}

/// A client that leaves everything behind: memory, handles, a held stream with work queued after it.
void LeaveEverything()
{
    static CHold* volatile s_pHold = nullptr; // so that the hold is not lost but left
    cudaStream_t hStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    void* pMemory = nullptr;
    std::size_t nPitch = 0;
    cudaStreamCreate(&hStream);
    cudaEventCreate(&hEvent);
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

/// A client's object that still uses the runtime while the process exits.
struct SLateClient
{
    void* pMemory = nullptr;
    ~SLateClient()
    {
        cudaMemset(pMemory, 1, 16);
        if (cudaFree(pMemory) != cudaSuccess || cudaGetLastError() != cudaSuccess)
        {
            std::_Exit(3);
        }
    }
};

[[noreturn]] void ExitWithLateClient()
{
    static SLateClient s_xClient;
    cudaMalloc(&s_xClient.pMemory, 16);
    cudaMemsetAsync(s_xClient.pMemory, 1, 16, nullptr);
    std::exit(0);
}

[[noreturn]] void ExitOnAnotherThread()
{
    LeaveEverything();
    std::thread([] { std::exit(0); }).join();
    std::abort();
}

[[noreturn]] void ExitWhileComputing(int iMilliseconds)
{
    constexpr int c_iOrder = 700;
    const float fOne = 1;
    float* pMatrix = nullptr;
    cublasHandle_t hHandle = nullptr;
    cudaStream_t hStream = nullptr;
    cudaMalloc(reinterpret_cast<void**>(&pMatrix), 2 * c_iOrder * c_iOrder * sizeof(float));
    cudaMemset(pMatrix, 0, 2 * c_iOrder * c_iOrder * sizeof(float));
    cudaStreamCreate(&hStream);
    cublasCreate(&hHandle);
    cublasSetStream(hHandle, hStream);
    for (int iCall = 0; iCall < 100; ++iCall)
    {
        cublasSsyrk(hHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, c_iOrder, c_iOrder, &fOne, pMatrix, c_iOrder, &fOne,
                    pMatrix + c_iOrder * c_iOrder, c_iOrder);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(iMilliseconds));
    std::exit(0);
}

TEST_F(ProcessDeathTest, ExitNeitherHangsNorCrashes)
{
    for (const int iMilliseconds : {0, 3, 7, 20})
    {
        EXPECT_EXIT(ExitWhileComputing(iMilliseconds), ::testing::ExitedWithCode(0), "^$");
    }
    EXPECT_EXIT((LeaveEverything(), std::exit(0)), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ExitWithLateClient(), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ExitOnAnotherThread(), ::testing::ExitedWithCode(0), "");
}

// As where a kernel meets a wild pointer: a handler, of the client or of a sanitizer, must see it.
[[noreturn]] void ExitByAFaultOnAStream()
{
    std::signal(SIGSEGV, [](int) { _exit(42); });
    void* pNobody = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    cudaLaunchHostFunc(
        nullptr, [](void* pAddress) { *static_cast<volatile char*>(pAddress) = 1; }, pNobody);
    cudaDeviceSynchronize();
    std::exit(1);
}

TEST_F(ProcessDeathTest, AFaultOnAStreamReachesTheHandlerOfTheProcess)
{
    EXPECT_EXIT(ExitByAFaultOnAStream(), ::testing::ExitedWithCode(42), "");
}

#if defined(QX_TEST_ASAN)

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
        void* pMemory = nullptr;
        cudaMalloc(&pMemory, 100);
        cudaFree(pMemory);
        return static_cast<volatile unsigned char*>(pMemory);
    };
    EXPECT_DEATH(MakeFreed()[0] = 1, "heap-use-after-free");
    // A copy that may cross the padding of its device side is still checked on its host side.
    EXPECT_DEATH(
        {
            const std::vector<unsigned char> vShort(4 * 512 - 1);
            cudaMemcpy(const_cast<unsigned char*>(MakePitched()), vShort.data(), 4 * 512, cudaMemcpyHostToDevice);
        },
        "heap-buffer-overflow");
    static int s_vSymbol[4];
    EXPECT_DEATH(
        {
            const int vSource[8] = {};
            cudaMemcpyToSymbol(static_cast<const void*>(s_vSymbol), vSource, sizeof(vSource));
        },
        "global-buffer-overflow");
}

#endif

#if defined(QX_TEST_TSAN)

/// What every client below has: a block, a stream, and a host buffer that outlives the work.
struct SClient
{
    cudaStream_t hStream = nullptr;
    cudaStream_t hOther = nullptr;
    void* pDevice = nullptr;
    std::vector<unsigned char> vHost = std::vector<unsigned char>(64);

    SClient()
    {
        cudaStreamCreate(&hStream);
        cudaStreamCreate(&hOther);
        cudaMalloc(&pDevice, 64);
    }
    void Download() { cudaMemcpyAsync(vHost.data(), pDevice, 64, cudaMemcpyDeviceToHost, hStream); }
    /// Reads the buffer late enough for the work to be long done.
    [[noreturn]] void ReadAndExit() const
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        volatile unsigned char uSink = 0;
        uSink = vHost[5];
        static_cast<void>(uSink);
        std::exit(0);
    }
};

// ThreadSanitizer ends a process that had a race with this code.
constexpr int c_iRace = 66;

TEST_F(ProcessDeathTest, ThreadSanitizerFindsForgottenSynchronisation)
{
    // Each client does something that happens to take time or to touch the same structures, but does not synchronise.
    const std::pair<const char*, void (*)(SClient&)> vCases[] = {
        {"nothing", [](SClient&) {}},
        {"more work on the stream",
         [](SClient& xClient)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaMemsetAsync(xClient.pDevice, 1, 64, xClient.hStream);
         }},
        {"another stream is synchronised",
         [](SClient& xClient)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaMemsetAsync(xClient.pDevice, 1, 64, xClient.hOther);
             cudaStreamSynchronize(xClient.hOther);
         }},
        {"work that follows is queued on the legacy stream",
         [](SClient& xClient)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaMemsetAsync(xClient.pDevice, 1, 64, nullptr);
         }},
        {"an event is recorded on the legacy stream and nobody waits",
         [](SClient&)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaEvent_t hEvent = nullptr;
             cudaEventCreate(&hEvent);
             cudaEventRecord(hEvent, nullptr);
         }},
        {"an event is recorded and nobody waits",
         [](SClient& xClient)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaEvent_t hEvent = nullptr;
             cudaEventCreate(&hEvent);
             cudaEventRecord(hEvent, xClient.hStream);
         }},
        {"memory is allocated",
         [](SClient&)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             void* pMemory = nullptr;
             cudaMalloc(&pMemory, 64);
         }},
    };
    for (const auto& [pcName, Forget] : vCases)
    {
        SCOPED_TRACE(pcName);
        EXPECT_EXIT(
            {
                SClient xClient;
                xClient.Download();
                Forget(xClient);
                xClient.ReadAndExit();
            },
            ::testing::ExitedWithCode(c_iRace), "data race");
    }
}

TEST_F(ProcessDeathTest, ThreadSanitizerAcceptsEveryWayToSynchronise)
{
    const std::pair<const char*, void (*)(SClient&)> vCases[] = {
        {"stream", [](SClient& xClient) { cudaStreamSynchronize(xClient.hStream); }},
        {"legacy stream", [](SClient&) { cudaStreamSynchronize(nullptr); }},
        {"device", [](SClient&) { cudaDeviceSynchronize(); }},
        {"query",
         [](SClient& xClient)
         {
             while (cudaStreamQuery(xClient.hStream) == cudaErrorNotReady)
             {
                 std::this_thread::yield();
             }
         }},
        {"event",
         [](SClient& xClient)
         {
             cudaEvent_t hEvent = nullptr;
             cudaEventCreate(&hEvent);
             cudaEventRecord(hEvent, xClient.hStream);
             cudaEventSynchronize(hEvent);
         }},
        {"event on the legacy stream after the work is done",
         [](SClient&)
         {
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             cudaEvent_t hEvent = nullptr;
             cudaEventCreate(&hEvent);
             cudaEventRecord(hEvent, nullptr);
             cudaEventSynchronize(hEvent);
         }},
        {"another stream that waits for an event",
         [](SClient& xClient)
         {
             cudaEvent_t hEvent = nullptr;
             cudaEventCreateWithFlags(&hEvent, cudaEventDisableTiming);
             cudaEventRecord(hEvent, xClient.hStream);
             cudaStreamWaitEvent(xClient.hOther, hEvent);
             cudaStreamSynchronize(xClient.hOther);
         }},
        {"synchronous call", [](SClient& xClient) { cudaMemset(xClient.pDevice, 1, 64); }},
        {"free", [](SClient& xClient) { cudaFree(xClient.pDevice); }},
        {"reset", [](SClient&) { cudaDeviceReset(); }},
    };
    for (const auto& [pcName, Synchronise] : vCases)
    {
        SCOPED_TRACE(pcName);
        EXPECT_EXIT(
            {
                SClient xClient;
                xClient.Download();
                Synchronise(xClient);
                xClient.ReadAndExit();
            },
            ::testing::ExitedWithCode(0), "");
    }
}

TEST_F(ProcessDeathTest, ThreadSanitizerFindsASourceThatChangesBeforeItIsRead)
{
    EXPECT_EXIT(
        {
            SClient xClient;
            cudaMemcpyAsync(xClient.pDevice, xClient.vHost.data(), 64, cudaMemcpyHostToDevice, xClient.hStream);
            xClient.vHost[5] = 1;
            cudaStreamSynchronize(xClient.hStream);
            std::exit(0);
        },
        ::testing::ExitedWithCode(c_iRace), "data race");
}

#endif

} // namespace

} // namespace Qx::Test
