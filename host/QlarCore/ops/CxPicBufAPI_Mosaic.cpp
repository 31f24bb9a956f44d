// Per-hyperpixel statistics of a mosaic: CxPicBufAPI::FilterAvgOnMosaicPicBuf,
// FilterMinOnMosaicPicBuf, FilterMaxOnMosaicPicBuf, FilterNormalizeOnMosaicPicBuf.
//
// A hyperpixel (cell) is periodX x periodY samples; cells tile the rectangle
// from its top-left corner; partial cells at its right and bottom edges are
// not hyperpixels.
//
// Output modes, chosen by the size of out (same sample type, one channel):
// - out has the input's size: sliding cells. out(x, y) is the statistic of the
//   cell whose top-left sample is (x, y). Where that cell would not lie wholly
//   inside the rectangle (its last periodX - 1 columns and periodY - 1 rows,
//   and everything outside it) x and y are clamped to the nearest cell that
//   does, so the picture's edges repeat the last full result.
//   The rectangle is clipped to the picture first.
// - out is (rect width / periodX) x (rect height / periodY): one sample per
//   cell of the rectangle as given, which may reach past the picture (a
//   sensor zone larger than the frame). A cell that the picture does not hold
//   whole gives 0; nothing outside the picture is read. When out also has
//   the input's size (period 1, or a rectangle at least twice the picture's
//   size) the sliding mode is taken.
// - Normalize always writes an output of the input's size: every sample of a
//   cell becomes (v - min) / (max - min) of its cell, scaled to
//   [0, (1 << bitsPerSample) - 1] and rounded to nearest (float: to [0, 1]);
//   a flat cell gives 0. Samples that belong to no full cell are copied.
//   The rectangle is clipped to the picture first.
//   bitsPerSample of 0 or beyond the type's value bits counts as all of them
//   (so 7, 15 and 31 for signed types).
// Sample types: signed and unsigned 8-, 16- and 32-bit integers and float.
// Averages are summed in 64 bits (double for float) and rounded to nearest,
// halves away from zero. Anything else answers false with out untouched:
// another type or channel count, different types, a period below 1, a
// clipped rectangle that holds no full cell (the modes that clip), an out
// size of neither mode, null pixels,
// a pitch or data address that is not a multiple of the sample size, or an
// output that overlaps the input. Nothing is allocated.
#include "CxPicBufAPI.h"

#include <KitCpu.h>
#include <KitDispatch.h>
#include <KitPicture.h>
#include <KitRows.h>

#include <QtCore/QRect>

#include <immintrin.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <type_traits>

#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

// count rows of work in pieces, fn(first, last, slot); together they read
// and write about `samples` samples of T each way.
template <class T, class PieceFn>
void forRows(int count, qint64 samples, PieceFn&& fn)
{
    if (count > 0)
        pixelkit::forEachRowPiece(count, quint64(samples) * 2 * sizeof(T) / quint64(count), fn);
}

enum class Stat { Min, Max, Avg, Normalize };

struct Cells
{
    int left = 0, top = 0;      // clipped rectangle
    int width = 0, height = 0;
    int px = 1, py = 1;         // period
    qint64 originX = 0, originY = 0;  // per cell: the rectangle's own corner, maybe outside
};

template <class T>
using SumOf = std::conditional_t<std::is_floating_point_v<T>, double,
                                 std::conditional_t<std::is_signed_v<T>, qint64, quint64>>;

template <class T>
inline T meanOf(SumOf<T> sum, qint64 n)
{
    if constexpr (std::is_floating_point_v<T>) {
        return T(sum / double(n));
    } else if constexpr (std::is_signed_v<T>) {
        return T(sum >= 0 ? (sum + n / 2) / n : -((-sum + n / 2) / n));
    } else {
        return T((sum + quint64(n) / 2) / quint64(n));
    }
}

template <class T>
inline const T* rowAt(const SxPicBuf& p, int y)
{
    return reinterpret_cast<const T*>(p.data + qint64(y) * qint64(p.effectiveLinePitch()));
}

template <class T>
inline T* rowAt(SxPicBuf& p, int y)
{
    return reinterpret_cast<T*>(p.data + qint64(y) * qint64(p.effectiveLinePitch()));
}

// Statistic of the px x py block whose top-left sample is (x, y).
template <class T, Stat St>
T blockStat(const SxPicBuf& in, int x, int y, int px, int py)
{
    if constexpr (St == Stat::Avg) {
        SumOf<T> sum = 0;
        for (int j = 0; j < py; ++j) {
            const T* r = rowAt<T>(in, y + j) + x;
            for (int i = 0; i < px; ++i)
                sum += r[i];
        }
        return meanOf<T>(sum, qint64(px) * py);
    } else {
        T best = rowAt<T>(in, y)[x];
        for (int j = 0; j < py; ++j) {
            const T* r = rowAt<T>(in, y + j) + x;
            for (int i = 0; i < px; ++i)
                best = St == Stat::Min ? std::min(best, r[i]) : std::max(best, r[i]);
        }
        return best;
    }
}

// ------------------------------------------------- 2 x 2 cells, 8/16-bit unsigned
//
// The common Bayer case: two rows are read as lanes of twice the sample width,
// so each lane holds one horizontal pair; no shuffles are needed.

#define QLAR_INLINE inline __attribute__((always_inline))

template <class T, class W, int N, Stat St>
QLAR_INLINE void pairRow(const T* a, const T* b, T* o, int n)
{
    typedef W WV __attribute__((vector_size(N * sizeof(W))));
    typedef T TV __attribute__((vector_size(N * sizeof(T))));
    constexpr int Bits = 8 * sizeof(T);
    constexpr W Low = W((W(1) << Bits) - 1);
    if (n < N) {
        for (int i = 0; i < n; ++i) {
            const T s[4] = {a[2 * i], a[2 * i + 1], b[2 * i], b[2 * i + 1]};
            if constexpr (St == Stat::Avg)
                o[i] = T((W(s[0]) + s[1] + s[2] + s[3] + 2) >> 2);
            else if constexpr (St == Stat::Min)
                o[i] = std::min(std::min(s[0], s[1]), std::min(s[2], s[3]));
            else
                o[i] = std::max(std::max(s[0], s[1]), std::max(s[2], s[3]));
        }
        return;
    }
    for (int k = 0, c = (n + N - 1) / N, i = 0; k < c; ++k, i = std::min(i + N, n - N)) {
        WV va, vb;
        std::memcpy(&va, a + 2 * i, sizeof va);
        std::memcpy(&vb, b + 2 * i, sizeof vb);
        const WV a0 = va & Low, a1 = va >> Bits, b0 = vb & Low, b1 = vb >> Bits;
        WV r;
        if constexpr (St == Stat::Avg) {
            r = (a0 + a1 + b0 + b1 + 2) >> 2;
        } else if constexpr (St == Stat::Min) {
            const WV p = a0 < a1 ? a0 : a1, q = b0 < b1 ? b0 : b1;
            r = p < q ? p : q;
        } else {
            const WV p = a0 < a1 ? a1 : a0, q = b0 < b1 ? b1 : b0;
            r = p < q ? q : p;
        }
        const TV t = __builtin_convertvector(r, TV);
        std::memcpy(o + i, &t, sizeof t);
    }
}

// Sliding 2 x 2 cells: o[i] from a[i], a[i + 1], b[i], b[i + 1]; reads n + 1
// samples of each row.
template <class T, class W, int N, Stat St>
QLAR_INLINE void slideRow(const T* a, const T* b, T* o, int n)
{
    typedef W WV __attribute__((vector_size(N * sizeof(W))));
    typedef T TV __attribute__((vector_size(N * sizeof(T))));
    auto one = [&](int i) {
        const T s[4] = {a[i], a[i + 1], b[i], b[i + 1]};
        if constexpr (St == Stat::Avg)
            o[i] = T((W(s[0]) + s[1] + s[2] + s[3] + 2) >> 2);
        else if constexpr (St == Stat::Min)
            o[i] = std::min(std::min(s[0], s[1]), std::min(s[2], s[3]));
        else
            o[i] = std::max(std::max(s[0], s[1]), std::max(s[2], s[3]));
    };
    if (n < N) {
        for (int i = 0; i < n; ++i)
            one(i);
        return;
    }
    for (int k = 0, c = (n + N - 1) / N, i = 0; k < c; ++k, i = std::min(i + N, n - N)) {
        TV t[4];
        std::memcpy(&t[0], a + i, sizeof(TV));
        std::memcpy(&t[1], a + i + 1, sizeof(TV));
        std::memcpy(&t[2], b + i, sizeof(TV));
        std::memcpy(&t[3], b + i + 1, sizeof(TV));
        TV r;
        if constexpr (St == Stat::Avg) {
            const WV sum = __builtin_convertvector(t[0], WV) + __builtin_convertvector(t[1], WV)
                + __builtin_convertvector(t[2], WV) + __builtin_convertvector(t[3], WV);
            r = __builtin_convertvector((sum + 2) >> 2, TV);
        } else if constexpr (St == Stat::Min) {
            const TV p = t[0] < t[1] ? t[0] : t[1], q = t[2] < t[3] ? t[2] : t[3];
            r = p < q ? p : q;
        } else {
            const TV p = t[0] < t[1] ? t[1] : t[0], q = t[2] < t[3] ? t[3] : t[2];
            r = p < q ? q : p;
        }
        std::memcpy(o + i, &r, sizeof r);
    }
}

using PairRowFn = void (*)(const void*, const void*, void*, int);

#define QLAR_PAIR_ENTRIES(T, W, suffix, St)                                                         \
    __attribute__((target("avx2"))) void pairAvx2_##suffix(const void* a, const void* b, void* o, int n) \
    { pairRow<T, W, 32 / sizeof(W), St>(static_cast<const T*>(a), static_cast<const T*>(b), static_cast<T*>(o), n); } \
    void pairSse_##suffix(const void* a, const void* b, void* o, int n)                               \
    { pairRow<T, W, 16 / sizeof(W), St>(static_cast<const T*>(a), static_cast<const T*>(b), static_cast<T*>(o), n); } \
    __attribute__((target("avx2"))) void slideAvx2_##suffix(const void* a, const void* b, void* o, int n) \
    { slideRow<T, W, 32 / sizeof(W), St>(static_cast<const T*>(a), static_cast<const T*>(b), static_cast<T*>(o), n); } \
    void slideSse_##suffix(const void* a, const void* b, void* o, int n)                              \
    { slideRow<T, W, 16 / sizeof(W), St>(static_cast<const T*>(a), static_cast<const T*>(b), static_cast<T*>(o), n); }

QLAR_PAIR_ENTRIES(quint8, quint16, u8min, Stat::Min)
QLAR_PAIR_ENTRIES(quint8, quint16, u8max, Stat::Max)
QLAR_PAIR_ENTRIES(quint8, quint16, u8avg, Stat::Avg)
QLAR_PAIR_ENTRIES(quint16, quint32, u16min, Stat::Min)
QLAR_PAIR_ENTRIES(quint16, quint32, u16max, Stat::Max)
QLAR_PAIR_ENTRIES(quint16, quint32, u16avg, Stat::Avg)

// The 2 x 2 row kernel for a type and statistic, per cell or sliding; null
// when there is none.
PairRowFn pickPairRow(ExImageDataType type, Stat st, bool slide)
{
#define QLAR_PICK(suffix)                                                                      \
    (slide ? (avx ? slideAvx2_##suffix : slideSse_##suffix) : (avx ? pairAvx2_##suffix : pairSse_##suffix))
    const bool avx = pixelkit::cpuHas(pixelkit::CpuFeature::Avx2);
    if (type == IDT_UINT8) {
        switch (st) {
        case Stat::Min: return QLAR_PICK(u8min);
        case Stat::Max: return QLAR_PICK(u8max);
        case Stat::Avg: return QLAR_PICK(u8avg);
        default: return nullptr;
        }
    }
    if (type == IDT_UINT16) {
        switch (st) {
        case Stat::Min: return QLAR_PICK(u16min);
        case Stat::Max: return QLAR_PICK(u16max);
        case Stat::Avg: return QLAR_PICK(u16avg);
        default: return nullptr;
        }
    }
#undef QLAR_PICK
    return nullptr;
}

// ------------------------------------------------------------ the three modes

// Cells i in [first, last) lie wholly inside [0, size) when they start at
// origin + i * period.
void wholeCells(qint64 origin, int period, quint32 size, qint64 count, qint64& first, qint64& last)
{
    first = origin >= 0 ? 0 : (-origin + period - 1) / period;
    const qint64 room = qint64(size) - period - origin;  // the last start that fits, from the origin
    last = room < 0 ? 0 : std::min(count, room / period + 1);
    if (first > last)
        first = last;
}

template <class T, Stat St>
void perCell(const SxPicBuf& in, const Cells& c, SxPicBuf& out)
{
    const int nx = int(out.width), ny = int(out.height);
    const PairRowFn pair = c.px == 2 && c.py == 2 ? pickPairRow(in.dataType, St, false) : nullptr;
    qint64 i0, i1, j0, j1;
    wholeCells(c.originX, c.px, in.width, nx, i0, i1);
    wholeCells(c.originY, c.py, in.height, ny, j0, j1);
    forRows<T>(ny, qint64(nx) * ny * c.px * c.py, [&](int r0, int r1, int) {
        for (int j = r0; j < r1; ++j) {
            T* o = rowAt<T>(out, j);
            if (j < j0 || j >= j1 || i0 >= i1) {
                std::fill(o, o + nx, T(0));
                continue;
            }
            std::fill(o, o + i0, T(0));
            std::fill(o + i1, o + nx, T(0));
            const int y = int(c.originY + j * c.py);
            const int x0 = int(c.originX + i0 * c.px);
            if (pair) {
                pair(rowAt<T>(in, y) + x0, rowAt<T>(in, y + 1) + x0, o + i0, int(i1 - i0));
                continue;
            }
            for (qint64 i = i0; i < i1; ++i)
                o[i] = blockStat<T, St>(in, int(c.originX + i * c.px), y, c.px, c.py);
        }
    });
}

// ------------------------------------------------------- sliding strips
//
// Sliding cells of any other period, a strip of anchors at a time: the
// cell's rows are folded per column (for averages, the column sums of the
// row above are moved down a row instead), then the columns are folded
// across the cell and, for averages, the rounded quotient taken by a
// multiply. Each step is a plain loop over the strip that the compiler
// vectorises; the folds run in the order of the per-anchor loop, so float
// minima and maxima with NaN come out the same.

constexpr int StripAnchors = 2048;
constexpr int StripMaxPeriod = 1024;
static_assert(StripMaxPeriod >= 32, "a vector of sums past every strip");

template <Stat St, class A>
inline A fold(A a, A b)
{
    if constexpr (St == Stat::Avg)
        return A(a + b);
    else if constexpr (St == Stat::Min)
        return b < a ? b : a;
    else
        return a < b ? b : a;
}

template <Stat St, class A, class T>
QLAR_VECTOR_CLONES void foldRow_T(A* __restrict acc, const T* __restrict r, int n)
{
    for (int k = 0; k < n; ++k)
        acc[k] = fold<St, A>(acc[k], A(r[k]));
}

template <class A, class T>
QLAR_VECTOR_CLONES void widenRow_T(A* __restrict acc, const T* __restrict r, int n)
{
    for (int k = 0; k < n; ++k)
        acc[k] = A(r[k]);
}

// Column sums one row further down: the row that enters, less the one that
// leaves (wrapping arithmetic, exact once the sums are whole again).
template <class A, class T>
QLAR_VECTOR_CLONES void moveSumsDown_T(A* __restrict acc, const T* __restrict enters, const T* __restrict leaves,
                                       int n)
{
    for (int k = 0; k < n; ++k)
        acc[k] = A(acc[k] + A(enters[k]) - A(leaves[k]));
}

// (x + half) / n for every x up to a known largest sum, as (x + half) * m >> k;
// exact when (largest + half) * (m * n - 2^k) < 2^k. With W of 32 bits the
// sums are 16-bit and m < 2^16, k >= 16: the high half of a 16-bit multiply.
template <class W>
struct SxQuotient
{
    static constexpr bool High = sizeof(W) == 4;
    W m = 0, half = 0;
    int k = 0;
    bool ok = false;
    SxQuotient(quint64 n, quint64 largest)
    {
        half = W(n / 2);
        const quint64 x = largest + n / 2;
        const unsigned __int128 mLimit = (unsigned __int128)(1) << (High ? 16 : 32);
        for (int s = High ? 16 : 0; s < 96 && !ok; ++s) {
            const unsigned __int128 p = (unsigned __int128)(1) << s;
            const unsigned __int128 mm = (p + n - 1) / n;
            if (mm >= mLimit)
                break;
            if (x * (mm * n - p) < p) {
                m = W(mm);
                k = s;
                ok = true;
            }
        }
    }
    template <class T, class A>
    T of(A sum) const
    {
        if constexpr (High)
            return T(quint16(quint32(quint16(sum + half)) * quint32(quint16(m)) >> 16) >> (k - 16));
        else
            return T((W(sum) + half) * m >> k);
    }
};

// Columns folded across cells P wide into the output samples; P = 0 for a
// width known only at run time, folded through fold.
template <int P, Stat St, class T, class A, class W>
QLAR_VECTOR_CLONES void acrossRow_T(T* __restrict o, const A* __restrict col, A* __restrict fold, int n, int px,
                                    SxQuotient<W> q)
{
    if constexpr (P > 0) {
        for (int i = 0; i < n; ++i) {
            A s = col[i];
            for (int j = 1; j < P; ++j)
                s = ::fold<St, A>(s, col[i + j]);
            o[i] = St == Stat::Avg ? q.template of<T, A>(s) : T(s);
        }
    } else {
        std::memcpy(fold, col, sizeof(A) * size_t(n));
        for (int j = 1; j < px; ++j)
            foldRow_T<St, A, A>(fold, col + j, n);
        for (int i = 0; i < n; ++i)
            o[i] = St == Stat::Avg ? q.template of<T, A>(fold[i]) : T(fold[i]);
    }
}

// Rows shorter than one vector, for both vector builds.
inline void acrossAvgU8Short(quint8* o, const quint16* col, int n, int width, const SxQuotient<quint32>& q)
{
    for (int i = 0; i < n; ++i) {
        quint16 s = col[i];
        for (int j = 1; j < width; ++j)
            s = quint16(s + col[i + j]);
        o[i] = q.of<quint8, quint16>(s);
    }
}

// 8-bit averages, whatever the cell width: 16-bit sums and the high half of
// a 16-bit multiply, in as many lanes as the machine has (the compiler
// widens that multiply to 32 bits when left to itself). P is the cell width
// when known at compile time, else 0; a strip's last samples are redone in
// one vector that ends with it.
template <int P>
__attribute__((target("avx512f,avx512bw"))) void acrossAvgU8Avx512(quint8* o, const quint16* col, int n, int px,
                                                                   const SxQuotient<quint32>& q)
{
    const int width = P > 0 ? P : px;
    const __m512i half = _mm512_set1_epi16(short(q.half)), m = _mm512_set1_epi16(short(q.m));
    const __m128i shift = _mm_cvtsi32_si128(q.k - 16);
    auto at = [&](int i) __attribute__((target("avx512f,avx512bw"))) {
        __m512i s = _mm512_loadu_si512(col + i);
        for (int j = 1; j < width; ++j)
            s = _mm512_add_epi16(s, _mm512_loadu_si512(col + i + j));
        s = _mm512_srl_epi16(_mm512_mulhi_epu16(_mm512_add_epi16(s, half), m), shift);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + i), _mm512_maskz_cvtepi16_epi8(~__mmask32(0), s));
    };
    if (n < 32)
        return acrossAvgU8Short(o, col, n, width, q);
    int i = 0;
    if constexpr (P > 0) {
        // A known width takes its neighbours out of two aligned registers by
        // permutes: P - 1 loads that each straddle two cache lines had cost
        // more than the permutes.
        alignas(64) static constexpr quint16 iota[32] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                                         11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                                                         22, 23, 24, 25, 26, 27, 28, 29, 30, 31};
        __m512i shifted[P];
        for (int j = 1; j < P; ++j)
            shifted[j] = _mm512_add_epi16(_mm512_load_si512(iota), _mm512_set1_epi16(short(j)));
        // The strip buffer holds StripMaxPeriod (>= 32) samples past any
        // strip, so the register after the last step is there to read; only
        // its first P - 1 lanes, which the strip's columns fill, are used.
        __m512i cur = _mm512_loadu_si512(col);
        for (; i + 32 <= n; i += 32) {
            const __m512i next = _mm512_loadu_si512(col + i + 32);
            __m512i s = cur;
            for (int j = 1; j < P; ++j)
                s = _mm512_add_epi16(s, _mm512_permutex2var_epi16(cur, shifted[j], next));
            s = _mm512_srl_epi16(_mm512_mulhi_epu16(_mm512_add_epi16(s, half), m), shift);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + i), _mm512_maskz_cvtepi16_epi8(~__mmask32(0), s));
            cur = next;
        }
    } else {
        for (; i + 32 <= n; i += 32)
            at(i);
    }
    if (i < n)
        at(n - 32);
}

template <int P>
__attribute__((target("avx2"))) void acrossAvgU8Avx2(quint8* o, const quint16* col, int n, int px,
                                                     const SxQuotient<quint32>& q)
{
    const int width = P > 0 ? P : px;
    const __m256i half = _mm256_set1_epi16(short(q.half)), m = _mm256_set1_epi16(short(q.m));
    const __m128i shift = _mm_cvtsi32_si128(q.k - 16);
    auto at = [&](int i) __attribute__((target("avx2"))) {
        __m256i s = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(col + i));
        for (int j = 1; j < width; ++j)
            s = _mm256_add_epi16(s, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(col + i + j)));
        s = _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(s, half), m), shift);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o + i),
                         _mm_packus_epi16(_mm256_castsi256_si128(s), _mm256_extracti128_si256(s, 1)));
    };
    if (n < 16)
        return acrossAvgU8Short(o, col, n, width, q);
    int i = 0;
    for (; i + 16 <= n; i += 16)
        at(i);
    if (i < n)
        at(n - 16);
}

template <Stat St, class T, class A, class W>
using AcrossFn = void (*)(T*, const A*, A*, int, int, SxQuotient<W>);

template <Stat St, class T, class A, class W>
AcrossFn<St, T, A, W> pickAcross(int px)
{
    if constexpr (St == Stat::Avg && std::is_same_v<T, quint8> && std::is_same_v<A, quint16>) {
#define QLAR_ACROSS(fn, P)                                                                   \
    [](quint8* o, const quint16* col, quint16*, int n, int px, SxQuotient<quint32> q) { fn<P>(o, col, n, px, q); }
#define QLAR_ACROSS_ANY(fn)                                                                  \
    switch (px) {                                                                              \
    case 2: return QLAR_ACROSS(fn, 2);                                                         \
    case 3: return QLAR_ACROSS(fn, 3);                                                         \
    case 4: return QLAR_ACROSS(fn, 4);                                                         \
    case 5: return QLAR_ACROSS(fn, 5);                                                         \
    case 6: return QLAR_ACROSS(fn, 6);                                                         \
    case 8: return QLAR_ACROSS(fn, 8);                                                         \
    default: return QLAR_ACROSS(fn, 0);                                                        \
    }
        if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Bw))
            QLAR_ACROSS_ANY(acrossAvgU8Avx512)
        if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx2))
            QLAR_ACROSS_ANY(acrossAvgU8Avx2)
#undef QLAR_ACROSS_ANY
#undef QLAR_ACROSS
    }
    switch (px) {
    case 2: return acrossRow_T<2, St, T, A, W>;
    case 3: return acrossRow_T<3, St, T, A, W>;
    case 4: return acrossRow_T<4, St, T, A, W>;
    case 5: return acrossRow_T<5, St, T, A, W>;
    case 6: return acrossRow_T<6, St, T, A, W>;
    case 8: return acrossRow_T<8, St, T, A, W>;
    default: return acrossRow_T<0, St, T, A, W>;
    }
}

template <class T, class A, class W, Stat St>
void slideStrips(const SxPicBuf& in, const Cells& c, SxPicBuf& out, const SxQuotient<W>& q)
{
    const int w = int(out.width), h = int(out.height);
    const int lastX = c.left + c.width - c.px;
    const int lastY = c.top + c.height - c.py;
    const AcrossFn<St, T, A, W> across = pickAcross<St, T, A, W>(c.px);
    forRows<T>(h, qint64(w) * h * 4, [&](int y0, int y1, int) {
        alignas(64) A col[StripAnchors + StripMaxPeriod];
        A folded[StripAnchors];
        for (int a0 = c.left; a0 <= lastX; a0 += StripAnchors) {
            const int anchors = std::min(StripAnchors, lastX - a0 + 1);
            const int cols = anchors + c.px - 1;
            int held = -1;  // the anchor row col was folded for
            for (int y = y0; y < y1; ++y) {
                const int ay = std::clamp(y, c.top, lastY);
                T* o = rowAt<T>(out, y) + a0;
                if (ay == held) {
                    // Rows past the rectangle repeat its last full cells.
                    std::memcpy(o, rowAt<T>(out, y - 1) + a0, sizeof(T) * size_t(anchors));
                    continue;
                }
                if (St == Stat::Avg && held >= 0 && ay == held + 1) {
                    moveSumsDown_T<A, T>(col, rowAt<T>(in, ay + c.py - 1) + a0, rowAt<T>(in, held) + a0, cols);
                } else {
                    widenRow_T<A, T>(col, rowAt<T>(in, ay) + a0, cols);
                    for (int j = 1; j < c.py; ++j)
                        foldRow_T<St, A, T>(col, rowAt<T>(in, ay + j) + a0, cols);
                }
                held = ay;
                across(o, col, folded, anchors, c.px, q);
            }
        }
        for (int y = y0; y < y1; ++y) {
            T* o = rowAt<T>(out, y);
            std::fill(o, o + c.left, o[c.left]);
            std::fill(o + lastX + 1, o + w, o[lastX]);
        }
    });
}

// The strips where they apply: minima and maxima of every type, averages of
// unsigned 8- and 16-bit samples (summed exactly in 16 or 32 bits).
template <class T, Stat St>
bool slidingInStrips(const SxPicBuf& in, const Cells& c, SxPicBuf& out)
{
    if (c.px > StripMaxPeriod)
        return false;
    if constexpr (St != Stat::Avg) {
        slideStrips<T, T, quint32, St>(in, c, out, SxQuotient<quint32>(1, 0));
        return true;
    } else if constexpr (std::is_same_v<T, quint8> || std::is_same_v<T, quint16>) {
        const quint64 n = quint64(c.px) * quint64(c.py);
        const quint64 largest = n * std::numeric_limits<T>::max();
        if (std::is_same_v<T, quint8> && largest + n / 2 <= 0xffff) {
            const SxQuotient<quint32> q(n, largest);
            if (q.ok) {
                slideStrips<T, quint16, quint32, St>(in, c, out, q);
                return true;
            }
        }
        if (largest + n / 2 <= 0xffffffffu) {
            const SxQuotient<quint64> q(n, largest);
            if (q.ok) {
                slideStrips<T, quint32, quint64, St>(in, c, out, q);
                return true;
            }
        }
        return false;
    } else {
        return false;
    }
}

// Sliding cells. For each output row, the cell's rows are first folded per
// column (min, max or sum) into a stack buffer, then slid along x, so a
// sample costs periodX + periodY operations instead of their product.
template <class T, Stat St>
void sliding(const SxPicBuf& in, const Cells& c, SxPicBuf& out)
{
    using Acc = std::conditional_t<St == Stat::Avg, SumOf<T>, T>;
    constexpr int Chunk = 2048;
    const int w = int(out.width), h = int(out.height);
    const int lastX = c.left + c.width - c.px;   // last anchor that holds a full cell
    const int lastY = c.top + c.height - c.py;
    const qint64 n = qint64(c.px) * c.py;
    const PairRowFn pair = c.px == 2 && c.py == 2 ? pickPairRow(in.dataType, St, true) : nullptr;
    if (!pair && slidingInStrips<T, St>(in, c, out))
        return;
    forRows<T>(h, qint64(w) * h, [&](int y0, int y1, int) {
        for (int y = y0; y < y1; ++y) {
            const int ay = std::clamp(y, c.top, lastY);
            T* o = rowAt<T>(out, y);
            if (pair) {
                pair(rowAt<T>(in, ay) + c.left, rowAt<T>(in, ay + 1) + c.left, o + c.left, lastX - c.left + 1);
            } else if (c.px >= Chunk) {
                for (int ax = c.left; ax <= lastX; ++ax)
                    o[ax] = blockStat<T, St>(in, ax, ay, c.px, c.py);
            } else {
                Acc col[Chunk];
                const int step = Chunk - c.px + 1;
                for (int a0 = c.left; a0 <= lastX; a0 += step) {
                    const int anchors = std::min(step, lastX - a0 + 1);
                    const int cols = anchors + c.px - 1;
                    const T* r0 = rowAt<T>(in, ay) + a0;
                    for (int k = 0; k < cols; ++k)
                        col[k] = Acc(r0[k]);
                    for (int j = 1; j < c.py; ++j) {
                        const T* r = rowAt<T>(in, ay + j) + a0;
                        for (int k = 0; k < cols; ++k) {
                            if constexpr (St == Stat::Avg)
                                col[k] += r[k];
                            else if constexpr (St == Stat::Min)
                                col[k] = std::min(col[k], r[k]);
                            else
                                col[k] = std::max(col[k], r[k]);
                        }
                    }
                    if constexpr (St == Stat::Avg) {
                        Acc sum = 0;
                        for (int k = 0; k < c.px; ++k)
                            sum += col[k];
                        for (int k = 0; k < anchors; ++k) {
                            o[a0 + k] = meanOf<T>(sum, n);
                            if (k + 1 < anchors)
                                sum += col[k + c.px] - col[k];
                        }
                    } else {
                        for (int k = 0; k < anchors; ++k) {
                            Acc best = col[k];
                            for (int i = 1; i < c.px; ++i)
                                best = St == Stat::Min ? std::min(best, col[k + i]) : std::max(best, col[k + i]);
                            o[a0 + k] = best;
                        }
                    }
                }
            }
            std::fill(o, o + c.left, o[c.left]);
            std::fill(o + lastX + 1, o + w, o[lastX]);
        }
    });
}

template <class T>
quint64 fullScaleOf(quint32 bitsPerSample)
{
    const quint32 valueBits = 8 * sizeof(T) - (std::is_signed_v<T> ? 1 : 0);
    const quint32 bits = bitsPerSample == 0 || bitsPerSample > valueBits ? valueBits : bitsPerSample;
    return (quint64(1) << bits) - 1;
}

template <class T>
void normalizeCell(const SxPicBuf& in, int x, int y, const Cells& c, quint64 fullScale, SxPicBuf& out)
{
    const T lo = blockStat<T, Stat::Min>(in, x, y, c.px, c.py);
    const T hi = blockStat<T, Stat::Max>(in, x, y, c.px, c.py);
    for (int dy = 0; dy < c.py; ++dy) {
        const T* s = rowAt<T>(in, y + dy) + x;
        T* d = rowAt<T>(out, y + dy) + x;
        if constexpr (std::is_floating_point_v<T>) {
            const T range = hi - lo;
            for (int k = 0; k < c.px; ++k)
                d[k] = range > 0 ? (s[k] - lo) / range : T(0);
        } else {
            // 32-bit differences times a 32-bit full scale need 128 bits.
            using Wide = std::conditional_t<sizeof(T) <= 2, quint64, unsigned __int128>;
            const quint64 range = quint64(qint64(hi) - qint64(lo));
            for (int k = 0; k < c.px; ++k)
                d[k] = range ? T((Wide(quint64(qint64(s[k]) - qint64(lo))) * fullScale + range / 2) / range) : T(0);
        }
    }
}

template <class T>
void normalize(const SxPicBuf& in, const Cells& c, SxPicBuf& out)
{
    const int h = int(in.height);
    const size_t rowBytes = size_t(in.packedLineBytes());
    const quint64 fullScale = fullScaleOf<T>(in.bitsPerSample);
    const int cellsX = c.width / c.px, cellsY = c.height / c.py;
    const qint64 samples = qint64(in.width) * h;
    forRows<T>(h, samples, [&](int y0, int y1, int) {
        for (int y = y0; y < y1; ++y)
            std::memcpy(rowAt<T>(out, y), rowAt<T>(in, y), rowBytes);
    });
    forRows<T>(cellsY, samples, [&](int j0, int j1, int) {
        for (int j = j0; j < j1; ++j)
            for (int i = 0; i < cellsX; ++i)
                normalizeCell<T>(in, c.left + i * c.px, c.top + j * c.py, c, fullScale, out);
    });
}

template <class T>
bool runTyped(Stat st, bool perCellMode, const SxPicBuf& in, const Cells& c, SxPicBuf& out)
{
    if (st == Stat::Normalize) {
        normalize<T>(in, c, out);
        return true;
    }
    switch (st) {
    case Stat::Min: perCellMode ? perCell<T, Stat::Min>(in, c, out) : sliding<T, Stat::Min>(in, c, out); break;
    case Stat::Max: perCellMode ? perCell<T, Stat::Max>(in, c, out) : sliding<T, Stat::Max>(in, c, out); break;
    default: perCellMode ? perCell<T, Stat::Avg>(in, c, out) : sliding<T, Stat::Avg>(in, c, out); break;
    }
    return true;
}

bool laidOut(const SxPicBuf& p)
{
    return p.data && pixelkit::rowsFit(p) && pixelkit::samplesAligned(p);
}

bool filterMosaic(Stat st, const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out)
{
    if (periodX <= 0 || periodY <= 0)
        return false;
    if (in.channels != 1 || out.channels != 1 || in.dataType != out.dataType)
        return false;
    if (in.width == 0 || in.height == 0 || in.width > quint32(INT_MAX) || in.height > quint32(INT_MAX))
        return false;
    if (!laidOut(in) || !laidOut(out) || pixelkit::overlaps(in, out))
        return false;

    Cells c;
    c.px = periodX;
    c.py = periodY;
    const bool fullSize = out.width == in.width && out.height == in.height;
    const bool perCellMode = !fullSize && st != Stat::Normalize;
    if (perCellMode) {
        // QRect's own width() overflows for corners far apart.
        const qint64 rectW = std::max<qint64>(0, qint64(rect.right()) - rect.left() + 1);
        const qint64 rectH = std::max<qint64>(0, qint64(rect.bottom()) - rect.top() + 1);
        if (out.width != quint64(rectW / periodX) || out.height != quint64(rectH / periodY) || out.width == 0
            || out.height == 0 || out.width > quint32(INT_MAX) || out.height > quint32(INT_MAX))
            return false;
        c.originX = rect.left();
        c.originY = rect.top();
    } else {
        const QRect clipped = rect.intersected(QRect(0, 0, int(in.width), int(in.height)));
        if (!fullSize || clipped.width() < periodX || clipped.height() < periodY)
            return false;
        c.left = clipped.left();
        c.top = clipped.top();
        c.width = clipped.width();
        c.height = clipped.height();
    }

    using Types = pixelkit::Only<qint8, quint8, qint16, quint16, qint32, quint32, float>;
    return pixelkit::withSampleTypeIn<Types>(in.dataType, [&](auto tag) {
        return runTyped<typename decltype(tag)::type>(st, perCellMode, in, c, out);
    });
}

} // namespace

bool CxPicBufAPI::FilterAvgOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out)
{
    return filterMosaic(Stat::Avg, in, rect, periodX, periodY, out);
}

bool CxPicBufAPI::FilterMinOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out)
{
    return filterMosaic(Stat::Min, in, rect, periodX, periodY, out);
}

bool CxPicBufAPI::FilterMaxOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out)
{
    return filterMosaic(Stat::Max, in, rect, periodX, periodY, out);
}

bool CxPicBufAPI::FilterNormalizeOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out)
{
    return filterMosaic(Stat::Normalize, in, rect, periodX, periodY, out);
}
