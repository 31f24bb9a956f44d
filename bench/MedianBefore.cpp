// The median filter as it stood before its kernels for radius 3 and up were
// rewritten, kept only as the yardstick the new kernels are measured
// against in the same run. Not built into anything but the benchmarks.
#include "MedianBefore.h"

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

#include <emmintrin.h>

#pragma GCC diagnostic ignored "-Wpsabi"

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

size_t roundUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Kernel 5 filters rows in tiles of TileWidth outputs, so the scratch rows of
// a tile stay in L1 and sit at fixed offsets from one base pointer; its
// scratch does not depend on the picture's width.
constexpr int TileWidth = 256;
constexpr int TileCapacity = TileWidth + 64 + 8;  // positions per scratch row

// Counters of the sliding window histogram: fine bins, groups of 16 (16-bit
// only) and coarse buckets.
constexpr size_t histogramWords(size_t bytesPerSample)
{
    return bytesPerSample == 1 ? 256 + 16 : 65536 + 4096 + 256;
}

// 8-bit kernels up to this radius use column histograms with 16-bit counts
// (a window of (2r + 1)^2 samples must not overflow them).
constexpr int MaxColumnHistogramRadius = 127;
constexpr int StripWidth = 256;

typedef quint16 Counts16 __attribute__((vector_size(32)));
// One column's histogram: 16 groups of 16 fine bins, and the 16 group sums.
struct alignas(32) ColumnHistogram
{
    Counts16 fine[16];
    Counts16 coarse;
};

bool usesColumnHistograms(int radius, unsigned bytesPerSample)
{
    return bytesPerSample == 1 && radius >= 3 && radius <= MaxColumnHistogramRadius;
}

size_t slotBytesFor(int radius, unsigned bytesPerSample)
{
    if (radius == 0)
        return 64;
    if (radius <= 2)
        return radius == 1 ? 64 : 15 * size_t(TileCapacity) * bytesPerSample;
    if (usesColumnHistograms(radius, bytesPerSample))
        return (StripWidth + 2 * size_t(radius)) * sizeof(ColumnHistogram);
    return roundUp(histogramWords(bytesPerSample) * sizeof(quint32), 64);
}

// ---------------------------------------------------------------- SIMD traits

#define QLAR_INLINE inline __attribute__((always_inline))

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

struct Frame
{
    const uchar* in = nullptr;
    qint64 inPitch = 0;
    uchar* out = nullptr;
    qint64 outPitch = 0;
    int w = 0;
    int h = 0;
    int r = 0;

    template <class T>
    QLAR_INLINE const T* inRow(int y) const
    {
        y = y < 0 ? 0 : (y >= h ? h - 1 : y);
        return reinterpret_cast<const T*>(in + y * inPitch);
    }
    template <class T>
    QLAR_INLINE T* outRow(int y) const { return reinterpret_cast<T*>(out + y * outPitch); }
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

// Any radius: a window histogram that walks the band in a snake (right along
// even rows, left along odd ones), so each step swaps one column or one row
// of 2r + 1 samples. Counts are kept per bin and per group of 16 bins (and,
// for 16-bit samples, per group of 256), so finding the median after a step
// is a short walk over the coarsest level from the previous median's bucket,
// then at most 16 steps on each finer level.
template <class T>
void medianHistBand(const Frame& f, int y0, int y1, uchar* scratch)
{
    constexpr bool Wide = sizeof(T) == 2;
    constexpr int Bins = 1 << (8 * sizeof(T));
    constexpr int CoarseShift = Wide ? 8 : 4;
    quint32* fine = reinterpret_cast<quint32*>(scratch);
    quint32* mid = fine + Bins;                        // groups of 16; 16-bit only
    quint32* coarse = mid + (Wide ? Bins >> 4 : 0);
    std::memset(fine, 0, sizeof(quint32) * histogramWords(sizeof(T)));

    const int r = f.r, w = f.w;
    const qint64 side = 2 * qint64(r) + 1;
    const qint64 target = (side * side - 1) / 2;  // rank of the median, from 0
    int bucket = 0;       // coarse bucket of the last median
    qint64 below = 0;     // window samples in buckets below it
    auto col = [w](int x) { return x < 0 ? 0 : (x >= w ? w - 1 : x); };
    auto add = [&](int s) {
        ++fine[s];
        if constexpr (Wide)
            ++mid[s >> 4];
        ++coarse[s >> CoarseShift];
        below += (s >> CoarseShift) < bucket;
    };
    auto sub = [&](int s) {
        --fine[s];
        if constexpr (Wide)
            --mid[s >> 4];
        --coarse[s >> CoarseShift];
        below -= (s >> CoarseShift) < bucket;
    };
    auto median = [&]() {
        while (below > target)
            below -= coarse[--bucket];
        while (below + coarse[bucket] <= target)
            below += coarse[bucket++];
        qint64 acc = below;
        int v = bucket << CoarseShift;
        if constexpr (Wide) {
            int m = bucket << 4;
            while (acc + mid[m] <= target)
                acc += mid[m++];
            v = m << 4;
        }
        while (acc + fine[v] <= target)
            acc += fine[v++];
        return v;
    };

    for (int dy = -r; dy <= r; ++dy) {
        const T* row = f.inRow<T>(y0 + dy);
        for (int dx = -r; dx <= r; ++dx)
            add(row[col(dx)]);
    }
    int x = 0;
    for (int y = y0; y < y1; ++y) {
        const int step = ((y - y0) & 1) ? -1 : 1;
        T* out = f.outRow<T>(y);
        for (int i = 0; i < w; ++i) {
            if (i) {
                const int gone = col(step > 0 ? x - r : x + r);
                const int come = col(step > 0 ? x + r + 1 : x - r - 1);
                x += step;
                if (gone != come) {
                    for (int dy = -r; dy <= r; ++dy) {
                        const T* row = f.inRow<T>(y + dy);
                        sub(row[gone]);
                        add(row[come]);
                    }
                }
            }
            out[x] = T(median());
        }
        if (y + 1 < y1) {
            const T* top = f.inRow<T>(y - r);
            const T* bottom = f.inRow<T>(y + r + 1);
            if (top != bottom) {
                for (int dx = -r; dx <= r; ++dx) {
                    const int c = col(x + dx);
                    sub(top[c]);
                    add(bottom[c]);
                }
            }
        }
    }
}

// 8-bit, 3 <= r <= 127: constant time per sample (after Perreault and
// Hebert). Every column of a strip keeps the histogram of its 2r + 1 samples,
// updated by one sample out and one in per row; sliding along x, the window's
// histogram gains one column and loses one, a handful of vector adds. The
// median is then found by two branch-free passes over 16 counts each (coarse,
// then fine within the chosen group): walks with data-dependent exits cost
// more in mispredictions than they save.
// How many of 16 counts, taken in order, keep their running sum at or below
// limit (0 <= limit < 65536), and that sum: the walk to a median's bin
// without a branch per bin. Sums stay below 65536, so 16-bit lanes hold them.
QLAR_INLINE int countWithin(const quint16* counts, int limit, int& sum)
{
    __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(counts));
    __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(counts + 8));
    lo = _mm_add_epi16(lo, _mm_slli_si128(lo, 2));
    hi = _mm_add_epi16(hi, _mm_slli_si128(hi, 2));
    lo = _mm_add_epi16(lo, _mm_slli_si128(lo, 4));
    hi = _mm_add_epi16(hi, _mm_slli_si128(hi, 4));
    lo = _mm_add_epi16(lo, _mm_slli_si128(lo, 8));
    hi = _mm_add_epi16(hi, _mm_slli_si128(hi, 8));
    const __m128i last = _mm_shufflehi_epi16(lo, 0xff);
    hi = _mm_add_epi16(hi, _mm_unpackhi_epi64(last, last));
    // Unsigned 16-bit compare through the signed one.
    const __m128i flip = _mm_set1_epi16(short(0x8000));
    const __m128i bound = _mm_set1_epi16(short(limit ^ 0x8000));
    const int over = _mm_movemask_epi8(_mm_cmpgt_epi16(_mm_xor_si128(lo, flip), bound))
        | _mm_movemask_epi8(_mm_cmpgt_epi16(_mm_xor_si128(hi, flip), bound)) << 16;
    const int n = 16 - __builtin_popcount(unsigned(over)) / 2;
    alignas(16) quint16 prefix[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(prefix), lo);
    _mm_store_si128(reinterpret_cast<__m128i*>(prefix + 8), hi);
    sum = n ? prefix[n - 1] : 0;
    return n;
}

QLAR_INLINE void medianColumnHistogramStrip(const Frame& f, int y0, int y1, int sx0, int sx1, ColumnHistogram* cols)
{
    const int r = f.r, w = f.w;
    const int c0 = std::max(0, sx0 - r), c1 = std::min(w, sx1 + r);
    auto column = [&](int x) -> const ColumnHistogram& { return cols[std::clamp(x, 0, w - 1) - c0]; };
    auto put = [&](const quint8* row, quint16 delta) {
        for (int c = c0; c < c1; ++c) {
            const int v = row[c];
            ColumnHistogram& h = cols[c - c0];
            h.fine[v >> 4][v & 15] += delta;
            h.coarse[v >> 4] += delta;
        }
    };
    std::memset(static_cast<void*>(cols), 0, size_t(c1 - c0) * sizeof(ColumnHistogram));
    for (int dy = -r; dy <= r; ++dy)
        put(f.inRow<quint8>(y0 + dy), 1);

    const int target = ((2 * r + 1) * (2 * r + 1) - 1) / 2;
    Counts16 fineGroups[16];
    for (int y = y0; y < y1; ++y) {
        if (y > y0) {
            const quint8* top = f.inRow<quint8>(y - r - 1);
            const quint8* bottom = f.inRow<quint8>(y + r);
            if (top != bottom) {
                put(top, quint16(-1));
                put(bottom, 1);
            }
        }
        Counts16 coarse = {};
        for (int dx = -r; dx <= r; ++dx)
            coarse += column(sx0 + dx).coarse;
        int synced[16];  // x at which each fine group was last brought up to date
        std::fill(synced, synced + 16, -(1 << 30));
        quint8* out = f.outRow<quint8>(y);
        for (int x = sx0; x < sx1; ++x) {
            if (x > sx0)
                coarse += column(x + r).coarse - column(x - r - 1).coarse;
            int below = 0, within = 0;
            const int group = countWithin(reinterpret_cast<const quint16*>(&coarse), target, below);
            Counts16& fine = fineGroups[group];
            if (x - synced[group] > r) {
                fine = Counts16{};
                for (int dx = -r; dx <= r; ++dx)
                    fine += column(x + dx).fine[group];
            } else {
                for (int xs = synced[group] + 1; xs <= x; ++xs)
                    fine += column(xs + r).fine[group] - column(xs - r - 1).fine[group];
            }
            synced[group] = x;
            const int v = countWithin(reinterpret_cast<const quint16*>(&fine), target - below, within);
            out[x] = quint8(group * 16 + v);
        }
    }
}

QLAR_INLINE void medianColumnHistogramBand(const Frame& f, int y0, int y1, uchar* scratch)
{
    auto* cols = reinterpret_cast<ColumnHistogram*>(scratch);
    for (int sx0 = 0; sx0 < f.w; sx0 += StripWidth)
        medianColumnHistogramStrip(f, y0, y1, sx0, std::min(f.w, sx0 + StripWidth), cols);
}

__attribute__((target("avx2"))) void medianColumnHistogramAvx2(const Frame& f, int y0, int y1, uchar* scratch)
{
    medianColumnHistogramBand(f, y0, y1, scratch);
}

void medianColumnHistogramSse(const Frame& f, int y0, int y1, uchar* scratch)
{
    medianColumnHistogramBand(f, y0, y1, scratch);
}

using BandFn = void (*)(const Frame&, int, int, uchar*);

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
        return !usesColumnHistograms(radius, sizeof(T)) ? medianHistBand<T>
               : hasAvx2()                               ? medianColumnHistogramAvx2
                                                         : medianColumnHistogramSse;
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

bool MedianBefore::allocBuffer(const SxPicBufInfo& format, int radius, void** buffer)
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

void MedianBefore::freeBuffer(void* buffer)
{
    auto* work = static_cast<MedianWork*>(buffer);
    if (!work || work->magic != WorkMagic)
        return;
    work->magic = 0;
    std::free(work->mem);
    delete work;
}

bool MedianBefore::median(const SxPicBuf& in, SxPicBuf& out, int radius, void* buffer)
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
