#include "PictureFile.h"

#include <CxPicBufAPI.h>

#include <QtCore/QCoreApplication>

#include <cstring>

namespace PictureFile {

QString fileError(const QString& path, const QString& what)
{
    return QStringLiteral("%1: %2").arg(path, what);
}

quint64 maxSamples()
{
    bool ok = false;
    const quint64 value = qEnvironmentVariable("QLAR_MAX_PICTURE_SAMPLES").toULongLong(&ok);
    return ok && value > 0 ? value : DefaultMaxSamples;
}

QString beyondLimits(const SxPicBufInfo& format)
{
    const quint64 rowBytes = format.packedLineBytes();
    if (format.width == 0 || format.height == 0 || format.width > MaxSide || format.height > MaxSide
        || format.channels == 0 || rowBytes > MaxBytes || rowBytes * format.height > MaxBytes
        || !isFileSampleType(format.dataType))
        return QCoreApplication::translate("PictureFile", "a picture of %1 is beyond what this program reads")
            .arg(format.describe());
    const quint64 samples = quint64(format.width) * format.height * format.channels;
    if (samples > maxSamples())
        return QCoreApplication::translate("PictureFile",
                                           "a picture of %1 has %2 samples, more than the limit of %3 "
                                           "(QLAR_MAX_PICTURE_SAMPLES raises it)")
            .arg(format.describe())
            .arg(samples)
            .arg(maxSamples());
    return QString();
}

bool preparePicture(SxPicBuf& pic, const SxPicBufInfo& format, QString* error)
{
    const quint64 rowBytes = format.packedLineBytes();
    const QString beyond = beyondLimits(format);
    if (!beyond.isEmpty()) {
        *error = beyond;
        return false;
    }
    SxPicBufInfo packed = format;
    packed.linePitch = quint32(rowBytes);
    const quint64 bytes = packed.requiredBytes();
    if (pic.data && pic.memOrigin == SxPicBuf::MemHeap && pic.memCapacity >= bytes) {
        pic.setPicFormat(packed);
        return true;
    }
    CxPicBufAPI::FreePicBuf(pic, true);
    if (!CxPicBufAPI::AllocPicBufFromHeap(pic, packed, false, 0)) {
        *error = QCoreApplication::translate("PictureFile", "no memory for a picture of %1").arg(format.describe());
        return false;
    }
    return true;
}

bool isFileSampleType(ExImageDataType type)
{
    switch (type) {
    case IDT_INT8: case IDT_UINT8: case IDT_INT16: case IDT_UINT16:
    case IDT_INT32: case IDT_UINT32: case IDT_FLOAT:
        return true;
    default:
        return false;
    }
}

QString frameName(const QString& path, ExFrameUnit unit, qint64 index, qint64 count)
{
    if (count == 1)
        return path;
    const char* const words[] = {QT_TRANSLATE_NOOP("PictureFile", "page"), QT_TRANSLATE_NOOP("PictureFile", "image"),
                                 QT_TRANSLATE_NOOP("PictureFile", "frame")};
    const QString word = QCoreApplication::translate("PictureFile", words[unit]);
    if (count <= 0)
        return QCoreApplication::translate("PictureFile", "%1 (%2 %3)").arg(path, word).arg(index + 1);
    return QCoreApplication::translate("PictureFile", "%1 (%2 %3 of %4)").arg(path, word).arg(index + 1).arg(count);
}

namespace {

template <class T>
void swapRedBlueT(uchar* row, quint64 pixels, quint32 channels)
{
    const size_t step = size_t(channels) * sizeof(T);
    for (quint64 x = 0; x < pixels; ++x, row += step) {
        T red, blue;
        std::memcpy(&red, row, sizeof(T));
        std::memcpy(&blue, row + 2 * sizeof(T), sizeof(T));
        std::memcpy(row, &blue, sizeof(T));
        std::memcpy(row + 2 * sizeof(T), &red, sizeof(T));
    }
}

} // namespace

void swapRedBlue(uchar* row, quint64 pixels, quint32 channels, quint32 sampleBytes)
{
    switch (sampleBytes) {
    case 1: swapRedBlueT<quint8>(row, pixels, channels); break;
    case 2: swapRedBlueT<quint16>(row, pixels, channels); break;
    case 4: swapRedBlueT<quint32>(row, pixels, channels); break;
    case 8: swapRedBlueT<quint64>(row, pixels, channels); break;
    default: break;
    }
}

} // namespace PictureFile
