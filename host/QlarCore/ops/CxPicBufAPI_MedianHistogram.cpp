// Median filter, histogram kernels: the radii beyond the sorting networks.
//
// - 8-bit, radius 3 to 127: per-column histograms, constant time per sample
//   (after Perreault and Hebert), built for AVX-512 (8 groups of 32 values),
//   AVX2 (16 groups of 16) or SSE2 (the earlier 16-bit count layout).
// - 8-bit, radius 128 to 1023: per-column histograms with 16-bit counts over
//   the picture's own columns, edge rows and columns counted with their
//   repeats.
// - 16-bit, radius 9 to 127, AVX-512: the high byte from per-column
//   histograms, the low byte from two more levels of per-column counts at
//   full resolution.
// - Anything else: a window histogram sliding along a snake path, O(r) per
//   sample.
#include "Median_p.h"

#include <KitCpu.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include <immintrin.h>

#pragma GCC diagnostic ignored "-Wpsabi"
// The AVX-512 intrinsics start some results from a self-initialised
// register, which sanitizer builds report as maybe uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

// Lambdas do not take on the target of the function they are written in.
#define QLAR_AVX2_LAMBDA __attribute__((target("avx2")))

namespace median {
namespace {

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

// How often row or column k of [lo, hi], clamped to [0, last], occurs.
QLAR_INLINE int repeats(int k, int lo, int hi, int last)
{
    return 1 + (k == 0 ? std::max(0, -lo) : 0) + (k == last ? std::max(0, hi - last) : 0);
}

// Any radius: a window histogram that walks the band in a snake (right along
// even rows, left along odd ones), so each step swaps one column or one row
// of 2r + 1 samples. Counts are kept per bin and per group of 16 bins (and,
// for 16-bit samples, per group of 256), so finding the median after a step
// is a short walk over the coarsest level from the previous median's bucket,
// then at most 16 steps on each finer level. Window rows and columns beyond
// the picture repeat its edge: each edge sample is counted once, as often as
// the window repeats it, so a step costs at most the picture's height or
// width, however far the kernel reaches past it.
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
    // Sample s enters (times > 0) or leaves the window |times| times.
    auto add = [&](int s, int times) {
        fine[s] += quint32(times);
        if constexpr (Wide)
            mid[s >> 4] += quint32(times);
        coarse[s >> CoarseShift] += quint32(times);
        below += (s >> CoarseShift) < bucket ? times : 0;
    };
    // fn(k, times) for the picture rows (columns) k in window [c - r, c + r]
    // of a picture `size` long, each with how often the window holds it.
    auto forWindow = [r](int c, int size, auto&& fn) {
        const int lo = c - r, hi = c + r;
        const int first = std::max(lo, 0), last = std::min(hi, size - 1);
        for (int k = first; k <= last; ++k)
            fn(k, repeats(k, lo, hi, size - 1));
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

    forWindow(y0, f.h, [&](int y, int ty) {
        const T* row = f.inRow<T>(y);
        forWindow(0, w, [&](int c, int tx) { add(row[c], ty * tx); });
    });
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
                    forWindow(y, f.h, [&](int yy, int times) {
                        const T* row = f.inRow<T>(yy);
                        add(row[gone], -times);
                        add(row[come], times);
                    });
                }
            }
            out[x] = T(median());
        }
        if (y + 1 < y1) {
            const T* top = f.inRow<T>(y - r);
            const T* bottom = f.inRow<T>(y + r + 1);
            if (top != bottom) {
                forWindow(x, w, [&](int c, int times) {
                    add(top[c], -times);
                    add(bottom[c], times);
                });
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

// The AVX2 kernel keeps 8-bit counts per column (a column holds 2r + 1 <= 255
// samples), so a strip's columns fit in L1 and a column's coarse counts or
// one fine group are a single 16-byte load, widened to 16-bit window counts.
// The counts are kept as running sums (lane k: samples in buckets 0..k), so
// adding up columns gives the window's running sums directly and the search
// for a rank is one compare; a sample in or out is one vector add to each
// level instead of a prefix sum per output.
struct ByteColumn
{
    quint8 coarse[16];     // lane k: samples whose value >> 4 is at most k
    quint8 fine[16][16];   // [g][k]: samples whose value >> 4 is g and value & 15 is at most k
};

// Row t: 1 in lanes t and up, 0 below; what one sample of value t adds to
// running sums over Lanes buckets.
template <int Lanes>
struct FromLaneTable
{
    alignas(32) quint8 row[Lanes][Lanes];
    constexpr FromLaneTable() : row()
    {
        for (int t = 0; t < Lanes; ++t)
            for (int k = t; k < Lanes; ++k)
                row[t][k] = 1;
    }
};
constexpr FromLaneTable<16> FromLane;
constexpr FromLaneTable<32> FromLane32;

// Strips as wide as possible while their columns stay in L1. Larger kernels
// get strips of at least 8r columns (in L2 then), so the 2r columns a strip
// shares with its neighbours add at most a quarter to the column updates.
constexpr size_t ColumnL1Budget = 40 * 1024;
int byteStripWidth(int r)
{
    const int fit = int(ColumnL1Budget / sizeof(ByteColumn)) - 2 * r;
    return std::max({fit, 8 * r + 1, 64});
}
size_t byteColumnSlotBytes(int r)
{
    return size_t(byteStripWidth(r) + 2 * r) * sizeof(ByteColumn) + 16 * 32 + 64;
}

__attribute__((target("avx2"))) QLAR_INLINE __m256i widen(const quint8* p)
{
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

__attribute__((target("avx2"))) QLAR_INLINE __m128i load16(const quint8* p)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(p));
}

__attribute__((target("avx2"))) QLAR_INLINE void store16(quint8* p, __m128i v)
{
    _mm_store_si128(reinterpret_cast<__m128i*>(p), v);
}

// How many of 16 running sums (all below 65536) stay at or below limit.
__attribute__((target("avx2"))) QLAR_INLINE int sumsWithin(__m256i sums, __m256i limit)
{
    const __m256i within = _mm256_cmpeq_epi16(_mm256_max_epu16(sums, limit), limit);
    return __builtin_popcount(unsigned(_mm256_movemask_epi8(within))) >> 1;
}

// The running sum before lane k, in every lane: the samples below bucket k.
__attribute__((target("avx2"))) QLAR_INLINE __m256i sumBefore(__m256i sums, int k)
{
    const __m256i up = _mm256_alignr_epi8(sums, _mm256_permute2x128_si256(sums, sums, 0x08), 14);
    const __m256i pair = _mm256_permutevar8x32_epi32(up, _mm256_set1_epi32(k >> 1));
    return _mm256_shuffle_epi8(pair, _mm256_set1_epi16(short(0x0100 + 0x0202 * (k & 1))));
}

// One sample of a column leaves it and another comes in.
__attribute__((target("avx2"))) QLAR_INLINE void swapSample(ByteColumn& c, int out, int in)
{
    const __m128i step = _mm_sub_epi8(load16(FromLane.row[in >> 4]), load16(FromLane.row[out >> 4]));
    store16(c.coarse, _mm_add_epi8(load16(c.coarse), step));
    store16(c.fine[out >> 4], _mm_sub_epi8(load16(c.fine[out >> 4]), load16(FromLane.row[out & 15])));
    store16(c.fine[in >> 4], _mm_add_epi8(load16(c.fine[in >> 4]), load16(FromLane.row[in & 15])));
}

__attribute__((target("avx2"))) void medianByteColumnStrip(const Frame& f, int y0, int y1, int sx0, int sx1,
                                                           ByteColumn* cols, __m256i* groups)
{
    const int r = f.r, w = f.w, span = 2 * r + 1;
    const int base = sx0 - r;  // image column of cols[0]
    const int n = sx1 - sx0 + 2 * r;
    // Columns outside the picture repeat its edge columns; they are counted
    // like any other so the loops below never clamp.
    const int left = std::clamp(-base, 0, n), right = std::clamp(w - base, left, n);
    auto update = [&](const quint8* top, const quint8* bottom) QLAR_AVX2_LAMBDA {
        for (int j = 0; j < left; ++j)
            swapSample(cols[j], top[0], bottom[0]);
        for (int j = left; j < right; ++j)
            swapSample(cols[j], top[base + j], bottom[base + j]);
        for (int j = right; j < n; ++j)
            swapSample(cols[j], top[w - 1], bottom[w - 1]);
    };
    std::memset(static_cast<void*>(cols), 0, size_t(n) * sizeof(ByteColumn));
    {
        // Start every column with 2r + 1 zeros, then swap them for the samples.
        const quint8 zeros = 0;
        for (int j = 0; j < n; ++j) {
            std::memset(cols[j].coarse, span, 16);
            std::memset(cols[j].fine[0], span, 16);
        }
        for (int dy = -r; dy <= r; ++dy) {
            const quint8* row = f.inRow<quint8>(y0 + dy);
            for (int j = 0; j < n; ++j)
                swapSample(cols[j], zeros, row[std::clamp(base + j, 0, w - 1)]);
        }
    }

    const int target = (span * span - 1) / 2;
    const __m256i targetV = _mm256_set1_epi16(short(target));
    for (int y = y0; y < y1; ++y) {
        if (y > y0) {
            const quint8* top = f.inRow<quint8>(y - r - 1);
            const quint8* bottom = f.inRow<quint8>(y + r);
            if (top != bottom)
                update(top, bottom);
        }
        __m256i coarse = _mm256_setzero_si256();
        for (int j = 0; j < span - 1; ++j)
            coarse = _mm256_add_epi16(coarse, widen(cols[j].coarse));
        // Window start (index into cols) at which each fine group was last
        // brought up to date; the current group's counts stay in a register.
        int synced[16];
        std::fill(synced, synced + 16, -(1 << 28));
        int current = -1;
        __m256i fine = _mm256_setzero_si256();
        quint8* out = f.outRow<quint8>(y) + sx0;
        for (int i = 0; i < sx1 - sx0; ++i) {
            const ByteColumn* in = cols + i + 2 * r;
            coarse = _mm256_add_epi16(coarse, widen(in->coarse));
            const int g = sumsWithin(coarse, targetV);
            if (g == current) {
                fine = _mm256_sub_epi16(_mm256_add_epi16(fine, widen(in->fine[g])), widen(cols[i - 1].fine[g]));
            } else {
                if (current >= 0) {
                    groups[current] = fine;
                    synced[current] = i - 1;
                }
                const int behind = i - synced[g];
                if (2 * behind > span) {
                    // Four sums, so the adds do not wait on each other.
                    __m256i part[4] = {_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256(),
                                       _mm256_setzero_si256()};
                    int j = i;
                    for (; j + 4 <= i + span; j += 4)
                        for (int k = 0; k < 4; ++k)
                            part[k] = _mm256_add_epi16(part[k], widen(cols[j + k].fine[g]));
                    for (; j < i + span; ++j)
                        part[0] = _mm256_add_epi16(part[0], widen(cols[j].fine[g]));
                    fine = _mm256_add_epi16(_mm256_add_epi16(part[0], part[1]), _mm256_add_epi16(part[2], part[3]));
                } else {
                    fine = groups[g];
                    for (int k = i - behind; k < i; ++k)
                        fine = _mm256_sub_epi16(_mm256_add_epi16(fine, widen(cols[k + span].fine[g])),
                                                widen(cols[k].fine[g]));
                }
                current = g;
            }
            out[i] = quint8(16 * g + sumsWithin(fine, _mm256_sub_epi16(targetV, sumBefore(coarse, g))));
            coarse = _mm256_sub_epi16(coarse, widen(cols[i].coarse));
        }
    }
}

__attribute__((target("avx2"))) void medianColumnHistogramAvx2(const Frame& f, int y0, int y1, uchar* scratch)
{
    auto* groups = reinterpret_cast<__m256i*>(roundUp(reinterpret_cast<quintptr>(scratch), 32));
    auto* cols = reinterpret_cast<ByteColumn*>(groups + 16);
    const int strip = byteStripWidth(f.r);
    for (int sx0 = 0; sx0 < f.w; sx0 += strip)
        medianByteColumnStrip(f, y0, y1, sx0, std::min(f.w, sx0 + strip), cols, groups);
}

// With AVX-512 the window's fine counts of one group fill a 512-bit register,
// so the split is 8 groups of 32 values: the median leaves its group half as
// often, and every such step costs a sum over 2r + 1 columns (or a
// mispredicted branch at the least).
#define QLAR_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512vl,popcnt")))

// Per column: fine running sums here, and in a separate array, one word
// whose byte k counts the samples whose value >> 5 is at most k (eight
// columns' words are one vector, so a row's coarse updates run across
// columns).
struct WideColumn
{
    quint8 fine[8][32];     // [g][k]: samples whose value >> 5 is g and value & 31 is at most k
};

// Byte k of entry t: 1 from byte t on, as one word, so that a column's
// coarse counts move with one scalar add. The counts never leave 0..255, so
// carries between bytes cancel out.
constexpr quint64 fromByte(int t) { return 0x0101010101010101ull << (8 * t); }
constexpr quint64 FromByte[8] = {fromByte(0), fromByte(1), fromByte(2), fromByte(3),
                                 fromByte(4), fromByte(5), fromByte(6), fromByte(7)};

// The AVX-512 kernel's columns are updated fast enough that wide strips in
// L2 (up to 1024 columns) beat L1-sized ones once the 2r shared columns grow.
int wideStripWidth(int r)
{
    const int fit = int(ColumnL1Budget / sizeof(WideColumn)) - 2 * r;
    return std::max({fit, std::min(48 * r, 1024), 8 * r + 1, 64});
}
size_t wideColumnSlotBytes(int r)
{
    const size_t n = size_t(wideStripWidth(r) + 2 * r);
    return n * sizeof(WideColumn) + roundUp(n, 8) * sizeof(quint64) + 8 * 64 + 64;
}

QLAR_AVX512 QLAR_INLINE __m512i widen32(const quint8* p)
{
    return _mm512_cvtepu8_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(p)));
}

QLAR_AVX512 QLAR_INLINE __m128i widen8(const quint64* p)
{
    return _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

constexpr int PrefetchRows = 4;

// One fine group summed over n columns: four sums, so the adds do not wait
// on each other (named, as an array of them ends up on the stack).
QLAR_AVX512 QLAR_INLINE __m512i sumGroup(const WideColumn* c, int n, int g)
{
    __m512i a = _mm512_setzero_si512(), b = a, d = a, e = a;
    int j = 0;
    for (; j + 4 <= n; j += 4) {
        a = _mm512_add_epi16(a, widen32(c[j].fine[g]));
        b = _mm512_add_epi16(b, widen32(c[j + 1].fine[g]));
        d = _mm512_add_epi16(d, widen32(c[j + 2].fine[g]));
        e = _mm512_add_epi16(e, widen32(c[j + 3].fine[g]));
    }
    for (; j < n; ++j)
        a = _mm512_add_epi16(a, widen32(c[j].fine[g]));
    return _mm512_add_epi16(_mm512_add_epi16(a, b), _mm512_add_epi16(d, e));
}

QLAR_AVX512 QLAR_INLINE void swapFine(WideColumn& c, int out, int in)
{
    auto row = [](int v) QLAR_AVX512 { return _mm256_load_si256(reinterpret_cast<const __m256i*>(FromLane32.row[v])); };
    auto* fo = reinterpret_cast<__m256i*>(c.fine[out >> 5]);
    _mm256_store_si256(fo, _mm256_sub_epi8(_mm256_load_si256(fo), row(out & 31)));
    auto* fi = reinterpret_cast<__m256i*>(c.fine[in >> 5]);
    _mm256_store_si256(fi, _mm256_add_epi8(_mm256_load_si256(fi), row(in & 31)));
}

QLAR_AVX512 QLAR_INLINE void swapWide(WideColumn& c, quint64& coarse, int out, int in)
{
    coarse += FromByte[in >> 5] - FromByte[out >> 5];
    swapFine(c, out, in);
}


// The coarse words of eight columns at once.
template <class T>
QLAR_AVX512 QLAR_INLINE void swapCoarse8(quint64* coarse, const T* out, const T* in)
{
    constexpr int Shift = 5 + 8 * (int(sizeof(T)) - 1);
    const __m512i ones = _mm512_set1_epi64(qint64(FromByte[0]));
    auto step = [&](const T* p) QLAR_AVX512 {
        __m512i v;
        if constexpr (sizeof(T) == 1)
            v = _mm512_cvtepu8_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        else
            v = _mm512_cvtepu16_epi64(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        return _mm512_sllv_epi64(ones, _mm512_slli_epi64(_mm512_srli_epi64(v, Shift), 3));
    };
    __m512i* c = reinterpret_cast<__m512i*>(coarse);
    _mm512_storeu_si512(c, _mm512_sub_epi64(_mm512_add_epi64(_mm512_loadu_si512(c), step(in)), step(out)));
}

// 16-bit samples, MinLowRadius <= r <= MaxLowRadius: the column histograms
// above find the median's high byte H and its rank among the window's
// samples of that high byte; the low byte comes from two more levels of the
// same kind, counted per column at full resolution: for every H the samples
// per 16 low values (group q), and for every H and q the samples per low
// value, both as running sums so that a window's sums need no prefix pass.
// The window's sums at those two levels are made afresh for every output
// from its 2r + 1 columns, four columns a load: keeping them from output to
// output (as the high byte's are) was measured slower, as the median moves
// among several neighbouring groups and each return costs a catch-up or a
// mispredicted branch. The two levels run as passes over a strip's row
// after the high bytes, so that nothing carries from one output to the next
// and the loads of many outputs overlap.
// A column's counts for all 65536 values take 68 KB, but a strip touches
// only the values its samples have (the work buffer starts as untouched
// zero pages). The counts are left at zero when a strip ends by taking its
// last window's samples out again, so the next strip or call does not clear
// megabytes.
// Below MinLowRadius the networks are as fast and need no such buffer.
constexpr int MinLowRadius = 9;
constexpr int MaxLowRadius = 127;

// Per column; laid out bucket by bucket, a bucket's columns side by side,
// so that a window's counts of one bucket are 2r + 1 neighbouring rows of
// 16 bytes.
constexpr size_t LowGroupBytes = 256 * 16;    // [H][column][q]
constexpr size_t LowFineBytes = 65536;        // [H * 16 + q][column][k]

// Columns per strip: the per-column counts are large, so strips stay narrow
// (the 2r shared columns add about a quarter) and keep at most 256 columns
// (17 MB per thread) up to radius 96; beyond, strips of 64 keep up to 318
// (22 MB at radius 127).
int lowStripWidth(int r)
{
    return std::max(64, std::min(4 * (2 * r + 1), 256 - 2 * r));
}

struct LowLevel
{
    quint8* groups = nullptr;   // LowGroupBytes per column
    quint8* fine = nullptr;     // LowFineBytes per column
    size_t n = 0;               // columns
    int* key = nullptr;         // per output of a strip row: high byte, then high byte and group
    int* rank = nullptr;        // ... the median's rank among the samples of that bucket
    QLAR_INLINE quint8* groupsOf(int v, int j) const { return groups + (size_t(v >> 8) * n + size_t(j)) * 16; }
    QLAR_INLINE quint8* fineOf(int v, int j) const { return fine + (size_t(v >> 4) * n + size_t(j)) * 16; }
};

// The slot's first word says whether the low columns are all zero: 0 for a
// slot never used (the buffer starts zeroed), r after this kernel ran with
// radius r (the layout follows the radius), LowDirty after anything else.
constexpr quint64 LowDirty = ~quint64(0);

size_t lowColumnsOffset(int r)
{
    const size_t n = size_t(lowStripWidth(r) + 2 * r);
    return 64 + roundUp(n * sizeof(WideColumn) + roundUp(n, 8) * sizeof(quint64) + 8 * 64 + 64, 64)
        + roundUp(2 * n * sizeof(int), 64);
}

size_t lowSlotBytes(int r)
{
    return lowColumnsOffset(r) + size_t(lowStripWidth(r) + 2 * r) * (LowGroupBytes + LowFineBytes);
}

// Column j's counts gain (or, with times wrapping below zero, lose) a
// sample `times` times over.
QLAR_AVX512 QLAR_INLINE void weighLow(const LowLevel& low, int j, int v, __m128i times)
{
    auto weighed = [&](int k) QLAR_AVX512 {
        return _mm_and_si128(_mm_sub_epi8(_mm_setzero_si128(), load16(FromLane.row[k])), times);
    };
    quint8* gp = low.groupsOf(v, j);
    store16(gp, _mm_add_epi8(load16(gp), weighed((v >> 4) & 15)));
    quint8* fp = low.fineOf(v, j);
    store16(fp, _mm_add_epi8(load16(fp), weighed(v & 15)));
}

QLAR_AVX512 QLAR_INLINE void swapLow(const LowLevel& low, int j, int out, int in)
{
    quint8* go = low.groupsOf(out, j);
    store16(go, _mm_sub_epi8(load16(go), load16(FromLane.row[(out >> 4) & 15])));
    quint8* gi = low.groupsOf(in, j);
    store16(gi, _mm_add_epi8(load16(gi), load16(FromLane.row[(in >> 4) & 15])));
    quint8* fo = low.fineOf(out, j);
    store16(fo, _mm_sub_epi8(load16(fo), load16(FromLane.row[out & 15])));
    quint8* fi = low.fineOf(in, j);
    store16(fi, _mm_add_epi8(load16(fi), load16(FromLane.row[in & 15])));
}

// Up to this many columns of at most as many samples each, four columns'
// counts added in byte lanes (at most 8 loads) cannot pass 255.
constexpr int SmallCount = 31;

// Four partial sums, in byte lanes, of count <= SmallCount neighbouring
// columns' 16 counts: one load per four columns.
QLAR_AVX512 QLAR_INLINE __m512i byteSums(const quint8* p, int count)
{
    __m512i bytes = _mm512_setzero_si512();
    int j = 0;
    for (; j + 4 <= count; j += 4)
        bytes = _mm512_add_epi8(bytes, _mm512_loadu_si512(p + 16 * j));
    if (j < count)
        bytes = _mm512_add_epi8(bytes, _mm512_maskz_loadu_epi8((quint64(1) << (16 * (count - j))) - 1, p + 16 * j));
    return bytes;
}

// The sums of `count` neighbouring columns' 16 counts (each at most
// count), four columns a load. Byte lanes add up as many loads as cannot
// pass 255 before they are widened.
QLAR_AVX512 QLAR_INLINE __m256i sumColumns(const quint8* p, int count)
{
    __m512i wide = _mm512_setzero_si512(), bytes = wide;
    auto widen = [&]() QLAR_AVX512 {
        wide = _mm512_add_epi16(wide, _mm512_add_epi16(_mm512_cvtepu8_epi16(_mm512_castsi512_si256(bytes)),
                                                       _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(bytes, 1))));
        bytes = _mm512_setzero_si512();
    };
    if (count <= SmallCount) {
        bytes = byteSums(p, count);
    } else {
        const int perWiden = 255 / count;
        int j = 0;
        for (int loads = 0; j + 4 <= count; j += 4) {
            bytes = _mm512_add_epi8(bytes, _mm512_loadu_si512(p + 16 * j));
            if (++loads == perWiden) {
                widen();
                loads = 0;
            }
        }
        if (j < count)
            bytes = _mm512_add_epi8(bytes,
                                    _mm512_maskz_loadu_epi8((quint64(1) << (16 * (count - j))) - 1, p + 16 * j));
    }
    widen();
    return _mm256_add_epi16(_mm512_castsi512_si256(wide), _mm512_extracti64x4_epi64(wide, 1));
}

// The rank in a bucket of few samples (the window holds fewer than 255 of
// them, as around most medians) from sums kept in bytes, which skips the
// widening; -1 if there are more. For count <= SmallCount, so the partial
// sums are exact before the saturating folds.
QLAR_AVX512 QLAR_INLINE int smallRank(const quint8* p, int count, int limit)
{
    const __m512i bytes = byteSums(p, count);
    const __m256i half = _mm256_adds_epu8(_mm512_castsi512_si256(bytes), _mm512_extracti64x4_epi64(bytes, 1));
    const __m128i sums = _mm_adds_epu8(_mm256_castsi256_si128(half), _mm256_extracti128_si256(half, 1));
    if (quint8(_mm_extract_epi8(sums, 15)) == 255)
        return -1;
    return __builtin_popcount(unsigned(_mm_cmple_epu8_mask(sums, _mm_set1_epi8(char(limit)))));
}

// How many of 16 running sums stay at or below limit, and (in before) the
// last of those.
QLAR_AVX512 QLAR_INLINE int lowRank(__m256i sums, int limit, int& before)
{
    const int n = __builtin_popcount(unsigned(_mm256_cmple_epu16_mask(sums, _mm256_set1_epi16(short(limit)))));
    before = n ? quint16(_mm_cvtsi128_si32(
                     _mm256_castsi256_si128(_mm256_permutexvar_epi16(_mm256_set1_epi16(short(n - 1)), sums))))
               : 0;
    return n;
}

// A column's counts differ by at most 2r + 1, so up to this radius the
// difference of two columns is taken in bytes and widened once.
constexpr int MaxByteStepRadius = 63;

template <class T, bool ByteSteps>
QLAR_AVX512 void medianWideColumnStrip(const Frame& f, int y0, int y1, int sx0, int sx1, WideColumn* cols,
                                       quint64* coarseOf, __m512i* groups, const LowLevel& low)
{
    constexpr bool Wide = sizeof(T) == 2;
    constexpr int Shift = Wide ? 8 : 0;  // sample to the byte the columns count
    const int r = f.r, w = f.w, span = 2 * r + 1;
    const int base = sx0 - r;  // image column of cols[0]
    const int n = sx1 - sx0 + 2 * r;
    const int left = std::clamp(-base, 0, n), right = std::clamp(w - base, left, n);
    // The low levels of the window at row yc, edge rows as often as it
    // repeats them; times -1 takes them out again.
    auto countLow = [&](int yc, int sign) QLAR_AVX512 {
        for (int y = std::max(0, yc - r); y <= std::min(f.h - 1, yc + r); ++y) {
            const T* row = f.inRow<T>(y);
            const __m128i times = _mm_set1_epi8(char(sign * repeats(y, yc - r, yc + r, f.h - 1)));
            for (int j = 0; j < n; ++j)
                weighLow(low, j, row[std::clamp(base + j, 0, w - 1)], times);
        }
    };
    auto update = [&](const T* top, const T* bottom) QLAR_AVX512 {
        for (int j = 0; j < left; ++j)
            swapWide(cols[j], coarseOf[j], top[0] >> Shift, bottom[0] >> Shift);
        int j = left;
        for (; j + 8 <= right; j += 8)
            swapCoarse8(coarseOf + j, top + base + j, bottom + base + j);
        for (; j < right; ++j)
            coarseOf[j] += FromByte[bottom[base + j] >> (5 + Shift)] - FromByte[top[base + j] >> (5 + Shift)];
        for (j = left; j < right; ++j)
            swapFine(cols[j], top[base + j] >> Shift, bottom[base + j] >> Shift);
        for (j = right; j < n; ++j)
            swapWide(cols[j], coarseOf[j], top[w - 1] >> Shift, bottom[w - 1] >> Shift);
        if constexpr (Wide) {
            const LowLevel l = low;  // in registers: the stores below might alias it
            for (j = 0; j < n; ++j) {
                const int c = std::clamp(base + j, 0, w - 1);
                swapLow(l, j, top[c], bottom[c]);
            }
        }
    };
    // A band starts from its first window's rows, an edge row counted as
    // often as the window repeats it.
    std::memset(static_cast<void*>(cols), 0, size_t(n) * sizeof(WideColumn));
    std::fill(coarseOf, coarseOf + n, 0);
    for (int y = std::max(0, y0 - r); y <= std::min(f.h - 1, y0 + r); ++y) {
        const T* row = f.inRow<T>(y);
        const int k = repeats(y, y0 - r, y0 + r, f.h - 1);
        const __m256i times = _mm256_set1_epi8(char(k));
        for (int j = 0; j < n; ++j) {
            const int v = row[std::clamp(base + j, 0, w - 1)] >> Shift;
            coarseOf[j] += FromByte[v >> 5] * quint64(k);
            auto* fi = reinterpret_cast<__m256i*>(cols[j].fine[v >> 5]);
            const __m256i step = _mm256_load_si256(reinterpret_cast<const __m256i*>(FromLane32.row[v & 31]));
            const __m256i weighted = _mm256_and_si256(_mm256_sub_epi8(_mm256_setzero_si256(), step), times);
            _mm256_store_si256(fi, _mm256_add_epi8(_mm256_load_si256(fi), weighted));
        }
    }
    if constexpr (Wide)
        countLow(y0, 1);

    const int target = (span * span - 1) / 2;
    const __m128i targetV = _mm_set1_epi16(short(target));
    auto slide = [](__m512i sums, const quint8* come, const quint8* gone) QLAR_AVX512 {
        if constexpr (ByteSteps)
            return _mm512_add_epi16(sums, _mm512_cvtepi8_epi16(_mm256_sub_epi8(
                                              _mm256_load_si256(reinterpret_cast<const __m256i*>(come)),
                                              _mm256_load_si256(reinterpret_cast<const __m256i*>(gone)))));
        return _mm512_sub_epi16(_mm512_add_epi16(sums, widen32(come)), widen32(gone));
    };
    // A strip reads only a short piece of each new row, which the hardware
    // does not fetch ahead: ask for the piece a few rows ahead.
    const int first = std::clamp(base, 0, w - 1), bytes = (std::min(w, base + n) - first) * int(sizeof(T));
    for (int y = y0; y < y1; ++y) {
        if (y + r + PrefetchRows < f.h) {
            const char* ahead = reinterpret_cast<const char*>(f.inRow<T>(y + r + PrefetchRows) + first);
            for (int b = 0; b < bytes; b += 64)
                _mm_prefetch(ahead + b, _MM_HINT_T0);
        }
        if (y > y0) {
            const T* top = f.inRow<T>(y - r - 1);
            const T* bottom = f.inRow<T>(y + r);
            if (top != bottom)
                update(top, bottom);
        }
        __m128i coarse = _mm_setzero_si128();
        for (int j = 0; j < span - 1; ++j)
            coarse = _mm_add_epi16(coarse, widen8(&coarseOf[j]));
        int synced[8];
        std::fill(synced, synced + 8, -(1 << 28));
        int current = -1;
        __m512i fine = _mm512_setzero_si512();
        T* out = f.outRow<T>(y) + sx0;
        for (int i = 0; i < sx1 - sx0; ++i) {
            const WideColumn* in = cols + i + 2 * r;
            coarse = _mm_add_epi16(coarse, widen8(&coarseOf[i + 2 * r]));
            const int g = __builtin_popcount(unsigned(_mm_cmple_epu16_mask(coarse, targetV)));
            if (g == current) {
                fine = slide(fine, in->fine[g], cols[i - 1].fine[g]);
            } else {
                if (current >= 0) {
                    groups[current] = fine;
                    synced[current] = i - 1;
                }
                const int behind = i - synced[g];
                if (2 * behind > span) {
                    fine = sumGroup(cols + i, span, g);
                } else {
                    fine = groups[g];
                    for (int k = i - behind; k < i; ++k)
                        fine = slide(fine, cols[k + span].fine[g], cols[k].fine[g]);
                }
                current = g;
            }
            // The samples below group g, as a bound for its running sums.
            const __m128i below = _mm_permutexvar_epi16(_mm_set1_epi16(short(g)), _mm_bslli_si128(coarse, 2));
            const __m512i limit = _mm512_broadcastw_epi16(_mm_sub_epi16(targetV, below));
            const int inGroup = __builtin_popcountll(_mm512_cmple_epu16_mask(fine, limit));
            const int key = 32 * g + inGroup;
            if constexpr (!Wide) {
                out[i] = T(key);
            } else {
                // Samples whose high byte is below the median's.
                const int before = quint16(_mm_cvtsi128_si32(below))
                    + (inGroup ? quint16(_mm_cvtsi128_si32(_mm512_castsi512_si128(
                                     _mm512_permutexvar_epi16(_mm512_set1_epi16(short(inGroup - 1)), fine))))
                               : 0);
                low.key[i] = key;
                low.rank[i] = target - before;  // among the samples of high byte key
            }
            coarse = _mm_sub_epi16(coarse, widen8(&coarseOf[i]));
        }
        if constexpr (Wide) {
            // The low byte in two passes over the row, each output on its
            // own: nothing carries from one to the next, so the loads of
            // many outputs overlap.
            for (int i = 0; i < sx1 - sx0; ++i) {
                int below = 0;
                const int q = lowRank(sumColumns(low.groupsOf(low.key[i] << 8, i), span), low.rank[i], below);
                low.key[i] = 16 * low.key[i] + q;
                low.rank[i] -= below;
            }
            for (int i = 0; i < sx1 - sx0; ++i) {
                int below = 0;
                const int hq = low.key[i];
                const int b = span <= SmallCount ? smallRank(low.fineOf(hq << 4, i), span, low.rank[i]) : -1;
                out[i] = T(16 * hq
                           + (b >= 0 ? b : lowRank(sumColumns(low.fineOf(hq << 4, i), span), low.rank[i], below)));
            }
        }
    }
    if constexpr (Wide)
        countLow(std::max(y0, y1 - 1), -1);
}

QLAR_AVX512 void medianColumnHistogramAvx512(const Frame& f, int y0, int y1, uchar* scratch)
{
    auto* groups = reinterpret_cast<__m512i*>(roundUp(reinterpret_cast<quintptr>(scratch), 64));
    auto* cols = reinterpret_cast<WideColumn*>(groups + 8);
    const int strip = wideStripWidth(f.r);
    auto* coarse = reinterpret_cast<quint64*>(cols + strip + 2 * f.r);
    for (int sx0 = 0; sx0 < f.w; sx0 += strip)
        if (f.r <= MaxByteStepRadius)
            medianWideColumnStrip<quint8, true>(f, y0, y1, sx0, std::min(f.w, sx0 + strip), cols, coarse, groups,
                                                LowLevel());
        else
            medianWideColumnStrip<quint8, false>(f, y0, y1, sx0, std::min(f.w, sx0 + strip), cols, coarse, groups,
                                                 LowLevel());
}

QLAR_AVX512 void medianHighLowAvx512(const Frame& f, int y0, int y1, uchar* scratch)
{
    const int r = f.r, strip = lowStripWidth(r), n = strip + 2 * r;
    auto* groups = reinterpret_cast<__m512i*>(scratch + 64);
    auto* cols = reinterpret_cast<WideColumn*>(groups + 8);
    auto* coarse = reinterpret_cast<quint64*>(cols + n);
    LowLevel low;
    low.key = reinterpret_cast<int*>(scratch + 64
        + roundUp(size_t(n) * sizeof(WideColumn) + roundUp(size_t(n), 8) * sizeof(quint64) + 8 * 64 + 64, 64));
    low.rank = low.key + n;
    low.groups = scratch + lowColumnsOffset(r);
    low.fine = low.groups + size_t(n) * LowGroupBytes;
    low.n = size_t(n);
    auto& mark = *reinterpret_cast<quint64*>(scratch);
    if (mark != 0 && mark != quint64(r))
        std::memset(low.groups, 0, size_t(n) * (LowGroupBytes + LowFineBytes));
    mark = LowDirty;
    for (int sx0 = 0; sx0 < f.w; sx0 += strip)
        if (r <= MaxByteStepRadius)
            medianWideColumnStrip<quint16, true>(f, y0, y1, sx0, std::min(f.w, sx0 + strip), cols, coarse, groups, low);
        else
            medianWideColumnStrip<quint16, false>(f, y0, y1, sx0, std::min(f.w, sx0 + strip), cols, coarse, groups,
                                                  low);
    mark = quint64(r);
}

void medianColumnHistogramSse(const Frame& f, int y0, int y1, uchar* scratch)
{
    medianColumnHistogramBand(f, y0, y1, scratch);
}

// 8-bit, 127 < r <= MaxWideRadius: a column holds more samples than a byte
// counts, so columns keep 16-bit counts and windows 32-bit ones. Such kernels
// are mostly wider than the picture, so only the picture's own columns are
// kept: a window's share of the edge columns, and a column's share of the
// edge rows, is counted as a multiple rather than column by column or row by
// row. Plain code: the kernel is far from the cost of the old O(r) walk.
constexpr int MaxWideRadius = 1023;
constexpr int WideStrip = 64;

struct CountColumn
{
    quint16 coarse[16];
    quint16 fine[256];
};

size_t countColumnSlotBytes(int r)
{
    return size_t(WideStrip + 2 * r) * sizeof(CountColumn);
}

void medianCountColumnStrip(const Frame& f, int y0, int y1, int sx0, int sx1, CountColumn* cols)
{
    const int r = f.r, w = f.w, h = f.h;
    const int c0 = std::max(0, sx0 - r), c1 = std::min(w, sx1 + r);  // columns kept: [c0, c1)
    const int n = c1 - c0;
    auto col = [&](int c) -> CountColumn& { return cols[std::clamp(c, 0, w - 1) - c0]; };
    auto put = [&](const quint8* row, int weight) {
        for (int j = 0; j < n; ++j) {
            const int v = row[c0 + j];
            cols[j].fine[v] = quint16(cols[j].fine[v] + weight);
            cols[j].coarse[v >> 4] = quint16(cols[j].coarse[v >> 4] + weight);
        }
    };
    std::memset(static_cast<void*>(cols), 0, size_t(n) * sizeof(CountColumn));
    for (int y = std::max(0, y0 - r); y <= std::min(h - 1, y0 + r); ++y)
        put(f.inRow<quint8>(y), repeats(y, y0 - r, y0 + r, h - 1));

    const quint32 target = quint32((quint64(2 * r + 1) * quint64(2 * r + 1) - 1) / 2);
    for (int y = y0; y < y1; ++y) {
        if (y > y0) {
            const quint8* top = f.inRow<quint8>(y - r - 1);
            const quint8* bottom = f.inRow<quint8>(y + r);
            if (top != bottom) {
                put(top, -1);
                put(bottom, 1);
            }
        }
        // The window at x: its columns with their multiples.
        auto windowSum = [&](int x, auto&& part, quint32* sum, int lanes) {
            std::fill(sum, sum + lanes, 0u);
            for (int c = std::max(0, x - r); c <= std::min(w - 1, x + r); ++c) {
                const quint32 k = quint32(repeats(c, x - r, x + r, w - 1));
                const quint16* src = part(col(c));
                for (int b = 0; b < lanes; ++b)
                    sum[b] += k * src[b];
            }
        };
        quint32 coarse[16];
        windowSum(sx0, [](CountColumn& c) { return c.coarse; }, coarse, 16);
        quint32 fine[16][16];
        int synced[16];
        std::fill(synced, synced + 16, INT_MIN / 2);
        quint8* out = f.outRow<quint8>(y);
        for (int x = sx0; x < sx1; ++x) {
            if (x > sx0) {
                const CountColumn& in = col(x + r);
                const CountColumn& gone = col(x - r - 1);
                if (&in != &gone)
                    for (int b = 0; b < 16; ++b)
                        coarse[b] += quint32(in.coarse[b]) - gone.coarse[b];
            }
            quint32 below = 0;
            int g = 0;
            while (below + coarse[g] <= target)
                below += coarse[g++];
            quint32* fg = fine[g];
            if (x - synced[g] > std::min(2 * r + 1, w)) {
                windowSum(x, [g](CountColumn& c) { return c.fine + 16 * g; }, fg, 16);
            } else {
                for (int xs = synced[g] + 1; xs <= x; ++xs) {
                    const CountColumn& in = col(xs + r);
                    const CountColumn& gone = col(xs - r - 1);
                    if (&in != &gone)
                        for (int b = 0; b < 16; ++b)
                            fg[b] += quint32(in.fine[16 * g + b]) - gone.fine[16 * g + b];
                }
            }
            synced[g] = x;
            int v = 0;
            while (below + fg[v] <= target)
                below += fg[v++];
            out[x] = quint8(16 * g + v);
        }
    }
}

void medianCountColumnBand(const Frame& f, int y0, int y1, uchar* scratch)
{
    auto* cols = reinterpret_cast<CountColumn*>(scratch);
    for (int sx0 = 0; sx0 < f.w; sx0 += WideStrip)
        medianCountColumnStrip(f, y0, y1, sx0, std::min(f.w, sx0 + WideStrip), cols);
}

} // namespace

bool usesHighLow(int radius, unsigned bytesPerSample)
{
    return bytesPerSample == 2 && radius >= MinLowRadius && radius <= MaxLowRadius
        && pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi);
}

void forgetLowColumns(uchar* scratch, size_t used)
{
    if (used > 64)
        *reinterpret_cast<quint64*>(scratch) = LowDirty;
}

bool keepsLowColumns(BandFn kernel)
{
    return kernel == medianHighLowAvx512;
}

size_t histogramSlotBytes(int radius, unsigned bytesPerSample)
{
    if (usesHighLow(radius, bytesPerSample))
        return lowSlotBytes(radius);
    if (bytesPerSample == 1 && radius > MaxColumnHistogramRadius && radius <= MaxWideRadius)
        return countColumnSlotBytes(radius);
    if (usesColumnHistograms(radius, bytesPerSample))
        return std::max({(StripWidth + 2 * size_t(radius)) * sizeof(ColumnHistogram), byteColumnSlotBytes(radius),
                         wideColumnSlotBytes(radius)});
    return roundUp(histogramWords(bytesPerSample) * sizeof(quint32), 64);
}

BandFn histogramKernel(int radius, unsigned bytesPerSample)
{
    if (bytesPerSample == 1 && radius > MaxColumnHistogramRadius && radius <= MaxWideRadius)
        return medianCountColumnBand;
    if (usesHighLow(radius, bytesPerSample) && pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi))
        return medianHighLowAvx512;
    if (!usesColumnHistograms(radius, bytesPerSample))
        return bytesPerSample == 1 ? medianHistBand<quint8> : medianHistBand<quint16>;
    if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi))
        return medianColumnHistogramAvx512;
    return pixelkit::cpuHas(pixelkit::CpuFeature::Avx2) ? medianColumnHistogramAvx2 : medianColumnHistogramSse;
}

} // namespace median
