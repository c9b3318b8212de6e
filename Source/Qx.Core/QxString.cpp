#include "Qx.Core/QxString.h"

#include "Qx.Core/QxFormat.h"

namespace Qx
{

CQxString& CQxString::operator<<(int iValue)
{
    m_sText += std::to_string(iValue);
    return *this;
}

void AppendPart(CQxString& sText, long long iPart)
{
    sText << std::to_string(iPart).c_str();
}

void AppendPart(CQxString& sText, unsigned long long uPart)
{
    sText << std::to_string(uPart).c_str();
}

void AppendPart(CQxString& sText, const void* pPart)
{
    char acPart[32];
    sprintf_s(acPart, "%p", pPart);
    sText << acPart;
}

} // namespace Qx
