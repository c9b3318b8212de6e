// A process that ends with blocks in objects of static storage and in the pool: it must end with code 0, and the pool
// must make no CUDA call from the end of main() on.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace
{

using Qx::GPU::CCudaMemoryPitchResource;
using Qx::GPU::CResourceManager;
using Qx::Test::CCudaRecorder;

[[noreturn]] void _Fail(const std::string& sWhat)
{
    static_cast<void>(std::fprintf(stderr, "%s\n", sWhat.c_str()));
    std::_Exit(1);
}

/// Judges the exit: the first static object of the program, hence the last to be destroyed.
struct SJudge
{
    ~SJudge()
    {
        if (std::chrono::steady_clock::now() - xEndOfMain > std::chrono::seconds(1))
        {
            _Fail("the exit waited for a thread that frees");
        }
        for (const std::string& sCall : CCudaRecorder::CallNames())
        {
            _Fail("call while the process exits: " + sCall);
        }
        if (CResourceManager::GetStatistics(0).nBlocksInUse != 0)
        {
            _Fail("the static holders did not give their blocks back");
        }
    }

    std::chrono::steady_clock::time_point xEndOfMain;
};

/// Holds a block as an image does.
class CHolder
{
public:
    explicit CHolder(bool bFree) : m_bFree(bFree) {}
    CHolder(const CHolder&) = delete;
    CHolder& operator=(const CHolder&) = delete;
    ~CHolder()
    {
        // An exception here ends the process as well.
        CResourceManager::ReleaseResource(m_xResource, m_bFree);
        if (m_xResource.m_pDevice != nullptr)
        {
            _Fail("a release during the exit did not empty the resource");
        }
    }

    void Create(std::size_t nRows) { m_xResource = CResourceManager::GetCudaMemoryPitch(640, nRows); }

private:
    CCudaMemoryPitchResource m_xResource;
    const bool m_bFree;
};

/// Asks the pool for new memory when the exit is under way.
struct SLateClient
{
    ~SLateClient()
    {
        const std::pair<const char*, void (*)()> c_vOperations[] = {
            {"pitched block", [] { CResourceManager::GetCudaMemoryPitch(640, 999); }},
            {"linear block", [] { CResourceManager::GetCudaMemory(999); }},
            {"idle block", [] { CResourceManager::GetCudaMemoryPitch(640, 4); }},
            {"trim", [] { CResourceManager::Trim(0); }},
        };
        for (const auto& [pcName, Operation] : c_vOperations)
        {
            try
            {
                Operation();
                _Fail(std::string("not refused during the exit: ") + pcName);
            }
            catch (const Qx::CQxException&) // as it must
            {
            }
        }
    }
};

// Made before the pool is used, destroyed after it is closed.
SJudge g_xJudge;
CHolder g_xFirst(false);
CHolder g_xSecond(false);
CHolder g_xFreed(true);
SLateClient g_xLateClient;

} // namespace

int main()
{
    g_xFirst.Create(1);
    g_xSecond.Create(2);
    g_xFreed.Create(3);

    // Made after the pool's first use, destroyed before it is closed.
    static CHolder s_xLate(false);
    s_xLate.Create(1);

    CHolder(false).Create(4); // leaves an idle block

    // Room for the idle block and the late holder's only: the others would need a free if the exit were not known.
    const std::size_t nIdle = CResourceManager::GetStatistics().nBytesIdle;
    CResourceManager::SetIdleLimit(nIdle / 4 * 5);
    if (nIdle == 0 || CResourceManager::GetStatistics().nBlocksInUse != 4)
    {
        _Fail("the program does not hold what it should");
    }

    // A thread that frees meanwhile, and has to wait for the device.
    const auto Busy = [](void*) { std::this_thread::sleep_for(std::chrono::seconds(3)); };
    if (cudaLaunchHostFunc(nullptr, Busy, nullptr) != cudaSuccess)
    {
        _Fail("the device was not made busy");
    }
    std::thread([] { CResourceManager::Trim(0); }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    CCudaRecorder::Reset();
    g_xJudge.xEndOfMain = std::chrono::steady_clock::now();
    return 0;
}
