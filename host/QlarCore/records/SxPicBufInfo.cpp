#include "SxPicBufInfo.h"

#include <KitPicture.h>

#include <QtCore/QSysInfo>

// Colour pictures share their memory order with Qt's 32-bit pictures only on
// little-endian machines.
static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "colour pictures are laid out for little-endian machines");

quint64 SxPicBufInfo::requiredBytes() const
{
    return pixelkit::requiredBytes(*this);
}

quint64 SxPicBufInfo::fullScale() const
{
    return pixelkit::fullScale(*this);
}

bool SxPicBufInfo::isValidFormat() const
{
    if (width == 0 || height == 0 || channels == 0)
        return false;
    if (dataType == IDT_UNKNOWN || dataType > IDT_HALF)
        return false;
    return linePitch == 0 || linePitch >= packedLineBytes();
}

bool SxPicBufInfo::sameFormat(const SxPicBufInfo& o) const
{
    return width == o.width && height == o.height && linePitch == o.linePitch && channels == o.channels
        && bitsPerSample == o.bitsPerSample && userFlags == o.userFlags && dataType == o.dataType
        && storageFormat == o.storageFormat && colorFilterArray == o.colorFilterArray && isColor == o.isColor;
}

QString dataTypeName(ExImageDataType t)
{
    switch (t) {
    case IDT_INT8: return QStringLiteral("s8");
    case IDT_UINT8: return QStringLiteral("u8");
    case IDT_INT16: return QStringLiteral("s16");
    case IDT_UINT16: return QStringLiteral("u16");
    case IDT_INT32: return QStringLiteral("s32");
    case IDT_UINT32: return QStringLiteral("u32");
    case IDT_INT64: return QStringLiteral("s64");
    case IDT_UINT64: return QStringLiteral("u64");
    case IDT_FLOAT: return QStringLiteral("f32");
    case IDT_DOUBLE: return QStringLiteral("f64");
    case IDT_HALF: return QStringLiteral("f16");
    default: return QStringLiteral("type%1").arg(quint32(t));
    }
}

QString SxPicBufInfo::describe() const
{
    static const char* const cfaNames[] = {"", "RGGB", "GRBG", "GBRG", "BGGR", "CMYG", "RGBR", "HSI"};
    QString s = QStringLiteral("%1x%2 %3 x%4").arg(width).arg(height).arg(dataTypeName(dataType)).arg(channels);
    if (bitsPerSample && bitsPerSample != bytesPerSample() * 8)
        s += QStringLiteral(" (%1 bits)").arg(bitsPerSample);
    if (colorFilterArray != CFA_NONE) {
        s += QStringLiteral(" mosaic %1").arg(colorFilterArray <= CFA_HSI_MOSAIC
                                                  ? QString::fromLatin1(cfaNames[colorFilterArray])
                                                  : QString::number(quint32(colorFilterArray)));
        if (storageFormat == DSF_NOT_RAW)
            s += QStringLiteral(" (not raw)");
    }
    if (isColor)
        s += QStringLiteral(" colour");
    return s;
}
