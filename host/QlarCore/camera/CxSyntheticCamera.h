#pragma once
#include "CxImageSource.h"

#include "CxHsiCameraParams.h"
#include "SxPicBuf.h"

#include <QtCore/QElapsedTimer>

// A built-in camera that needs no hardware: a moving test pattern (diagonal
// ramp, bars sliding one pixel per frame, a disc circling the centre) plus
// seeded Gaussian-like noise, so that averaging, median filtering and Fourier
// analysis have something real to work on. Frames are live frames, numbered
// from 0. With a frame limit the source ends after that many frames. The same
// configuration, seed and frame number always give the same pixels.
//
// Layouts, all packed, 8- or 16-bit unsigned with bitsPerSample significant
// bits (samples never exceed (1 << bitsPerSample) - 1):
//  * LayoutMono: one channel, the scene's luminance.
//  * LayoutRgb, LayoutRgba: blue, green, red (and alpha at full scale), in
//    that order as every colour picture of the host (SxPicBufInfo.h), colour
//    flag set, no channel names.
//  * LayoutBayer: one channel, a 2x2 mosaic with filter array 1 to 6 (any
//    other value becomes 1). Cyan, magenta and yellow cells hold the mean of
//    the two primaries they pass.
//  * LayoutRgbNir: one channel, filter array 7, described as an RGB-NIR
//    camera: the standard cell NIR, B / R, G over the whole sensor, which is
//    also the layout RGB-NIR nodes assume for a sensor without description.
//  * LayoutHsi: one channel, filter array 7 with a two-zone description
//    (builtInHsiDescription): the left half of the sensor carries a 4x4
//    pattern of 16 visible bands, the right half a 3x3 pattern of 9 bands
//    reaching into the near infrared; pixels outside both zones see the
//    scene unfiltered.
// For the two described layouts a non-empty SxConfig::hsi replaces the
// built-in description, so any described sensor can be simulated. A band
// named "R", "G", "B" or "NIR" sees that component of the scene; any other
// band sees the scene's spectrum at its wavelength (three broad colour bumps
// plus a near-infrared shoulder above 700 nm). Frames of these layouts carry
// the description in their CxImageMetadata.
class QLARCORE_EXPORT CxSyntheticCamera : public CxImageSource
{
    Q_OBJECT
public:
    // New layouts are appended: the values are used in configurations.
    enum ExLayout { LayoutMono, LayoutBayer, LayoutRgb, LayoutRgba, LayoutRgbNir, LayoutHsi };

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
        CxHsiCameraParams hsi;   // LayoutRgbNir, LayoutHsi: empty = built-in description
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

    // The sensor description frames of this configuration carry: empty for
    // layouts without one.
    static CxHsiCameraParams mosaicDescription(const SxConfig& config);
    // The two-zone hyperspectral sensor for a frame of width x height. Zone 0
    // spans the left half (rounded down to whole 4x4 hyperpixels), zone 1 as
    // many whole 3x3 hyperpixels as fit right of it; both as high as whole
    // hyperpixels fit. Frames too small for two zones (narrower than 8 or
    // lower than 4 pixels) get zone 0 alone, over the whole sensor.
    static CxHsiCameraParams builtInHsiDescription(quint32 width, quint32 height);

private:
    SxConfig m_config;
    qint64 m_next = 0;
    QElapsedTimer m_clock;
};
