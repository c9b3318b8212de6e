#include "Common/PictureFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

#include <stb_image.h>
#include <stb_image_write.h>

namespace Qx::Examples
{

namespace
{

using CBytes = std::vector<unsigned char>;

constexpr std::size_t c_nMaxFileBytes = std::size_t{1} << 30;

struct SFileClose
{
    void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};

[[noreturn]] void _Fail(const std::string& sPath, const std::string& sReason)
{
    throw std::runtime_error("'" + sPath + "' " + sReason);
}

[[noreturn]] void _FailWithErrno(const std::string& sPath, const char* pcWhat, int iErrno)
{
    _Fail(sPath, std::string(pcWhat) + ": " + std::strerror(iErrno));
}

CBytes _ReadFile(const std::string& sPath)
{
    const std::unique_ptr<std::FILE, SFileClose> pFile(std::fopen(sPath.c_str(), "rb"));
    if (pFile == nullptr)
    {
        _FailWithErrno(sPath, "cannot be read", errno);
    }
    CBytes vBytes;
    std::vector<unsigned char> vChunk(std::size_t{1} << 18);
    while (const std::size_t nRead = std::fread(vChunk.data(), 1, vChunk.size(), pFile.get()))
    {
        if (vBytes.size() + nRead > c_nMaxFileBytes)
        {
            _Fail(sPath, "is larger than 1 GiB, which no picture needs that can be handled here");
        }
        vBytes.insert(vBytes.end(), vChunk.begin(), vChunk.begin() + static_cast<std::ptrdiff_t>(nRead));
    }
    if (std::ferror(pFile.get()) != 0)
    {
        _FailWithErrno(sPath, "cannot be read", errno);
    }
    return vBytes;
}

// An image of a size that a file claims, which may be anything.
CQxImage _MakeImage(const std::string& sPath, std::int64_t nWidth, std::int64_t nHeight)
{
    if (nWidth <= 0 || nHeight <= 0)
    {
        _Fail(sPath, "has no pixels");
    }
    if (nWidth > c_nMaxPixels || nHeight > c_nMaxPixels / nWidth)
    {
        _Fail(sPath,
            "has " + std::to_string(nWidth) + " x " + std::to_string(nHeight) + " pixels, more than the " +
                std::to_string(c_nMaxPixels) + " that can be handled here");
    }
    return CQxImage(CQxImageFormat(
        static_cast<std::int32_t>(nWidth), static_cast<std::int32_t>(nHeight), EDataType::UByte, EPixelType::RGBA));
}

// Binary PGM ("P5") and PPM ("P6"): three decimal numbers (width, height, largest sample) between white space and
// comments, one white space, then the samples, of two bytes each, high byte first, when the largest is above 255.
class CPnmReader
{
public:
    CPnmReader(const std::string& sPath, const CBytes& vBytes) : m_sPath(sPath), m_vBytes(vBytes) {}

    static bool Accepts(const CBytes& vBytes)
    {
        return vBytes.size() > 2 && vBytes[0] == 'P' && (vBytes[1] == '5' || vBytes[1] == '6');
    }

    CQxImage Read()
    {
        const std::size_t nChannels = m_vBytes[1] == '6' ? 3 : 1;
        const std::int64_t nWidth = _ReadNumber();
        const std::int64_t nHeight = _ReadNumber();
        const std::int64_t nLargest = _ReadNumber();
        if (nLargest < 1 || nLargest > 65535)
        {
            _Fail(m_sPath, "is damaged: the largest sample must be 1 to 65535");
        }
        ++m_nAt; // the white space that ends the header
        CQxImage xImage = _MakeImage(m_sPath, nWidth, nHeight);
        const std::size_t nSampleBytes = nLargest > 255 ? 2 : 1;
        const std::size_t nPixels = static_cast<std::size_t>(nWidth * nHeight);
        if (m_nAt > m_vBytes.size() || m_vBytes.size() - m_nAt < nPixels * nChannels * nSampleBytes)
        {
            _Fail(m_sPath, "is damaged: it ends before its last pixel");
        }
        const unsigned char* pSample = m_vBytes.data() + m_nAt;
        auto* pPixel = static_cast<unsigned char*>(xImage.GetDataPtr());
        for (std::size_t i = 0; i < nPixels; ++i, pPixel += 4)
        {
            for (std::size_t c = 0; c < nChannels; ++c, pSample += nSampleBytes)
            {
                const std::int64_t nSample = nSampleBytes == 2 ? pSample[0] * 256 + pSample[1] : pSample[0];
                pPixel[c] = static_cast<unsigned char>((std::min(nSample, nLargest) * 255 + nLargest / 2) / nLargest);
            }
            std::fill(pPixel + nChannels, pPixel + 3, pPixel[0]);
            pPixel[3] = 255;
        }
        return xImage;
    }

private:
    std::int64_t _ReadNumber()
    {
        bool bComment = false;
        for (; m_nAt < m_vBytes.size(); ++m_nAt)
        {
            const unsigned char uByte = m_vBytes[m_nAt];
            const bool bSpace = uByte == ' ' || (uByte >= '\t' && uByte <= '\r');
            if (!bComment && !bSpace && uByte != '#')
            {
                break;
            }
            bComment = bComment ? uByte != '\n' && uByte != '\r' : uByte == '#';
        }
        constexpr std::int64_t c_nEnough = 1'000'000'000; // beyond every limit, and ten times it does not overflow
        std::int64_t nNumber = 0;
        const std::size_t nFirst = m_nAt;
        for (; m_nAt < m_vBytes.size() && m_vBytes[m_nAt] >= '0' && m_vBytes[m_nAt] <= '9'; ++m_nAt)
        {
            nNumber = std::min(nNumber * 10 + (m_vBytes[m_nAt] - '0'), c_nEnough);
        }
        if (m_nAt == nFirst)
        {
            _Fail(m_sPath, "is damaged: a number is missing in its header");
        }
        return nNumber;
    }

    const std::string& m_sPath;
    const CBytes& m_vBytes;
    std::size_t m_nAt = 2;
};

// True for a BMP file that is shorter than it says; the decoder would fill it up with zeros.
bool _IsCutBitmap(const CBytes& vBytes)
{
    if (vBytes.size() < 6 || vBytes[0] != 'B' || vBytes[1] != 'M')
    {
        return false;
    }
    const std::size_t nSaid = vBytes[2] | static_cast<std::size_t>(vBytes[3]) << 8 |
        static_cast<std::size_t>(vBytes[4]) << 16 | static_cast<std::size_t>(vBytes[5]) << 24;
    return nSaid > vBytes.size();
}

struct SPngSink
{
    std::FILE* pFile;
    bool bWritten;
};

void _WriteToSink(void* pContext, void* pBytes, int iByteCount)
{
    auto* pSink = static_cast<SPngSink*>(pContext);
    const auto nBytes = static_cast<std::size_t>(iByteCount);
    pSink->bWritten = std::fwrite(pBytes, 1, nBytes, pSink->pFile) == nBytes;
}

} // namespace

CQxImage ReadPicture(const std::string& sPath)
{
    const CBytes vBytes = _ReadFile(sPath);
    if (CPnmReader::Accepts(vBytes))
    {
        return CPnmReader(sPath, vBytes).Read();
    }
    const int iBytes = static_cast<int>(vBytes.size());
    int iWidth = 0;
    int iHeight = 0;
    int iChannels = 0;
    if (vBytes.empty() || stbi_info_from_memory(vBytes.data(), iBytes, &iWidth, &iHeight, &iChannels) == 0)
    {
        _Fail(sPath, "is not a picture that can be read (PNG, JPEG, BMP, binary PGM or PPM)");
    }
    // The height of a bitmap whose rows run from top to bottom is told as a negative number.
    CQxImage xImage = _MakeImage(sPath, iWidth, std::abs(std::int64_t{iHeight}));
    if (_IsCutBitmap(vBytes))
    {
        _Fail(sPath, "is damaged: it ends before its last pixel");
    }
    const std::unique_ptr<unsigned char, void (*)(void*)> pPixels(
        stbi_load_from_memory(vBytes.data(), iBytes, &iWidth, &iHeight, &iChannels, 4), stbi_image_free);
    if (pPixels == nullptr)
    {
        _Fail(sPath, std::string("is damaged: ") + stbi_failure_reason());
    }
    if (iWidth != xImage.GetFormat().iWidth || iHeight != xImage.GetFormat().iHeight)
    {
        _Fail(sPath, "is damaged: it tells two sizes");
    }
    std::memcpy(xImage.GetDataPtr(), pPixels.get(), xImage.GetBufferSize());
    return xImage;
}

void WritePng(const std::string& sPath, const CQxImage& xImage)
{
    const CQxImageFormat& xFormat = xImage.GetFormat();
    if (xFormat.eDataType != EDataType::UByte || xFormat.ePixelType != EPixelType::RGBA || xFormat.iWidth <= 0 ||
        xFormat.iHeight <= 0 || xFormat.iHeight > c_nMaxPixels / xFormat.iWidth)
    {
        throw std::invalid_argument(
            "only RGBA UByte images of 1 to " + std::to_string(c_nMaxPixels) + " pixels can be written as PNG");
    }
    // A device or a pipe is written to; replacing it by a file would be a surprise.
    std::error_code xIgnored;
    const bool bDirect = std::filesystem::exists(sPath, xIgnored) && !std::filesystem::is_regular_file(sPath, xIgnored);
    const std::string sTarget = bDirect ? sPath : sPath + ".part";
    std::unique_ptr<std::FILE, SFileClose> pFile(std::fopen(sTarget.c_str(), "wb"));
    if (pFile == nullptr)
    {
        _FailWithErrno(sPath, "cannot be written", errno);
    }
    SPngSink xSink{pFile.get(), false};
    errno = 0;
    const bool bEncoded = stbi_write_png_to_func(_WriteToSink, &xSink, xFormat.iWidth, xFormat.iHeight, 4,
                              xImage.GetDataPtr(), xFormat.iWidth * 4) != 0;
    const bool bClosed = std::fclose(pFile.release()) == 0;
    const bool bNamed =
        bEncoded && xSink.bWritten && bClosed && (bDirect || std::rename(sTarget.c_str(), sPath.c_str()) == 0);
    if (!bNamed)
    {
        const int iErrno = bEncoded ? errno : ENOMEM;
        if (!bDirect)
        {
            std::remove(sTarget.c_str());
        }
        _FailWithErrno(sPath, "cannot be written", iErrno);
    }
}

} // namespace Qx::Examples
