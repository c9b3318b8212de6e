#include "HeightCorrection/Sensor.h"

namespace Qx::Examples
{

namespace
{

// How much too high the sensor finds a point; u and v are its place in the picture, from 0 to 1.
float _ErrorAt(float fU, float fV, float fHeight)
{
    return 20.0F * (fU - 0.5F) + 40.0F * (fV - 0.5F) * (fV - 0.5F) + 0.02F * fHeight;
}

} // namespace

CQxImage MakeSurface(const CQxImage& xPicture)
{
    const CQxImageFormat& xFormat = xPicture.GetFormat();
    CQxImage xSurface(CQxImageFormat(xFormat.iWidth, xFormat.iHeight, EDataType::Float, EPixelType::Lum));
    const auto* puPixel = static_cast<const unsigned char*>(xPicture.GetDataPtr());
    auto* const pfHeight = static_cast<float*>(xSurface.GetDataPtr());
    for (std::size_t nPixel = 0; nPixel < xSurface.GetBufferSize() / sizeof(float); ++nPixel, puPixel += 4)
    {
        pfHeight[nPixel] = static_cast<float>(299 * puPixel[0] + 587 * puPixel[1] + 114 * puPixel[2]) / 1000.0F;
    }
    return xSurface;
}

CQxImage Measure(const CQxImage& xSurface)
{
    CQxImage xMeasured = xSurface;
    const CQxImageFormat& xFormat = xSurface.GetFormat();
    auto* pfHeight = static_cast<float*>(xMeasured.GetDataPtr());
    for (int y = 0; y < xFormat.iHeight; ++y)
    {
        for (int x = 0; x < xFormat.iWidth; ++x, ++pfHeight)
        {
            *pfHeight += _ErrorAt((static_cast<float>(x) + 0.5F) / static_cast<float>(xFormat.iWidth),
                (static_cast<float>(y) + 0.5F) / static_cast<float>(xFormat.iHeight), *pfHeight);
        }
    }
    return xMeasured;
}

CQxMapping3D MakeCorrection(const CQxImageFormat& xFormat)
{
    constexpr int c_aiCounts[3] = {32, 24, 8};
    CQxMapping3D xMapping;
    xMapping.Create(0.0F, 0.0F, -32.0F, static_cast<float>(xFormat.iWidth), static_cast<float>(xFormat.iHeight), 288.0F,
        c_aiCounts[0], c_aiCounts[1], c_aiCounts[2], nullptr);
    xMapping.SetName("Height correction");
    float* pfValue = xMapping.GetDataPtr();
    for (int iZ = 0; iZ < c_aiCounts[2]; ++iZ)
    {
        const float fHeight = -32.0F + (static_cast<float>(iZ) + 0.5F) * xMapping.GetStepSizes()[2];
        for (int iX = 0; iX < c_aiCounts[0]; ++iX)
        {
            for (int iY = 0; iY < c_aiCounts[1]; ++iY) // the y index varies fastest
            {
                *pfValue++ = -_ErrorAt((static_cast<float>(iX) + 0.5F) / static_cast<float>(c_aiCounts[0]),
                    (static_cast<float>(iY) + 0.5F) / static_cast<float>(c_aiCounts[1]), fHeight);
            }
        }
    }
    return xMapping;
}

} // namespace Qx::Examples
