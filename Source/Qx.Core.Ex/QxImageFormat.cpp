#include "Qx.Core.Ex/QxImageFormat.h"

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

} // namespace Qx
