#include "Qx.Core.Ex/QxImageFormat.h"

namespace Qx
{

const char* GetDataTypeName(EDataType::ID eDataType) noexcept
{
    switch (eDataType)
    {
    case EDataType::Void:
        return "Void";
    case EDataType::Byte:
        return "Byte";
    case EDataType::UByte:
        return "UByte";
    case EDataType::Short:
        return "Short";
    case EDataType::UShort:
        return "UShort";
    case EDataType::Int:
        return "Int";
    case EDataType::UInt:
        return "UInt";
    case EDataType::Float:
        return "Float";
    case EDataType::Double:
        return "Double";
    case EDataType::Custom_10in16_LSB:
        return "Custom_10in16_LSB";
    case EDataType::Custom_10in16_MSB:
        return "Custom_10in16_MSB";
    case EDataType::Custom_12in16_LSB:
        return "Custom_12in16_LSB";
    case EDataType::Custom_12in16_MSB:
        return "Custom_12in16_MSB";
    case EDataType::Packed10:
    case EDataType::Packed12:
    case EDataType::Integral10:
    case EDataType::Integral12:
        break;
    }
    return "Unknown";
}

const char* GetPixelTypeName(EPixelType::ID ePixelType) noexcept
{
    switch (ePixelType)
    {
    case EPixelType::None:
        return "None";
    case EPixelType::RGB:
        return "RGB";
    case EPixelType::RGBA:
        return "RGBA";
    case EPixelType::Lum:
        return "Lum";
    case EPixelType::LumA:
        return "LumA";
    case EPixelType::BayerRG:
        return "BayerRG";
    case EPixelType::BayerBG:
        return "BayerBG";
    case EPixelType::BayerGR:
        return "BayerGR";
    case EPixelType::BayerGB:
        return "BayerGB";
    case EPixelType::BGR:
        return "BGR";
    case EPixelType::BGRA:
        return "BGRA";
    case EPixelType::TwoComponent:
        break;
    }
    return "Unknown";
}

} // namespace Qx
