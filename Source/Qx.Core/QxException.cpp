#include "Qx.Core/QxException.h"

namespace Qx
{

namespace
{

constexpr CGuid c_xExceptionGuid("{E1B7D0C4-62A9-4D3E-8F57-19C3A64B0D28}");

void _AppendLink(std::string& sText, const IException& xException)
{
    sText += xException.GetName().ToCString();
    sText += ": ";
    for (const char* pcChar = xException.GetMessageText().ToCString(); *pcChar != '\0'; ++pcChar)
    {
        sText += *pcChar;
        if (*pcChar == '\n')
        {
            sText += "    ";
        }
    }
    sText += " [";
    sText += xException.GetFunction().ToCString();
    sText += ", ";
    sText += xException.GetFile().ToCString();
    sText += ':';
    sText += std::to_string(xException.GetLine());
    sText += "]\n";
}

} // namespace

void Interop::Runtime30::ThrowMalformedGuid(const char* pcText)
{
    Throw({"Qx.Core/QxGuid", "CGuid"}, "Malformed GUID text '", pcText, "'");
}

CQxException::CQxException(CQxString sMessage, CQxString sFile, CQxString sFunction, int iLine)
    : m_xGuid(c_xExceptionGuid),
      m_sName("Qx.Exception"),
      m_sMessage(std::move(sMessage)),
      m_sFile(std::move(sFile)),
      m_sFunction(std::move(sFunction)),
      m_iLine(iLine)
{
}

CQxException::CQxException(
    CQxString sMessage, CQxString sFile, CQxString sFunction, int iLine, const IException& xInner)
    : m_xGuid(c_xExceptionGuid),
      m_sName("Qx.Exception"),
      m_sMessage(std::move(sMessage)),
      m_sFile(std::move(sFile)),
      m_sFunction(std::move(sFunction)),
      m_iLine(iLine),
      m_xInner(xInner) // NOLINT(bugprone-throw-keyword-missing): a member, not an exception to throw
{
}

CQxException::~CQxException() = default;

const CQxString& CQxException::GetMessageText() const
{
    return m_sMessage;
}

const CQxString& CQxException::GetFunction() const
{
    return m_sFunction;
}

const CQxString& CQxException::GetFile() const
{
    return m_sFile;
}

int CQxException::GetLine() const
{
    return m_iLine;
}

const CQxString& CQxException::GetName() const
{
    return m_sName;
}

const CGuid& CQxException::GetGUID() const
{
    return m_xGuid;
}

const IException* CQxException::GetInnerException() const
{
    return m_xInner.Get();
}

bool CQxException::HasException(CGuid xGuid) const
{
    for (const IException* pLink = this; pLink != nullptr; pLink = pLink->GetInnerException())
    {
        if (pLink->GetGUID() == xGuid)
        {
            return true;
        }
    }
    return false;
}

IException* CQxException::Clone() const
{
    return new CQxException(*this);
}

void CQxException::SetExceptionData() {}

CQxString CQxException::ToString() const
{
    std::string sText;
    for (const IException* pLink = this; pLink != nullptr; pLink = pLink->GetInnerException())
    {
        _AppendLink(sText, *pLink);
    }
    return sText.c_str();
}

const char* CQxException::what() const noexcept
{
    return m_sMessage.ToCString();
}

void ThrowText(const SThrowPlace& xPlace, const CQxString& sMessage)
{
    CQxException xException(sMessage, xPlace.xSite.pcFile, xPlace.xSite.pcFunction, xPlace.iLine);
    xException.SetExceptionData();
    throw CQxException(xException);
}

void ThrowWrapped(const SThrowSite& xSite, const CQxString& sMessage, const IException& xInner, int iLine)
{
    CQxException xException(sMessage, xSite.pcFile, xSite.pcFunction, iLine, xInner);
    xException.SetExceptionData();
    throw CQxException(xException);
}

} // namespace Qx
