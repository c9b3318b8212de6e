#include "Qx.Cuda/QxCudaDeviceVector.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaDeviceVector";

} // namespace

// Runs a step that may replace the block; the size shows that it failed.
template <typename T>
template <typename TBody>
void CQxCudaDeviceVector<T>::_GuardSize(const char* pcFunction, const char* pcMessage, TBody&& xBody)
{
    try
    {
        xBody();
    }
    catch (const CQxException& xException)
    {
        m_nSize = UINT64_MAX;
        ThrowWrapped({c_pcFile, pcFunction}, pcMessage, xException);
    }
}

template <typename T>
void CQxCudaDeviceVector<T>::Set(const CQxVector<T>& xVector)
{
    m_nSize = xVector.GetSize();
    _GuardSize("Set", "Error copying host vector to device",
        [&] { m_xArray.ToDevice(xVector.GetDataPtr(), xVector.GetSize()); });
}

template <typename T>
void CQxCudaDeviceVector<T>::Get(CQxVector<T>& xVector) const
{
    Guard({c_pcFile, "Get"}, "Error copying device vector to host",
        [&]
        {
            if (xVector.GetSize() != m_nSize)
            {
                xVector.Resize(m_nSize);
            }
            m_xArray.ToHost(xVector.GetDataPtr(), xVector.GetSize());
        });
}

template <typename T>
void CQxCudaDeviceVector<T>::Resize(std::uint64_t nSize)
{
    _GuardSize("Resize", "Error resizing device vector",
        [&]
        {
            m_xArray.Require(nSize);
            m_nSize = nSize;
        });
}

template <typename T>
void CQxCudaDeviceVector<T>::Delete()
{
    m_xArray.Delete();
    m_nSize = 0;
}

// Here, since clang++ would put one that is defaulted in its class into plug-ins too, to which the library is bound
// then.
template <typename T>
CQxCudaDeviceVector<T>::~CQxCudaDeviceVector() = default;

template class CQxCudaDeviceVector<float>;
template class CQxCudaDeviceVector<double>;

} // namespace Qx
