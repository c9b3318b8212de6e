#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"
#include "Support/AllocationFault.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace Qx::Test
{

namespace
{

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

const SLink c_xOuterLink = Plain("Error loading", "Load", "Source/Test/Outer");
const SLink c_xInnerLink = Plain("Error reading", "Read", "Source/Test/Inner");
const SLink c_xDiskLink{"Test.DiskException", "No answer", "ReadSector", "Source/Test/Disk"};
const std::vector<SLink> c_vChain{c_xOuterLink, c_xInnerLink, c_xDiskLink};

/// A chain of three: two plain links over a derived one.
CQxException _MakeChain()
{
    const CDiskException xDisk("No answer", 9);
    const CQxException xMiddle("Error reading", "Source/Test/Inner", "Read", 10, xDisk);
    return CQxException("Error loading", "Source/Test/Outer", "Load", 20, xMiddle);
}

TEST(Exception, KeepsItsOwnChainInTheTypesOfTheLinks)
{
    {
        const CQxException xChain = _MakeChain();
        EXPECT_TRUE(IsChain(xChain, c_vChain));
        EXPECT_EQ(xChain.GetLine(), 20);
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
    EXPECT_EQ(CDiskException::sm_iAlive, 4) << "one link each";
    pOriginal.reset();

    EXPECT_TRUE(IsChain(xCopy, c_vChain));
    EXPECT_TRUE(IsChain(xAssigned, c_vChain));
    EXPECT_TRUE(IsChain(*pClone, c_vChain));
}

TEST(Exception, CanBeMovedAndAssignedFromItsOwnParts)
{
    CQxException xException = _MakeChain();
    CQxException xMoved(std::move(xException));
    const CQxException& xAlias = xMoved;
    xMoved = xAlias;
    EXPECT_TRUE(IsChain(xMoved, c_vChain));

    // The inner link lives in the object that it replaces.
    xMoved = dynamic_cast<const CQxException&>(*xMoved.GetInnerException());
    EXPECT_TRUE(IsChain(xMoved, {c_xInnerLink, c_xDiskLink}));
    EXPECT_EQ(CDiskException::sm_iAlive, 1);
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

TEST(Exception, WhatSaysTheWholeChainInOneLine)
{
    const CQxException xChain = _MakeChain();
    const std::exception& xStandard = xChain;
    const char* const pcWhat = xStandard.what();
    EXPECT_STREQ(pcWhat, "Error loading: Error reading: No answer");
    EXPECT_EQ(xStandard.what(), pcWhat) << "one text as long as the object lives";
    EXPECT_STREQ(CQxException(xChain).what(), pcWhat);
    std::ostringstream xStream;
    xStream << xChain;
    EXPECT_EQ(xStream.str(), pcWhat);

    // A step that wraps a step of the same name says nothing new.
    const CQxException xTwice("Error loading", "Source/Test/Outer", "Load", 20, xChain);
    EXPECT_STREQ(xTwice.what(), pcWhat);
    CQxException xReport("Report:\nKernel: k", "File", "End", 3);
    EXPECT_STREQ(xReport.what(), "Report: Kernel: k");
    EXPECT_STREQ(xReport.GetMessageText().ToCString(), "Report:\nKernel: k");
    xReport = xChain;
    EXPECT_STREQ(xReport.what(), pcWhat);
}

TEST(Exception, WhatIsOneTextForAllThreads)
{
    for (int iRound = 0; iRound < 50; ++iRound)
    {
        const CQxException xReport("Report:\nKernel: k", "File", "End", 3);
        std::array<const char*, 4> vWhats{};
        {
            std::vector<std::jthread> vThreads;
            for (const char*& pcWhat : vWhats)
            {
                vThreads.emplace_back([&] { pcWhat = xReport.what(); });
            }
        }
        EXPECT_EQ(std::count(vWhats.begin(), vWhats.end(), xReport.what()), 4);
    }
}

TEST(Exception, EveryHelperRecordsTheSiteAndTheLineOfItsCall)
{
    const int iLine = __LINE__;
    const auto Fail = [] { Throw(c_xInner, "Error reading"); };
    const auto Wrap = [](const IException& xInner) { ThrowWrapped(c_xInner, "Error reading", xInner); };
    const auto Watch = [&](const auto& Body) { Guard(c_xOuter, "Error loading", Body); };
    const auto Lines = [&](const auto& Body, const std::vector<SLink>& vChain)
    {
        std::vector<int> vLines;
        try
        {
            Body();
        }
        catch (const CQxException& xCaught)
        {
            EXPECT_TRUE(IsChain(xCaught, vChain));
            for (const IException* pLink = &xCaught; pLink != nullptr; pLink = pLink->GetInnerException())
            {
                vLines.push_back(pLink->GetLine() - iLine);
            }
        }
        return vLines;
    };
    EXPECT_EQ(Lines([&] { Watch(Fail); }, {c_xOuterLink, c_xInnerLink}), (std::vector{3, 1}));
    const CDiskException xDisk("No answer", 1);
    EXPECT_EQ(Lines([&] { Watch([&] { Wrap(xDisk); }); }, c_vChain), (std::vector{3, 2, 77 - iLine}));
}

TEST(Exception, GuardLetsOtherExceptionsPass)
{
    EXPECT_THROW(Guard(c_xOuter, "Error", [] { throw std::bad_alloc(); }), std::bad_alloc);
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
    const auto Load = [] { throw CDiskException("No answer from a disk with a long enough name", 1); };
    const auto LoadAndFail = [&]
    {
        try
        {
            Guard(c_xOuter, "Error loading a text that does not fit into a string object",
                [&] { Guard(c_xInner, "Error reading a text that does not fit into a string object", Load); });
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

TEST(Exception, WhatIsTheOutermostMessageWhereThereIsNoMemory)
{
    std::optional<CQxException> xChain;
    const auto What = [&]
    {
        if (std::strcmp(xChain->what(), "Error loading") == 0)
        {
            throw std::bad_alloc(); // what `what` must not let out
        }
        EXPECT_STREQ(xChain->what(), "Error loading: Error reading: No answer");
    };
    EXPECT_GT(FailEachAllocation([&] { xChain.emplace(_MakeChain()); }, What, [] {}), 2);
}

TEST(Exception, AFailedAssignmentChangesNothing)
{
    const CQxException xSource("A message that does not fit into a string object", "Source/Test/AnotherLongFileName",
        "AnotherLongFunctionName", 1, CDiskException("No answer", 1));
    CQxException xTarget = _MakeChain();
    EXPECT_GT(FailEachAllocation([&] { xTarget = _MakeChain(); }, [&] { xTarget = xSource; },
                  [&] { EXPECT_TRUE(IsChain(xTarget, c_vChain)); }),
        6);
}

TEST(Exception, SafePointerOwnsAClone)
{
    {
        CExceptionSafePointer xPointer{CDiskException("No answer", 1)};
        const CExceptionSafePointer xCopy(xPointer);
        EXPECT_NE(xCopy.Get(), xPointer.Get());
        xPointer = CExceptionSafePointer();
        EXPECT_EQ(xPointer.Get(), nullptr);
        xPointer = xCopy;
        EXPECT_TRUE(IsChain(*xPointer.Get(), {c_xDiskLink}));
        EXPECT_EQ(CDiskException::sm_iAlive, 2);
    }
    EXPECT_EQ(CDiskException::sm_iAlive, 0);
}

TEST(Exception, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlots(&IException::GetMessageText, &IException::GetFunction, &IException::GetFile,
                  &IException::GetLine, &IException::GetName, &IException::GetGUID, &IException::GetInnerException,
                  &IException::HasException, &IException::Clone),
        (std::vector<std::size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
    // The destructor has the two places in between.
    EXPECT_EQ(VirtualSlots(&CQxException::Clone, &CQxException::SetExceptionData, &CQxException::ToString),
        (std::vector<std::size_t>{8, 11, 12}));
}

} // namespace

} // namespace Qx::Test
