#pragma once

#include <atomic>
#include <exception>
#include <iosfwd>
#include <memory>
#include <type_traits>
#include <utility>

#include "Qx.Core/QxExport.h"
#include "Qx.Core/QxGuid.h"
#include "Qx.Core/QxString.h"

/// The interface of exceptions, whose layout is part of the binary interface. `Qx` has its names too.
namespace Qx::Interop::Runtime31
{

/// One link of an exception chain, as it crosses library boundaries. The order of the virtual operations is part of
/// the binary interface, the destructor's place in it included.
class QX_EXPORT_TYPE IException
{
public:
    /// What failed.
    virtual const CQxString& GetMessageText() const = 0;

    /// The plain name of the operation that threw, without its class.
    virtual const CQxString& GetFunction() const = 0;

    /// The source file of the throwing code.
    virtual const CQxString& GetFile() const = 0;

    /// The line of the throw in that file.
    virtual int GetLine() const = 0;

    /// The type name, such as "Qx.Exception".
    virtual const CQxString& GetName() const = 0;

    /// The identifier of the type.
    virtual const Runtime30::CGuid& GetGUID() const = 0;

    /// The failure that caused this one; null when there is none. Owned by this object.
    virtual const IException* GetInnerException() const = 0;

    /// True when this exception or one further down its chain is of the type @p xGuid.
    virtual bool HasException(Runtime30::CGuid xGuid) const = 0;

    /// A copy of this exception in its own type, with its chain. The caller owns it and deletes it.
    virtual IException* Clone() const = 0;

    QX_CORE_API virtual ~IException();

protected:
    IException() = default;
    IException(const IException&) = default;
    IException& operator=(const IException&) = default;
};

} // namespace Qx::Interop::Runtime31

namespace Qx
{

using Interop::Runtime30::CGuid;
using Interop::Runtime31::IException;

/// Owns one exception or none. A copy owns a clone, so that the chain of a copied exception shares nothing with the
/// original and outlives it.
class QX_CORE_API CExceptionSafePointer
{
public:
    /// Owns nothing.
    CExceptionSafePointer() noexcept = default;

    /// Owns a clone of @p xException.
    explicit CExceptionSafePointer(const IException& xException);

    /// Owns a clone of what @p xOther owns.
    CExceptionSafePointer(const CExceptionSafePointer& xOther);
    /// Takes over what @p xOther owns, which then owns nothing.
    CExceptionSafePointer(CExceptionSafePointer&& xOther) noexcept;
    /// Takes over what the argument, a copy or a moved pointer, owns.
    CExceptionSafePointer& operator=(CExceptionSafePointer xOther) noexcept;
    ~CExceptionSafePointer();

    /// The owned exception or null; stays owned by this object.
    const IException* Get() const noexcept;

    /// The text that was kept, or null.
    const char* GetText() const noexcept;

    /// Keeps @p sText, unless another text is kept already, and returns the kept one, which stays valid and the same
    /// until this object is assigned or destroyed. Copies do not have it. Several threads may call it at a time. Throws
    /// `std::bad_alloc`.
    const char* KeepText(const CQxString& sText) const;

private:
    struct SHeld;

    mutable std::atomic<SHeld*> m_pHeld = nullptr;
};

/// The exception of the SDK: a message, where it was thrown, and the failure that caused it.
///
/// Derived classes set `m_xGuid` and `m_sName` in their constructors and override `Clone`. Copying copies the whole
/// chain and may throw `std::bad_alloc`.
class QX_EXPORT_TYPE CQxException : public IException, public std::exception
{
public:
    /// The first exception of a chain.
    /// @param sMessage what failed
    /// @param sFile the source file of the throwing code
    /// @param sFunction the plain name of the throwing operation
    /// @param iLine the line of the throw
    QX_CORE_API CQxException(CQxString sMessage, CQxString sFile, CQxString sFunction, int iLine);

    /// The same with the failure that caused this one, of which a clone is kept.
    QX_CORE_API CQxException(
        CQxString sMessage, CQxString sFile, CQxString sFunction, int iLine, const IException& xInner);

    CQxException(const CQxException&) = default;
    CQxException(CQxException&&) noexcept = default;
    /// Copies first and then takes the copy over, so that a failed copy leaves this exception as it was.
    CQxException& operator=(const CQxException& xOther) { return *this = CQxException(xOther); }
    CQxException& operator=(CQxException&&) noexcept = default;

    QX_CORE_API const CQxString& GetMessageText() const override;
    QX_CORE_API const CQxString& GetFunction() const override;
    QX_CORE_API const CQxString& GetFile() const override;
    QX_CORE_API int GetLine() const override;
    QX_CORE_API const CQxString& GetName() const override;
    QX_CORE_API const CGuid& GetGUID() const override;
    QX_CORE_API const IException* GetInnerException() const override;
    QX_CORE_API bool HasException(CGuid xGuid) const override;
    QX_CORE_API IException* Clone() const override;
    QX_CORE_API ~CQxException() override;

    /// Completes a new exception; called once on each before it is thrown. A plain exception has nothing to add;
    /// derived classes record the state of what failed.
    QX_CORE_API virtual void SetExceptionData();

    /// The whole chain, outermost first, one line a link:
    /// `<type name>: <message> [<function>, <file>:<line>]`. Further lines of a message are indented.
    QX_CORE_API virtual CQxString ToString() const;

    /// The messages of the whole chain in one line, outermost first, for programs that only know `std::exception`:
    /// "Error creating 2D CUDA device image: Image is invalid". A message that says what the one before says is left
    /// out, and line breaks are blanks.
    ///
    /// The text is made by the first call and stays valid and the same until this object is assigned or destroyed;
    /// where there is no memory for it, it is the outermost message alone. Several threads may call it at a time.
    QX_CORE_API const char* what() const noexcept override;

protected:
    CGuid m_xGuid;                  ///< what `GetGUID` returns
    CQxString m_sName;              ///< what `GetName` returns
    CQxString m_sMessage;           ///< what `GetMessageText` returns
    CQxString m_sFile;              ///< what `GetFile` returns
    CQxString m_sFunction;          ///< what `GetFunction` returns
    int m_iLine;                    ///< what `GetLine` returns
    CExceptionSafePointer m_xInner; ///< what `GetInnerException` returns
};

/// Writes what `what` returns.
QX_CORE_API std::ostream& operator<<(std::ostream& xStream, const CQxException& xException);

/// Where an operation throws: the source file that its exceptions record and its plain name. Both are literals.
struct SThrowSite
{
    const char* pcFile;     ///< the source file
    const char* pcFunction; ///< the operation, without its class
};

/// One throw of a site. Made from the site alone, as an argument, it has the line of the call.
struct SThrowPlace
{
    /// A throw of @p xThrowSite, in the line of the call.
    SThrowPlace(const SThrowSite& xThrowSite, int iThrowLine = __builtin_LINE()) noexcept
        : xSite(xThrowSite), iLine(iThrowLine)
    {
    }
    /// The same of a site that is named here.
    SThrowPlace(const char* pcFile, const char* pcFunction, int iThrowLine = __builtin_LINE()) noexcept
        : xSite{pcFile, pcFunction}, iLine(iThrowLine)
    {
    }

    SThrowSite xSite; ///< file and operation
    int iLine;        ///< the line of the throw
};

/// Throws a `CQxException` with a finished message, after its `SetExceptionData`.
[[noreturn]] QX_CORE_API void ThrowText(const SThrowPlace& xPlace, const CQxString& sMessage);

/// Throws a `CQxException` for a failed argument or state check, after its `SetExceptionData`:
/// `Throw(c_xSite, "Image row of ", nBytes, " bytes is too wide")`.
/// @param xParts the message, as `MakeText` puts it together
template <typename... TParts>
[[noreturn, gnu::cold, gnu::noinline]] void Throw(const SThrowPlace& xPlace, TParts... xParts)
{
    ThrowText(xPlace, MakeText(xParts...));
}

/// Throws a `CQxException` with @p xInner as inner exception, after its `SetExceptionData`.
[[noreturn]] QX_CORE_API void ThrowWrapped(
    const SThrowSite& xSite, const CQxString& sMessage, const IException& xInner, int iLine = __builtin_LINE());

/// Runs @p xBody; a `CQxException` that leaves it is thrown on as the inner exception of a new one with the message
/// @p pcMessage. Exceptions of other types pass through. Nothing is undone. Without a failure it costs nothing.
/// @return what @p xBody returns
template <typename TBody>
std::invoke_result_t<TBody&> Guard(
    const SThrowSite& xSite, const char* pcMessage, TBody&& xBody, int iLine = __builtin_LINE())
{
    try
    {
        return xBody();
    }
    catch (const CQxException& xException)
    {
        ThrowWrapped(xSite, pcMessage, xException, iLine);
    }
}

/// Runs @p xBody and drops what it throws: for destructors and moves, which have nobody to tell.
template <typename TBody>
void Quietly(TBody&& xBody) noexcept
{
    try
    {
        xBody();
    }
    catch (...) // NOLINT(bugprone-empty-catch): see above
    {
    }
}

} // namespace Qx
