#pragma once
// Shared by the display mapper and the measurements: where each channel's
// samples of a viewer frame are, checked once against the memory the frame
// holds, so that no loop behind it ever reads outside the buffer.
#include "ViewFrame.h"

#include <KitDispatch.h>

#include <QtCore/QList>

#include <cmath>
#include <cstring>

namespace picturesamples {

// One channel of a picture: sample (x, y) starts at base + y * pitch + x * step.
struct SxPlane
{
    const uchar* base = nullptr;
    qint64 pitch = 0;
    qint64 step = 0;

    const uchar* at(qint64 x, qint64 y) const { return base + y * pitch + x * step; }
    const uchar* row(qint64 y) const { return base + y * pitch; }
};

// Samples are loaded through memcpy: pitches need not be multiples of the
// sample size, and the compiler turns it into a plain load anyway.
template <class T>
inline T load(const uchar* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// A frame's samples, channels in display order: a blue-first colour picture
// answers R, G, B(, A), every other picture its storage order. A spectrum
// has two planes, the real and the imaginary part (float, one channel each).
//
// Planar multi-channel pictures hold whole planes one after another, each
// plane height rows of width packed samples (what a heap picture with the
// packed line pitch has room for); a planar picture whose memory is too
// small for that is refused.
struct SxLayout
{
    bool valid = false;
    quint32 width = 0;
    quint32 height = 0;
    ExImageDataType type = IDT_UNKNOWN;
    int bits = 0;            // significant bits, within the sample type
    bool colour = false;     // blue-first colour, planes swapped to R, G, B(, A)
    bool spectrum = false;
    ExColorFilterArray mosaic = CFA_NONE;  // the raw one-channel mosaic pattern, else CFA_NONE
    QList<SxPlane> planes;

    int channels() const { return int(planes.size()); }
    // Colour channels take part in a colour display and a joint stretch;
    // alpha does not.
    int colourChannels() const { return colour ? 3 : 0; }
    bool contains(qint64 x, qint64 y) const { return x >= 0 && y >= 0 && x < width && y < height; }
};

using ShownTypes = pixelkit::Only<qint8, quint8, qint16, quint16, qint32, quint32, float, double>;

// The sample types the viewer shows and measures.
inline bool isSupportedType(ExImageDataType t)
{
    return pixelkit::withSampleTypeIn<ShownTypes>(t, [](auto) { return true; });
}

inline int typeBits(ExImageDataType t) { return int(bytesPerSampleOf(t)) * 8; }

inline bool isSignedType(ExImageDataType t) { return t == IDT_INT8 || t == IDT_INT16 || t == IDT_INT32; }

inline bool isFloatType(ExImageDataType t) { return t == IDT_FLOAT || t == IDT_DOUBLE; }

// Calls f(T()) with the C++ type of the samples; unsupported types never get here.
template <class F>
inline void dispatchType(ExImageDataType t, F&& f)
{
    pixelkit::withSampleTypeIn<ShownTypes>(t, [&](auto tag) { f(typename decltype(tag)::type()); });
}

SxLayout layoutOf(const SxViewFrame& frame);

// Visits a sparse grid of at most about maxPoints pixels, calling f(x, y).
// Grid rows are one per block of rows and the grid columns start at a
// scrambled offset on each row, so that the points meet every cell of a
// repeating mosaic instead of one phase of it.
template <class F>
inline void forGridPoints(quint32 width, quint32 height, qint64 maxPoints, F&& f)
{
    const double ratio = double(width) * double(height) / double(qMax<qint64>(maxPoints, 1));
    const qint64 step = ratio <= 1.0 ? 1 : qint64(std::ceil(std::sqrt(ratio)));
    for (qint64 block = 0; block * step < qint64(height); ++block) {
        const qint64 y = block * step + block % step;
        if (y >= qint64(height))
            break;
        quint64 h = quint64(block) * 0x9e3779b97f4a7c15ULL;
        h ^= h >> 29;
        for (qint64 x = qint64(h % quint64(step)); x < qint64(width); x += step)
            f(x, y);
    }
}

// Rows for a measurement that skips rows of large pictures: one row from each
// block of step rows, the row within the block turning round from block to
// block, so that every row phase of a mosaic is met. Calls f(y).
template <class F>
inline void forSampledRows(quint32 height, qint64 step, F&& f)
{
    if (step <= 1) {
        for (quint32 y = 0; y < height; ++y)
            f(qint64(y));
        return;
    }
    for (qint64 block = 0; block * step < qint64(height); ++block) {
        const qint64 y = block * step + block % step;
        if (y < qint64(height))
            f(y);
    }
}

} // namespace picturesamples
