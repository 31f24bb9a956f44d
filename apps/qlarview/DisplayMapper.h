#pragma once
#include "ViewFrame.h"

#include <QtCore/QRectF>
#include <QtCore/QSize>
#include <QtGui/QColor>
#include <QtGui/QImage>

#include <vector>

// Turns viewer frames into screen pictures without touching their samples.
//
// What is shown
//  - Blue-first colour pictures (SxPicBufInfo::isBlueFirstColour) in their
//    true colours; alpha is not shown. One stretch range serves all three
//    colours, so the colour balance stays as recorded.
//  - Every other picture one channel in grey: the only one, or the one chosen
//    with setChannel (clamped to the picture's channels). One-channel mosaics
//    show their raw samples, cell by cell.
//  - Spectra as ln(1 + |re + i im|) from black at 0 to white at the frame's
//    largest magnitude; the stretch mode does not apply to them.
//
// Stretch: the sample range [low, high] that runs from black to white, with
// values outside clipped.
//  - FullRange: the sample type's range. Unsigned 0 .. max, signed min .. max
//    (zero is mid grey). Floats have no useful type range: the frame's own
//    lowest and highest finite value, looked for on the subsample below.
//  - SignificantBits: integers 0 .. 2^bits - 1, signed ones
//    -2^(bits-1) .. 2^(bits-1) - 1, bits being the picture's bitsPerSample
//    (0, or more than the type holds, means the whole type). Floats with
//    fewer than 32 significant bits hold integer levels of that many bits:
//    0 .. 2^bits - 1; any other float picture is taken as normalised: 0 .. 1.
//  - Auto: the low and high percentiles (0.5 % and 99.5 % unless set) of the
//    frame's samples, found on a subsample of about 40 000 pixels that meets
//    every cell of a mosaic, once per frame and channel. NaN and infinities
//    are skipped. A flat frame gets a range one level (floats: one unit of
//    the value) wide.
//
// Rendering. render() draws the sourceRect of the picture (picture pixel
// coordinates, pixel (x, y) covering [x, x + 1) x [y, y + 1)) into a picture
// of the target size: target pixel (i, j) shows the source pixel under the
// point sourceRect.topLeft() + ((i + 0.5) * sx, (j + 0.5) * sy), s the source
// size per target pixel. That is nearest-neighbour sampling when zoomed out
// and square pixel blocks when zoomed in, and only the target's pixels are
// ever computed, so the cost follows the window, not the frame. Points
// outside the picture take the background colour; so does every pixel of a
// frame whose format cannot be shown (unsupported sample type, memory that
// does not hold the rows it claims).
//
// The mapper keeps per-frame results (stretch range, largest magnitude of a
// spectrum) and look-up tables between calls; it is meant for one thread
// (the GUI's) and never keeps a frame alive.
class CxDisplayMapper
{
public:
    enum ExStretchMode { FullRange, SignificantBits, Auto };

    struct SxRange
    {
        double low = 0.0;
        double high = 1.0;
    };

    CxDisplayMapper();

    ExStretchMode stretchMode() const { return m_mode; }
    void setStretchMode(ExStretchMode mode) { m_mode = mode; }
    int channel() const { return m_channel; }
    void setChannel(int channel) { m_channel = qMax(0, channel); }
    // Percentiles of the automatic stretch, in percent (0 <= low < high <= 100).
    void setAutoPercentiles(double lowPercent, double highPercent);
    double autoLowPercent() const { return m_autoLow; }
    double autoHighPercent() const { return m_autoHigh; }
    QColor background() const { return QColor::fromRgb(m_background); }
    void setBackground(const QColor& c) { m_background = c.rgb() | 0xff000000u; }

    // The sample range black..white of the frame with the current settings;
    // for a spectrum 0 .. ln(1 + largest magnitude). {0, 1} for a frame that
    // cannot be shown.
    SxRange displayRange(const SxViewFrame& frame);
    // RGB32 picture of target size; null for an empty target.
    QImage render(const SxViewFrame& frame, const QRectF& sourceRect, const QSize& target);

private:
    struct SxFrameKey
    {
        const void* frame = nullptr;
        const void* data = nullptr;
        qint32 frameNumber = 0;
        quint32 timestampMs = 0;
        quint32 width = 0, height = 0;
        int mode = -1, channel = -1;
        double autoLow = 0, autoHigh = 0;
        bool operator==(const SxFrameKey& o) const;
    };
    SxFrameKey keyOf(const SxViewFrame& frame) const;
    void buildLut(int bytesPerSample, bool isSigned, const SxRange& range);
    void buildSpectrumTable(double scale);

    ExStretchMode m_mode = FullRange;
    int m_channel = 0;
    double m_autoLow = 0.5;
    double m_autoHigh = 99.5;
    QRgb m_background = 0xff303030u;

    SxFrameKey m_rangeKey;
    SxRange m_range;

    // Grey levels indexed by the raw bits of an 8- or 16-bit sample.
    std::vector<uchar> m_lut;
    bool m_lutIdentity = false;  // 8-bit levels shown as they are
    bool lutIsIdentity() const { return m_lutIdentity; }
    int m_lutBytes = 0;
    bool m_lutSigned = false;
    SxRange m_lutRange{0.0, -1.0};

    // Spectra: the squared magnitude at which each grey level starts, and
    // the first level of each bucket of squared magnitudes.
    std::vector<float> m_spectrumSteps;
    std::vector<uchar> m_spectrumStart;
    double m_spectrumScale = 0.0;
};
