#include "NodeKit.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtWidgets/QListWidget>

#include <limits>

namespace nodekit {

CxImageData* pictureOf(CxChainable* node, IxChainData* data, const FrameRules& rules, IxChainData*& answer)
{
    answer = nullptr;
    if (!data)
        return nullptr;
    if (node->state() == CxChainable::StateStopping) {
        answer = rules.stopping == StoppingPassed ? data : nullptr;
        return nullptr;
    }
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input)
        answer = rules.foreign == ForeignPassed ? data : nullptr;
    return input;
}

CxImageData* wrap(const SxPicBuf& out, const CxImageMetadata& meta)
{
    auto* packet = new CxImageData;
    packet->setPicBuf(out);
    packet->setMetadata(&meta);
    return packet;
}

IxChainData* deliver(IxChainData* data, SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata& meta)
{
    stamp(out, in);
    CxImageData* packet = wrap(out, meta);
    delete data;
    return packet;
}

void tell(CxChainable* node, const QString& message)
{
    if (node->errorMessage().isEmpty())
        node->setErrorMessage(message);
}

bool attribute(const QDomElement& element, const QString& name, bool current, On rule, bool* ok)
{
    if (ok)
        *ok = true;
    if (!element.hasAttribute(name))
        return current;
    const QString text = element.attribute(name, QString());
    switch (rule) {
    case On::AboveZero: return text.toInt(ok, 10) > 0;
    case On::NonZero: return text.toInt(ok, 10) != 0;
    case On::UnlessTextIsZero: return text != QLatin1String("0");
    }
    return current;
}

QString cellColourName(const char* context, quint32 cfa, int cell)
{
    struct SxCell
    {
        const char* colour;
        int number;  // 0: the only cell of its colour; 1, 2: first and second
    };
    static const SxCell cells[6][4] = {
        {{"Red", 0}, {"Green", 1}, {"Green", 2}, {"Blue", 0}},
        {{"Green", 1}, {"Red", 0}, {"Blue", 0}, {"Green", 2}},
        {{"Green", 1}, {"Blue", 0}, {"Red", 0}, {"Green", 2}},
        {{"Blue", 0}, {"Green", 1}, {"Green", 2}, {"Red", 0}},
        {{"Cyan", 0}, {"Magenta", 0}, {"Yellow", 0}, {"Green", 0}},
        {{"Red", 1}, {"Green", 0}, {"Blue", 0}, {"Red", 2}},
    };
    if (!isTwoByTwoMosaic(cfa) || cell < 0 || cell > 3)
        return QString();
    const SxCell& c = cells[cfa - CFA_BAYER_RGGB][cell];
    const QString name = QCoreApplication::translate(context, c.colour);
    return c.number == 0 ? name : name + QLatin1Char(' ') + QString::number(c.number);
}

// The colour names above, for the translation tools, in the contexts of the
// nodes that show them.
[[maybe_unused]] const char* const kColourTexts[] = {
    QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Red"),     QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Green"),
    QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Blue"),    QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Cyan"),
    QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Magenta"), QT_TRANSLATE_NOOP("CxExtractChannelCnbl", "Yellow"),
    QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Red"),              QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Green"),
    QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Blue"),             QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Cyan"),
    QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Magenta"),          QT_TRANSLATE_NOOP("CxFFT2DCnbl", "Yellow"),
};

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

void fillChannelList(QListWidget* list, const QList<QString>& names, const QList<int>& indices, int current)
{
    for (int i = 0; i < names.size() && i < indices.size(); ++i) {
        auto* item = new QListWidgetItem(names.at(i));
        item->setData(Qt::UserRole, indices.at(i));
        list->addItem(item);
        if (indices.at(i) == current)
            list->setCurrentItem(item);
    }
    if (QListWidgetItem* item = list->currentItem())
        list->scrollToItem(item);
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
