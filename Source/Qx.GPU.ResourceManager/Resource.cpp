#include "Qx.GPU.ResourceManager/Resource.h"

namespace Qx::GPU
{

CResource::~CResource() = default;

bool CCudaMemoryResource::Matches(const CResource& xOther) const
{
    return m_nSize == static_cast<const CCudaMemoryResource&>(xOther).m_nSize;
}

bool CCudaMemoryPitchResource::Matches(const CResource& xOther) const
{
    const auto& xPitched = static_cast<const CCudaMemoryPitchResource&>(xOther);
    return m_nWidth == xPitched.m_nWidth && m_nRows == xPitched.m_nRows;
}

} // namespace Qx::GPU
