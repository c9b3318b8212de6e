#include "Common/TestChart.h"

#include <array>
#include <cmath>
#include <cstddef>

namespace Qx::Examples
{

namespace
{

using CPixel = std::array<unsigned char, 4>;

CPixel _PixelAt(int x, int y, int iWidth, int iHeight)
{
    if (x == 0 || y == 0 || x == iWidth - 1 || y == iHeight - 1)
    {
        return {255, 255, 255, 255};
    }
    const double fX = static_cast<double>(x) / iWidth;
    const double fY = static_cast<double>(y) / iHeight;
    if (fY < 0.25)
    {
        const int iBar = static_cast<int>(fX * 8); // white, yellow, cyan, green, magenta, red, blue, black
        const auto Channel = [iBar](int iMask) { return static_cast<unsigned char>((iBar & iMask) != 0 ? 0 : 255); };
        return {Channel(2), Channel(4), Channel(1), 255};
    }
    if (fY < 0.35)
    {
        const auto uGrey = static_cast<unsigned char>(fX * 256);
        return {uGrey, uGrey, uGrey, 255};
    }
    const double fDx = x - iWidth * 0.5;
    const double fDy = y - iHeight * 0.675;
    const auto uRing = static_cast<unsigned char>(127.5 + 127.5 * std::cos((fDx * fDx + fDy * fDy) / iWidth));
    return {uRing, static_cast<unsigned char>(fX * 256), static_cast<unsigned char>(fY * 256), 255};
}

} // namespace

CQxImage DrawTestChart(int iWidth, int iHeight)
{
    CQxImage xChart(CQxImageFormat(iWidth, iHeight, EDataType::UByte, EPixelType::RGBA));
    auto* pPixel = static_cast<unsigned char*>(xChart.GetDataPtr());
    for (int y = 0; y < iHeight; ++y)
    {
        for (int x = 0; x < iWidth; ++x)
        {
            for (const unsigned char uChannel : _PixelAt(x, y, iWidth, iHeight))
            {
                *pPixel++ = uChannel;
            }
        }
    }
    return xChart;
}

} // namespace Qx::Examples
