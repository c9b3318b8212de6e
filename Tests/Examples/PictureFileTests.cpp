#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "Common/PictureFile.h"
#include "Common/TestChart.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;
using namespace std::string_literals;

class PictureFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_xFolder = std::filesystem::temp_directory_path() / ("qx-picture-" + std::to_string(getpid()));
        std::filesystem::create_directories(m_xFolder);
    }

    void TearDown() override { std::filesystem::remove_all(m_xFolder); }

    std::string Path(const std::string& sName) const { return (m_xFolder / sName).string(); }

    std::string Write(const std::string& sName, const std::string& sBytes) const
    {
        std::ofstream(Path(sName), std::ios::binary) << sBytes;
        return Path(sName);
    }

    static std::string Read(const std::string& sPath)
    {
        std::ifstream xFile(sPath, std::ios::binary);
        return {std::istreambuf_iterator<char>(xFile), std::istreambuf_iterator<char>()};
    }

    std::vector<std::string> Files() const
    {
        std::vector<std::string> vNames;
        for (const auto& xEntry : std::filesystem::directory_iterator(m_xFolder))
        {
            vNames.push_back(xEntry.path().filename().string());
        }
        return vNames;
    }

    std::filesystem::path m_xFolder;
};

std::string _Pixels(const CQxImage& xImage)
{
    return {static_cast<const char*>(xImage.GetDataPtr()), xImage.GetBufferSize()};
}

std::string _Bitmap(int iHeight, const std::string& sRows, int iSaidBytes)
{
    const auto Number = [](int iValue)
    {
        const auto uValue = static_cast<unsigned>(iValue);
        std::string sBytes;
        for (unsigned uShift = 0; uShift < 32; uShift += 8)
        {
            sBytes += static_cast<char>(uValue >> uShift & 0xFF);
        }
        return sBytes;
    };
    return "BM" + Number(iSaidBytes) + Number(0) + Number(54) + Number(40) + Number(2) + Number(iHeight) +
        "\x01\x00\x18\x00"s + Number(0) + Number(static_cast<int>(sRows.size())) + Number(2835) + Number(2835) +
        Number(0) + Number(0) + sRows;
}

// Two rows of two pixels, blue first, rows padded to four bytes.
const std::string c_sBitmapRows = "\x01\x02\x03\x04\x05\x06\x00\x00\x11\x12\x13\x14\x15\x16\x00\x00"s;

TEST_F(PictureFile, DecodesToRgba)
{
    const struct
    {
        const char* pcName;
        std::string sBytes;
        int iWidth;
        int iHeight;
        std::string sPixels;
    } c_aCases[] = {
        {"grey.pgm", "P5\n2 1\n255\n\x10\xF0"s, 2, 1, "\x10\x10\x10\xFF\xF0\xF0\xF0\xFF"s},
        {"colour.ppm", "P6 1 2 255 \x01\x02\x03\xFD\xFE\xFF"s, 1, 2, "\x01\x02\x03\xFF\xFD\xFE\xFF\xFF"s},
        {"comment.pgm", "P5 # a comment 7 8\n#another\n1\t1\r\n255\n\x2A"s, 1, 1, "\x2A\x2A\x2A\xFF"s},
        {"narrow.pgm", "P5 4 1 3\n\x00\x01\x02\x09"s, 4, 1,
            "\0\0\0\xFF\x55\x55\x55\xFF\xAA\xAA\xAA\xFF\xFF\xFF\xFF\xFF"s},
        {"wide.ppm", "P6 1 1 65535\n\x00\x00\x80\x00\xFF\xFF"s, 1, 1, "\x00\x80\xFF\xFF"s},
        {"up.bmp", _Bitmap(2, c_sBitmapRows, 70), 2, 2,
            "\x13\x12\x11\xFF\x16\x15\x14\xFF\x03\x02\x01\xFF\x06\x05\x04\xFF"s},
        {"down.bmp", _Bitmap(-2, c_sBitmapRows, 70), 2, 2,
            "\x03\x02\x01\xFF\x06\x05\x04\xFF\x13\x12\x11\xFF\x16\x15\x14\xFF"s},
    };
    for (const auto& xCase : c_aCases)
    {
        SCOPED_TRACE(xCase.pcName);
        const CQxImage xImage = ReadPicture(Write(xCase.pcName, xCase.sBytes));
        EXPECT_EQ(xImage.GetFormat(), CQxImageFormat(xCase.iWidth, xCase.iHeight, EDataType::UByte, EPixelType::RGBA));
        EXPECT_EQ(_Pixels(xImage), xCase.sPixels);
    }
}

TEST_F(PictureFile, RefusesWhatIsNoWholePicture)
{
    WritePng(Path("whole.png"), DrawTestChart(40, 30));
    const std::string sPng = Read(Path("whole.png"));
    const struct
    {
        const char* pcName;
        std::string sBytes;
        const char* pcReason;
    } c_aCases[] = {
        {"empty.png", "", "is not a picture"},
        {"text.png", "not a picture at all, however long the text may be", "is not a picture"},
        {"ascii.ppm", "P3 1 1 255\n1 2 3\n", "is not a picture"},
        {"cut.png", sPng.substr(0, sPng.size() / 2), "is damaged"},
        {"cut.bmp", _Bitmap(2, c_sBitmapRows, 70).substr(0, 62), "is damaged"},
        {"cut.pgm", "P5 3 1 255\nab", "ends before its last pixel"},
        {"cut16.pgm", "P5 1 1 256\na", "ends before its last pixel"},
        {"header.ppm", "P6 10", "a number is missing"},
        {"letters.ppm", "P6 x 1 255\nabc", "a number is missing"},
        {"sample0.pgm", "P5 1 1 0\na", "largest sample"},
        {"sample65536.pgm", "P5 1 1 65536\nab", "largest sample"},
        {"narrow.pgm", "P5 0 5 255\n", "has no pixels"},
        {"flat.ppm", "P6 5 0 255\n", "has no pixels"},
        {"huge.ppm", "P6 20000 20000 255\nabc", "more than the 134217728"},
        {"endless.ppm", "P6 99999999999999999999999 1 255\nabc", "more than the 134217728"},
    };
    for (const auto& xCase : c_aCases)
    {
        SCOPED_TRACE(xCase.pcName);
        const std::string sPath = Write(xCase.pcName, xCase.sBytes);
        try
        {
            ReadPicture(sPath);
            ADD_FAILURE() << "read without an error";
        }
        catch (const std::runtime_error& xError)
        {
            const std::string sMessage = xError.what();
            EXPECT_EQ(sMessage.rfind("'" + sPath + "' ", 0), 0U) << sMessage;
            EXPECT_NE(sMessage.find(xCase.pcReason), std::string::npos) << sMessage;
            EXPECT_EQ(sMessage.find('\n'), std::string::npos) << sMessage;
        }
    }
}

TEST_F(PictureFile, ComesBackFromPngAsItWas)
{
    for (const auto& [iWidth, iHeight] : {std::pair(1, 1), std::pair(1, 7), std::pair(7, 1), std::pair(257, 63)})
    {
        CQxImage xImage = DrawTestChart(iWidth, iHeight);
        static_cast<unsigned char*>(xImage.GetDataPtr())[3] = 0; // alpha is kept too
        WritePng(Path("image.png"), xImage);
        const CQxImage xBack = ReadPicture(Path("image.png"));
        EXPECT_EQ(xBack.GetFormat(), xImage.GetFormat());
        EXPECT_EQ(_Pixels(xBack), _Pixels(xImage)) << iWidth << " x " << iHeight;
        EXPECT_EQ(Files(), std::vector<std::string>{"image.png"});
    }
}

TEST_F(PictureFile, RefusesToWriteWhatIsNoRgbaPicture)
{
    for (const CQxImageFormat& xFormat : {CQxImageFormat{}, CQxImageFormat(4, 4, EDataType::UByte, EPixelType::Lum),
             CQxImageFormat(4, 4, EDataType::UShort, EPixelType::RGBA),
             CQxImageFormat(4, 0, EDataType::UByte, EPixelType::RGBA)})
    {
        EXPECT_THROW(WritePng(Path("refused.png"), CQxImage(xFormat)), std::invalid_argument);
    }
    EXPECT_TRUE(Files().empty());
}

TEST_F(PictureFile, KeepsTheOldFileWhenItCannotBeReplaced)
{
    const std::string sOld = Write("old.png", "precious");
    // The new file is written beside the old one; a folder of that name is in its way.
    std::filesystem::create_directories(m_xFolder / "old.png.part" / "full");
    EXPECT_THROW(WritePng(sOld, DrawTestChart(4, 4)), std::runtime_error);
    EXPECT_EQ(Read(sOld), "precious");
    EXPECT_THROW(WritePng(m_xFolder.string(), DrawTestChart(4, 4)), std::runtime_error);
    EXPECT_THROW(WritePng(Path("no/such/folder.png"), DrawTestChart(4, 4)), std::runtime_error);
    EXPECT_THROW(WritePng("/dev/full", DrawTestChart(4, 4)), std::runtime_error);
}

} // namespace
