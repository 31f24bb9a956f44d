#include "PictureMeasure.h"

#include "PictureSamples.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <type_traits>

using namespace picturesamples;

namespace PictureMeasure {

namespace {

constexpr int WideBins = 1024;

QString tr(const char* text) { return QCoreApplication::translate("PictureMeasure", text); }

inline double logMagnitude(const SxPlane& re, const SxPlane& im, qint64 x, qint64 y)
{
    const double a = load<float>(re.at(x, y)), b = load<float>(im.at(x, y));
    return std::log1p(std::sqrt(a * a + b * b));
}

QString valueText(double v, bool isFloat)
{
    return isFloat ? QString::number(v, 'g', 6) : QString::number(qint64(v));
}

// Sums over a rectangle of one channel; integers up to 16 bits exactly.
struct SxSums
{
    long double sum = 0, sumSquares = 0;
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();
    quint64 count = 0;

    SxChannelStatistics statistics() const
    {
        SxChannelStatistics s;
        s.count = count;
        if (!count)
            return s;
        const long double n = count, mean = sum / n;
        s.mean = double(mean);
        s.stdDev = double(std::sqrt(std::max<long double>(0, sumSquares / n - mean * mean)));
        s.min = min;
        s.max = max;
        return s;
    }
};

template <class T>
SxChannelStatistics integerStatistics(const SxPlane& p, const QRect& r)
{
    SxSums s;
    qint64 lo = LLONG_MAX, hi = LLONG_MIN;
    for (qint64 y = r.top(); y <= r.bottom(); ++y) {
        const uchar* row = p.row(y);
        qint64 sum = 0;
        quint64 squares = 0;
        for (qint64 x = r.left(); x <= r.right(); ++x) {
            const qint64 v = load<T>(row + x * p.step);
            sum += v;
            squares += quint64(v * v);
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
        s.sum += sum;
        s.sumSquares += squares;
    }
    s.count = quint64(r.width()) * quint64(r.height());
    s.min = double(lo);
    s.max = double(hi);
    return s.statistics();
}

// Two passes about the mean, so that a large offset does not eat the
// deviation of 32-bit and float samples.
template <class Value>
SxChannelStatistics twoPassStatistics(const QRect& r, Value value)
{
    SxSums s;
    for (qint64 y = r.top(); y <= r.bottom(); ++y)
        for (qint64 x = r.left(); x <= r.right(); ++x) {
            const double v = value(x, y);
            if (!std::isfinite(v))
                continue;
            s.sum += v;
            s.min = std::min(s.min, v);
            s.max = std::max(s.max, v);
            ++s.count;
        }
    SxChannelStatistics out;
    out.count = s.count;
    if (!s.count)
        return out;
    const long double mean = s.sum / s.count;
    long double squares = 0;
    for (qint64 y = r.top(); y <= r.bottom(); ++y)
        for (qint64 x = r.left(); x <= r.right(); ++x) {
            const double v = value(x, y);
            if (std::isfinite(v))
                squares += (v - mean) * (v - mean);
        }
    out.mean = double(mean);
    out.stdDev = double(std::sqrt(squares / s.count));
    out.min = s.min;
    out.max = s.max;
    return out;
}

// Bins spread over the finite values' extent; whole levels for integers.
struct SxWideBins
{
    double low = 0.0, width = 1.0;
    int count = 1;

    SxWideBins(double lo, double hi, bool integer)
    {
        if (!(hi >= lo)) {
            lo = hi = 0.0;
        }
        if (integer) {
            const double levels = hi - lo + 1.0;
            width = std::ceil(levels / WideBins);
            count = int(std::ceil(levels / width));
            low = lo;
        } else if (hi > lo) {
            width = (hi - lo) / WideBins;
            count = WideBins;
            low = lo;
        } else {
            low = lo - 0.5;
            width = 1.0;
            count = 1;
        }
    }
    int bin(double v) const { return std::clamp(int((v - low) / width), 0, count - 1); }
};

// Histograms of values read through value(channel, x, y) over the sampled
// rows, bins over their common extent.
template <class Value>
void wideHistogram(const SxLayout& l, int channels, qint64 rowStep, bool integer, Value value, SxHistogram& h)
{
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (int c = 0; c < channels; ++c)
        forSampledRows(l.height, rowStep, [&](qint64 y) {
            for (qint64 x = 0; x < qint64(l.width); ++x) {
                const double v = value(c, x, y);
                if (std::isfinite(v)) {
                    lo = std::min(lo, v);
                    hi = std::max(hi, v);
                }
            }
        });
    const SxWideBins bins(lo, hi, integer);
    h.low = bins.low;
    h.binWidth = bins.width;
    for (int c = 0; c < channels; ++c) {
        QVector<double> counts(bins.count, 0.0);
        forSampledRows(l.height, rowStep, [&](qint64 y) {
            for (qint64 x = 0; x < qint64(l.width); ++x) {
                const double v = value(c, x, y);
                if (std::isfinite(v))
                    counts[bins.bin(v)] += 1.0;
            }
        });
        h.counts.append(counts);
    }
}

// 8- and 16-bit samples: fixed bins over the significant range.
template <class T>
void narrowHistogram(const SxLayout& l, int channels, qint64 rowStep, SxHistogram& h)
{
    const int bits = sizeof(T) == 1 ? 8 : l.bits;
    const int binBits = std::min(bits, 10);
    const int shift = bits - binBits;
    const int bins = 1 << binBits;
    const qint64 low = std::is_signed_v<T> ? -(qint64(1) << (bits - 1)) : 0;
    h.low = double(low);
    h.binWidth = double(1 << shift);
    for (int c = 0; c < channels; ++c) {
        const SxPlane p = l.planes.at(c);
        std::vector<quint64> counts(size_t(bins), 0);
        forSampledRows(l.height, rowStep, [&](qint64 y) {
            const uchar* row = p.row(y);
            for (qint64 x = 0; x < qint64(l.width); ++x) {
                const qint64 b = (qint64(load<T>(row + x * p.step)) - low) >> shift;
                ++counts[size_t(std::clamp<qint64>(b, 0, bins - 1))];
            }
        });
        h.counts.append(QVector<double>(counts.begin(), counts.end()));
    }
}

} // namespace

QStringList channelNames(const SxViewFrame& frame)
{
    const SxLayout l = layoutOf(frame);
    if (!l.valid)
        return {};
    if (l.spectrum)
        return {QString()};
    if (l.colour)
        return QStringList{QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B"), QStringLiteral("A")}
            .mid(0, l.channels());
    if (l.channels() == 1)
        return {QString()};
    const QStringList named = frame.meta.channelNames();
    if (named.size() == l.channels())
        return named;
    QStringList names;
    for (int c = 0; c < l.channels(); ++c)
        names.append(QStringLiteral("#%1").arg(c + 1));
    return names;
}

QList<SxChannelStatistics> rectStatistics(const SxViewFrame& frame, const QRect& rect)
{
    const SxLayout l = layoutOf(frame);
    if (!l.valid)
        return {};
    const QRect r = rect.intersected(QRect(0, 0, int(std::min<quint32>(l.width, INT_MAX)),
                                           int(std::min<quint32>(l.height, INT_MAX))));
    if (r.isEmpty())
        return {};
    QList<SxChannelStatistics> out;
    if (l.spectrum) {
        const SxPlane re = l.planes.at(0), im = l.planes.at(1);
        out.append(twoPassStatistics(r, [&](qint64 x, qint64 y) { return logMagnitude(re, im, x, y); }));
        return out;
    }
    for (const SxPlane& p : l.planes)
        dispatchType(l.type, [&](auto t) {
            using T = decltype(t);
            if constexpr (std::is_integral_v<T> && sizeof(T) <= 2)
                out.append(integerStatistics<T>(p, r));
            else
                out.append(twoPassStatistics(r, [&](qint64 x, qint64 y) { return double(load<T>(p.at(x, y))); }));
        });
    return out;
}

SxHistogram histogram(const SxViewFrame& frame, qint64 maxSamples)
{
    SxHistogram h;
    const SxLayout l = layoutOf(frame);
    if (!l.valid)
        return h;
    const double pixels = double(l.width) * double(l.height);
    const qint64 rowStep = std::max<qint64>(1, qint64(std::ceil(pixels / double(std::max<qint64>(maxSamples, 1)))));
    if (l.spectrum) {
        const SxPlane re = l.planes.at(0), im = l.planes.at(1);
        wideHistogram(l, 1, rowStep, false, [&](int, qint64 x, qint64 y) { return logMagnitude(re, im, x, y); }, h);
        h.channelNames = channelNames(frame);
        return h;
    }
    const int channels = l.colour ? 3 : l.channels();
    dispatchType(l.type, [&](auto t) {
        using T = decltype(t);
        if constexpr (std::is_integral_v<T> && sizeof(T) <= 2) {
            narrowHistogram<T>(l, channels, rowStep, h);
        } else {
            wideHistogram(l, channels, rowStep, std::is_integral_v<T>,
                          [&](int c, qint64 x, qint64 y) { return double(load<T>(l.planes.at(c).at(x, y))); }, h);
        }
    });
    h.channelNames = channelNames(frame).mid(0, channels);
    h.colour = l.colour;
    return h;
}

SxPixelValues pixelValues(const SxViewFrame& frame, const QPoint& pos)
{
    SxPixelValues v;
    const SxLayout l = layoutOf(frame);
    if (!l.valid || !l.contains(pos.x(), pos.y()))
        return v;
    const bool isFloat = l.spectrum || isFloatType(l.type);
    v.names = l.spectrum ? QStringList{tr("re"), tr("im")} : channelNames(frame);
    for (const SxPlane& p : l.planes)
        dispatchType(l.type, [&](auto t) {
            const double value = double(load<decltype(t)>(p.at(pos.x(), pos.y())));
            v.values.append(value);
            v.texts.append(valueText(value, isFloat));
        });
    return v;
}

QString cellName(const SxViewFrame& frame, const QPoint& pos)
{
    const SxLayout l = layoutOf(frame);
    if (!l.valid || l.mosaic == CFA_NONE || !l.contains(pos.x(), pos.y()))
        return {};
    const int x = pos.x(), y = pos.y();
    if (isTwoByTwoMosaic(l.mosaic)) {
        static const char* const cells[6][4] = {{"R", "G", "G", "B"}, {"G", "R", "B", "G"}, {"G", "B", "R", "G"},
                                                {"B", "G", "G", "R"}, {"C", "M", "Y", "G"}, {"R", "G", "B", "R"}};
        return QString::fromLatin1(cells[l.mosaic - CFA_BAYER_RGGB][(y & 1) * 2 + (x & 1)]);
    }
    const CxHsiCameraParams& hsi = frame.meta.hsiCameraParams();
    if (!hsi.isValid())
        return {};
    const int w = int(std::min<quint32>(l.width, INT_MAX)), h = int(std::min<quint32>(l.height, INT_MAX));
    for (const CxHsiCameraParams::CxFilterZone& z : hsi.filterZones()) {
        const QRect r = z.sensorRect(w, h);
        if (!r.contains(x, y))
            continue;
        const qint64 col = (qint64(x) - r.left()) / z.cellWidth % z.patternWidth;
        const qint64 row = (qint64(y) - r.top()) / z.cellHeight % z.patternHeight;
        const qint64 band = row * z.patternWidth + col;
        return band < z.bands.size() ? z.bands.at(band).name() : QString();
    }
    return tr("outside the zones");
}

QString hoverText(const SxViewFrame& frame, const QPoint& pos)
{
    const SxPixelValues v = pixelValues(frame, pos);
    if (v.isEmpty())
        return {};
    QStringList parts;
    for (int c = 0; c < v.texts.size(); ++c)
        parts.append(v.names.value(c).isEmpty() ? v.texts.at(c) : v.names.value(c) + QLatin1Char(' ') + v.texts.at(c));
    QString text = QStringLiteral("%1, %2: %3").arg(pos.x()).arg(pos.y()).arg(parts.join(QStringLiteral("  ")));
    const QString cell = cellName(frame, pos);
    if (!cell.isEmpty())
        text += QStringLiteral(" (%1)").arg(cell);
    return text;
}

} // namespace PictureMeasure
