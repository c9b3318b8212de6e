#include "Qx.Cuda.Core/QxCudaException.h"

// Part of the pool's library, the lowest one that throws these exceptions.
namespace Qx
{

IException* CQxCudaException::Clone() const
{
    return new CQxCudaException(*this);
}

CQxCudaException::~CQxCudaException() = default;

void CQxCudaException::SetExceptionData()
{
    m_eCudaError = cudaGetLastError();
    const char* pcName = cudaGetErrorName(m_eCudaError);
    const char* pcDescription = cudaGetErrorString(m_eCudaError);
    m_sCudaErrorText = MakeText(pcName, ": ", pcDescription, " (ID ", static_cast<int>(m_eCudaError), ")");
    // Not tested: a failed query leaves the device unknown and must not hide the failure that is being reported.
    static_cast<void>(cudaGetDevice(&m_iDeviceID));
    m_sMessage << ". '" << m_sCudaErrorText << "', Device ID: " << m_iDeviceID;
}

IException* CQxOutOfMemoryException::Clone() const
{
    return new CQxOutOfMemoryException(*this);
}

CQxOutOfMemoryException::~CQxOutOfMemoryException() = default;

} // namespace Qx
