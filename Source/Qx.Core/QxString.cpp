#include "Qx.Core/QxString.h"

namespace Qx
{

CQxString& CQxString::operator<<(int iValue)
{
    m_sText += std::to_string(iValue);
    return *this;
}

} // namespace Qx
