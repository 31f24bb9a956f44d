// Median filter: CxPicBufAPI::MedianAllocBuffer, Median, MedianFreeBuffer.
//
// What the operation does:
// - Unsigned 8- or 16-bit pictures of 1 to 16 interleaved channels, each
//   channel filtered on its own; planar storage, other sample types,
//   mismatched sizes, types or channel counts, null pixels, an output that
//   overlaps the input and a missing or too small work buffer answer false
//   and leave the output untouched. Zero-sized pictures answer true.
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
//   Median call at a time. For 16-bit kernels from 19 on (with AVX-512) a
//   slot reserves 10 to 22 MB, of which a call makes resident only the pages
//   the picture's values reach (on a noisy 16-bit camera frame about 5 MB
//   per thread at kernel 25, 12 MB at kernel 255). For several channels and
//   kernels from 7 on, a slot also holds tiles of the picture's channels (up
//   to 8 MB, or one channel's tile where that is larger; sized for the
//   format's width and height when the kernel is larger than a tile), so
//   such a buffer serves pictures up to its format's size.
// - Radius above MaxRadius is refused; the kernel then covers more than
//   a thousand million samples.
//
// How: rows are shared out in pieces by the kit's row scheduler, each
// thread with its own scratch slot. Every kernel from 3 to 11 (16-bit: to
// 17, or to 25 without AVX-512) works on sorted columns with min/max
// networks, vectorised across x (AVX-512BW or AVX2 when the CPU has them,
// else SSE2; all give the same results): kernel 3 makes two output rows at a time from registers, kernel 5
// works through L1-sized tiles of scratch rows, and from kernel 7 the sorted
// columns of a tile are merged into blocks shared by the windows of the row,
// keeping only the ranks that can still be the median, so a 7 x 7 costs a
// few times a 5 x 5 rather than a histogram pass. The networks filter the
// channels of an interleaved picture together (a pixel's neighbours a
// pixel's samples away); the histograms take them one at a time out of
// tiles (filterChannelTiles). Larger kernels, and
// pictures narrower than one vector, count samples in histograms
// (CxPicBufAPI_MedianHistogram.cpp): column histograms cost nearly the same
// at any radius and win from kernel 13 (8-bit) and 19 (16-bit), where the
// networks' work has grown with the kernel's area.
#include "CxPicBufAPI.h"
#include "Median_p.h"
#include "MedianNetwork_p.h"

#include <KitCpu.h>
#include <KitMosaic.h>
#include <KitPicture.h>
#include <KitRows.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#pragma GCC diagnostic ignored "-Wpsabi"

using namespace median;

namespace {

constexpr quint32 WorkMagic = 0x4d454457u;
constexpr int MaxRadius = 16383;
// Interleaved channels filtered at once, as many as the row streams split
// with vectors.
constexpr int MaxChannels = 16;

struct MedianWork
{
    quint32 magic = WorkMagic;
    int threads = 1;
    size_t slotBytes = 0;
    uchar* mem = nullptr;    // 64-byte aligned, inside raw
    void* raw = nullptr;
};

// Kernel 5 filters rows in tiles of TileWidth outputs, so the scratch rows of
// a tile stay in L1 and sit at fixed offsets from one base pointer; its
// scratch does not depend on the picture's width.
constexpr int TileWidth = 256;
constexpr int TileCapacity = TileWidth + 64 + 8 + 4 * MaxChannels;  // positions per scratch row


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
// TileCapacity); columns outside the picture repeat the edge pixel. Columns
// count samples of a row (w of them): with channels > 1 the margin is
// Margin pixels, and a sample's neighbours lie channels positions away.
template <class S, int Rows, int Margin, class Sort, int Stride = TileCapacity>
QLAR_INLINE void sortedColumns(const typename S::T* const* rows, int x0, int tw, int w, typename S::T* out,
                               int channels = 1)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    const int margin = Margin * channels;
    const int c0 = std::max(0, x0 - margin), c1 = std::min(w, x0 + tw + margin);
    T* first = out + (c0 - (x0 - margin));
    QLAR_FOR_CHUNKS(i, c1 - c0, L)
    {
        V v[Rows];
#pragma GCC unroll 8
        for (int k = 0; k < Rows; ++k)
            v[k] = S::load(rows[k] + c0 + i);
        Sort::apply(v);
#pragma GCC unroll 8
        for (int k = 0; k < Rows; ++k)
            S::store(first + k * Stride + i, v[k]);
    }
    const int lead = c0 - (x0 - margin), end = c1 - (x0 - margin), total = tw + 2 * margin;
    for (int k = 0; k < Rows; ++k) {
        T* row = out + k * Stride;
        if (channels == 1) {
            std::fill(row, row + lead, row[lead]);
            std::fill(row + end, row + total, row[end - 1]);
            continue;
        }
        for (int i = lead - 1; i >= 0; --i)
            row[i] = row[i + channels];
        for (int i = end; i < total; ++i)
            row[i] = row[i - channels];
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

template <class T>
QLAR_INLINE T med3Scalar(T a, T b, T c)
{
    return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

// 3 x 3, two output rows at a time: rows y and y + 1 share the sorted pair
// of their two middle input rows, and each column's sorted triple is made in
// registers for the three windows that need it rather than stored. The
// channels of an interleaved picture are filtered together: a sample's
// neighbours lie a pixel (channels samples) to either side. Vectors cover
// all but the first and the last pixel; the windows of those repeat the
// edge pixel, so each end is filtered as one more vector over a copy of the
// row's end with the edge pixel repeated once.
template <class S, bool Interleaved = false>
QLAR_INLINE void median3Band(const Frame& f, int y0, int y1, uchar*)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    const int w = f.w, C = Interleaved ? f.channels : 1, n = w * C;
    // Outputs at s0 (and s1) of the windows centred on x of rows b (and c).
    const auto chunk = [C](const T* a, const T* b, const T* c, const T* d, int x, T* s0, T* s1) {
        V lo0[3], mid0[3], hi0[3], lo1[3], mid1[3], hi1[3];
#pragma GCC unroll 3
        for (int k = 0; k < 3; ++k) {
            const int at = x + (k - 1) * C;
            const V va = S::load(a + at), vb = S::load(b + at), vc = S::load(c + at), vd = S::load(d + at);
            const V p = S::mn(vb, vc), q = S::mx(vb, vc);
            lo0[k] = S::mn(p, va), hi0[k] = S::mx(q, va), mid0[k] = S::mx(p, S::mn(q, va));
            lo1[k] = S::mn(p, vd), hi1[k] = S::mx(q, vd), mid1[k] = S::mx(p, S::mn(q, vd));
        }
        S::store(s0, med3<S>(S::mx(S::mx(lo0[0], lo0[1]), lo0[2]), med3<S>(mid0[0], mid0[1], mid0[2]),
                             S::mn(S::mn(hi0[0], hi0[1]), hi0[2])));
        if (s1)
            S::store(s1, med3<S>(S::mx(S::mx(lo1[0], lo1[1]), lo1[2]), med3<S>(mid1[0], mid1[1], mid1[2]),
                                 S::mn(S::mn(hi1[0], hi1[1]), hi1[2])));
    };
    for (int y = y0; y < y1; y += 2) {
        const T* rows[4] = {f.inRow<T>(y - 1), f.inRow<T>(y), f.inRow<T>(y + 1), f.inRow<T>(y + 2)};
        T* o0 = f.outRow<T>(y);
        T* o1 = y + 1 < y1 ? f.outRow<T>(y + 1) : nullptr;
        QLAR_FOR_CHUNKS(i, n - 2 * C, L)
        {
            chunk(rows[0], rows[1], rows[2], rows[3], i + C, o0 + i + C, o1 ? o1 + i + C : nullptr);
        }
        if constexpr (L > 1) {
            // Scalar ends, branching on every comparison, cost a frame's
            // vectors again on narrow pictures of several channels.
            T t[4][L + 2 * MaxChannels];
            for (int k = 0; k < 4; ++k) {
                std::memcpy(t[k], rows[k], size_t(C) * sizeof(T));
                std::memcpy(t[k] + C, rows[k], size_t(L + C) * sizeof(T));
            }
            chunk(t[0], t[1], t[2], t[3], C, o0, o1);
            for (int k = 0; k < 4; ++k) {
                std::memcpy(t[k], rows[k] + n - L - C, size_t(L + C) * sizeof(T));
                std::memcpy(t[k] + L + C, rows[k] + n - C, size_t(C) * sizeof(T));
            }
            chunk(t[0], t[1], t[2], t[3], C, o0 + n - L, o1 ? o1 + n - L : nullptr);
            continue;
        }
        for (int yy = y; yy < std::min(y + 2, y1); ++yy) {
            const T* r0 = f.inRow<T>(yy - 1);
            const T* r1 = f.inRow<T>(yy);
            const T* r2 = f.inRow<T>(yy + 1);
            for (int x : {0, w - 1})
                for (int ch = 0; ch < C; ++ch) {
                    T lo = std::numeric_limits<T>::lowest(), mid[3], hi = std::numeric_limits<T>::max();
                    for (int k = 0; k < 3; ++k) {
                        const int at = std::clamp(x + k - 1, 0, w - 1) * C + ch;
                        const T p = std::min(r1[at], r2[at]), q = std::max(r1[at], r2[at]);
                        lo = std::max(lo, std::min(p, r0[at]));
                        hi = std::min(hi, std::max(q, r0[at]));
                        mid[k] = std::max(p, std::min(q, r0[at]));
                    }
                    f.outRow<T>(yy)[x * C + ch] = med3Scalar(lo, med3Scalar(mid[0], mid[1], mid[2]), hi);
                }
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
template <class S, bool Interleaved = false>
QLAR_INLINE void median5Band(const Frame& f, int y0, int y1, uchar* scratch)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    constexpr int C = TileCapacity;
    // One channel keeps its neighbours' offsets in the instructions (a tenth
    // faster than reading them from a register); so does kernel 3.
    const int ch = Interleaved ? f.channels : 1, w = f.w * ch;
    // Sorted columns s0..s4 at s + k C, merged pairs m0..m9 at m + k C.
    T* s = reinterpret_cast<T*>(scratch);
    T* m = s + 5 * C;

    for (int y = y0; y < y1; ++y) {
        const T* rows[5] = {f.inRow<T>(y - 2), f.inRow<T>(y - 1), f.inRow<T>(y), f.inRow<T>(y + 1), f.inRow<T>(y + 2)};
        T* o = f.outRow<T>(y);
        for (int tx = 0, tw = 0; tx < w; tx += tw) {
            tw = tileWidthAt<L>(tx, w);
            // Position i holds column tx - 2 ch + i; a pixel's neighbours lie ch positions apart.
            sortedColumns<S, 5, 2, Sort5<S>>(rows, tx, tw, w, s, ch);
            // m at p merges the sorted columns at p and p + ch (positions as in s).
            QLAR_FOR_CHUNKS(p, tw + 2 * ch, L)
            {
                const V a0 = S::load(s + p), a1 = S::load(s + 1 * C + p), a2 = S::load(s + 2 * C + p),
                        a3 = S::load(s + 3 * C + p), a4 = S::load(s + 4 * C + p);
                const V b0 = S::load(s + p + ch), b1 = S::load(s + 1 * C + p + ch), b2 = S::load(s + 2 * C + p + ch),
                        b3 = S::load(s + 3 * C + p + ch), b4 = S::load(s + 4 * C + p + ch);
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
            // Window at x, in pixels: columns x-2, x-1 (m at x), x, x+1 (m at x + 2) and x+2 (s at x + 4).
            QLAR_FOR_CHUNKS(x, tw, L)
            {
                const int q = x + 2 * ch;
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
                const int z = x + 4 * ch;
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

// ------------------------------------------------------- network kernels, 7+
//
// Kernel k = 2r + 1 from 7 up. For each output row every column of the tile
// is sorted once; neighbouring sorted blocks are then merged level by level
// into blocks of 2, 4, 8 ... columns at every position, each shared by all
// the windows of the row that contain it, up to the largest power of two
// below k / 2. A window merges, in registers, two blocks of that level, then
// a block for each lower binary digit of k (largest first), and picks the
// median of that run and its last column as min over the splits of
// max(run rank i, column rank t - i). Keeping more levels for the whole tile
// saves min/max operations but costs more in scratch traffic than it saves
// (measured 1.04x to 1.5x slower), so the per-window merges stay.
//
// Every block keeps only the ranks that can still be the median: a value
// of rank i in a block of n holds at least i window values below it and
// n - 1 - i above, so ranks below n - 1 - (N - 1 - m) or above m (median rank
// m of N) are dropped, counted, and taken off the rank wanted at the end.
// Nothing is shared between output rows.

struct Block
{
    int count = 0;   // ranks kept
    int below = 0;   // window values dropped as certainly below the median
    int above = 0;   // ... and above it
    int a = 0, b = 0, lo = 0, hi = 0;  // the merge that made it: inputs, ranks kept
};

constexpr Block mergedBlock(const Block& x, const Block& y, int n, int m)
{
    Block r;
    r.a = x.count;
    r.b = y.count;
    const int count = x.count + y.count, below = x.below + y.below, above = x.above + y.above;
    const int rest = n - below - above, rank = m - below;
    r.lo = std::max(0, count - rest + rank);
    r.hi = std::min(count - 1, rank);
    r.count = r.hi - r.lo + 1;
    r.below = below + r.lo;
    r.above = above + count - 1 - r.hi;
    return r;
}

constexpr int MaxLevels = 8;

struct NetPlan
{
    int k = 0, n = 0, m = 0;
    int levels = 0;               // levels 0 .. levels - 1 are kept for the whole tile
    Block level[MaxLevels] = {};  // level j: 2^j columns
    int levelRows = 0;            // scratch rows of all levels
    // A window is made of parts: two blocks of the last level, then one per
    // lower binary digit of k, largest first (the last is one column).
    int parts = 0;
    int partLevel[MaxLevels + 1] = {};
    int partOffset[MaxLevels + 1] = {};
    Block merged[MaxLevels + 1] = {};  // merged[i]: the first i + 1 parts together
};

constexpr NetPlan netPlan(int r)
{
    NetPlan p;
    p.k = 2 * r + 1;
    p.n = p.k * p.k;
    p.m = (p.n - 1) / 2;
    int top = 0;
    while ((2 << top) <= p.k)
        ++top;
    p.levels = top;
    p.level[0] = Block{p.k, 0, 0, 0, 0, 0, p.k - 1};
    for (int j = 1; j < p.levels; ++j)
        p.level[j] = mergedBlock(p.level[j - 1], p.level[j - 1], p.n, p.m);
    for (int j = 0; j < p.levels; ++j)
        p.levelRows += p.level[j].count;
    const int half = 1 << (top - 1);
    p.partLevel[0] = p.partLevel[1] = top - 1;
    p.partOffset[1] = half;
    p.parts = 2;
    for (int j = top - 1, offset = 2 * half; j >= 0; --j)
        if (p.k & (1 << j)) {
            p.partLevel[p.parts] = j;
            p.partOffset[p.parts++] = offset;
            offset += 1 << j;
        }
    p.merged[0] = p.level[top - 1];
    for (int i = 1; i < p.parts - 1; ++i)
        p.merged[i] = mergedBlock(p.merged[i - 1], p.level[p.partLevel[i]], p.n, p.m);
    return p;
}

template <int R>
struct PlanOf
{
    static constexpr NetPlan p = netPlan(R);
};

constexpr int MinNetworkRadius = 3;
#if defined(__OPTIMIZE__) && !defined(QLAR_MEDIAN_SMALL_NETWORKS)
constexpr int MaxNetworkRadius = 12;
#else
// Unoptimised and instrumented builds (sanitizers, fuzzing) keep to the
// small networks: the large ones take many minutes and gigabytes to compile
// there, and every radius runs the same template.
constexpr int MaxNetworkRadius = 4;
#endif

// Outputs per tile; scratch rows hold the tile, its 2r margin and a vector
// of slack for the last tile.
constexpr int NetTileWidth = 256;
constexpr int netStride(int r, unsigned bytesPerSample) { return NetTileWidth + 64 / int(bytesPerSample) + 2 * r; }
// Outputs per tile of a picture of ch channels: the margins of several
// channels take room from the outputs. Below a vector's width the channels
// are filtered one at a time instead (filterChannelTiles).
constexpr int netTileWidth(int r, int ch) { return NetTileWidth - 2 * r * (ch - 1); }
constexpr int MinNetTileWidth = 64;

template <int R>
constexpr size_t netSlotBytes(unsigned bytesPerSample)
{
    return size_t(PlanOf<R>::p.levelRows) * size_t(netStride(R, bytesPerSample)) * bytesPerSample;
}

template <size_t... R>
size_t netSlotBytesFor(int radius, unsigned bytesPerSample, std::index_sequence<R...>)
{
    size_t bytes = 0;
    ((bytes = int(R) + MinNetworkRadius == radius ? netSlotBytes<int(R) + MinNetworkRadius>(bytesPerSample) : bytes),
     ...);
    return bytes;
}

template <class S, int A, int B, net::OpKind Kind>
QLAR_INLINE void netOp(typename S::V* v)
{
    if constexpr (Kind == net::Both) {
        const typename S::V t = S::mn(v[A], v[B]);
        v[B] = S::mx(v[A], v[B]);
        v[A] = t;
    } else if constexpr (Kind == net::MinOnly) {
        v[A] = S::mn(v[A], v[B]);
    } else {
        v[B] = S::mx(v[A], v[B]);
    }
}

template <class S, class Net, size_t Base, size_t... I>
QLAR_INLINE void runNetOps(typename S::V* v, std::index_sequence<I...>)
{
    (netOp<S, Net::net.ops[Base + I].a, Net::net.ops[Base + I].b, Net::net.ops[Base + I].kind>(v), ...);
}

// In runs of at most 128 operations: clang limits a fold expression to 256.
template <class S, class Net, size_t Base = 0>
QLAR_INLINE void runNet(typename S::V* v)
{
    constexpr size_t count = size_t(Net::net.count);
    if constexpr (Base < count) {
        constexpr size_t run = count - Base < 128 ? count - Base : 128;
        runNetOps<S, Net, Base>(v, std::make_index_sequence<run>());
        runNet<S, Net, Base + run>(v);
    }
}

template <class S, size_t... I>
QLAR_INLINE void loadRows(typename S::V* v, const typename S::T* p, int stride, std::index_sequence<I...>)
{
    ((v[I] = S::load(p + int(I) * stride)), ...);
}

// Stores (or copies to out) the network's outputs in rank order.
template <class S, class Net, size_t... I>
QLAR_INLINE void storeOutputs(typename S::T* p, int stride, const typename S::V* v, std::index_sequence<I...>)
{
    (S::store(p + int(I) * stride, v[Net::net.out[I]]), ...);
}
template <class S, class Net, size_t... I>
QLAR_INLINE void copyOutputs(typename S::V* out, const typename S::V* v, std::index_sequence<I...>)
{
    ((out[I] = v[Net::net.out[I]]), ...);
}

template <class S, int K>
struct SortColumn
{
    using V = typename S::V;
    using Net = net::SortNet<K>;
    static QLAR_INLINE void apply(V* v)
    {
        runNet<S, Net>(v);
        V sorted[K];
        copyOutputs<S, Net>(sorted, v, std::make_index_sequence<K>());
        for (int i = 0; i < K; ++i)
            v[i] = sorted[i];
    }
};

// Level J at every position p: the merge of level J - 1 at p and p + 2^(J-1).
template <class S, int R, int J>
QLAR_INLINE void netLevel(typename S::T* const* lev, int positions, int stride, int ch)
{
    using V = typename S::V;
    constexpr Block b = PlanOf<R>::p.level[J];
    using Net = net::MergeNet<b.a, b.b, b.lo, b.hi>;
    constexpr int half = 1 << (J - 1);
    const typename S::T* src = lev[J - 1];
    typename S::T* dst = lev[J];
    QLAR_FOR_CHUNKS(p, positions - (2 * half - 1) * ch, S::Lanes)
    {
        V v[b.a + b.b];
        loadRows<S>(v, src + p, stride, std::make_index_sequence<b.a>());
        loadRows<S>(v + b.a, src + p + half * ch, stride, std::make_index_sequence<b.b>());
        runNet<S, Net>(v);
        storeOutputs<S, Net>(dst + p, stride, v, std::make_index_sequence<b.count>());
    }
    if constexpr (J + 1 < PlanOf<R>::p.levels)
        netLevel<S, R, J + 1>(lev, positions, stride, ch);
}

// Rank t (from 1) of the union of sorted runs a and b: min over i of
// max(a_i, b_(t-i)), where a_0 and b_0 stand for -inf. (No lambda: one left
// out of line would hand vectors between code built for different units.)
template <class S, int T0>
QLAR_INLINE typename S::V splitTerm(const typename S::V* a, const typename S::V* b, int i)
{
    const int j = T0 - i;
    return i == 0 ? b[j - 1] : j == 0 ? a[i - 1] : S::mx(a[i - 1], b[j - 1]);
}

template <class S, int T0, int Lo, size_t... I>
QLAR_INLINE typename S::V pickRank(const typename S::V* a, const typename S::V* b, std::index_sequence<I...>)
{
    typename S::V med = splitTerm<S, T0>(a, b, Lo);
    ((med = S::mn(med, splitTerm<S, T0>(a, b, Lo + 1 + int(I)))), ...);
    return med;
}

// Merges part I of the window at x into the parts before it (acc), or, for
// the last part, picks the median from the two.
template <class S, int R, int I>
QLAR_INLINE typename S::V netWindow(typename S::T* const* lev, int x, int stride, const typename S::V* acc, int ch)
{
    using V = typename S::V;
    constexpr NetPlan P = PlanOf<R>::p;
    constexpr int j = P.partLevel[I];
    const typename S::T* src = lev[j] + x + P.partOffset[I] * ch;
    if constexpr (I == P.parts - 1) {
        constexpr Block a = P.merged[I - 1], b = P.level[j];
        constexpr int t = P.m - a.below - b.below + 1;
        constexpr int lo = std::max(0, t - b.count), hi = std::min(a.count, t);
        V last[b.count];
        loadRows<S>(last, src, stride, std::make_index_sequence<b.count>());
        return pickRank<S, t, lo>(acc, last, std::make_index_sequence<hi - lo>());
    } else {
        constexpr Block b = P.merged[I];
        using Net = net::MergeNet<b.a, b.b, b.lo, b.hi>;
        V v[b.a + b.b], next[b.count];
        for (int i = 0; i < b.a; ++i)
            v[i] = acc[i];
        loadRows<S>(v + b.a, src, stride, std::make_index_sequence<b.b>());
        runNet<S, Net>(v);
        copyOutputs<S, Net>(next, v, std::make_index_sequence<b.count>());
        return netWindow<S, R, I + 1>(lev, x, stride, next, ch);
    }
}

// Several interleaved channels (ch) are filtered together, a pixel's
// neighbours ch positions apart; their margins take room from the tile.
template <class S, int R>
QLAR_INLINE void medianNetBand(const Frame& f, int y0, int y1, uchar* scratch)
{
    using T = typename S::T;
    using V = typename S::V;
    constexpr int L = S::Lanes;
    constexpr NetPlan P = PlanOf<R>::p;
    constexpr int K = P.k;
    constexpr int C = netStride(R, sizeof(T));
    const int ch = f.channels, w = f.w * ch, tileMax = netTileWidth(R, ch);
    T* lev[MaxLevels];
    lev[0] = reinterpret_cast<T*>(scratch);
    for (int j = 1; j < P.levels; ++j)
        lev[j] = lev[j - 1] + P.level[j - 1].count * C;

    for (int y = y0; y < y1; ++y) {
        const T* rows[K];
        for (int i = 0; i < K; ++i)
            rows[i] = f.inRow<T>(y - R + i);
        T* o = f.outRow<T>(y);
        for (int tx = 0, tw = 0; tx < w; tx += tw) {
            tw = w - tx <= tileMax + L ? w - tx : tileMax;
            // Position p holds column tx - R ch + p.
            sortedColumns<S, K, R, SortColumn<S, K>, C>(rows, tx, tw, w, lev[0], ch);
            netLevel<S, R, 1>(lev, tw + 2 * R * ch, C, ch);
            QLAR_FOR_CHUNKS(x, tw, L)
            {
                V first[P.level[P.levels - 1].count];
                loadRows<S>(first, lev[P.levels - 1] + x, C, std::make_index_sequence<P.level[P.levels - 1].count>());
                S::store(o + tx + x, netWindow<S, R, 1>(lev, x, C, first, ch));
            }
        }
    }
}

template <class T>
void copyBand(const Frame& f, int y0, int y1, uchar*)
{
    for (int y = y0; y < y1; ++y)
        std::memcpy(f.outRow<T>(y), f.inRow<T>(y), size_t(f.w) * size_t(f.channels) * sizeof(T));
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
    void median5One_##suffix(const Frame& f, int a, int b, uchar* s) { median5Band<Simd<T, 1>>(f, a, b, s); }            \
    __attribute__((target("avx2"))) void median3ChAvx2_##suffix(const Frame& f, int a, int b, uchar* s) \
    { median3Band<Simd<T, 32 / sizeof(T)>, true>(f, a, b, s); }                                         \
    void median3ChSse_##suffix(const Frame& f, int a, int b, uchar* s) { median3Band<Simd<T, 16 / sizeof(T)>, true>(f, a, b, s); } \
    void median3ChOne_##suffix(const Frame& f, int a, int b, uchar* s) { median3Band<Simd<T, 1>, true>(f, a, b, s); } \
    __attribute__((target("avx2"))) void median5ChAvx2_##suffix(const Frame& f, int a, int b, uchar* s) \
    { median5Band<Simd<T, 32 / sizeof(T)>, true>(f, a, b, s); }                                         \
    void median5ChSse_##suffix(const Frame& f, int a, int b, uchar* s) { median5Band<Simd<T, 16 / sizeof(T)>, true>(f, a, b, s); } \
    void median5ChOne_##suffix(const Frame& f, int a, int b, uchar* s) { median5Band<Simd<T, 1>, true>(f, a, b, s); }

QLAR_MEDIAN_ENTRIES(quint8, u8)
QLAR_MEDIAN_ENTRIES(quint16, u16)

template <class T, int R>
__attribute__((target("avx512f,avx512bw"))) void medianNetAvx512(const Frame& f, int a, int b, uchar* s)
{
    medianNetBand<Simd<T, 64 / sizeof(T)>, R>(f, a, b, s);
}
template <class T, int R>
__attribute__((target("avx2"))) void medianNetAvx2(const Frame& f, int a, int b, uchar* s)
{
    medianNetBand<Simd<T, 32 / sizeof(T)>, R>(f, a, b, s);
}
template <class T, int R>
void medianNetSse(const Frame& f, int a, int b, uchar* s)
{
    medianNetBand<Simd<T, 16 / sizeof(T)>, R>(f, a, b, s);
}

enum class Isa { Sse2, Avx2, Avx512 };

template <class T, size_t... I>
BandFn networkKernel(int radius, Isa isa, std::index_sequence<I...>)
{
    BandFn fn = nullptr;
    ((fn = int(I) + MinNetworkRadius != radius ? fn
           : isa == Isa::Avx512                ? medianNetAvx512<T, int(I) + MinNetworkRadius>
           : isa == Isa::Avx2                  ? medianNetAvx2<T, int(I) + MinNetworkRadius>
                                               : medianNetSse<T, int(I) + MinNetworkRadius>),
     ...);
    return fn;
}

// The largest radius the networks serve, per sample size: the crossover
// with the histogram kernels, measured on a 4096 x 3000 frame with the two
// runs taking turns (with AVX-512, and capped to AVX2). 8-bit column
// histograms cost the same at any radius (about a quarter of the old
// snake's time) and overtake the networks from kernel 13; 16-bit ones (with AVX-512, see usesHighLow) from
// kernel 19. Without AVX-512 the 16-bit networks serve up to kernel 25, where
// the snake's O(r) walk takes over.
constexpr int networkMaxRadius(unsigned bytesPerSample)
{
    return bytesPerSample == 1 ? std::min(5, MaxNetworkRadius) : MaxNetworkRadius;
}

template <class T>
using NetworkRadii = std::make_index_sequence<size_t(networkMaxRadius(sizeof(T)) - MinNetworkRadius + 1)>;

bool usesNetwork(int radius, unsigned bytesPerSample)
{
    return radius >= MinNetworkRadius && radius <= networkMaxRadius(bytesPerSample)
        && !usesHighLow(radius, bytesPerSample);
}

size_t slotBytesFor(int radius, unsigned bytesPerSample)
{
    if (radius == 0)
        return 64;
    if (radius <= 2)
        return radius == 1 ? 64 : 15 * size_t(TileCapacity) * bytesPerSample;
    // Pictures narrower than a vector fall back to the histograms.
    const size_t histogram = histogramSlotBytes(radius, bytesPerSample);
    if (!usesNetwork(radius, bytesPerSample))
        return histogram;
    return std::max(histogram, bytesPerSample == 1 ? netSlotBytesFor(radius, 1, NetworkRadii<quint8>())
                                                   : netSlotBytesFor(radius, 2, NetworkRadii<quint16>()));
}

bool hasAvx2()
{
    return pixelkit::cpuHas(pixelkit::CpuFeature::Avx2);
}

// The kernel for a picture of the given width in pixels; null for the
// histogram kernels over several channels, and the networks over channels
// too many for their tiles, which filterChannelTiles serves.
template <class T>
BandFn pickKernel(int radius, int width, int channels)
{
    constexpr bool Wide = sizeof(T) == 2;
    const int avxLanes = 32 / int(sizeof(T)), sseLanes = 16 / int(sizeof(T));
    if (radius == 0)
        return copyBand<T>;
    const int samples = width * channels;
    if (radius > 2 && channels > 1
        && (!usesNetwork(radius, sizeof(T)) || samples < sseLanes || netTileWidth(radius, channels) < MinNetTileWidth))
        return nullptr;
    if (radius > 2) {
        if (!usesNetwork(radius, sizeof(T)) || samples < sseLanes)
            return histogramKernel(radius, sizeof(T));
        const Isa isa = samples >= 2 * avxLanes && pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Bw) ? Isa::Avx512
                        : samples >= avxLanes && hasAvx2()                                          ? Isa::Avx2
                                                                                                    : Isa::Sse2;
        return networkKernel<T>(radius, isa, NetworkRadii<T>());
    }
    const bool three = radius == 1;
    // Kernel 3 vectors cover all but the first and the last pixel.
    const int need = three ? 2 * channels : 0;
    const bool mono = channels == 1;
    if (samples >= avxLanes + need && hasAvx2())
        return three ? (mono ? (Wide ? median3Avx2_u16 : median3Avx2_u8) : (Wide ? median3ChAvx2_u16 : median3ChAvx2_u8))
               : mono ? (Wide ? median5Avx2_u16 : median5Avx2_u8)
                      : (Wide ? median5ChAvx2_u16 : median5ChAvx2_u8);
    if (samples >= sseLanes + need)
        return three ? (mono ? (Wide ? median3Sse_u16 : median3Sse_u8) : (Wide ? median3ChSse_u16 : median3ChSse_u8))
               : mono ? (Wide ? median5Sse_u16 : median5Sse_u8)
                      : (Wide ? median5ChSse_u16 : median5ChSse_u8);
    return three ? (mono ? (Wide ? median3One_u16 : median3One_u8) : (Wide ? median3ChOne_u16 : median3ChOne_u8))
           : mono ? (Wide ? median5One_u16 : median5One_u8)
                  : (Wide ? median5ChOne_u16 : median5ChOne_u8);
}

// ------------------------------------------------------ interleaved channels

// For the histogram kernels, the channels of an interleaved picture are filtered one
// at a time by the one-channel kernels, in tiles: a tile's samples with the
// kernel's margins are split out of the picture into dense rows (all
// channels in one pass), each channel is filtered there, and the tile's
// outputs are woven back. A tile is cut where the picture ends, so the
// kernels' own edge rule applies at the picture's edges and nowhere else.
// Tiles span whole rows where the tiles of all channels fit in
// ChannelTileBudget, else they are at least twice the radius on a side (so
// that the margins cost at most as much as the tile), and when even those
// would not fit, they are made one channel at a time.
constexpr int ChannelTileSide = 256;
constexpr size_t ChannelTileBudget = size_t(8) << 20;

struct ChannelTiles
{
    int rows = 0, cols = 0;      // outputs of a tile (fewer at the picture's end)
    int inRows = 0, inCols = 0;  // with its margins, clamped to the picture
    size_t planeBytes = 0;       // one channel's input and output
    int group = 1;               // channels split out at once: all or one

    size_t bytes() const { return size_t(group) * planeBytes; }
};

ChannelTiles channelTiles(int r, quint64 w, quint64 h, int channels, unsigned bps)
{
    ChannelTiles t;
    const quint64 side = std::max<quint64>(ChannelTileSide, 2 * quint64(r));
    t.rows = int(std::min(h, side));
    t.inRows = int(std::min(h, quint64(t.rows) + 2 * quint64(r)));
    // Whole rows where they fit: a tile's column margins cost as much as
    // its row margins, and the kernels' pieces pay those already.
    const quint64 widths[2] = {w, std::min(w, side)};
    for (int group : {channels, 1})
        for (quint64 cols : widths) {
            t.cols = int(cols);
            t.inCols = int(std::min(w, cols + 2 * quint64(r)));
            t.planeBytes = roundUp(size_t(t.inRows + t.rows) * size_t(t.inCols) * bps, 64);
            t.group = group;
            if (t.bytes() <= ChannelTileBudget)
                return t;
        }
    return t;
}

template <class T>
void filterChannelTiles(const Frame& f, int y0, int y1, uchar* slot, const ChannelTiles& t,
                        const pixelkit::RowStreams<sizeof(T)>& streams, uchar* tiles)
{
    constexpr qint64 S = sizeof(T);
    const int C = f.channels, r = f.r;
    const qint64 pitch = qint64(t.inCols) * S;
    uchar* rowsIn[MaxChannels];
    uchar* rowsOut[MaxChannels];
    const auto tileIn = [&](int k) { return tiles + size_t(k) * t.planeBytes; };
    const auto tileOut = [&](int k) { return tileIn(k) + size_t(t.inRows) * size_t(pitch); };
    for (int b0 = y0; b0 < y1; b0 += t.rows) {
        const int b1 = std::min(y1, b0 + t.rows), cy0 = std::max(0, b0 - r), cy1 = std::min(f.h, b1 + r);
        for (int x0 = 0; x0 < f.w; x0 += t.cols) {
            const int x1 = std::min(f.w, x0 + t.cols), cx0 = std::max(0, x0 - r), cx1 = std::min(f.w, x1 + r);
            Frame one;
            one.inPitch = one.outPitch = pitch;
            one.w = cx1 - cx0;
            one.h = cy1 - cy0;
            one.r = r;
            one.outTop = b0 - cy0;
            const BandFn kernel = pickKernel<T>(r, one.w, 1);
            for (int c0 = 0; c0 < C; c0 += t.group) {
                for (int y = cy0; y < cy1; ++y) {
                    const uchar* src = f.in + y * f.inPitch + qint64(cx0) * C * S;
                    if (t.group == C) {
                        for (int k = 0; k < C; ++k)
                            rowsIn[k] = tileIn(k) + (y - cy0) * pitch;
                        streams.split(src, qint64(one.w) * C, rowsIn);
                    } else {
                        const T* in = reinterpret_cast<const T*>(src) + c0;
                        T* dst = reinterpret_cast<T*>(tileIn(0) + (y - cy0) * pitch);
                        for (int x = 0; x < one.w; ++x)
                            dst[x] = in[qint64(x) * C];
                    }
                }
                for (int k = 0; k < t.group; ++k) {
                    one.in = tileIn(k);
                    one.out = tileOut(k);
                    kernel(one, b0 - cy0, b1 - cy0, slot);
                }
                for (int y = b0; y < b1; ++y) {
                    uchar* dst = f.out + y * f.outPitch + qint64(x0) * C * S;
                    const qint64 at = (y - b0) * pitch + qint64(x0 - cx0) * S;
                    if (t.group == C) {
                        for (int k = 0; k < C; ++k)
                            rowsOut[k] = tileOut(k) + at;
                        streams.weave(rowsOut, qint64(x1 - x0) * C, dst);
                    } else {
                        const T* src = reinterpret_cast<const T*>(tileOut(0) + at);
                        T* out = reinterpret_cast<T*>(dst) + c0;
                        for (int x = 0; x < x1 - x0; ++x)
                            out[qint64(x) * C] = src[x];
                    }
                }
            }
        }
    }
}

size_t channelTileBytes(int radius, quint64 w, quint64 h, int channels, unsigned bps)
{
    return radius > 2 && channels > 1 ? channelTiles(radius, w, h, channels, bps).bytes() : 0;
}

bool supportedPicture(const SxPicBufInfo& f)
{
    return f.channels >= 1 && f.channels <= MaxChannels && f.storageFormat != DSF_PLANAR
        && (f.dataType == IDT_UINT8 || f.dataType == IDT_UINT16);
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
    if (!supportedPicture(format) || radius < 0 || radius > MaxRadius)
        return false;
    auto* work = new (std::nothrow) MedianWork;
    if (!work)
        return false;
    const unsigned bps = format.bytesPerSample();
    work->threads = pixelkit::threadSlots();
    work->slotBytes = roundUp(slotBytesFor(radius, bps), 64)
                    + channelTileBytes(radius, format.width, format.height, int(format.channels), bps);
    // Zeroed, so lanes that run past a short row read scratch, never stale
    // garbage. calloc hands large blocks over as untouched zero pages: the
    // 16-bit histogram scratch (megabytes per thread) costs memory only
    // where a picture's values lead it.
    work->raw = std::calloc(1, work->slotBytes * size_t(work->threads) + 64);
    if (!work->raw) {
        delete work;
        return false;
    }
    work->mem = reinterpret_cast<uchar*>(roundUp(reinterpret_cast<quintptr>(work->raw), 64));
    *buffer = work;
    return true;
}

void CxPicBufAPI::MedianFreeBuffer(void* buffer)
{
    auto* work = static_cast<MedianWork*>(buffer);
    if (!work || work->magic != WorkMagic)
        return;
    work->magic = 0;
    std::free(work->raw);
    delete work;
}

bool CxPicBufAPI::Median(const SxPicBuf& in, SxPicBuf& out, int radius, void* buffer)
{
    auto* work = static_cast<MedianWork*>(buffer);
    if (!work || work->magic != WorkMagic || radius < 0 || radius > MaxRadius)
        return false;
    if (!supportedPicture(in) || !supportedPicture(out) || in.dataType != out.dataType
        || in.channels != out.channels)
        return false;
    if (in.width != out.width || in.height != out.height)
        return false;
    if (in.width == 0 || in.height == 0)
        return true;
    if (!in.data || !out.data || !laidOut(in) || !laidOut(out) || overlaps(in, out))
        return false;
    if (quint64(in.width) * in.channels > quint64(INT_MAX) || in.height > quint32(INT_MAX))
        return false;
    const unsigned bps = in.bytesPerSample();
    const int channels = int(in.channels);
    const BandFn kernel = bps == 1 ? pickKernel<quint8>(radius, int(in.width), channels)
                                   : pickKernel<quint16>(radius, int(in.width), channels);
    const size_t monoBytes = roundUp(slotBytesFor(radius, bps), 64);
    // A buffer made for a larger picture may have room for one channel's
    // tiles only, where this picture's would fit all channels' at once.
    ChannelTiles tiles = channelTiles(radius, in.width, in.height, channels, bps);
    if (!kernel && monoBytes + tiles.bytes() > work->slotBytes)
        tiles.group = 1;
    if (monoBytes + (kernel ? 0 : tiles.bytes()) > work->slotBytes)
        return false;

    Frame f;
    f.in = in.data;
    f.inPitch = qint64(in.effectiveLinePitch());
    f.out = out.data;
    f.outPitch = qint64(out.effectiveLinePitch());
    f.w = int(in.width);
    f.h = int(in.height);
    f.r = radius;
    f.channels = channels;
    const BandFn oneChannel = bps == 1 ? pickKernel<quint8>(radius, f.w, 1) : pickKernel<quint16>(radius, f.w, 1);
    const pixelkit::RowStreams<1> streams8(kernel ? 1 : channels);
    const pixelkit::RowStreams<2> streams16(kernel ? 1 : channels);

    // A median sample costs several copied bytes, more the wider the kernel.
    const quint64 rowCost = quint64(f.w) * channels * bps * 2 * std::min(2 * radius + 1, 64);
    // Each piece builds its window anew: few, large pieces, fewer still for
    // the histograms, whose windows span all rows of the kernel (and the
    // 16-bit one also takes its window out again at the end).
    pixelkit::forEachRowPiece(
        f.h, rowCost,
        [&](int y0, int y1, int slot) {
            uchar* mem = work->mem + size_t(slot) * work->slotBytes;
            if (kernel)
                kernel(f, y0, y1, mem);
            else if (bps == 1)
                filterChannelTiles<quint8>(f, y0, y1, mem, tiles, streams8, mem + monoBytes);
            else
                filterChannelTiles<quint16>(f, y0, y1, mem, tiles, streams16, mem + monoBytes);
        },
        oneChannel == histogramKernel(radius, bps) ? pixelkit::Pieces::Fewer : pixelkit::Pieces::Few);
    if (!keepsLowColumns(kernel ? kernel : oneChannel))
        for (int t = 0; t < work->threads; ++t)
            forgetLowColumns(work->mem + size_t(t) * work->slotBytes, slotBytesFor(radius, bps));
    return true;
}
