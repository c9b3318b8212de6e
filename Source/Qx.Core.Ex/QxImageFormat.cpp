#include "Qx.Core.Ex/QxImageFormat.h"

#include <ostream>

namespace Qx
{

const char* GetDataTypeName(EDataType::ID eDataType) noexcept
{
    return ImageFormatDetail::GetDataType(eDataType).pcName;
}

const char* GetPixelTypeName(EPixelType::ID ePixelType) noexcept
{
    return ImageFormatDetail::GetPixelType(ePixelType).pcName;
}

CQxString ToText(const CQxImageFormat& xFormat)
{
    return MakeText(xFormat.iWidth, " x ", xFormat.iHeight, " '", GetPixelTypeName(xFormat.ePixelType), "' '",
        GetDataTypeName(xFormat.eDataType), "'");
}

std::ostream& operator<<(std::ostream& xStream, const CQxImageFormat& xFormat)
{
    return xStream << ToText(xFormat).ToCString();
}

} // namespace Qx
