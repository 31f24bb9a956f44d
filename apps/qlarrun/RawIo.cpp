#include "RawIo.h"

#include "PictureFile.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("RawIo", text);
}

const struct
{
    const char* name;
    ExImageDataType type;
} TypeNames[] = {{"u8", IDT_UINT8},  {"s8", IDT_INT8},   {"u16", IDT_UINT16}, {"s16", IDT_INT16},
                 {"u32", IDT_UINT32}, {"s32", IDT_INT32}, {"f32", IDT_FLOAT}};

} // namespace

namespace RawIo {

SxPicBufInfo SxRawFormat::info() const
{
    SxPicBufInfo f;
    f.width = width;
    f.height = height;
    f.channels = 1;
    f.dataType = dataType;
    f.bitsPerSample = bitsPerSample ? bitsPerSample : bytesPerSampleOf(dataType) * 8;
    f.colorFilterArray = colorFilterArray;
    f.linePitch = quint32(f.packedLineBytes());
    return f;
}

ExImageDataType typeFromName(const QString& name)
{
    for (const auto& t : TypeNames) {
        if (name == QLatin1String(t.name))
            return t.type;
    }
    return IDT_UNKNOWN;
}

QString typeNames()
{
    QStringList names;
    for (const auto& t : TypeNames)
        names << QString::fromLatin1(t.name);
    return names.join(QLatin1String(", "));
}

bool read(const QString& path, const SxRawFormat& format, SxPicBuf& pic, CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(path, what);
        return false;
    };
    const SxPicBufInfo info = format.info();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(tr("cannot open the file (%1)").arg(file.errorString()));
    const quint64 need = info.requiredBytes();
    if (quint64(file.size()) != need)
        return fail(tr("the file has %1 bytes, a %2 raw frame needs %3").arg(file.size()).arg(info.describe()).arg(need));
    QString why;
    if (!PictureFile::preparePicture(pic, info, &why))
        return fail(why);
    if (file.read(reinterpret_cast<char*>(pic.data), qint64(need)) != qint64(need))
        return fail(tr("cannot read the file (%1)").arg(file.errorString()));
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    return true;
}

} // namespace RawIo
