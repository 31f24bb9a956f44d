#pragma once
#include "CxImageSource.h"

#include "SxPicBuf.h"

#include <QtCore/QElapsedTimer>

// A built-in camera that needs no hardware: a moving test pattern (diagonal
// ramp, bars sliding one pixel per frame, a disc circling the centre) plus
// seeded Gaussian-like noise, so that averaging, median filtering and Fourier
// analysis have something real to work on. Frames are live frames, numbered
// from 0. With a frame limit the source ends after that many frames.
class QLARCORE_EXPORT CxSyntheticCamera : public CxImageSource
{
    Q_OBJECT
public:
    enum ExLayout { LayoutMono, LayoutBayer, LayoutRgb, LayoutRgba };

    struct SxConfig
    {
        ExLayout layout = LayoutBayer;
        ExImageDataType dataType = IDT_UINT8;  // IDT_UINT8 or IDT_UINT16
        quint32 bitsPerSample = 8;             // significant bits (<= the type's)
        ExColorFilterArray colorFilterArray = CFA_BAYER_RGGB;  // LayoutBayer only
        quint32 width = 640;
        quint32 height = 480;
        qint64 frameLimit = 0;   // 0: endless
        double fps = 0.0;        // 0: as fast as the chain takes frames
        quint32 seed = 1;
        double noiseSigma = 2.0; // in 8-bit steps, scaled to the bit depth
    };

    CxSyntheticCamera();
    explicit CxSyntheticCamera(const SxConfig& config);

    SxConfig config() const { return m_config; }
    // Only while the chain is stopped.
    void setConfig(const SxConfig& config);

    bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) override;
    IxChainData* grabFrame() override;
    bool atEnd() const override;
    QString title() const override;

    qint64 framesDelivered() const { return m_next; }
    // Renders frame number n of the pattern into pic (any layout of this
    // camera); exposed so tests can compare against an independent copy.
    static void renderFrame(const SxConfig& config, qint64 n, SxPicBuf& pic);

private:
    SxConfig m_config;
    qint64 m_next = 0;
    QElapsedTimer m_clock;
};
