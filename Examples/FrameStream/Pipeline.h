#pragma once

#include <functional>

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// Gives an image the format and the pixels of frame number @p iFrame, "RGBA" "UByte".
using CFrameSource = std::function<void(int iFrame, IImage& xImage)>;

/// Takes the sharpened frame; the image is used again afterwards. Called in the order of the frames.
using CFrameSink = std::function<void(int iFrame, const IImage& xImage)>;

/// Frames that are on their way at the same time in `StreamFrames`.
constexpr int c_iRing = 4;

/// Sharpens frames on the device one after the other, with blocking transfers from ordinary memory.
void ProcessFramesInTurn(int iFrames, const CFrameSource& xSource, const CFrameSink& xSink);

/// The same with a ring of page-locked images and device images on two streams: while the host makes a frame and takes
/// another, one is uploaded, one sharpened and one downloaded.
///
/// What a slot of the ring holds is used again when the event behind its last transfer has happened, not before.
void StreamFrames(int iFrames, const CFrameSource& xSource, const CFrameSink& xSink);

} // namespace Qx::Examples
