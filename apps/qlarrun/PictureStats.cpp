#include "PictureStats.h"

#include <KitDispatch.h>

#include <cmath>
#include <type_traits>
#include <limits>

namespace {

template <class T>
void measure_T(const SxPicBuf& pic, SxPictureStats& stats)
{
    const quint64 rowSamples = quint64(pic.width) * pic.channels;
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    // Row sums first: a long run of large samples added one by one to a
    // picture-wide double would lose the low bits of the mean.
    double sum = 0.0;
    quint64 counted = 0, skipped = 0;
    for (quint32 y = 0; y < pic.height; ++y) {
        const T* row = pic.row<T>(y);
        double rowSum = 0.0;
        for (quint64 i = 0; i < rowSamples; ++i) {
            const double v = double(row[i]);
            if constexpr (std::is_floating_point_v<T>) {
                if (!std::isfinite(v)) {
                    ++skipped;
                    continue;
                }
            }
            lo = v < lo ? v : lo;
            hi = v > hi ? v : hi;
            rowSum += v;
            ++counted;
        }
        sum += rowSum;
    }
    stats.samples = counted;
    stats.nonFinite = skipped;
    stats.min = counted ? lo : 0.0;
    stats.max = counted ? hi : 0.0;
    stats.mean = counted ? sum / double(counted) : 0.0;
}

QString number(double v, ExImageDataType type)
{
    if (type == IDT_FLOAT)
        return QString::number(v, 'g', 7);
    return QString::number(qint64(v));
}

} // namespace

bool SxPictureStats::measure(const SxPicBuf& pic, SxPictureStats& stats)
{
    stats = SxPictureStats();
    if (!pic.data || pic.effectiveLinePitch() < pic.packedLineBytes())
        return false;
    using Measured = pixelkit::Only<qint8, quint8, qint16, quint16, qint32, quint32, float>;
    return pixelkit::withSampleTypeIn<Measured>(pic.dataType, [&](auto tag) {
        measure_T<typename decltype(tag)::type>(pic, stats);
        return true;
    });
}

QString SxPictureStats::summaryLine(const SxPicBufInfo& format, const SxPictureStats& stats)
{
    QString line = QStringLiteral("%1x%2 %3 x%4 min %5 max %6 mean %7")
                       .arg(format.width)
                       .arg(format.height)
                       .arg(dataTypeName(format.dataType))
                       .arg(format.channels)
                       .arg(number(stats.min, format.dataType), number(stats.max, format.dataType),
                            QString::number(stats.mean, 'f', 3));
    if (stats.nonFinite)
        line += QStringLiteral(" (%1 not finite)").arg(stats.nonFinite);
    return line;
}
