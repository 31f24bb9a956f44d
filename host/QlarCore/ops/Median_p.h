#pragma once
// Internal to the median operation (CxPicBufAPI_Median*.cpp): the frame a
// band kernel filters and the histogram kernels, which serve the radii the
// sorting networks do not. Not part of the installed interface.
#include <QtGlobal>

#include <cstddef>

#define QLAR_INLINE inline __attribute__((always_inline))

namespace median {

struct Frame
{
    const uchar* in = nullptr;
    qint64 inPitch = 0;
    uchar* out = nullptr;
    qint64 outPitch = 0;
    int w = 0;
    int h = 0;
    int r = 0;
    int channels = 1;  // interleaved; the histogram kernels filter one only
    int outTop = 0;    // the output's first row is frame row outTop

    template <class T>
    QLAR_INLINE const T* inRow(int y) const
    {
        y = y < 0 ? 0 : (y >= h ? h - 1 : y);
        return reinterpret_cast<const T*>(in + y * inPitch);
    }
    template <class T>
    QLAR_INLINE T* outRow(int y) const { return reinterpret_cast<T*>(out + (y - outTop) * outPitch); }
};

// Filters output rows [y0, y1) of the frame with one thread's scratch slot.
using BandFn = void (*)(const Frame&, int y0, int y1, uchar* scratch);

inline size_t roundUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// The histogram kernels, for any radius from 1: the scratch one slot needs,
// and the kernel for the radius and sample size.
size_t histogramSlotBytes(int radius, unsigned bytesPerSample);
BandFn histogramKernel(int radius, unsigned bytesPerSample);
// Radii the 16-bit column histograms serve ahead of the networks (with
// AVX-512 only).
bool usesHighLow(int radius, unsigned bytesPerSample);

// The 16-bit histogram kernel leaves most of its scratch zeroed for its next
// call and says in the slot's first word for which radius; after any other
// kernel has used `used` bytes of a slot, forgetLowColumns notes that.
bool keepsLowColumns(BandFn kernel);
void forgetLowColumns(uchar* slot, size_t used);

} // namespace median
