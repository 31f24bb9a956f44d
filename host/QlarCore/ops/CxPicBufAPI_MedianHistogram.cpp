// Median filter, histogram kernels: the radii beyond the sorting networks.
//
// 8-bit samples up to radius 127 use per-column histograms, constant time per
// sample; anything else a window histogram sliding along a snake path, O(r)
// per sample.
#include "Median_p.h"

#include <KitCpu.h>

#include <algorithm>
#include <cstring>

#include <emmintrin.h>

#pragma GCC diagnostic ignored "-Wpsabi"

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

} // namespace

size_t histogramSlotBytes(int radius, unsigned bytesPerSample)
{
    if (usesColumnHistograms(radius, bytesPerSample))
        return (StripWidth + 2 * size_t(radius)) * sizeof(ColumnHistogram);
    return roundUp(histogramWords(bytesPerSample) * sizeof(quint32), 64);
}

BandFn histogramKernel(int radius, unsigned bytesPerSample)
{
    if (!usesColumnHistograms(radius, bytesPerSample))
        return bytesPerSample == 1 ? medianHistBand<quint8> : medianHistBand<quint16>;
    return pixelkit::cpuHas(pixelkit::CpuFeature::Avx2) ? medianColumnHistogramAvx2 : medianColumnHistogramSse;
}

} // namespace median
