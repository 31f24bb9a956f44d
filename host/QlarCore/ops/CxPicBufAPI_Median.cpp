// Median filter: CxPicBufAPI::MedianAllocBuffer, Median, MedianFreeBuffer.
//
// What the operation does:
// - One-channel unsigned 8- or 16-bit pictures only; more channels, other
//   sample types, mismatched sizes or types, null pixels, an output that
//   overlaps the input and a missing or too small work buffer answer false and
//   leave the output untouched. Zero-sized pictures answer true.
// - Kernel (2r + 1) x (2r + 1); radius 0 copies the picture. Samples outside
//   the picture repeat the nearest edge sample (replicated border), so every
//   output sample is the median of exactly (2r + 1)^2 samples.
// - Pitches may be padded and may differ between input and output; nothing is
//   read past the packed bytes of the input's last row. A pitch or data
//   address that is not a multiple of the sample size is refused.
// - The work buffer holds one scratch slot per thread, sized for the sample
//   type and radius it was made for; the picture's size does not matter.
//   Median accepts any buffer whose slot is big enough for the call (one made
//   for 16-bit samples or a larger radius usually is) and answers false
//   otherwise; it never grows the buffer or allocates. A buffer serves one
//   Median call at a time.
// - Radius above MaxRadius is refused; the kernel then covers more than
//   a thousand million samples.
//
// How: rows are shared out in pieces by the kit's row scheduler, each
// thread with its own scratch slot. Kernels 3 and 5 are min/max networks over sorted columns,
// vectorised across x (AVX2 when the CPU has it): kernel 3 makes two output
// rows at a time from registers, kernel 5 works through L1-sized tiles of
// scratch rows. Larger kernels count samples in histograms
// (CxPicBufAPI_MedianHistogram.cpp).
#include "CxPicBufAPI.h"
#include "Median_p.h"

#include <KitCpu.h>
#include <KitPicture.h>
#include <KitRows.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#pragma GCC diagnostic ignored "-Wpsabi"

using namespace median;

namespace {

constexpr quint32 WorkMagic = 0x4d454457u;
constexpr int MaxRadius = 16383;

struct MedianWork
{
    quint32 magic = WorkMagic;
    int threads = 1;
    size_t slotBytes = 0;
    uchar* mem = nullptr;
};

// Kernel 5 filters rows in tiles of TileWidth outputs, so the scratch rows of
// a tile stay in L1 and sit at fixed offsets from one base pointer; its
// scratch does not depend on the picture's width.
constexpr int TileWidth = 256;
constexpr int TileCapacity = TileWidth + 64 + 8;  // positions per scratch row

size_t slotBytesFor(int radius, unsigned bytesPerSample)
{
    if (radius == 0)
        return 64;
    if (radius <= 2)
        return radius == 1 ? 64 : 15 * size_t(TileCapacity) * bytesPerSample;
    return histogramSlotBytes(radius, bytesPerSample);
}

// ---------------------------------------------------------------- SIMD traits

template <class Ty, int N>
struct Simd
{
    using T = Ty;
    static constexpr int Lanes = N;
    typedef Ty V __attribute__((vector_size(N * sizeof(Ty))));
    static QLAR_INLINE V load(const T* p)
    {
        V v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    // By reference: 32-byte vectors passed by value to functions compiled
    // without AVX would change their calling convention.
    static QLAR_INLINE void store(T* p, const V& v) { std::memcpy(p, &v, sizeof v); }
    static QLAR_INLINE V mn(const V& a, const V& b) { return a < b ? a : b; }
    static QLAR_INLINE V mx(const V& a, const V& b) { return a < b ? b : a; }
};

template <class Ty>
struct Simd<Ty, 1>
{
    using T = Ty;
    static constexpr int Lanes = 1;
    using V = Ty;
    static QLAR_INLINE V load(const T* p) { return *p; }
    static QLAR_INLINE void store(T* p, V v) { *p = v; }
    static QLAR_INLINE V mn(V a, V b) { return a < b ? a : b; }
    static QLAR_INLINE V mx(V a, V b) { return a < b ? b : a; }
};

// Vector chunks over n >= Lanes positions: the last chunk is moved back so it
// ends at n, recomputing a few positions instead of reading past the row.
#define QLAR_FOR_CHUNKS(x, n, L)                                                     \
    for (int x##_i = 0, x##_c = ((n) + (L) - 1) / (L), x = 0; x##_i < x##_c;         \
         ++x##_i, x = std::min(x + (L), (n) - (L)))

template <class S>
QLAR_INLINE typename S::V med3(const typename S::V& a, const typename S::V& b, const typename S::V& c)
{
    return S::mx(S::mn(a, b), S::mn(S::mx(a, b), c));
}

// The last tile takes the remainder when that is short, so every tile spans
// at least one vector.

template <int L>
QLAR_INLINE int tileWidthAt(int x0, int w)
{
    return w - x0 <= TileWidth + L ? w - x0 : TileWidth;
}

// Sorts the columns [x0 - margin, x0 + tw + margin) of the given rows with
// sortColumn and stores them from position 0 of the scratch rows (stride
// TileCapacity); columns outside the picture repeat the edge column.
template <class S, int Rows, int Margin, class Sort>
QLAR_INLINE void sortedColumns(const typename S::T* const* rows, int x0, int tw, int w, typename S::T* out)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    const int c0 = std::max(0, x0 - Margin), c1 = std::min(w, x0 + tw + Margin);
    T* first = out + (c0 - (x0 - Margin));
    QLAR_FOR_CHUNKS(i, c1 - c0, L)
    {
        V v[Rows];
#pragma GCC unroll 8
        for (int k = 0; k < Rows; ++k)
            v[k] = S::load(rows[k] + c0 + i);
        Sort::apply(v);
#pragma GCC unroll 8
        for (int k = 0; k < Rows; ++k)
            S::store(first + k * TileCapacity + i, v[k]);
    }
    const int lead = c0 - (x0 - Margin), end = c1 - (x0 - Margin), total = tw + 2 * Margin;
    for (int k = 0; k < Rows; ++k) {
        T* row = out + k * TileCapacity;
        std::fill(row, row + lead, row[lead]);
        std::fill(row + end, row + total, row[end - 1]);
    }
}

template <class S>
struct Sort5
{
    using V = typename S::V;
    static QLAR_INLINE void ce(V& p, V& q)
    {
        const V t = S::mn(p, q);
        q = S::mx(p, q);
        p = t;
    }
    static QLAR_INLINE void apply(V* v)
    {
        ce(v[0], v[1]); ce(v[3], v[4]); ce(v[2], v[4]); ce(v[2], v[3]); ce(v[0], v[3]);
        ce(v[0], v[2]); ce(v[1], v[4]); ce(v[1], v[3]); ce(v[1], v[2]);
    }
};

// 3 x 3, two output rows at a time: rows y and y + 1 share the sorted pair
// of their two middle input rows, and each column's sorted triple is made in
// registers for the three windows that need it rather than stored. Vectors
// cover columns 1 .. w - 2; the two edge columns, whose windows repeat the
// edge, are done one sample at a time.
template <class S>
QLAR_INLINE void median3Band(const Frame& f, int y0, int y1, uchar*)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    const int w = f.w;
    for (int y = y0; y < y1; y += 2) {
        const T* a = f.inRow<T>(y - 1);
        const T* b = f.inRow<T>(y);
        const T* c = f.inRow<T>(y + 1);
        const T* d = f.inRow<T>(y + 2);
        T* o0 = f.outRow<T>(y);
        T* o1 = y + 1 < y1 ? f.outRow<T>(y + 1) : nullptr;
        QLAR_FOR_CHUNKS(i, w - 2, L)
        {
            const int x = i + 1;
            V lo0[3], mid0[3], hi0[3], lo1[3], mid1[3], hi1[3];
#pragma GCC unroll 3
            for (int k = 0; k < 3; ++k) {
                const V va = S::load(a + x + k - 1), vb = S::load(b + x + k - 1), vc = S::load(c + x + k - 1),
                        vd = S::load(d + x + k - 1);
                const V p = S::mn(vb, vc), q = S::mx(vb, vc);
                lo0[k] = S::mn(p, va), hi0[k] = S::mx(q, va), mid0[k] = S::mx(p, S::mn(q, va));
                lo1[k] = S::mn(p, vd), hi1[k] = S::mx(q, vd), mid1[k] = S::mx(p, S::mn(q, vd));
            }
            S::store(o0 + x, med3<S>(S::mx(S::mx(lo0[0], lo0[1]), lo0[2]), med3<S>(mid0[0], mid0[1], mid0[2]),
                                     S::mn(S::mn(hi0[0], hi0[1]), hi0[2])));
            if (o1)
                S::store(o1 + x, med3<S>(S::mx(S::mx(lo1[0], lo1[1]), lo1[2]), med3<S>(mid1[0], mid1[1], mid1[2]),
                                         S::mn(S::mn(hi1[0], hi1[1]), hi1[2])));
        }
        for (int yy = y; yy < std::min(y + 2, y1); ++yy)
            for (int x : {0, w - 1}) {
                T win[9];
                for (int k = 0; k < 9; ++k)
                    win[k] = f.inRow<T>(yy + k / 3 - 1)[std::clamp(x + k % 3 - 1, 0, w - 1)];
                std::nth_element(win, win + 4, win + 9);
                f.outRow<T>(yy)[x] = win[4];
            }
    }
}

// 5 x 5: columns are sorted (s0..s4), neighbouring sorted columns are merged
// into sorted tens (m0..m9, one per column pair, shared by two windows), and
// a window takes two such tens and its fifth column. Of the two tens merged
// only ranks 7..12 can reach rank 12 of 25; the median is then
// min over the splits i + j = 13 of max(tens rank i - 1, column rank j - 1).
// The merging networks are Batcher's odd-even merge, pruned to the outputs
// used; the tests compare against sorting every window.
template <class S>
QLAR_INLINE void median5Band(const Frame& f, int y0, int y1, uchar* scratch)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    constexpr int C = TileCapacity;
    const int w = f.w;
    // Sorted columns s0..s4 at s + k C, merged pairs m0..m9 at m + k C.
    T* s = reinterpret_cast<T*>(scratch);
    T* m = s + 5 * C;

    for (int y = y0; y < y1; ++y) {
        const T* rows[5] = {f.inRow<T>(y - 2), f.inRow<T>(y - 1), f.inRow<T>(y), f.inRow<T>(y + 1), f.inRow<T>(y + 2)};
        T* o = f.outRow<T>(y);
        for (int tx = 0, tw = 0; tx < w; tx += tw) {
            tw = tileWidthAt<L>(tx, w);
            // Position i holds column tx - 2 + i.
            sortedColumns<S, 5, 2, Sort5<S>>(rows, tx, tw, w, s);
            // m at p merges the sorted columns at p and p + 1 (positions as in s).
            QLAR_FOR_CHUNKS(p, tw + 2, L)
            {
                const V a0 = S::load(s + p), a1 = S::load(s + 1 * C + p), a2 = S::load(s + 2 * C + p),
                        a3 = S::load(s + 3 * C + p), a4 = S::load(s + 4 * C + p);
                const V b0 = S::load(s + p + 1), b1 = S::load(s + 1 * C + p + 1), b2 = S::load(s + 2 * C + p + 1),
                        b3 = S::load(s + 3 * C + p + 1), b4 = S::load(s + 4 * C + p + 1);
                const V m0 = S::mn(a0, b0);
                const V u0 = S::mx(a0, b0);
                const V u1 = S::mn(a4, b4);
                const V m9 = S::mx(a4, b4);
                const V u2 = S::mn(u1, u0);
                const V u3 = S::mx(u1, u0);
                const V u4 = S::mn(a2, b2);
                const V u5 = S::mx(a2, b2);
                const V u6 = S::mn(u4, u2);
                const V u7 = S::mx(u4, u2);
                const V u8 = S::mn(u5, u3);
                const V u9 = S::mx(u5, u3);
                const V u10 = S::mn(a1, b1);
                const V u11 = S::mx(a1, b1);
                const V u12 = S::mn(a3, b3);
                const V u13 = S::mx(a3, b3);
                const V u14 = S::mn(u12, u11);
                const V u15 = S::mx(u12, u11);
                S::store(m + p, m0);
                S::store(m + 1 * C + p, S::mn(u10, u6));
                S::store(m + 2 * C + p, S::mx(u10, u6));
                S::store(m + 3 * C + p, S::mn(u14, u7));
                S::store(m + 4 * C + p, S::mx(u14, u7));
                S::store(m + 5 * C + p, S::mn(u15, u8));
                S::store(m + 6 * C + p, S::mx(u15, u8));
                S::store(m + 7 * C + p, S::mn(u13, u9));
                S::store(m + 8 * C + p, S::mx(u13, u9));
                S::store(m + 9 * C + p, m9);
            }
            // Window at x: columns x-2, x-1 (m at x), x, x+1 (m at x + 2) and x+2 (s at x + 4).
            QLAR_FOR_CHUNKS(x, tw, L)
            {
                const int q = x + 2;
                const V x0 = S::load(m + x), x1 = S::load(m + 1 * C + x), x2 = S::load(m + 2 * C + x),
                        x3 = S::load(m + 3 * C + x), x4 = S::load(m + 4 * C + x), x5 = S::load(m + 5 * C + x),
                        x6 = S::load(m + 6 * C + x), x7 = S::load(m + 7 * C + x), x8 = S::load(m + 8 * C + x),
                        x9 = S::load(m + 9 * C + x);
                const V y0v = S::load(m + q), y1v = S::load(m + 1 * C + q), y2v = S::load(m + 2 * C + q),
                        y3v = S::load(m + 3 * C + q), y4v = S::load(m + 4 * C + q), y5v = S::load(m + 5 * C + q),
                        y6v = S::load(m + 6 * C + q), y7v = S::load(m + 7 * C + q), y8v = S::load(m + 8 * C + q),
                        y9v = S::load(m + 9 * C + q);
                const V w0 = S::mx(x0, y0v);
                const V w1 = S::mn(x8, y8v);
                const V w2 = S::mn(w1, w0);
                const V w3 = S::mx(w1, w0);
                const V w4 = S::mn(x4, y4v);
                const V w5 = S::mx(x4, y4v);
                const V w6 = S::mx(w4, w2);
                const V w7 = S::mn(w5, w3);
                const V w8 = S::mx(x2, y2v);
                const V w9 = S::mn(x6, y6v);
                const V w10 = S::mn(w9, w8);
                const V w11 = S::mx(w9, w8);
                const V w12 = S::mx(w10, w6);
                const V w13 = S::mn(w11, w7);
                const V w14 = S::mx(w11, w7);
                const V w15 = S::mx(x1, y1v);
                const V w16 = S::mn(x9, y9v);
                const V w17 = S::mn(w16, w15);
                const V w18 = S::mx(w16, w15);
                const V w19 = S::mn(x5, y5v);
                const V w20 = S::mx(x5, y5v);
                const V w21 = S::mx(w19, w17);
                const V w22 = S::mn(w20, w18);
                const V w23 = S::mx(x3, y3v);
                const V w24 = S::mn(x7, y7v);
                const V w25 = S::mn(w24, w23);
                const V w26 = S::mx(w24, w23);
                const V w27 = S::mn(w25, w21);
                const V w28 = S::mx(w25, w21);
                const V w29 = S::mn(w26, w22);
                const V q7 = S::mn(w27, w12);
                const V q8 = S::mx(w27, w12);
                const V q9 = S::mn(w28, w13);
                const V q10 = S::mx(w28, w13);
                const V q11 = S::mn(w29, w14);
                const V q12 = S::mx(w29, w14);
                const int z = x + 4;
                V med = S::mn(q12, S::mx(q11, S::load(s + z)));
                med = S::mn(med, S::mx(q10, S::load(s + 1 * C + z)));
                med = S::mn(med, S::mx(q9, S::load(s + 2 * C + z)));
                med = S::mn(med, S::mx(q8, S::load(s + 3 * C + z)));
                med = S::mn(med, S::mx(q7, S::load(s + 4 * C + z)));
                S::store(o + tx + x, med);
            }
        }
    }
}

template <class T>
void copyBand(const Frame& f, int y0, int y1, uchar*)
{
    for (int y = y0; y < y1; ++y)
        std::memcpy(f.outRow<T>(y), f.inRow<T>(y), size_t(f.w) * sizeof(T));
}

// One instantiation per instruction set. The kernels are inlined into these
// entry points, so the AVX2 ones are compiled for AVX2 as a whole.
#define QLAR_MEDIAN_ENTRIES(T, suffix)                                                                  \
    __attribute__((target("avx2"))) void median3Avx2_##suffix(const Frame& f, int a, int b, uchar* s)   \
    { median3Band<Simd<T, 32 / sizeof(T)>>(f, a, b, s); }                                               \
    __attribute__((target("avx2"))) void median5Avx2_##suffix(const Frame& f, int a, int b, uchar* s)   \
    { median5Band<Simd<T, 32 / sizeof(T)>>(f, a, b, s); }                                               \
    void median3Sse_##suffix(const Frame& f, int a, int b, uchar* s) { median3Band<Simd<T, 16 / sizeof(T)>>(f, a, b, s); } \
    void median5Sse_##suffix(const Frame& f, int a, int b, uchar* s) { median5Band<Simd<T, 16 / sizeof(T)>>(f, a, b, s); } \
    void median3One_##suffix(const Frame& f, int a, int b, uchar* s) { median3Band<Simd<T, 1>>(f, a, b, s); }            \
    void median5One_##suffix(const Frame& f, int a, int b, uchar* s) { median5Band<Simd<T, 1>>(f, a, b, s); }

QLAR_MEDIAN_ENTRIES(quint8, u8)
QLAR_MEDIAN_ENTRIES(quint16, u16)

bool hasAvx2()
{
    return pixelkit::cpuHas(pixelkit::CpuFeature::Avx2);
}

template <class T>
BandFn pickKernel(int radius, int width)
{
    constexpr bool Wide = sizeof(T) == 2;
    const int avxLanes = 32 / int(sizeof(T)), sseLanes = 16 / int(sizeof(T));
    if (radius == 0)
        return copyBand<T>;
    if (radius > 2)
        return histogramKernel(radius, sizeof(T));
    const bool three = radius == 1;
    // Kernel 3 vectors cover all but the two edge columns.
    const int need = three ? 2 : 0;
    if (width >= avxLanes + need && hasAvx2())
        return three ? (Wide ? median3Avx2_u16 : median3Avx2_u8) : (Wide ? median5Avx2_u16 : median5Avx2_u8);
    if (width >= sseLanes + need)
        return three ? (Wide ? median3Sse_u16 : median3Sse_u8) : (Wide ? median5Sse_u16 : median5Sse_u8);
    return three ? (Wide ? median3One_u16 : median3One_u8) : (Wide ? median5One_u16 : median5One_u8);
}

bool supportedPlane(const SxPicBufInfo& f)
{
    return f.channels == 1 && (f.dataType == IDT_UINT8 || f.dataType == IDT_UINT16);
}

using pixelkit::overlaps;

bool laidOut(const SxPicBuf& p)
{
    return pixelkit::rowsFit(p) && pixelkit::samplesAligned(p);
}

} // namespace

bool CxPicBufAPI::MedianAllocBuffer(const SxPicBufInfo& format, int radius, void** buffer)
{
    if (!buffer)
        return false;
    *buffer = nullptr;
    if (!supportedPlane(format) || radius < 0 || radius > MaxRadius)
        return false;
    auto* work = new (std::nothrow) MedianWork;
    if (!work)
        return false;
    work->threads = pixelkit::threadSlots();
    work->slotBytes = roundUp(slotBytesFor(radius, format.bytesPerSample()), 64);
    work->mem = static_cast<uchar*>(std::aligned_alloc(64, work->slotBytes * size_t(work->threads)));
    if (!work->mem) {
        delete work;
        return false;
    }
    // Lanes that run past a short row read scratch, never stale garbage.
    std::memset(work->mem, 0, work->slotBytes * size_t(work->threads));
    *buffer = work;
    return true;
}

void CxPicBufAPI::MedianFreeBuffer(void* buffer)
{
    auto* work = static_cast<MedianWork*>(buffer);
    if (!work || work->magic != WorkMagic)
        return;
    work->magic = 0;
    std::free(work->mem);
    delete work;
}

bool CxPicBufAPI::Median(const SxPicBuf& in, SxPicBuf& out, int radius, void* buffer)
{
    auto* work = static_cast<MedianWork*>(buffer);
    if (!work || work->magic != WorkMagic || radius < 0 || radius > MaxRadius)
        return false;
    if (!supportedPlane(in) || !supportedPlane(out) || in.dataType != out.dataType)
        return false;
    if (in.width != out.width || in.height != out.height)
        return false;
    if (in.width == 0 || in.height == 0)
        return true;
    if (!in.data || !out.data || !laidOut(in) || !laidOut(out) || overlaps(in, out))
        return false;
    if (in.width > quint32(INT_MAX) || in.height > quint32(INT_MAX))
        return false;
    const unsigned bps = in.bytesPerSample();
    if (slotBytesFor(radius, bps) > work->slotBytes)
        return false;

    Frame f;
    f.in = in.data;
    f.inPitch = qint64(in.effectiveLinePitch());
    f.out = out.data;
    f.outPitch = qint64(out.effectiveLinePitch());
    f.w = int(in.width);
    f.h = int(in.height);
    f.r = radius;
    const BandFn kernel = bps == 1 ? pickKernel<quint8>(radius, f.w) : pickKernel<quint16>(radius, f.w);

    // A median sample costs several copied bytes, more the wider the kernel.
    const quint64 rowCost = quint64(f.w) * bps * 2 * std::min(2 * radius + 1, 64);
    // Each piece builds its window anew: few, large pieces.
    pixelkit::forEachRowPiece(
        f.h, rowCost, [&](int y0, int y1, int slot) { kernel(f, y0, y1, work->mem + size_t(slot) * work->slotBytes); },
        pixelkit::Pieces::Few);
    return true;
}
