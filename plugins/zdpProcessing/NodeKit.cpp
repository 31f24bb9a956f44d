#include "NodeKit.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

#include <limits>

namespace nodekit {

QString describe(const SxPicBufInfo& f)
{
    static const char* const typeNames[] = {nullptr, "s8",  "u8",  "s16", "u16", "s32",
                                            "u32",   "s64", "u64", "f32", "f64", "f16"};
    static const char* const cfaNames[] = {"", "RGGB", "GRBG", "GBRG", "BGGR", "CMYG", "RGBR", "HSI"};
    const QString type = f.dataType != IDT_UNKNOWN && f.dataType <= IDT_HALF
        ? QString::fromLatin1(typeNames[f.dataType])
        : QStringLiteral("type%1").arg(quint32(f.dataType));
    QString s = QStringLiteral("%1x%2 %3 x%4").arg(f.width).arg(f.height).arg(type).arg(f.channels);
    if (f.bitsPerSample && f.bitsPerSample != f.bytesPerSample() * 8)
        s += QStringLiteral(" (%1 bits)").arg(f.bitsPerSample);
    if (f.colorFilterArray != CFA_NONE) {
        s += QStringLiteral(" mosaic %1").arg(f.colorFilterArray <= CFA_HSI_MOSAIC
                                                  ? QString::fromLatin1(cfaNames[f.colorFilterArray])
                                                  : QString::number(quint32(f.colorFilterArray)));
        if (f.storageFormat == DSF_NOT_RAW)
            s += QStringLiteral(" (not raw)");
    }
    if (f.isColor)
        s += QStringLiteral(" colour");
    return s;
}

bool firstFilterZone(const CxHsiCameraParams& hsi, CxHsiCameraParams::CxFilterZone& zone)
{
    const QList<CxHsiCameraParams::CxFilterZone> zones = hsi.filterZones();
    if (zones.isEmpty())
        return false;
    zone = zones.first();
    return true;
}

void bandSize(const CxHsiCameraParams::CxFilterZone& zone, quint32 inWidth, quint32 inHeight,
              quint32& width, quint32& height, bool insidePicture)
{
    const QRect& r = zone.rect;
    const bool ordered = r.left() <= r.right() && r.top() <= r.bottom();
    qint64 left = r.left(), top = r.top(), right = r.right(), bottom = r.bottom();
    if (insidePicture && ordered) {
        left = qMax<qint64>(left, 0);
        top = qMax<qint64>(top, 0);
        right = qMin<qint64>(right, qint64(inWidth) - 1);
        bottom = qMin<qint64>(bottom, qint64(inHeight) - 1);
    }
    qint64 w = ordered ? right - left + 1 : inWidth;
    qint64 h = ordered ? bottom - top + 1 : inHeight;
    if (zone.patternWidth > 0)
        w /= zone.patternWidth;
    if (zone.patternHeight > 0)
        h /= zone.patternHeight;
    width = quint32(qBound<qint64>(0, w, std::numeric_limits<quint32>::max()));
    height = quint32(qBound<qint64>(0, h, std::numeric_limits<quint32>::max()));
}

void tellFailure(CxChainable* node, const char* where, const std::exception& e)
{
    const QString what = QString::fromLocal8Bit(e.what());
    qCritical().noquote() << node->title() << where << "failed:" << what;
    node->setErrorMessage(QCoreApplication::translate("nodekit", "The node failed (%1).").arg(what));
}

} // namespace nodekit
