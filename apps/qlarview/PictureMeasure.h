#pragma once
#include "ViewFrame.h"

#include <QtCore/QList>
#include <QtCore/QPoint>
#include <QtCore/QRect>
#include <QtCore/QStringList>
#include <QtCore/QVector>

// Measurements for the picture view and its panel. Every function takes any
// frame and answers empty for one it cannot read (unsupported sample type,
// memory that does not hold the rows its format claims), never reading
// outside the frame's buffers.
//
// Channels are in display order: a blue-first colour picture answers R, G,
// B(, A), everything else its storage order, named by the metadata's channel
// names when they are one per channel, else "#1", "#2", ... (a one-channel
// picture has the single name ""). A spectrum is measured on
// ln(1 + |re + i im|), one channel; its pixel values are the two parts.
namespace PictureMeasure {

QStringList channelNames(const SxViewFrame& frame);

struct SxChannelStatistics
{
    double mean = 0.0;
    double stdDev = 0.0;  // population deviation
    double min = 0.0;
    double max = 0.0;
    quint64 count = 0;    // samples measured (floats: finite ones)
};

// Per channel, of the rectangle (picture pixels) clipped to the picture;
// nothing for an empty rectangle or one that misses the picture. Exact: every
// sample of the rectangle counts; NaN and infinities are left out.
QList<SxChannelStatistics> rectStatistics(const SxViewFrame& frame, const QRect& rect);

// A histogram per channel (a colour picture's alpha is left out), bins
// shared by all channels: bin b covers
// [low + b * binWidth, low + (b + 1) * binWidth).
//  - 8-bit samples: 256 bins, one per value.
//  - 16-bit: the significant range (0 .. 2^bits - 1, signed
//    -2^(bits-1) .. 2^(bits-1) - 1) in at most 1024 bins of whole levels;
//    samples beyond it count in the end bins.
//  - 32-bit integers, floats and spectra: 1024 bins over the lowest to the
//    highest finite value (integers: whole levels per bin).
// Large frames are measured on every k-th row (k chosen for about maxSamples
// samples per channel), the row within each block of k turning round so
// that all rows of a mosaic pattern take part.
struct SxHistogram
{
    QStringList channelNames;
    QList<QVector<double>> counts;  // per channel, binCount() values
    double low = 0.0;
    double binWidth = 1.0;
    bool colour = false;            // the channels are R, G, B(, A)

    bool isEmpty() const { return counts.isEmpty(); }
    int binCount() const { return counts.isEmpty() ? 0 : int(counts.first().size()); }
    double binCentre(int bin) const { return low + (bin + 0.5) * binWidth; }
};
SxHistogram histogram(const SxViewFrame& frame, qint64 maxSamples = 1 << 20);

// The samples of one pixel, per channel; empty outside the picture. texts
// hold the values as the readout writes them: integers exactly, floats with
// six significant digits.
struct SxPixelValues
{
    QStringList names;
    QList<double> values;
    QStringList texts;

    bool isEmpty() const { return values.isEmpty(); }
};
SxPixelValues pixelValues(const SxViewFrame& frame, const QPoint& pos);

// The filter cell under a pixel of a raw one-channel mosaic: "R", "G", "B",
// "C", "M" or "Y" for the 2x2 patterns, the band's name for a hyperspectral
// mosaic (the first zone of its description that holds the pixel, at the
// pixel's place in that zone's pattern) or "outside the zones". Empty for
// other pictures, pixels outside the picture, and hyperspectral mosaics
// without a valid description.
QString cellName(const SxViewFrame& frame, const QPoint& pos);

// The readout line: "x, y: values" with the channel names when there is more
// than one channel, and the cell name in brackets. Empty outside the picture.
QString hoverText(const SxViewFrame& frame, const QPoint& pos);

} // namespace PictureMeasure
