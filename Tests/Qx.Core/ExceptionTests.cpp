#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"
#include "Support/AllocationFault.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace
{

using Qx::CExceptionSafePointer;
using Qx::CGuid;
using Qx::CQxException;
using Qx::CQxString;
using Qx::Guard;
using Qx::IException;
using Qx::SThrowSite;
using Qx::Throw;
using Qx::ThrowWrapped;
using Qx::Test::FailEachAllocation;
using Qx::Test::IsChain;
using Qx::Test::Plain;
using Qx::Test::SLink;
using Qx::Test::ThrowsChain;
using Qx::Test::VirtualSlot;

constexpr SThrowSite c_xInner{"Source/Test/Inner", "Read"};
constexpr SThrowSite c_xOuter{"Source/Test/Outer", "Load"};

/// A derived type with an identity, data of its own and a record of what is done with it.
class CDiskException : public CQxException
{
public:
    static constexpr CGuid c_xGuid{"{2B8F6E1D-94C7-4A05-B3E2-7D1F0C9A5846}"};

    CDiskException(const char* pcMessage, int iSector)
        : CQxException(pcMessage, "Source/Test/Disk", "ReadSector", 77), m_iSector(iSector)
    {
        m_xGuid = c_xGuid;
        m_sName = "Test.DiskException";
        ++sm_iAlive;
    }
    CDiskException(const CDiskException& xOther) : CQxException(xOther), m_iSector(xOther.m_iSector) { ++sm_iAlive; }
    CDiskException& operator=(const CDiskException&) = delete;
    ~CDiskException() override { --sm_iAlive; }

    IException* Clone() const override { return new CDiskException(*this); }
    void SetExceptionData() override { m_sMessage << ", sector " << m_iSector; }
    int GetSector() const { return m_iSector; }

    static inline int sm_iAlive = 0;

private:
    int m_iSector;
};

const SLink c_xDiskLink{"Test.DiskException", "No answer", "ReadSector", "Source/Test/Disk"};
const CGuid c_xForeignGuid("{5D0A3C72-1E84-4F6B-9C1D-8A2B6E4F7093}");

/// An exception of another library that knows the interface only.
class CForeignException final : public IException
{
public:
    const CQxString& GetMessageText() const override { return m_sText; }
    const CQxString& GetFunction() const override { return m_sText; }
    const CQxString& GetFile() const override { return m_sText; }
    int GetLine() const override { return 5; }
    const CQxString& GetName() const override { return m_sText; }
    const CGuid& GetGUID() const override { return c_xForeignGuid; }
    const IException* GetInnerException() const override { return nullptr; }
    bool HasException(CGuid xGuid) const override { return xGuid == c_xForeignGuid; }
    IException* Clone() const override { return new CForeignException(*this); }

private:
    CQxString m_sText{"Foreign"};
};

/// A chain of three: two plain links over a derived one.
CQxException _MakeChain()
{
    const CDiskException xDisk("No answer", 9);
    const CQxException xMiddle("Error reading", "Source/Test/Inner", "Read", 10, xDisk);
    return CQxException("Error loading", "Source/Test/Outer", "Load", 20, xMiddle);
}

#define EXPECT_WHOLE_CHAIN(exception)                                                                                  \
    EXPECT_TRUE(IsChain(exception, {Plain("Error loading", "Load", "Source/Test/Outer"),                               \
                                    Plain("Error reading", "Read", "Source/Test/Inner"), c_xDiskLink}))

TEST(Exception, ReportsWhatItWasMadeOf)
{
    const CQxException xException("Message", "Source/File", "Function", 42);
    EXPECT_TRUE(IsChain(xException, {Plain("Message", "Function", "Source/File")}));
    EXPECT_EQ(xException.GetLine(), 42);
    EXPECT_EQ(xException.GetInnerException(), nullptr);
    EXPECT_NE(xException.GetGUID(), CGuid());
    EXPECT_STREQ(static_cast<const std::exception&>(xException).what(), "Message");
}

TEST(Exception, KeepsItsOwnChainInTheTypesOfTheLinks)
{
    {
        const CQxException xChain = _MakeChain();
        EXPECT_WHOLE_CHAIN(xChain);
        EXPECT_EQ(xChain.GetLine(), 20);
        EXPECT_EQ(xChain.GetInnerException()->GetLine(), 10);
        const auto* pDisk = dynamic_cast<const CDiskException*>(xChain.GetInnerException()->GetInnerException());
        ASSERT_NE(pDisk, nullptr);
        EXPECT_EQ(pDisk->GetSector(), 9);
        EXPECT_EQ(CDiskException::sm_iAlive, 1) << "the original is gone, the chain has its copy";
    }
    EXPECT_EQ(CDiskException::sm_iAlive, 0);
}

TEST(Exception, CopiesOutliveTheOriginal)
{
    auto pOriginal = std::make_unique<CQxException>(_MakeChain());
    const CQxException xCopy(*pOriginal);
    CQxException xAssigned("Old", "Old", "Old", 1, CDiskException("Old", 1));
    xAssigned = *pOriginal;
    const std::unique_ptr<IException> pClone(pOriginal->Clone());
    EXPECT_NE(xCopy.GetInnerException(), pOriginal->GetInnerException());
    EXPECT_EQ(CDiskException::sm_iAlive, 4) << "one link each";
    pOriginal.reset();

    EXPECT_WHOLE_CHAIN(xCopy);
    EXPECT_WHOLE_CHAIN(xAssigned);
    EXPECT_WHOLE_CHAIN(*pClone);
    EXPECT_EQ(CDiskException::sm_iAlive, 3);
}

TEST(Exception, CanBeMovedAndAssignedFromItsOwnParts)
{
    CQxException xException = _MakeChain();
    CQxException xMoved(std::move(xException));
    EXPECT_WHOLE_CHAIN(xMoved);

    const CQxException& xAlias = xMoved;
    xMoved = xAlias;
    EXPECT_WHOLE_CHAIN(xMoved);

    // The inner link lives in the object that it replaces.
    xMoved = dynamic_cast<const CQxException&>(*xMoved.GetInnerException());
    EXPECT_TRUE(IsChain(xMoved, {Plain("Error reading", "Read", "Source/Test/Inner"), c_xDiskLink}));
    EXPECT_EQ(CDiskException::sm_iAlive, 1);
}

TEST(Exception, DerivedTypesSurviveThrowAndClone)
{
    const CDiskException xDisk("No answer", 3);
    const std::unique_ptr<IException> pClone(static_cast<const CQxException&>(xDisk).Clone());
    EXPECT_NE(dynamic_cast<const CDiskException*>(pClone.get()), nullptr);
    EXPECT_EQ(pClone->GetGUID(), CDiskException::c_xGuid);

    try
    {
        throw CDiskException("No answer", 3);
    }
    catch (const CQxException& xCaught)
    {
        EXPECT_TRUE(IsChain(xCaught, {c_xDiskLink}));
    }
}

TEST(Exception, HasExceptionLooksAtEveryLink)
{
    const CQxException xChain = _MakeChain();
    EXPECT_TRUE(xChain.HasException(CDiskException::c_xGuid));
    EXPECT_TRUE(xChain.HasException(xChain.GetGUID()));
    EXPECT_FALSE(xChain.HasException(c_xForeignGuid));
    EXPECT_FALSE(xChain.HasException(CGuid()));

    const IException* pDisk = xChain.GetInnerException()->GetInnerException();
    EXPECT_TRUE(pDisk->HasException(CDiskException::c_xGuid));
    EXPECT_FALSE(pDisk->HasException(xChain.GetGUID())) << "a link does not see those that wrap it";
}

TEST(Exception, TakesLinksOfOtherLibraries)
{
    const auto pForeign = std::make_unique<CForeignException>();
    const CQxException xChain("Error loading", "Source/Test/Outer", "Load", 20, *pForeign);
    ASSERT_NE(dynamic_cast<const CForeignException*>(xChain.GetInnerException()), nullptr);
    EXPECT_NE(xChain.GetInnerException(), pForeign.get());
    EXPECT_TRUE(xChain.HasException(c_xForeignGuid));
    EXPECT_STREQ(xChain.ToString().ToCString(), "Qx.Exception: Error loading [Load, Source/Test/Outer:20]\n"
                                                "Foreign: Foreign [Foreign, Foreign:5]\n");
}

TEST(Exception, ToStringHasOneLinePerLink)
{
    EXPECT_STREQ(_MakeChain().ToString().ToCString(),
                 "Qx.Exception: Error loading [Load, Source/Test/Outer:20]\n"
                 "Qx.Exception: Error reading [Read, Source/Test/Inner:10]\n"
                 "Test.DiskException: No answer [ReadSector, Source/Test/Disk:77]\n");
    const CQxException xReport("Report:\nKernel: k\nGrid: 1", "File", "End", 3);
    EXPECT_STREQ(xReport.ToString().ToCString(), "Qx.Exception: Report:\n    Kernel: k\n    Grid: 1 [End, File:3]\n");
}

TEST(Exception, ThrowHelpersRecordSiteAndLine)
{
    int iThrowLine = 0;
    int iWrapLine = 0;
    try
    {
        try
        {
            iThrowLine = __LINE__ + 1;
            Throw(c_xInner, "Error reading");
        }
        catch (const CQxException& xInner)
        {
            iWrapLine = __LINE__ + 1;
            ThrowWrapped(c_xOuter, "Error loading", xInner);
        }
    }
    catch (const CQxException& xCaught)
    {
        EXPECT_TRUE(IsChain(xCaught, {Plain("Error loading", "Load", "Source/Test/Outer"),
                                      Plain("Error reading", "Read", "Source/Test/Inner")}));
        EXPECT_EQ(xCaught.GetLine(), iWrapLine);
        EXPECT_EQ(xCaught.GetInnerException()->GetLine(), iThrowLine);
        return;
    }
    FAIL() << "nothing was thrown";
}

TEST(Exception, GuardWrapsExceptionsOfTheSdk)
{
    EXPECT_TRUE(ThrowsChain([] { Guard(c_xOuter, "Error loading", [] { throw CDiskException("No answer", 1); }); },
                            {Plain("Error loading", "Load", "Source/Test/Outer"), c_xDiskLink}));
    EXPECT_TRUE(ThrowsChain(
        []
        {
            Guard(c_xOuter, "Error loading",
                  [] { Guard(c_xInner, "Error reading", [] { throw CDiskException("No answer", 1); }); });
        },
        {Plain("Error loading", "Load", "Source/Test/Outer"), Plain("Error reading", "Read", "Source/Test/Inner"),
         c_xDiskLink}));
    EXPECT_EQ(CDiskException::sm_iAlive, 0);
}

TEST(Exception, GuardRecordsTheLineOfItsCall)
{
    const auto Fail = [] { throw CDiskException("No answer", 1); };
    const int iLine = __LINE__ + 3;
    try
    {
        Guard(c_xOuter, "Error loading", Fail);
        FAIL() << "nothing was thrown";
    }
    catch (const CQxException& xCaught)
    {
        EXPECT_EQ(xCaught.GetLine(), iLine);
    }
}

TEST(Exception, GuardLetsOtherExceptionsPass)
{
    EXPECT_THROW(Guard(c_xOuter, "Error", [] { throw std::bad_alloc(); }), std::bad_alloc);
    EXPECT_THROW(Guard(c_xOuter, "Error", [] { throw std::length_error("length"); }), std::length_error);
    EXPECT_THROW(Guard(c_xOuter, "Error", [] { throw 5; }), int);
}

TEST(Exception, GuardReturnsWhatItsBodyReturns)
{
    int iValue = 7;
    static_assert(std::is_same_v<decltype(Guard(c_xOuter, "Error", [&]() -> int& { return iValue; })), int&>);
    EXPECT_EQ(&Guard(c_xOuter, "Error", [&]() -> int& { return iValue; }), &iValue);
    const auto pMoved = Guard(c_xOuter, "Error", [] { return std::make_unique<int>(3); });
    EXPECT_EQ(*pMoved, 3);
}

TEST(Exception, RunningOutOfMemoryOnAFailurePathLeaksAndHidesNothing)
{
    const auto LoadAndFail = []
    {
        try
        {
            Guard(c_xOuter, "Error loading a text that does not fit into a string object",
                  []
                  {
                      Guard(c_xInner, "Error reading a text that does not fit into a string object",
                            [] { throw CDiskException("No answer from a disk with a long enough name", 1); });
                  });
        }
        catch (const CQxException& xCaught)
        {
            const std::unique_ptr<IException> pClone(xCaught.Clone());
            static_cast<void>(xCaught.ToString());
        }
    };
    EXPECT_GT(FailEachAllocation([] {}, LoadAndFail, [] { EXPECT_EQ(CDiskException::sm_iAlive, 0); }), 20);
    EXPECT_EQ(CDiskException::sm_iAlive, 0);
}

TEST(Exception, AFailedAssignmentChangesNothing)
{
    const CQxException xSource("A message that does not fit into a string object", "Source/Test/AnotherLongFileName",
                               "AnotherLongFunctionName", 1, CDiskException("No answer", 1));
    CQxException xTarget = _MakeChain();
    EXPECT_GT(FailEachAllocation([&] { xTarget = _MakeChain(); }, [&] { xTarget = xSource; },
                                 [&] { EXPECT_WHOLE_CHAIN(xTarget); }),
              6);
}

TEST(Exception, SafePointerOwnsAClone)
{
    const CExceptionSafePointer xEmpty;
    EXPECT_EQ(xEmpty.Get(), nullptr);
    EXPECT_EQ(CExceptionSafePointer(xEmpty).Get(), nullptr);
    {
        CExceptionSafePointer xPointer{CDiskException("No answer", 1)};
        const CExceptionSafePointer xCopy(xPointer);
        EXPECT_NE(xCopy.Get(), xPointer.Get());
        const CExceptionSafePointer& xAlias = xPointer;
        xPointer = xAlias;
        EXPECT_TRUE(IsChain(*xPointer.Get(), {c_xDiskLink}));
        xPointer = xEmpty;
        EXPECT_EQ(xPointer.Get(), nullptr);
        EXPECT_EQ(CDiskException::sm_iAlive, 1);
        xPointer = xCopy;
        const CExceptionSafePointer xMoved(std::move(xPointer));
        EXPECT_TRUE(IsChain(*xMoved.Get(), {c_xDiskLink}));
        EXPECT_EQ(CDiskException::sm_iAlive, 2);
    }
    EXPECT_EQ(CDiskException::sm_iAlive, 0);
}

TEST(Exception, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlot(&IException::GetMessageText), 0U);
    EXPECT_EQ(VirtualSlot(&IException::GetFunction), 1U);
    EXPECT_EQ(VirtualSlot(&IException::GetFile), 2U);
    EXPECT_EQ(VirtualSlot(&IException::GetLine), 3U);
    EXPECT_EQ(VirtualSlot(&IException::GetName), 4U);
    EXPECT_EQ(VirtualSlot(&IException::GetGUID), 5U);
    EXPECT_EQ(VirtualSlot(&IException::GetInnerException), 6U);
    EXPECT_EQ(VirtualSlot(&IException::HasException), 7U);
    EXPECT_EQ(VirtualSlot(&IException::Clone), 8U);
    EXPECT_EQ(VirtualSlot(&CQxException::Clone), 8U);
    // The destructor has the two places in between.
    EXPECT_EQ(VirtualSlot(&CQxException::SetExceptionData), 11U);
    EXPECT_EQ(VirtualSlot(&CQxException::ToString), 12U);
}

} // namespace
