#include "Support/PoolRecorder.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace Qx::Test
{

int CPoolRecorder::sm_iGetPitch = 0;
int CPoolRecorder::sm_iGetLinear = 0;
int CPoolRecorder::sm_iGetPageLocked = 0;
int CPoolRecorder::sm_iRelease = 0;
std::size_t CPoolRecorder::sm_nWidth = 0;
std::size_t CPoolRecorder::sm_nRows = 0;
bool CPoolRecorder::sm_bFlag = false;
CPoolRecorder::EFailure CPoolRecorder::sm_eFailGet = EFailure::None;
CPoolRecorder::EFailure CPoolRecorder::sm_eFailRelease = EFailure::None;

namespace
{

void _Fail(CPoolRecorder::EFailure eFailure)
{
    switch (eFailure)
    {
    case CPoolRecorder::EFailure::None:
        return;
    case CPoolRecorder::EFailure::QxException:
        Throw({"Pool", "Fail"}, "pool failure");
    case CPoolRecorder::EFailure::BadAlloc:
        throw std::bad_alloc();
    }
}

// Member functions have no name that dlsym knows but their mangled one.
template <typename TFunction>
TFunction* _Next(const char* pcMangledName)
{
    void* const pFunction = dlsym(RTLD_NEXT, pcMangledName);
    if (pFunction == nullptr)
    {
        std::abort();
    }
    return reinterpret_cast<TFunction*>(pFunction);
}

} // namespace

void CPoolRecorder::Reset()
{
    sm_iGetPitch = 0;
    sm_iGetLinear = 0;
    sm_iGetPageLocked = 0;
    sm_iRelease = 0;
    sm_nWidth = 0;
    sm_nRows = 0;
    sm_bFlag = false;
    sm_eFailGet = EFailure::None;
    sm_eFailRelease = EFailure::None;
}

} // namespace Qx::Test

namespace Qx::GPU
{

using Test::CPoolRecorder;

CCudaMemoryPitchResource& CResourceManager::GetCudaMemoryPitch(std::size_t nWidth, std::size_t nRows)
{
    static auto* const s_pReal = Test::_Next<CCudaMemoryPitchResource&(std::size_t, std::size_t)>(
        "_ZN2Qx3GPU16CResourceManager18GetCudaMemoryPitchEmm");
    ++CPoolRecorder::sm_iGetPitch;
    CPoolRecorder::sm_nWidth = nWidth;
    CPoolRecorder::sm_nRows = nRows;
    Test::_Fail(CPoolRecorder::sm_eFailGet);
    return s_pReal(nWidth, nRows);
}

CCudaMemoryResource& CResourceManager::GetCudaMemory(std::size_t nSize)
{
    static auto* const s_pReal =
        Test::_Next<CCudaMemoryResource&(std::size_t)>("_ZN2Qx3GPU16CResourceManager13GetCudaMemoryEm");
    ++CPoolRecorder::sm_iGetLinear;
    CPoolRecorder::sm_nWidth = nSize;
    Test::_Fail(CPoolRecorder::sm_eFailGet);
    return s_pReal(nSize);
}

CCudaMemoryResource& CResourceManager::GetPageLockedMemory(std::size_t nSize)
{
    static auto* const s_pReal =
        Test::_Next<CCudaMemoryResource&(std::size_t)>("_ZN2Qx3GPU16CResourceManager19GetPageLockedMemoryEm");
    ++CPoolRecorder::sm_iGetPageLocked;
    CPoolRecorder::sm_nWidth = nSize;
    Test::_Fail(CPoolRecorder::sm_eFailGet);
    return s_pReal(nSize);
}

void CResourceManager::ReleaseResource(CResource& xResource, bool bFree)
{
    static auto* const s_pReal =
        Test::_Next<void(CResource&, bool)>("_ZN2Qx3GPU16CResourceManager15ReleaseResourceERNS0_9CResourceEb");
    ++CPoolRecorder::sm_iRelease;
    CPoolRecorder::sm_bFlag = bFree;
    Test::_Fail(CPoolRecorder::sm_eFailRelease);
    s_pReal(xResource, bFree);
}

} // namespace Qx::GPU
