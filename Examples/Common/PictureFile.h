#pragma once

#include <cstdint>
#include <string>

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// The largest picture that is read or written, in pixels: its bytes can be counted with the 32-bit integers of the
/// decoders and encoders, whatever they add to them.
constexpr std::int64_t c_nMaxPixels = std::int64_t{1} << 27;

/// Reads a PNG, JPEG, BMP or binary PGM or PPM file as a packed "RGBA" "UByte" image. Samples of other widths are
/// scaled to 8 bits; a picture without alpha is opaque.
///
/// Throws `std::runtime_error` with one line that names the file: it cannot be read, is none of these formats, is
/// damaged, has no pixels or has more than `c_nMaxPixels`.
CQxImage ReadPicture(const std::string& sPath);

/// Writes a packed "RGBA" "UByte" image as PNG. The file appears under its name when it is complete, so that a failure
/// leaves an older file of that name as it was.
///
/// Throws `std::runtime_error` with one line that names the file when it cannot be written, and `std::invalid_argument`
/// for an image of another format, without pixels or with more than `c_nMaxPixels`.
void WritePng(const std::string& sPath, const CQxImage& xImage);

} // namespace Qx::Examples
