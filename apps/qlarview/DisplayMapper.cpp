#include "DisplayMapper.h"

#include "PictureSamples.h"

#include <KitCpu.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <type_traits>

#if defined(__x86_64__)
#include <immintrin.h>
// The AVX-512 intrinsics start some results from a self-initialised
// register, which unoptimised builds report as maybe uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

using namespace picturesamples;

namespace {

// Pixels the automatic stretch looks at per frame.
constexpr qint64 AutoStretchPoints = 40000;

// Which source column (row) each target column (row) shows; -1 outside the
// picture. The sampling is monotonic, so the columns inside form one run
// [first, last).
struct SxAxis
{
    std::vector<qint32> index;
    int first = 0;
    int last = 0;
};

SxAxis sampleAxis(double start, double length, int count, quint32 size)
{
    SxAxis a;
    a.index.assign(size_t(count), -1);
    a.first = count;
    const double step = length / count;
    for (int i = 0; i < count; ++i) {
        const double p = start + (i + 0.5) * step;
        if (p >= 0.0 && p < double(size)) {
            a.index[size_t(i)] = qint32(p);
            a.first = std::min(a.first, i);
            a.last = i + 1;
        }
    }
    if (a.first >= a.last)
        a.first = a.last = 0;
    return a;
}

inline QRgb grey(int g) { return 0xff000000u | (quint32(g) * 0x010101u); }

// (v - low) * scale rounded and clipped to a grey level; NaN is black.
inline int level(double v, double low, double scale)
{
    const double t = (v - low) * scale + 0.5;
    return t >= 255.0 ? 255 : t > 0.0 ? int(t) : 0;
}

// Asks for the lines of source row y that the target columns read. The frame
// was just copied by a chain thread, so it sits in the shared cache or in
// memory, and a zoomed-out row reads it in strides that the hardware does not
// fetch ahead of: asked for one row early, the render takes about half the
// time. Dense spans are asked for line by line, sparse ones sample by sample.
// Kept inline: GCC takes a function of nothing but prefetches for one without
// effects and drops its calls.
[[gnu::always_inline]] inline void prefetchRow(const SxPlane& p, qint64 y, const SxAxis& cols)
{
    if (cols.first >= cols.last)
        return;
    const uchar* row = p.row(y);
    const qint32* xs = cols.index.data();
    const qint64 a = xs[cols.first] * p.step, b = xs[cols.last - 1] * p.step;
    const qint64 first = std::min(a, b), last = std::max(a, b);
    if (last - first <= 64 * qint64(cols.last - cols.first)) {
        for (qint64 at = first; at <= last; at += 64)
            __builtin_prefetch(row + at);
    } else {
        for (int i = cols.first; i < cols.last; ++i)
            __builtin_prefetch(row + xs[i] * p.step);
    }
}

// Fills the target row by row, the source planes' next row asked for while
// this one is drawn: fillRow(line, y) writes line[cols.first, cols.last) from
// source row y. Consecutive target rows that show the same source row (zoomed
// in) are copied instead of computed again.
template <class FillRow>
void fillRows(QImage& img, const SxAxis& cols, const SxAxis& rows, QRgb bg, std::initializer_list<SxPlane> planes,
              FillRow&& fillRow)
{
    const int w = img.width(), h = img.height();
    uchar* bits = img.bits();
    const qsizetype bpl = img.bytesPerLine();
    for (int j = 0; j < h; ++j) {
        QRgb* line = reinterpret_cast<QRgb*>(bits + j * bpl);
        const qint32 y = rows.index[size_t(j)];
        if (y < 0 || cols.first >= cols.last) {
            std::fill(line, line + w, bg);
            continue;
        }
        if (j > 0 && y == rows.index[size_t(j - 1)]) {
            std::memcpy(line, bits + (j - 1) * bpl, size_t(w) * sizeof(QRgb));
            continue;
        }
        const qint32 next = j + 1 < h ? rows.index[size_t(j + 1)] : -1;
        if (next >= 0 && next != y)
            for (const SxPlane& p : planes)
                prefetchRow(p, next, cols);
        std::fill(line, line + cols.first, bg);
        fillRow(line, qint64(y));
        std::fill(line + cols.last, line + w, bg);
    }
}

// fillRows with a pixel at a time: makeRow(y) gives the pixel function of row y.
template <class MakeRow>
void fillImage(QImage& img, const SxAxis& cols, const SxAxis& rows, QRgb bg, std::initializer_list<SxPlane> planes,
               MakeRow&& makeRow)
{
    fillRows(img, cols, rows, bg, planes, [&](QRgb* line, qint64 y) {
        auto pixel = makeRow(y);
        const qint32* xs = cols.index.data();
        for (int i = cols.first; i < cols.last; ++i)
            line[i] = pixel(qint64(xs[i]));
    });
}

// A row sampler writes line[i] for i in [from, to) from the sample xs[i]
// of a row `width` samples long, `step` bytes apart, through the grey
// table where it has one.
using RowSampler = void (*)(const uchar* row, qint64 width, qint64 step, const qint32* xs, int from, int to,
                            const uchar* lut, QRgb* line);

// Four-byte pixels in ARGB32's order, alpha set (step 4, no table).
void sampleQuads(const uchar* row, qint64 width, qint64 step, const qint32* xs, int from, int to, const uchar* lut,
                 QRgb* line)
{
    Q_UNUSED(width);
    Q_UNUSED(step);
    Q_UNUSED(lut);
    for (int i = from; i < to; ++i)
        line[i] = load<quint32>(row + qint64(xs[i]) * 4) | 0xff000000u;
}

#if defined(__x86_64__)
// The same, 16 target pixels a step. Zoomed out less than fourfold, their
// sources lie within 64 consecutive pixels: whole registers of the row are
// loaded and the pixels picked out by permutes, so the row streams through
// the cache instead of 16 loads each waiting for its line; about half the
// time of the loop above. Further out, a gather. Nothing past the row's
// `width` pixels is read.
__attribute__((target("avx512f"))) void sampleQuadsAvx512(const uchar* row, qint64 width, qint64 step,
                                                          const qint32* xs, int from, int to, const uchar* lut,
                                                          QRgb* line)
{
    const __m512i alpha = _mm512_set1_epi32(int(0xff000000u));
    const __m512i upper = _mm512_set1_epi32(32);
    int i = from;
    for (; i + 16 <= to; i += 16) {
        // xs rises through the columns inside the picture.
        const qint32 x0 = xs[i], span = xs[i + 15] - x0;
        const __m512i at = _mm512_sub_epi32(_mm512_loadu_si512(xs + i), _mm512_set1_epi32(x0));
        const uchar* s = row + qint64(x0) * 4;
        __m512i v;
        if (span < 32 && x0 + 32 <= width) {
            v = _mm512_permutex2var_epi32(_mm512_loadu_si512(s), at, _mm512_loadu_si512(s + 64));
        } else if (span < 64 && x0 + 64 <= width) {
            const __m512i lo = _mm512_permutex2var_epi32(_mm512_loadu_si512(s), at, _mm512_loadu_si512(s + 64));
            const __m512i hi =
                _mm512_permutex2var_epi32(_mm512_loadu_si512(s + 128), at, _mm512_loadu_si512(s + 192));
            v = _mm512_mask_blend_epi32(_mm512_test_epi32_mask(at, upper), lo, hi);
        } else {
            v = _mm512_mask_i32gather_epi32(_mm512_setzero_si512(), __mmask16(0xffff), at, s, 4);
        }
        _mm512_storeu_si512(line + i, _mm512_or_si512(v, alpha));
    }
    sampleQuads(row, width, step, xs, i, to, lut, line);
}
#endif

// One-byte samples through the grey table.
void sampleGreyBytes(const uchar* row, qint64 width, qint64 step, const qint32* xs, int from, int to,
                     const uchar* lut, QRgb* line)
{
    Q_UNUSED(width);
    for (int i = from; i < to; ++i)
        line[i] = grey(lut[row[qint64(xs[i]) * step]]);
}

#if defined(__x86_64__)
// The same, 16 target pixels a step while their samples lie within 64
// consecutive bytes: one load, a byte permute to pick them, the table held
// in four registers, and a widening into grey pixels. Nothing past the
// row's last sample is read.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void sampleGreyBytesVbmi(const uchar* row, qint64 width,
                                                                               qint64 step, const qint32* xs,
                                                                               int from, int to, const uchar* lut,
                                                                               QRgb* line)
{
    const __m512i t0 = _mm512_loadu_si512(lut), t1 = _mm512_loadu_si512(lut + 64);
    const __m512i t2 = _mm512_loadu_si512(lut + 128), t3 = _mm512_loadu_si512(lut + 192);
    const __m512i alpha = _mm512_set1_epi32(int(0xff000000u));
    const __m512i stride = _mm512_set1_epi32(int(step));
    const qint64 rowBytes = (width - 1) * step + 1;
    int i = from;
    for (; i + 16 <= to; i += 16) {
        const qint64 b0 = qint64(xs[i]) * step;
        if ((qint64(xs[i + 15]) - xs[i]) * step >= 64 || b0 + 64 > rowBytes) {
            sampleGreyBytes(row, width, step, xs, i, i + 16, lut, line);
            continue;
        }
        const __m512i at = _mm512_mullo_epi32(_mm512_sub_epi32(_mm512_loadu_si512(xs + i), _mm512_set1_epi32(xs[i])),
                                              stride);
        const __m512i v = _mm512_permutexvar_epi8(_mm512_zextsi128_si512(_mm512_cvtepi32_epi8(at)),
                                                  _mm512_loadu_si512(row + b0));
        const __m512i lo = _mm512_permutex2var_epi8(t0, v, t1), hi = _mm512_permutex2var_epi8(t2, v, t3);
        const __m512i g = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(_mm512_mask_blend_epi8(_mm512_movepi8_mask(v), lo, hi)));
        const __m512i px = _mm512_or_si512(_mm512_or_si512(g, _mm512_slli_epi32(g, 8)), _mm512_slli_epi32(g, 16));
        _mm512_storeu_si512(line + i, _mm512_or_si512(px, alpha));
    }
    sampleGreyBytes(row, width, step, xs, i, to, lut, line);
}
#endif

RowSampler quadSampler()
{
#if defined(__x86_64__)
    if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Bw))
        return sampleQuadsAvx512;
#endif
    return sampleQuads;
}

RowSampler greyByteSampler()
{
#if defined(__x86_64__)
    if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi))
        return sampleGreyBytesVbmi;
#endif
    return sampleGreyBytes;
}

// The target from plane p's rows (each from `offset` bytes on) through a row sampler.
void fillSampled(QImage& img, const SxAxis& cols, const SxAxis& rows, QRgb bg, const SxPlane& p, qint64 offset,
                 qint64 width, const uchar* lut, RowSampler sample)
{
    fillRows(img, cols, rows, bg, {p}, [&](QRgb* line, qint64 y) {
        sample(p.row(y) + offset, width, p.step, cols.index.data(), cols.first, cols.last, lut, line);
    });
}

// Raw bits of a sample as a table index.
template <class T>
inline unsigned rawIndex(const uchar* p)
{
    if constexpr (sizeof(T) == 1)
        return *p;
    else
        return load<quint16>(p);
}

template <class T>
constexpr bool hasLut = sizeof(T) <= 2 && std::is_integral_v<T>;

// The percentile ranks of n ordered samples.
void percentileRanks(qint64 n, double lowPercent, double highPercent, qint64& lowRank, qint64& highRank)
{
    lowRank = qBound<qint64>(0, qint64(std::floor(lowPercent / 100.0 * double(n - 1))), n - 1);
    highRank = qBound<qint64>(0, qint64(std::ceil(highPercent / 100.0 * double(n - 1))), n - 1);
}

// Percentiles (or, with fullRange, the extremes) of the subsampled planes.
template <class T>
bool sampleRange(const SxLayout& l, const QList<SxPlane>& planes, bool extremes, double lowPercent,
                 double highPercent, CxDisplayMapper::SxRange& range)
{
    if constexpr (hasLut<T>) {
        // Counting beats sorting for 8- and 16-bit samples.
        using U = std::make_unsigned_t<T>;
        std::vector<quint32> counts(size_t(1) << (8 * sizeof(T)), 0);
        qint64 n = 0;
        for (const SxPlane& p : planes)
            forGridPoints(l.width, l.height, AutoStretchPoints, [&](qint64 x, qint64 y) {
                ++counts[rawIndex<T>(p.at(x, y))];
                ++n;
            });
        if (n == 0)
            return false;
        qint64 lowRank = 0, highRank = n - 1;
        if (!extremes)
            percentileRanks(n, lowPercent, highPercent, lowRank, highRank);
        // Walk the counts in value order: signed values start at the raw
        // pattern of the type's minimum.
        const size_t size = counts.size();
        const size_t offset = std::is_signed_v<T> ? size / 2 : 0;
        qint64 seen = 0;
        bool lowFound = false;
        for (size_t k = 0; k < size; ++k) {
            const size_t raw = (k + offset) % size;
            if (!counts[raw])
                continue;
            const double v = double(T(U(raw)));
            seen += counts[raw];
            if (!lowFound && seen > lowRank) {
                range.low = v;
                lowFound = true;
            }
            if (seen > highRank) {
                range.high = v;
                return true;
            }
        }
        return false;
    } else {
        std::vector<double> values;
        values.reserve(size_t(AutoStretchPoints) * size_t(planes.size()) + 64);
        for (const SxPlane& p : planes)
            forGridPoints(l.width, l.height, AutoStretchPoints, [&](qint64 x, qint64 y) {
                const double v = double(load<T>(p.at(x, y)));
                if (std::isfinite(v))
                    values.push_back(v);
            });
        if (values.empty())
            return false;
        if (extremes) {
            const auto mm = std::minmax_element(values.begin(), values.end());
            range.low = *mm.first;
            range.high = *mm.second;
            return true;
        }
        qint64 lowRank = 0, highRank = 0;
        percentileRanks(qint64(values.size()), lowPercent, highPercent, lowRank, highRank);
        std::nth_element(values.begin(), values.begin() + lowRank, values.end());
        range.low = values[size_t(lowRank)];
        std::nth_element(values.begin() + lowRank, values.begin() + highRank, values.end());
        range.high = values[size_t(highRank)];
        return true;
    }
}

// The largest |re + i im| of a spectrum, exactly: the peak is one pixel that a
// subsample would miss.
double largestMagnitude(const SxLayout& l)
{
    const SxPlane& re = l.planes.at(0);
    const SxPlane& im = l.planes.at(1);
    double largest = 0.0;
    for (qint64 y = 0; y < qint64(l.height); ++y) {
        const uchar* r = re.row(y);
        const uchar* i = im.row(y);
        for (qint64 x = 0; x < qint64(l.width); ++x) {
            const double a = load<float>(r + x * re.step), b = load<float>(i + x * im.step);
            const double m = a * a + b * b;
            if (m > largest && m <= std::numeric_limits<double>::max())
                largest = m;
        }
    }
    return std::sqrt(largest);
}

// Squared magnitudes fall into buckets by their exponent and top mantissa
// bits; a bucket's lowest grey level plus a step or two up through the
// thresholds replaces a logarithm and a root per pixel.
constexpr int BucketShift = 17;
inline unsigned spectrumBucket(float m2)
{
    return (load<quint32>(reinterpret_cast<const uchar*>(&m2)) >> BucketShift) & 0x3fffu;
}

} // namespace

bool CxDisplayMapper::SxFrameKey::operator==(const SxFrameKey& o) const
{
    return frame == o.frame && data == o.data && frameNumber == o.frameNumber && timestampMs == o.timestampMs
        && width == o.width && height == o.height && mode == o.mode && channel == o.channel
        && autoLow == o.autoLow && autoHigh == o.autoHigh;
}

CxDisplayMapper::CxDisplayMapper() = default;

void CxDisplayMapper::setAutoPercentiles(double lowPercent, double highPercent)
{
    lowPercent = qBound(0.0, lowPercent, 100.0);
    highPercent = qBound(0.0, highPercent, 100.0);
    if (lowPercent < highPercent) {
        m_autoLow = lowPercent;
        m_autoHigh = highPercent;
    }
}

CxDisplayMapper::SxFrameKey CxDisplayMapper::keyOf(const SxViewFrame& frame) const
{
    SxFrameKey k;
    k.frame = &frame;
    k.data = frame.pic.data;
    k.frameNumber = frame.pic.frameNumber;
    k.timestampMs = frame.pic.timestampMs;
    k.width = frame.pic.width;
    k.height = frame.pic.height;
    k.mode = int(m_mode);
    k.channel = m_channel;
    k.autoLow = m_autoLow;
    k.autoHigh = m_autoHigh;
    return k;
}

CxDisplayMapper::SxRange CxDisplayMapper::displayRange(const SxViewFrame& frame)
{
    const SxLayout l = layoutOf(frame);
    if (!l.valid)
        return SxRange();
    const SxFrameKey key = keyOf(frame);
    if (key == m_rangeKey)
        return m_range;

    SxRange r;
    if (l.spectrum) {
        r.low = 0.0;
        r.high = std::log1p(largestMagnitude(l));
    } else {
        QList<SxPlane> shown = l.planes.mid(0, l.colour ? 3 : 0);
        if (!l.colour)
            shown.append(l.planes.at(std::min(m_channel, l.channels() - 1)));
        const bool isFloat = isFloatType(l.type);
        const bool isSigned = isSignedType(l.type);
        const int bits = m_mode == FullRange ? typeBits(l.type) : l.bits;
        bool found = true;
        if (m_mode == Auto || (m_mode == FullRange && isFloat)) {
            dispatchType(l.type, [&](auto t) {
                found = sampleRange<decltype(t)>(l, shown, m_mode == FullRange, m_autoLow, m_autoHigh, r);
            });
        } else if (isFloat) {
            r.low = 0.0;
            r.high = bits < 32 ? std::ldexp(1.0, bits) - 1.0 : 1.0;
        } else if (isSigned) {
            r.low = -std::ldexp(1.0, bits - 1);
            r.high = std::ldexp(1.0, bits - 1) - 1.0;
        } else {
            r.low = 0.0;
            r.high = std::ldexp(1.0, bits) - 1.0;
        }
        if (!found)
            r = SxRange{0.0, 1.0};
    }
    if (!(r.high > r.low))
        r.high = r.low + 1.0;
    m_rangeKey = key;
    m_range = r;
    return r;
}

void CxDisplayMapper::buildLut(int bytesPerSample, bool isSigned, const SxRange& range)
{
    if (m_lutBytes == bytesPerSample && m_lutSigned == isSigned && m_lutRange.low == range.low
        && m_lutRange.high == range.high)
        return;
    const size_t size = size_t(1) << (8 * bytesPerSample);
    m_lut.resize(size);
    const double scale = 255.0 / (range.high - range.low);
    for (size_t raw = 0; raw < size; ++raw) {
        double v = double(raw);
        if (isSigned && raw >= size / 2)
            v -= double(size);
        m_lut[raw] = uchar(level(v, range.low, scale));
    }
    m_lutIdentity = size == 256;
    for (size_t raw = 0; m_lutIdentity && raw < size; ++raw)
        m_lutIdentity = m_lut[raw] == raw;
    m_lutBytes = bytesPerSample;
    m_lutSigned = isSigned;
    m_lutRange = range;
}

void CxDisplayMapper::buildSpectrumTable(double scale)
{
    if (m_spectrumScale == scale && !m_spectrumStart.empty())
        return;
    // Grey level g starts where ln(1 + |z|) * scale + 0.5 reaches g.
    m_spectrumSteps.assign(257, std::numeric_limits<float>::infinity());
    m_spectrumSteps[0] = 0.f;
    for (int g = 1; g < 256; ++g) {
        const double m = std::expm1((g - 0.5) / scale);
        m_spectrumSteps[size_t(g)] = float(m * m);
    }
    m_spectrumStart.assign(size_t(0x4000), 0);
    for (quint32 bucket = 0; bucket < 0x4000u; ++bucket) {
        const quint32 bits = bucket << BucketShift;
        float low;
        std::memcpy(&low, &bits, sizeof low);
        if (std::isnan(low)) {
            m_spectrumStart[bucket] = 0;  // NaN (and its neighbours in the top exponent) stay black
            continue;
        }
        int g = 0;
        while (g < 255 && low >= m_spectrumSteps[size_t(g + 1)])
            ++g;
        m_spectrumStart[bucket] = uchar(g);
    }
    m_spectrumScale = scale;
}

QImage CxDisplayMapper::render(const SxViewFrame& frame, const QRectF& sourceRect, const QSize& target)
{
    if (target.isEmpty())
        return QImage();
    QImage img(target, QImage::Format_RGB32);
    if (img.isNull())
        return img;
    const SxLayout l = layoutOf(frame);
    const bool usable = l.valid && std::isfinite(sourceRect.x()) && std::isfinite(sourceRect.y())
        && std::isfinite(sourceRect.width()) && std::isfinite(sourceRect.height()) && sourceRect.width() > 0
        && sourceRect.height() > 0;
    if (!usable) {
        img.fill(m_background);
        return img;
    }
    const SxAxis cols = sampleAxis(sourceRect.x(), sourceRect.width(), target.width(), l.width);
    const SxAxis rows = sampleAxis(sourceRect.y(), sourceRect.height(), target.height(), l.height);
    const SxRange range = displayRange(frame);
    const double low = range.low, scale = 255.0 / (range.high - range.low);
    const QRgb bg = m_background;

    if (l.spectrum) {
        buildSpectrumTable(scale);
        const float* steps = m_spectrumSteps.data();
        const uchar* start = m_spectrumStart.data();
        const SxPlane re = l.planes.at(0), im = l.planes.at(1);
        fillImage(img, cols, rows, bg, {re, im}, [&](qint64 y) {
            const uchar* r = re.row(y);
            const uchar* i = im.row(y);
            return [=](qint64 x) {
                const float a = load<float>(r + x * re.step), b = load<float>(i + x * im.step);
                const float m2 = a * a + b * b;
                int g = start[spectrumBucket(m2)];
                while (g < 255 && m2 >= steps[g + 1])
                    ++g;
                return grey(g);
            };
        });
        return img;
    }

    dispatchType(l.type, [&](auto t) {
        using T = decltype(t);
        if constexpr (hasLut<T>)
            buildLut(int(sizeof(T)), std::is_signed_v<T>, range);
        const uchar* lut = m_lut.data();
        if (l.colour) {
            const SxPlane p = l.planes.at(0);
            // Offsets of green and blue from red within a pixel.
            const qint64 g = l.planes.at(1).base - p.base, b = l.planes.at(2).base - p.base;
            if constexpr (sizeof(T) == 1) {
                // Blue, green, red, alpha in memory is ARGB32's own order: with
                // levels unchanged a pixel is one load (the plots of FFT 1D).
                if (p.step == 4 && g == -1 && b == -2 && lutIsIdentity())
                    return fillSampled(img, cols, rows, bg, p, b, qint64(l.width), lut, quadSampler());
            }
            fillImage(img, cols, rows, bg, {p}, [&](qint64 y) {
                const uchar* row = p.row(y);
                return [=](qint64 x) {
                    const uchar* s = row + x * p.step;
                    if constexpr (hasLut<T>)
                        return qRgb(lut[rawIndex<T>(s)], lut[rawIndex<T>(s + g)], lut[rawIndex<T>(s + b)]);
                    else
                        return qRgb(level(double(load<T>(s)), low, scale), level(double(load<T>(s + g)), low, scale),
                                    level(double(load<T>(s + b)), low, scale));
                };
            });
        } else {
            const SxPlane p = l.planes.at(std::min(m_channel, l.channels() - 1));
            if constexpr (sizeof(T) == 1)
                return fillSampled(img, cols, rows, bg, p, 0, qint64(l.width), lut, greyByteSampler());
            fillImage(img, cols, rows, bg, {p}, [&](qint64 y) {
                const uchar* row = p.row(y);
                return [=](qint64 x) {
                    if constexpr (hasLut<T>)
                        return grey(lut[rawIndex<T>(row + x * p.step)]);
                    else
                        return grey(level(double(load<T>(row + x * p.step)), low, scale));
                };
            });
        }
    });
    return img;
}
