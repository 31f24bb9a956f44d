#include "RawIo.h"

#include "PictureFile.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

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

bool frameCount(const QString& path, const SxRawFormat& format, qint64& count, QString* error)
{
    const SxPicBufInfo info = format.info();
    const qint64 size = QFileInfo(path).size();
    const qint64 need = qint64(info.requiredBytes());
    count = need > 0 ? size / need : 0;
    if (count < 1 || size % need != 0) {
        *error = PictureFile::fileError(path, tr("the file has %1 bytes, a %2 raw frame needs %3 (or a whole multiple "
                                                 "of it for a recording)")
                                                  .arg(size).arg(info.describe()).arg(need));
        return false;
    }
    return true;
}

bool read(const QString& path, const SxRawFormat& format, qint64 frame, const QString& name, SxPicBuf& pic,
          CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(name, what);
        return false;
    };
    const SxPicBufInfo info = format.info();
    QString why;
    if (!PictureFile::preparePicture(pic, info, &why))
        return fail(why);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(tr("cannot open the file (%1)").arg(file.errorString()));
    const qint64 need = qint64(info.requiredBytes());
    if (!file.seek(frame * need) || file.read(reinterpret_cast<char*>(pic.data), need) != need)
        return fail(tr("the file ends before the frame does"));
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    return true;
}

} // namespace RawIo
