#include "Qx.Core/QxException.h"

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>

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

// The messages of a chain in one line.
std::string _ToLine(const IException& xException)
{
    std::string sLine;
    std::string sLast;
    for (const IException* pLink = &xException; pLink != nullptr; pLink = pLink->GetInnerException())
    {
        std::string sMessage = pLink->GetMessageText().ToCString();
        if (pLink == &xException)
        {
            sLine = sMessage;
        }
        else if (sMessage != sLast) // a step that wraps a step of the same name says nothing new
        {
            sLine += ": " + sMessage;
        }
        sLast = std::move(sMessage);
    }
    std::replace(sLine.begin(), sLine.end(), '\n', ' ');
    return sLine;
}

} // namespace

struct CExceptionSafePointer::SHeld
{
    SHeld() = default;
    SHeld(const SHeld&) = delete;
    SHeld& operator=(const SHeld&) = delete;
    ~SHeld() { delete pText.load(); }

    std::unique_ptr<const IException> pException;
    std::atomic<const CQxString*> pText = nullptr;
};

CExceptionSafePointer::CExceptionSafePointer(const IException& xException)
{
    auto pHeld = std::make_unique<SHeld>();
    pHeld->pException.reset(xException.Clone());
    m_pHeld = pHeld.release();
}

CExceptionSafePointer::CExceptionSafePointer(const CExceptionSafePointer& xOther)
{
    if (const IException* const pException = xOther.Get())
    {
        *this = CExceptionSafePointer(*pException);
    }
}

CExceptionSafePointer::CExceptionSafePointer(CExceptionSafePointer&& xOther) noexcept
    : m_pHeld(xOther.m_pHeld.exchange(nullptr))
{
}

CExceptionSafePointer& CExceptionSafePointer::operator=(CExceptionSafePointer xOther) noexcept
{
    xOther.m_pHeld = m_pHeld.exchange(xOther.m_pHeld);
    return *this;
}

CExceptionSafePointer::~CExceptionSafePointer()
{
    delete m_pHeld.load();
}

const IException* CExceptionSafePointer::Get() const noexcept
{
    const SHeld* const pHeld = m_pHeld;
    return pHeld != nullptr ? pHeld->pException.get() : nullptr;
}

const char* CExceptionSafePointer::GetText() const noexcept
{
    const SHeld* const pHeld = m_pHeld;
    const CQxString* const pText = pHeld != nullptr ? pHeld->pText.load() : nullptr;
    return pText != nullptr ? pText->ToCString() : nullptr;
}

const char* CExceptionSafePointer::KeepText(const CQxString& sText) const
{
    // Whoever comes second finds the first one's in its place, and uses that.
    const auto Place = [](auto& xPlace, auto pNew)
    {
        typename decltype(pNew)::pointer pPlaced = nullptr;
        return xPlace.compare_exchange_strong(pPlaced, pNew.get()) ? pNew.release() : pPlaced;
    };
    SHeld* pHeld = m_pHeld;
    if (pHeld == nullptr)
    {
        pHeld = Place(m_pHeld, std::make_unique<SHeld>());
    }
    return Place(pHeld->pText, std::make_unique<const CQxString>(sText))->ToCString();
}

Interop::Runtime31::IException::~IException() = default;

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
    if (const char* const pcKept = m_xInner.GetText())
    {
        return pcKept;
    }
    const char* pcText = m_sMessage.ToCString();
    Quietly([&] { pcText = m_xInner.KeepText(_ToLine(*this).c_str()); });
    return pcText;
}

std::ostream& operator<<(std::ostream& xStream, const CQxException& xException)
{
    return xStream << xException.what();
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
