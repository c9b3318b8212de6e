#include "FrameStream/Pipeline.h"

#include "FrameStream/Kernels.h"

namespace Qx::Examples
{

namespace
{

void _Check(cudaError_t eResult)
{
    CheckCuda(eResult, {"Examples/FrameStream/Pipeline", "StreamFrames"}, "Error streaming frames");
}

// The images of one frame on its way. They stay the same from frame to frame, and so does their memory.
struct SSlot
{
    CQxPageLockedImage xSource;
    CQxDeviceImage2D xFrame;
    CQxDeviceImage2D xSharp;
    CQxPageLockedImage xResult;
    int iFrame = -1; // none
};

// A stream and an event for each slot on it. Waits in the end, so that no queued work outlives what it works on.
class CLane
{
public:
    CLane() { _Check(cudaStreamCreateWithFlags(&m_pStream, cudaStreamNonBlocking)); }
    CLane(const CLane&) = delete;
    CLane& operator=(const CLane&) = delete;
    ~CLane()
    {
        static_cast<void>(cudaStreamSynchronize(m_pStream));
        static_cast<void>(cudaStreamDestroy(m_pStream));
    }
    operator cudaStream_t() const { return m_pStream; }

private:
    cudaStream_t m_pStream = nullptr;
};

class CEvent
{
public:
    CEvent() { _Check(cudaEventCreateWithFlags(&m_pEvent, cudaEventDisableTiming)); }
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;
    ~CEvent() { static_cast<void>(cudaEventDestroy(m_pEvent)); }
    operator cudaEvent_t() const { return m_pEvent; }

private:
    cudaEvent_t m_pEvent = nullptr;
};

} // namespace

void ProcessFramesInTurn(int iFrames, const CFrameSource& xSource, const CFrameSink& xSink)
{
    CQxImage xImage;
    CQxDeviceImage2D xFrame;
    CQxDeviceImage2D xSharp;
    CQxImage xResult;
    for (int iFrame = 0; iFrame < iFrames; ++iFrame)
    {
        xSource(iFrame, xImage);
        xFrame.Create(xImage);
        xSharp.Create(xFrame.GetFormat());
        Sharpen(xFrame, xSharp, nullptr);
        xSharp.CopyTo(xResult);
        xSink(iFrame, xResult);
    }
}

void StreamFrames(int iFrames, const CFrameSource& xSource, const CFrameSink& xSink)
{
    SSlot axSlots[c_iRing];
    const CEvent axDone[c_iRing];
    const CLane axLanes[2];
    const auto Finish = [&](int iSlot)
    {
        SSlot& xSlot = axSlots[iSlot];
        if (xSlot.iFrame >= 0)
        {
            _Check(cudaEventSynchronize(axDone[iSlot]));
            xSink(xSlot.iFrame, xSlot.xResult);
        }
    };
    for (int iFrame = 0; iFrame < iFrames + c_iRing; ++iFrame)
    {
        const int iSlot = iFrame % c_iRing;
        Finish(iSlot);
        SSlot& xSlot = axSlots[iSlot];
        xSlot.iFrame = -1;
        if (iFrame < iFrames)
        {
            const cudaStream_t pStream = axLanes[iFrame % 2];
            xSource(iFrame, xSlot.xSource);
            xSlot.xFrame.CreateAsync(&xSlot.xSource, pStream);
            xSlot.xSharp.Create(xSlot.xFrame.GetFormat());
            Sharpen(xSlot.xFrame, xSlot.xSharp, pStream);
            xSlot.xSharp.CopyToAsync(&xSlot.xResult, pStream);
            _Check(cudaEventRecord(axDone[iSlot], pStream));
            xSlot.iFrame = iFrame;
        }
    }
}

} // namespace Qx::Examples
