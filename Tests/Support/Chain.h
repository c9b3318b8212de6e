#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"

namespace Qx::Test
{

/// What one link of an exception chain must be, exactly. Every link must record a positive line.
struct SLink
{
    std::string sName;
    std::string sMessage;
    std::string sFunction;
    std::string sFile;
};

/// A plain link.
inline SLink Plain(const char* pcMessage, const char* pcFunction, const char* pcFile)
{
    return {"Qx.Exception", pcMessage, pcFunction, pcFile};
}

/// Compares a whole chain, outermost link first.
inline ::testing::AssertionResult IsChain(const IException& xException, const std::vector<SLink>& vExpected)
{
    std::ostringstream sFault;
    const IException* pLink = &xException;
    std::size_t nLink = 0;
    for (const SLink& xExpected : vExpected)
    {
        if (pLink == nullptr)
        {
            sFault << "the chain ends before link " << nLink << " '" << xExpected.sMessage << "'\n";
            break;
        }
        const auto Compare = [&](const char* pcWhat, const CQxString& sActual, const std::string& sWanted)
        {
            if (sActual.ToCString() != sWanted)
            {
                sFault << "link " << nLink << ": " << pcWhat << " is '" << sActual.ToCString() << "', not '" << sWanted
                       << "'\n";
            }
        };
        Compare("type", pLink->GetName(), xExpected.sName);
        Compare("message", pLink->GetMessageText(), xExpected.sMessage);
        Compare("function", pLink->GetFunction(), xExpected.sFunction);
        Compare("file", pLink->GetFile(), xExpected.sFile);
        if (pLink->GetLine() <= 0)
        {
            sFault << "link " << nLink << " has line " << pLink->GetLine() << "\n";
        }
        pLink = pLink->GetInnerException();
        ++nLink;
    }
    for (; pLink != nullptr && nLink >= vExpected.size(); pLink = pLink->GetInnerException())
    {
        sFault << "unexpected further link '" << pLink->GetMessageText().ToCString() << "'\n";
    }
    const std::string sText = sFault.str();
    return sText.empty() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << sText;
}

/// Runs @p xBody, which must throw a `CQxException` with exactly the given chain:
/// `EXPECT_TRUE(ThrowsChain([&] { xImage.SetZero(); }, {Plain("...", "SetZero", c_pcFile), ...}));`
template <typename TBody>
::testing::AssertionResult ThrowsChain(TBody&& xBody, const std::vector<SLink>& vExpected)
{
    try
    {
        std::forward<TBody>(xBody)();
    }
    catch (const CQxException& xException)
    {
        return IsChain(xException, vExpected);
    }
    return ::testing::AssertionFailure() << "nothing was thrown";
}

} // namespace Qx::Test
