#include "PictureFile.h"

#include <CxPicBufAPI.h>

#include <QtCore/QCoreApplication>

namespace PictureFile {

QString fileError(const QString& path, const QString& what)
{
    return QStringLiteral("%1: %2").arg(path, what);
}

bool preparePicture(SxPicBuf& pic, const SxPicBufInfo& format, QString* error)
{
    const quint64 rowBytes = format.packedLineBytes();
    if (format.width == 0 || format.height == 0 || format.width > MaxSide || format.height > MaxSide
        || format.channels == 0 || rowBytes > MaxBytes || rowBytes * format.height > MaxBytes
        || !isFileSampleType(format.dataType)) {
        *error = QCoreApplication::translate("PictureFile", "a picture of %1 is beyond what this program reads")
                     .arg(format.describe());
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

QStringList colourChannelNames(quint32 channels)
{
    if (channels == 3)
        return {QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B")};
    if (channels == 4)
        return {QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B"), QStringLiteral("A")};
    return {};
}

} // namespace PictureFile
