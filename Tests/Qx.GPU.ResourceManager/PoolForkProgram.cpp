// A process that forks while its threads take blocks from the pool and give them back. The children end by exit(), as
// those do whose exec failed; each must come to its end although it has none of the threads.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace
{

using Qx::GPU::CCudaMemoryPitchResource;
using Qx::GPU::CResourceManager;

/// Holds a block as an image does.
struct SKeeper
{
    ~SKeeper() { CResourceManager::ReleaseResource(xResource, false); }

    CCudaMemoryPitchResource xResource;
};

// The children have the blocks, and not the threads that hold them.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the sanitizer's
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_options()
{
    return "detect_leaks=0";
}

SKeeper g_xEarly; // made before the pool is used, destroyed after it is closed

} // namespace

int main()
{
    g_xEarly.xResource = CResourceManager::GetCudaMemoryPitch(640, 1);
    static SKeeper s_xLate; // destroyed before the pool is closed
    s_xLate.xResource = CResourceManager::GetCudaMemoryPitch(640, 2);
    CResourceManager::SetIdleLimit(20000);

    std::atomic<bool> bDone = false;
    std::vector<std::thread> vThreads;
    for (std::size_t nRows = 3; nRows < 40; nRows += 12) // the last ones exceed the limit, so that frees go on too
    {
        vThreads.emplace_back(
            [&bDone, nRows]
            {
                while (!bDone)
                {
                    CCudaMemoryPitchResource xResource = CResourceManager::GetCudaMemoryPitch(640, nRows);
                    CResourceManager::ReleaseResource(xResource, false);
                }
            });
    }
    int iFailed = 0;
    for (int iChild = 0; iChild < 40 && iFailed == 0; ++iChild)
    {
        const pid_t iPid = fork();
        if (iPid == 0)
        {
            alarm(10); // ends the child by a signal when it hangs
            std::exit(0);
        }
        int iStatus = -1;
        iFailed = waitpid(iPid, &iStatus, 0) != iPid || iStatus != 0 ? 1 : 0;
    }
    bDone = true;
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
    return iFailed;
}
